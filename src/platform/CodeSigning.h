// Code signatures: the state of an executable on disk, and the check of a
// running client against a requirement. Statuses use the Security framework's
// numbers on every platform, so that logs read the same everywhere.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace korvo::platform {

enum class CodeSignState : int {
    Unsigned = 1,
    Valid = 2,
    InvalidSignature = 3,
    NotVerifiable = 4,
    Unsupported = 5,
    CouldNotCheck = 6,
};

// OSStatus values of the code-signing service.
namespace codesign_status {
inline constexpr int kSuccess = 0;
inline constexpr int kUnsigned = -67062;            // errSecCSUnsigned
inline constexpr int kSignatureFailed = -67061;     // errSecCSSignatureFailed
inline constexpr int kSignatureNotVerifiable = -67060;
inline constexpr int kSignatureUnsupported = -67059;
inline constexpr int kSignatureInvalid = -67045;
inline constexpr int kNoSuchCode = -67065;          // errSecCSNoSuchCode: no process / no code
inline constexpr int kGuestInvalid = -67063;        // errSecCSGuestInvalid: the process now runs other code
inline constexpr int kStaticCodeNotFound = -67068;  // errSecCSStaticCodeNotFound: unreadable file
inline constexpr int kRequirementInvalid = -67052;  // errSecCSReqInvalid: requirement text does not parse
inline constexpr int kRequirementFailed = -67050;   // errSecCSReqFailed: code does not satisfy it
}  // namespace codesign_status

// The code of a running process, pinned at look-up time so that a process
// identifier reused later cannot substitute another program.
class GuestCode {
public:
    virtual ~GuestCode() = default;
    virtual pid_t pid() const = 0;
};

// A parsed requirement text.
class CodeRequirement {
public:
    virtual ~CodeRequirement() = default;
};

class CodeSigning {
public:
    virtual ~CodeSigning() = default;

    // The signature state of the executable at path; never 0. An unsigned
    // system executable counts as valid (Linux: root-owned, in folders only
    // root can write). A query: launches use the two checks below.
    virtual CodeSignState codeSignStateForExecutable(const std::string& path) = 0;

    // The checks before a launch, made on the open regular file that the
    // child is then started from, so that what was checked is what runs.
    //
    // A program named through the client (everything of its bundle): a
    // status of codesign_status, 0 when the signature is intact and the
    // signer satisfies the requirement text. No system-executable rule.
    virtual int checkExecutable(int fd, std::string_view requirement) = 0;
    // A system tool at one of the fixed paths that the helper names itself,
    // never a path a caller can influence: its state, in which an unsigned
    // system executable counts as valid.
    virtual CodeSignState codeSignStateForSystemExecutable(int fd) = 0;

    // The three steps of client acceptance; each returns a status from
    // codesign_status (0 on success).
    virtual int copyGuestWithPid(pid_t pid, std::unique_ptr<GuestCode>& guest) = 0;
    virtual int createRequirement(std::string_view text, std::unique_ptr<CodeRequirement>& requirement) = 0;
    virtual int checkValidity(const GuestCode& guest, const CodeRequirement& requirement) = 0;
};

// The platform's code-signing service (Linux: appended CMS signatures checked
// against the anchors compiled into the helper).
std::unique_ptr<CodeSigning> makeSystemCodeSigning();

}  // namespace korvo::platform
