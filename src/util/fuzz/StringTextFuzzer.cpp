// The text utilities on any bytes: search options, profile names, line
// building, escaping, space collapsing, placeholders and text encodings keep
// their defining properties and always give well-formed UTF-8.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/CharacterSets.h"
#include "util/StringAdditions.h"
#include "util/Utf8.h"
#include "util/fuzz/FuzzCheck.h"

namespace {

using namespace korvo;

std::string withoutSpaces(std::string_view text) {
    std::string result;
    std::copy_if(text.begin(), text.end(), std::back_inserter(result), [](char c) { return c != ' '; });
    return result;
}

std::string unescaped(std::string_view escaped) {
    std::string result;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] == '\\') {
            FUZZ_CHECK(i + 1 < escaped.size() && (escaped[i + 1] == '\\' || escaped[i + 1] == '"'));
            ++i;
        } else {
            FUZZ_CHECK(escaped[i] != '"');
        }
        result.push_back(escaped[i]);
    }
    return result;
}

void checkSearch(std::string_view text, std::string_view needle, StringSearchOptions options) {
    const bool found = containsString(text, needle, options);
    FUZZ_CHECK(!(needle.empty() && found));
    if (!needle.empty() && (options & kAnchoredSearch) != 0) {
        FUZZ_CHECK(!found || containsString(text, needle, options & ~(kAnchoredSearch | kBackwardsSearch)));
    }
    const bool literal = containsString(text, needle, kLiteralSearch);
    FUZZ_CHECK(literal == (!needle.empty() && repairedUTF8(text).find(repairedUTF8(needle)) != std::string::npos));
    const std::vector<std::string> words{std::string(needle), std::string(text)};
    const bool plain = containsString(text, needle);
    FUZZ_CHECK(numberOfHitsFromArray(text, words) == (plain ? 1 : 0) + (text.empty() ? 0 : 1));
    FUZZ_CHECK(containsWordInArray(text, {words.data(), 1}) == plain);
    FUZZ_CHECK(isEqualToWordInArray(text, words));
}

void checkProfileName(std::string_view text) {
    const std::string human = stringByHumanizingProfileName(text);
    FUZZ_CHECK(isValidUTF8(human));
    const std::string_view trimmed = trimmedWhitespaceAndNewlines(text);
    if (trimmed.empty()) {
        FUZZ_CHECK(human == repairedUTF8(text));
        return;
    }
    if (human == repairedUTF8(trimmed)) return;  // separators only
    FUZZ_CHECK(human.find_first_of("_-.+") == std::string::npos);
    FUZZ_CHECK(human.find("  ") == std::string::npos && human.front() != ' ' && human.back() != ' ');
}

void checkLineBuilding(std::string_view text) {
    std::string target = "x";
    appendStringLine(target, text);
    FUZZ_CHECK(isValidUTF8(target) && target.back() == '\n');
    FUZZ_CHECK(std::count(target.begin(), target.end(), '\n') == 1);
    for (std::size_t i = 0; i + 1 < target.size();) {
        const char32_t c = nextCodePoint(target, i);
        FUZZ_CHECK(!isControlCharacter(c) && !isNewline(c));
    }
}

void checkRewrites(std::string_view text, std::string_view needle) {
    const std::string repaired = repairedUTF8(text);
    FUZZ_CHECK(unescaped(stringWithOpenVPNSlashEscapes(text)) == repaired);

    const std::string collapsed = stringByStrippingDoubleSpaces(text);
    FUZZ_CHECK(collapsed.find("  ") == std::string::npos);
    FUZZ_CHECK(withoutSpaces(collapsed) == withoutSpaces(repaired));

    std::string same(text);
    replacePlaceholder(same, needle, needle, std::nullopt);
    FUZZ_CHECK(needle.empty() ? same == text : same == repaired);

    if (!needle.empty() && needle.find('#') == std::string_view::npos) {
        std::string marked(text);
        replacePlaceholder(marked, needle, std::nullopt, "#");
        FUZZ_CHECK(isValidUTF8(marked));
        FUZZ_CHECK(std::count(marked.begin(), marked.end(), '#') >= std::count(text.begin(), text.end(), '#'));
    }
    FUZZ_CHECK(md5(text).size() == 32 && sha512(text).size() == 128);
}

void checkEncodings(std::string_view text) {
    const std::string repaired = repairedUTF8(text);
    for (const auto encoding : {StringEncoding::ASCII, StringEncoding::UTF8, StringEncoding::ISOLatin1,
                                StringEncoding::Unicode, StringEncoding::UTF32BigEndian, StringEncoding::ShiftJIS,
                                StringEncoding::WindowsCP1252, StringEncoding::MacOSRoman}) {
        const auto base64 = stringByEncodingBase64(text, encoding);
        if (base64) FUZZ_CHECK(stringByDecodingBase64(*base64, encoding) == repaired);
        const auto decoded = decodeText(text, encoding);
        if (decoded) FUZZ_CHECK(isValidUTF8(*decoded));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    // Everything but the regular-expression option: a random pattern's cost
    // is the pattern's, not the search's.
    const StringSearchOptions options = (data[0] | (data[1] << 8)) & ~kRegularExpressionSearch;
    const std::string_view rest(reinterpret_cast<const char*>(data + 3), size - 3);
    const std::size_t split = std::min<std::size_t>(data[2], rest.size());
    const std::string_view needle = rest.substr(0, split);
    const std::string_view text = rest.substr(split);

    checkSearch(text, needle, options);
    checkProfileName(rest);
    checkLineBuilding(rest);
    checkRewrites(text, needle);
    checkEncodings(rest);
    return 0;
}
