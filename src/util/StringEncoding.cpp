#include "util/StringEncoding.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>

#include <climits>
#include <memory>

#include "util/CharacterSets.h"
#include "util/Utf8.h"

namespace korvo {

namespace {

const char* converterName(StringEncoding encoding) {
    switch (encoding) {
        case StringEncoding::ASCII: return "US-ASCII";
        case StringEncoding::JapaneseEUC: return "EUC-JP";
        case StringEncoding::UTF8: return "UTF-8";
        case StringEncoding::ISOLatin1: return "ISO-8859-1";
        case StringEncoding::ShiftJIS: return "Shift_JIS";
        case StringEncoding::ISOLatin2: return "ISO-8859-2";
        case StringEncoding::Unicode: return "UTF-16";
        case StringEncoding::WindowsCP1251: return "windows-1251";
        case StringEncoding::WindowsCP1252: return "windows-1252";
        case StringEncoding::WindowsCP1253: return "windows-1253";
        case StringEncoding::WindowsCP1254: return "windows-1254";
        case StringEncoding::WindowsCP1250: return "windows-1250";
        case StringEncoding::ISO2022JP: return "ISO-2022-JP";
        case StringEncoding::MacOSRoman: return "macintosh";
        case StringEncoding::UTF16BigEndian: return "UTF-16BE";
        case StringEncoding::UTF16LittleEndian: return "UTF-16LE";
        case StringEncoding::UTF32: return "UTF-32";
        case StringEncoding::UTF32BigEndian: return "UTF-32BE";
        case StringEncoding::UTF32LittleEndian: return "UTF-32LE";
    }
    return nullptr;
}

struct ConverterCloser {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

// Leaves the error set, so that the conversion stops. ICU's own stopping
// callback silently drops unmappable default-ignorable characters (U+FFF5,
// U+200B, ...), which would make a lossy conversion look like a good one.
void stopOnUnmappable(const void*, UConverterFromUnicodeArgs*, const UChar*, std::int32_t, UChar32,
                      UConverterCallbackReason, UErrorCode*) {}

// A converter that stops at the first character it cannot map either way.
Converter openStrictConverter(const char* name) {
    UErrorCode status = U_ZERO_ERROR;
    Converter converter(ucnv_open(name, &status));
    if (U_FAILURE(status)) return nullptr;
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    ucnv_setFromUCallBack(converter.get(), stopOnUnmappable, nullptr, nullptr, nullptr, &status);
    if (U_FAILURE(status)) return nullptr;
    return converter;
}

constexpr std::size_t kMaximumUnits = INT32_MAX / 4;

}  // namespace

std::optional<Data> encodeText(std::string_view text, StringEncoding encoding) {
    if (encoding == StringEncoding::UTF8) {
        const std::string repaired = repairedUTF8(text);
        return Data(repaired.begin(), repaired.end());
    }
    // The byte-order-mark forms are written in the order of the machines the
    // client runs on, little-endian.
    if (encoding == StringEncoding::Unicode) {
        auto body = encodeText(text, StringEncoding::UTF16LittleEndian);
        if (body) body->insert(body->begin(), {0xFF, 0xFE});
        return body;
    }
    if (encoding == StringEncoding::UTF32) {
        auto body = encodeText(text, StringEncoding::UTF32LittleEndian);
        if (body) body->insert(body->begin(), {0xFF, 0xFE, 0x00, 0x00});
        return body;
    }
    const char* name = converterName(encoding);
    if (name == nullptr || text.size() > kMaximumUnits) return std::nullopt;
    const Converter converter = openStrictConverter(name);
    if (!converter) return std::nullopt;

    const icu::UnicodeString unicode = unicodeFromUTF8(text);
    if (unicode.isBogus()) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t needed =
        ucnv_fromUChars(converter.get(), nullptr, 0, unicode.getBuffer(), unicode.length(), &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
    Data bytes(static_cast<std::size_t>(needed) + 1);
    status = U_ZERO_ERROR;
    ucnv_resetFromUnicode(converter.get());
    const std::int32_t written = ucnv_fromUChars(converter.get(), reinterpret_cast<char*>(bytes.data()),
                                                 static_cast<std::int32_t>(bytes.size()), unicode.getBuffer(),
                                                 unicode.length(), &status);
    if (U_FAILURE(status)) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(written));
    return bytes;
}

std::optional<std::string> decodeText(std::string_view bytes, StringEncoding encoding) {
    if (encoding == StringEncoding::UTF8) {
        if (!isValidUTF8(bytes)) return std::nullopt;
        return std::string(bytes);
    }
    const char* name = converterName(encoding);
    if (name == nullptr || bytes.size() > kMaximumUnits) return std::nullopt;
    const Converter converter = openStrictConverter(name);
    if (!converter) return std::nullopt;

    UErrorCode status = U_ZERO_ERROR;
    const auto length = static_cast<std::int32_t>(bytes.size());
    const std::int32_t needed = ucnv_toUChars(converter.get(), nullptr, 0, bytes.data(), length, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
    icu::UnicodeString unicode;
    UChar* buffer = unicode.getBuffer(needed + 1);
    if (buffer == nullptr) return std::nullopt;
    status = U_ZERO_ERROR;
    ucnv_resetToUnicode(converter.get());
    const std::int32_t written = ucnv_toUChars(converter.get(), buffer, needed + 1, bytes.data(), length, &status);
    unicode.releaseBuffer(U_SUCCESS(status) ? written : 0);
    if (U_FAILURE(status)) return std::nullopt;
    // Unpaired surrogates (possible in UTF-16 input) have no UTF-8 form.
    for (std::int32_t i = 0; i < unicode.length();) {
        const UChar32 c = unicode.char32At(i);
        if (U_IS_SURROGATE(c)) return std::nullopt;
        i += U16_LENGTH(c);
    }
    return utf8FromUnicode(unicode);
}

}  // namespace korvo
