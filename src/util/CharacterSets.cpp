#include "util/CharacterSets.h"

#include <cstdint>

#include <unicode/uchar.h>

#include "util/Utf8.h"

namespace korvo {

namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

bool isTrail(std::uint8_t byte, std::uint8_t low = 0x80, std::uint8_t high = 0xBF) {
    return byte >= low && byte <= high;
}

}  // namespace

char32_t nextCodePoint(std::string_view text, std::size_t& index) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const std::size_t size = text.size();
    const std::uint8_t lead = bytes[index++];
    if (lead < 0x80) return lead;

    int trailCount;
    char32_t value;
    // The first trail byte's range excludes overlong forms, surrogates and
    // values above U+10FFFF, so a maximal subpart ends at the first bad byte.
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        trailCount = 1;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        trailCount = 2;
        value = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        trailCount = 3;
        value = lead & 0x07;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return kReplacementCharacter;
    }
    for (int i = 0; i < trailCount; ++i) {
        if (index >= size || !isTrail(bytes[index], low, high)) return kReplacementCharacter;
        value = (value << 6) | (bytes[index] & 0x3F);
        ++index;
        low = 0x80;
        high = 0xBF;
    }
    return value;
}

void appendCodePoint(std::string& target, char32_t c) {
    if (c < 0x80) {
        target.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        target.push_back(static_cast<char>(0xC0 | (c >> 6)));
        target.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        target.push_back(static_cast<char>(0xE0 | (c >> 12)));
        target.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        target.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        target.push_back(static_cast<char>(0xF0 | (c >> 18)));
        target.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        target.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        target.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

std::string repairedUTF8(std::string_view text) {
    if (isValidUTF8(text)) return std::string(text);
    std::string result;
    result.reserve(text.size() + 8);
    for (std::size_t i = 0; i < text.size();) appendCodePoint(result, nextCodePoint(text, i));
    return result;
}

bool isWhitespaceOrNewline(char32_t c) {
    if (c == 0x09 || (c >= 0x0A && c <= 0x0D) || c == 0x85) return true;
    if (c == 0x20) return true;
    if (c < 0x80) return false;
    const auto type = u_charType(static_cast<UChar32>(c));
    return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

bool isNewline(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool isControlCharacter(char32_t c) {
    if (c < 0x20 || c == 0x7F) return true;
    if (c < 0x80) return false;
    const auto type = u_charType(static_cast<UChar32>(c));
    return type == U_CONTROL_CHAR || type == U_FORMAT_CHAR;
}

bool isLowercaseLetter(char32_t c) {
    return u_charType(static_cast<UChar32>(c)) == U_LOWERCASE_LETTER;
}

std::string_view trimmedWhitespaceAndNewlines(std::string_view text) {
    std::size_t begin = text.size();
    std::size_t end = 0;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t start = i;
        if (!isWhitespaceOrNewline(nextCodePoint(text, i))) {
            if (begin == text.size()) begin = start;
            end = i;
        }
    }
    if (begin == text.size()) return text.substr(0, 0);
    return text.substr(begin, end - begin);
}

icu::UnicodeString unicodeFromUTF8(std::string_view text) {
    icu::UnicodeString result;
    if (text.size() > static_cast<std::size_t>(INT32_MAX)) {
        result.setToBogus();
        return result;
    }
    if (isValidUTF8(text)) {
        return icu::UnicodeString::fromUTF8(
            icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
    }
    for (std::size_t i = 0; i < text.size() && !result.isBogus();) {
        result.append(static_cast<UChar32>(nextCodePoint(text, i)));
    }
    return result;
}

std::string utf8FromUnicode(const icu::UnicodeString& text) {
    std::string result;
    text.toUTF8String(result);
    return result;
}

}  // namespace korvo
