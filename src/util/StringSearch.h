// Substring search with the platform string type's search options, and the
// word-list tests built on it.
//
// Text that is not well-formed UTF-8 is searched as the text in which each
// ill-formed subpart is U+FFFD.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace korvo {

// Search options, with the platform's values so that a client's value keeps
// its meaning. Options that only affect ordering (numeric, forced ordering)
// do not change whether a text is found.
using StringSearchOptions = std::uint32_t;
inline constexpr StringSearchOptions kCaseInsensitiveSearch = 1;   // full Unicode case folding
inline constexpr StringSearchOptions kLiteralSearch = 2;           // code units compared as they are
inline constexpr StringSearchOptions kBackwardsSearch = 4;         // with anchored: at the end
inline constexpr StringSearchOptions kAnchoredSearch = 8;          // only at the start (end)
inline constexpr StringSearchOptions kNumericSearch = 64;
inline constexpr StringSearchOptions kDiacriticInsensitiveSearch = 128;
inline constexpr StringSearchOptions kWidthInsensitiveSearch = 256;  // full-width and half-width forms
inline constexpr StringSearchOptions kForcedOrderingSearch = 512;
inline constexpr StringSearchOptions kRegularExpressionSearch = 1024;  // needle is an ICU pattern

// True when the needle occurs in the text. Without kLiteralSearch canonically
// equivalent sequences match ("e" + U+0301 finds "é") and a match may not end
// inside a character's combining marks. An absent or empty needle, and an
// invalid pattern, are never found; a pattern that matches the empty string
// is found in any text.
bool containsString(std::string_view text, std::optional<std::string_view> needle, StringSearchOptions options = 0);

// How many of the words occur in the text (each counts once).
std::int64_t numberOfHitsFromArray(std::string_view text, std::span<const std::string> words);
// Whether any of the words occurs in the text: a substring test, not a
// whole-word one.
bool containsWordInArray(std::string_view text, std::span<const std::string> words);
// Whether the text equals one of the words exactly (case-sensitive).
bool isEqualToWordInArray(std::string_view text, std::span<const std::string> words);

}  // namespace korvo
