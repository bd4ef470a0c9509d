// The helper's error values: its own domain with the fixed code table, and
// file-system errors in Foundation's domain and codes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "util/Value.h"

namespace korvo {

inline constexpr std::string_view KorvoErrorDomain = "com.tallowmar.Korvo";
inline constexpr std::string_view CocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view POSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view LocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view UnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view FilePathErrorKey = "NSFilePath";

// The vendor's knowledge-base page, quoted by the description of code 54.
inline constexpr std::string_view KorvoKnowledgeBaseURL = "https://www.tallowmar.com/korvo/kb";

// The codes of the helper's own domain that its requests give, by name.
enum KorvoErrorCode : std::int64_t {
    kGeneralErrorCode = 1,
    kHelperProblemCode = 55,
    kRequiredFileMissingCode = 62,
    kInvalidParameterCode = 64,
    kProcessTerminationCode = 65,
    kRoutingErrorCode = 66,
    kKnownHostsErrorCode = 67,
    kLaunchingCode = 68,  // also every interface failure
    kInvalidSignatureCode = 69,
    kScriptFailureCode = 70,
    kResetLeftVPNProcessCode = 74,
};

// An error as the client receives it: domain, code and user information.
// userInfo is nullopt when the error carries none at all.
struct KorvoError {
    std::string domain;
    std::int64_t code = 0;
    std::optional<Dictionary> userInfo;

    // The NSLocalizedDescription entry, when there is one.
    std::optional<std::string> localizedDescription() const;
    // The description, or a generic text naming domain and code.
    std::string displayText() const;

    // The error as a dictionary with "domain", "code", "description" and
    // "userInfo", the shape in which replies carry it.
    Dictionary toDictionary() const;
    static std::optional<KorvoError> fromDictionary(const Dictionary& d);

    friend bool operator==(const KorvoError&, const KorvoError&) = default;
};

// nullopt means success.
using MaybeError = std::optional<KorvoError>;

std::optional<std::string> localizedDescriptionForKorvoErrorCode(std::int64_t code);
KorvoError errorWithKorvoErrorCode(std::int64_t code);
KorvoError errorWithKorvoErrorCode(std::int64_t code, const std::optional<std::string>& message);
KorvoError errorWithKorvoErrorCode(std::int64_t code, const std::optional<std::string>& message,
                                   const std::optional<Dictionary>& userInfo);

// What the failed file-system call was doing; selects Foundation's code.
enum class FileOperation { Read, Write, Remove, SetAttributes, ListDirectory, CreateDirectory };

// A file-system failure as Foundation reports it: NSCocoaErrorDomain with the
// matching file code (4 no such file on removal, 260 on read, 513 no
// permission to write, ...), the path, and the POSIX error underneath.
KorvoError fileSystemError(int posixErrno, FileOperation operation, std::string_view path);

// A value or an error.
template <typename T>
class Result {
public:
    Result(T value) : v_(std::move(value)) {}
    Result(KorvoError error) : v_(std::move(error)) {}

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }
    T& value() { return std::get<0>(v_); }
    const T& value() const { return std::get<0>(v_); }
    T& operator*() { return value(); }
    const T& operator*() const { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    const KorvoError& error() const { return std::get<1>(v_); }

private:
    std::variant<T, KorvoError> v_;
};

}  // namespace korvo
