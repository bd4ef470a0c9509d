#include "util/StringSearch.h"

#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <memory>

#include "util/CharacterSets.h"
#include "util/SubstringSearch.h"
#include "util/Utf8.h"

namespace korvo {

namespace {

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isMark(UChar32 c) { return (U_GET_GC_MASK(c) & U_GC_M_MASK) != 0; }

// Replaces full-width and half-width forms by their ordinary counterparts.
icu::UnicodeString withoutWidthVariants(const icu::UnicodeString& text, const icu::Normalizer2& nfkd) {
    icu::UnicodeString result;
    for (std::int32_t i = 0; i < text.length();) {
        const UChar32 c = text.char32At(i);
        i += U16_LENGTH(c);
        const auto type = u_getIntPropertyValue(c, UCHAR_DECOMPOSITION_TYPE);
        icu::UnicodeString mapped;
        if ((type == U_DT_WIDE || type == U_DT_NARROW) && nfkd.getDecomposition(c, mapped)) {
            result.append(mapped);
        } else {
            result.append(c);
        }
    }
    return result;
}

// The form in which text and needle are compared under the options.
icu::UnicodeString comparable(std::string_view utf8, StringSearchOptions options) {
    icu::UnicodeString text = unicodeFromUTF8(utf8);
    if (text.isBogus()) return text;
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    const icu::Normalizer2* nfkd = icu::Normalizer2::getNFKDInstance(status);
    if (U_FAILURE(status)) {
        text.setToBogus();
        return text;
    }
    const bool literal = (options & kLiteralSearch) != 0;
    const bool diacriticInsensitive = (options & kDiacriticInsensitiveSearch) != 0;
    if (!literal || diacriticInsensitive) text = nfd->normalize(text, status);
    if (diacriticInsensitive) {
        icu::UnicodeString stripped;
        for (std::int32_t i = 0; i < text.length();) {
            const UChar32 c = text.char32At(i);
            i += U16_LENGTH(c);
            if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
        }
        text = stripped;
    }
    if ((options & kWidthInsensitiveSearch) != 0) text = withoutWidthVariants(text, *nfkd);
    if ((options & kCaseInsensitiveSearch) != 0) text.foldCase(U_FOLD_CASE_DEFAULT);
    // Folding can leave text that is no longer in canonical order.
    if (!literal) text = nfd->normalize(text, status);
    if (U_FAILURE(status)) text.setToBogus();
    return text;
}

// Without the literal option a match may not split a base character from
// its combining marks.
bool isWholeCharacterMatch(const icu::UnicodeString& text, std::int32_t start, std::int32_t end, bool literal) {
    if (literal) return true;
    if (start > 0 && isMark(text.char32At(start))) return false;
    return end >= text.length() || !isMark(text.char32At(end));
}

bool containsPattern(std::string_view text, std::string_view pattern, StringSearchOptions options) {
    const icu::UnicodeString haystack = unicodeFromUTF8(text);
    icu::UnicodeString expression = unicodeFromUTF8(pattern);
    if (haystack.isBogus() || expression.isBogus()) return false;
    const bool anchored = (options & kAnchoredSearch) != 0;
    const bool backwards = (options & kBackwardsSearch) != 0;
    if (anchored && backwards) expression = icu::UnicodeString(u"(?:") + expression + icu::UnicodeString(u")\\z");
    const std::uint32_t flags = (options & kCaseInsensitiveSearch) != 0 ? UREGEX_CASE_INSENSITIVE : 0;
    UErrorCode status = U_ZERO_ERROR;
    const auto matcher = std::make_unique<icu::RegexMatcher>(expression, haystack, flags, status);
    if (U_FAILURE(status)) return false;
    // A pattern that matches the empty string ("a*") is found in any text.
    const bool found = anchored && !backwards ? matcher->lookingAt(status) : matcher->find(0, status);
    return U_SUCCESS(status) && found;
}

}  // namespace

bool containsString(std::string_view text, std::optional<std::string_view> needle, StringSearchOptions options) {
    if (!needle || needle->empty()) return false;
    if ((options & kRegularExpressionSearch) != 0) return containsPattern(text, *needle, options);

    const bool anchored = (options & kAnchoredSearch) != 0;
    const bool backwards = (options & kBackwardsSearch) != 0;
    const bool literal = (options & kLiteralSearch) != 0;
    constexpr StringSearchOptions kFolding =
        kCaseInsensitiveSearch | kDiacriticInsensitiveSearch | kWidthInsensitiveSearch;
    // Byte comparison of UTF-8 gives the same answer as code-unit comparison
    // when nothing is folded and, without the literal option, when neither
    // side can hold a decomposable or combining character.
    if (!anchored && (options & kFolding) == 0 && (literal || (isASCII(text) && isASCII(*needle)))) {
        if (isValidUTF8(text) && isValidUTF8(*needle)) {
            return SubstringFinder<char>(*needle).find(text) != std::string_view::npos;
        }
        const std::string repairedText = repairedUTF8(text);
        const std::string repairedNeedle = repairedUTF8(*needle);
        return SubstringFinder<char>(repairedNeedle).find(repairedText) != std::string_view::npos;
    }

    const icu::UnicodeString haystack = comparable(text, options);
    const icu::UnicodeString pattern = comparable(*needle, options);
    if (haystack.isBogus() || pattern.isBogus() || pattern.isEmpty()) return false;
    const std::int32_t length = pattern.length();
    if (anchored) {
        const std::int32_t start = backwards ? haystack.length() - length : 0;
        return start >= 0 && haystack.compare(start, length, pattern) == 0 &&
               isWholeCharacterMatch(haystack, start, start + length, literal);
    }
    const std::u16string_view units(haystack.getBuffer(), static_cast<std::size_t>(haystack.length()));
    const SubstringFinder<char16_t> finder({pattern.getBuffer(), static_cast<std::size_t>(length)});
    const auto wholeCharacters = [&](std::size_t start) {
        const auto position = static_cast<std::int32_t>(start);
        return isWholeCharacterMatch(haystack, position, position + length, literal);
    };
    return finder.find(units, 0, wholeCharacters) != finder.npos;
}

std::int64_t numberOfHitsFromArray(std::string_view text, std::span<const std::string> words) {
    return std::count_if(words.begin(), words.end(), [&](const std::string& word) { return containsString(text, word); });
}

bool containsWordInArray(std::string_view text, std::span<const std::string> words) {
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) { return containsString(text, word); });
}

bool isEqualToWordInArray(std::string_view text, std::span<const std::string> words) {
    const std::string repaired = repairedUTF8(text);
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) {
        return isValidUTF8(word) ? word == repaired : repairedUTF8(word) == repaired;
    });
}

}  // namespace korvo
