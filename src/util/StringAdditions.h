// Text utilities shared by the helper: line building for configuration files,
// plus the address checks of AddressAdditions.h.
//
// Strings are UTF-8 bytes. Any byte string is accepted: ill-formed UTF-8 reads
// as the text in which each ill-formed subpart is U+FFFD (what ICU's
// conversion gives), and results that are text are well-formed UTF-8. An
// embedded NUL is an ordinary character (U+0000).
#pragma once

#include <string>
#include <string_view>

#include "util/AddressAdditions.h"

namespace korvo {

// Appends `line` without its newline characters (LF, CR, U+2028, U+2029 and
// the other line breaks) and control characters (categories Cc and Cf, so
// tab and NUL too), then one line feed. A value can thus never break a
// line-oriented file into two lines.
void appendStringLine(std::string& target, std::string_view line);
// Formats printf-style, then appends the result as appendStringLine does.
void appendFormatLine(std::string& target, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace korvo
