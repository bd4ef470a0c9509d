// Code-point access to UTF-8 text and the character classes the string
// utilities share (white space, newlines, control characters), with Unicode's
// classification from ICU.
//
// Text is bytes that should be UTF-8. An ill-formed sequence reads as one
// U+FFFD per maximal ill-formed subpart (the replacement ICU and the Unicode
// standard recommend), so every byte string is some Unicode string.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <unicode/unistr.h>

namespace korvo {

// Decodes the code point at `index` and moves `index` past it. Requires
// index < text.size().
char32_t nextCodePoint(std::string_view text, std::size_t& index);

// Appends the UTF-8 form of a scalar value.
void appendCodePoint(std::string& target, char32_t codePoint);

// The text as well-formed UTF-8: a copy when it already is, otherwise with
// every ill-formed subpart replaced by U+FFFD.
std::string repairedUTF8(std::string_view text);

// Tab, the line-ending controls (U+000A to U+000D, U+0085) and the Unicode
// separators (categories Zs, Zl, Zp).
bool isWhitespaceOrNewline(char32_t codePoint);
// Line feed, vertical tab, form feed, carriage return, U+0085, U+2028, U+2029.
bool isNewline(char32_t codePoint);
// Categories Cc and Cf: the C0 and C1 controls and format characters.
bool isControlCharacter(char32_t codePoint);
// Category Ll.
bool isLowercaseLetter(char32_t codePoint);

// The text without leading and trailing white space and newlines. The view
// points into `text`; ill-formed bytes are never trimmed.
std::string_view trimmedWhitespaceAndNewlines(std::string_view text);

// Conversions to and from ICU's UTF-16 strings. A text of more than
// INT32_MAX UTF-16 units cannot be represented; the result is then bogus.
icu::UnicodeString unicodeFromUTF8(std::string_view text);
std::string utf8FromUnicode(const icu::UnicodeString& text);

}  // namespace korvo
