#include "util/StringAdditions.h"

#include <unicode/locid.h>
#include <unicode/stringoptions.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <vector>

#include "util/CharacterSets.h"
#include "util/DataAdditions.h"
#include "util/Digest.h"
#include "util/Format.h"
#include "util/SubstringSearch.h"
#include "util/Utf8.h"

namespace korvo {

namespace {

struct DisplayWord {
    std::string_view key;
    std::string_view display;
};

constexpr std::array<DisplayWord, 8> kProfileWords{{
    {"vpn", "VPN"},
    {"openvpn", "OpenVPN"},
    {"wireguard", "WireGuard"},
    {"amneziawg", "AmneziaWG"},
    {"ipsec", "IPsec"},
    {"ssh", "SSH"},
    {"usa", "USA"},
    {"uk", "UK"},
}};

std::string textDigest(DigestAlgorithm algorithm, std::string_view text) {
    if (isValidUTF8(text)) return hexString(digestOf(algorithm, bytesOf(text)));
    return hexString(digestOf(algorithm, bytesOf(repairedUTF8(text))));
}

// Every occurrence of `from` replaced by `to`, scanning left to right.
std::string replacingOccurrences(std::string_view text, std::string_view from, std::string_view to) {
    std::string result;
    result.reserve(text.size());
    const SubstringFinder<char> finder(from);
    std::size_t start = 0;
    for (std::size_t found = finder.find(text); found != finder.npos; found = finder.find(text, start)) {
        result.append(text, start, found - start);
        result.append(to);
        start = found + from.size();
    }
    result.append(text, start);
    return result;
}

bool isProfileNameSeparator(char32_t c) {
    return c == '_' || c == '-' || c == '.' || c == '+' || isWhitespaceOrNewline(c);
}

std::vector<std::string_view> profileNamePieces(std::string_view name) {
    std::vector<std::string_view> pieces;
    std::size_t pieceStart = 0;
    for (std::size_t i = 0; i < name.size();) {
        const std::size_t start = i;
        if (isProfileNameSeparator(nextCodePoint(name, i))) {
            if (start > pieceStart) pieces.push_back(name.substr(pieceStart, start - pieceStart));
            pieceStart = i;
        }
    }
    if (name.size() > pieceStart) pieces.push_back(name.substr(pieceStart));
    return pieces;
}

bool isLowercaseWord(std::string_view piece) {
    for (std::size_t i = 0; i < piece.size();) {
        if (!isLowercaseLetter(nextCodePoint(piece, i))) return false;
    }
    return true;
}

std::string displayFormOfPiece(std::string_view piece) {
    icu::UnicodeString lower = unicodeFromUTF8(piece);
    lower.toLower(icu::Locale::getRoot());
    const std::string key = utf8FromUnicode(lower);
    const auto* word = std::find_if(kProfileWords.begin(), kProfileWords.end(),
                                    [&](const DisplayWord& entry) { return entry.key == key; });
    if (word != kProfileWords.end()) return std::string(word->display);
    if (!isLowercaseWord(piece)) return repairedUTF8(piece);
    // First letter in title case, as a capitalized word; the rest already is
    // lower case.
    icu::UnicodeString capitalized = unicodeFromUTF8(piece);
    capitalized.toTitle(nullptr, icu::Locale::getRoot(), U_TITLECASE_WHOLE_STRING | U_TITLECASE_NO_LOWERCASE);
    return utf8FromUnicode(capitalized);
}

}  // namespace

std::string md5(std::string_view text) { return textDigest(DigestAlgorithm::MD5, text); }
std::string sha1(std::string_view text) { return textDigest(DigestAlgorithm::SHA1, text); }
std::string sha224(std::string_view text) { return textDigest(DigestAlgorithm::SHA224, text); }
std::string sha256(std::string_view text) { return textDigest(DigestAlgorithm::SHA256, text); }
std::string sha384(std::string_view text) { return textDigest(DigestAlgorithm::SHA384, text); }
std::string sha512(std::string_view text) { return textDigest(DigestAlgorithm::SHA512, text); }

std::string stringByStrippingDoubleSpaces(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c == ' ' && !result.empty() && result.back() == ' ') continue;
        result.push_back(c);
    }
    return repairedUTF8(result);
}

std::string stringWithOpenVPNSlashEscapes(std::string_view text) {
    const std::string repaired = repairedUTF8(text);
    return replacingOccurrences(replacingOccurrences(repaired, "\\", "\\\\"), "\"", "\\\"");
}

std::string stringByHumanizingProfileName(std::string_view name) {
    const std::string_view trimmed = trimmedWhitespaceAndNewlines(name);
    if (trimmed.empty()) return repairedUTF8(name);
    std::string result;
    for (const std::string_view piece : profileNamePieces(trimmed)) {
        if (!result.empty()) result.push_back(' ');
        result += displayFormOfPiece(piece);
    }
    return result.empty() ? repairedUTF8(trimmed) : result;
}

std::optional<std::string> stringByDecodingBase64(std::string_view base64, StringEncoding encoding) {
    const Data bytes = dataFromBase64String(base64);
    return decodeText({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, encoding);
}

std::optional<std::string> stringByEncodingBase64(std::string_view text, StringEncoding encoding) {
    const std::optional<Data> bytes = encodeText(text, encoding);
    if (!bytes) return std::nullopt;
    return base64EncodedString(*bytes);
}

void appendStringLine(std::string& target, std::string_view line) {
    target.reserve(target.size() + line.size() + 1);
    for (std::size_t i = 0; i < line.size();) {
        const char32_t c = nextCodePoint(line, i);
        if (isNewline(c) || isControlCharacter(c)) continue;
        appendCodePoint(target, c);
    }
    target.push_back('\n');
}

void appendFormatLine(std::string& target, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = formatStringV(format, args);
    va_end(args);
    appendStringLine(target, line);
}

void replacePlaceholder(std::string& target, std::string_view placeholder, std::optional<std::string_view> value,
                        std::optional<std::string_view> defaultValue) {
    const std::optional<std::string_view> replacement = value ? value : defaultValue;
    if (!replacement || placeholder.empty()) return;
    // On well-formed UTF-8 a byte match is a match of whole characters.
    target = replacingOccurrences(repairedUTF8(target), repairedUTF8(placeholder), repairedUTF8(*replacement));
}

}  // namespace korvo
