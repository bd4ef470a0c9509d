// Text utilities shared by the helper: digests of text, word matching,
// profile-name display text, escaping for OpenVPN configuration values,
// base64 text in a chosen character encoding and line building for
// configuration files. The address checks (AddressAdditions.h) and the search
// functions (StringSearch.h) come with this header.
//
// Strings are UTF-8 bytes. Any byte string is accepted: ill-formed UTF-8 reads
// as the text in which each ill-formed subpart is U+FFFD (what ICU's
// conversion gives), and results that are text are that well-formed UTF-8,
// also where a function hands its argument back "unchanged". An embedded NUL
// is an ordinary character (U+0000).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "util/AddressAdditions.h"
#include "util/StringEncoding.h"
#include "util/StringSearch.h"

namespace korvo {

// Lower-case hexadecimal digests of the text's UTF-8 bytes.
std::string md5(std::string_view text);
std::string sha1(std::string_view text);
std::string sha224(std::string_view text);
std::string sha256(std::string_view text);
std::string sha384(std::string_view text);
std::string sha512(std::string_view text);

// Every run of spaces (U+0020 only; tabs stay) becomes one space.
std::string stringByStrippingDoubleSpaces(std::string_view text);

// Backslashes doubled first, then each double quote preceded by a backslash,
// so the backslashes added for quotes are not doubled again.
std::string stringWithOpenVPNSlashEscapes(std::string_view text);

// Display form of a profile name: the trimmed name is split at white space,
// newlines and "_-.+"; each piece is replaced by its display form from the
// word table ("vpn" -> "VPN", "openvpn" -> "OpenVPN", ...; compared in lower
// case), else capitalized when it is all lower-case letters, else kept; the
// pieces are joined with single spaces. "my_openvpn-profile" gives
// "My OpenVPN Profile". A blank name comes back as it was, a name of
// separators only comes back trimmed.
std::string stringByHumanizingProfileName(std::string_view name);

// Decodes base64 text (leniently, see base64Decode) and reads the bytes in
// the encoding; nothing when they are not valid in it.
std::optional<std::string> stringByDecodingBase64(std::string_view base64, StringEncoding encoding);
// The text's bytes in the encoding as base64 without line breaks; nothing when
// the text has a character the encoding cannot represent.
std::optional<std::string> stringByEncodingBase64(std::string_view text, StringEncoding encoding);

// Appends `line` without its newline characters (LF, CR, U+2028, U+2029 and
// the other line breaks) and control characters (categories Cc and Cf, so
// tab and NUL too), then one line feed. A value can thus never break a
// line-oriented file into two lines.
void appendStringLine(std::string& target, std::string_view line);
// Formats printf-style, then appends the result as appendStringLine does.
void appendFormatLine(std::string& target, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Replaces every occurrence of the placeholder in `target` (literal,
// case-sensitive search) by the value, or by the default when there is no
// value; with neither, or an empty placeholder, `target` stays as it is.
void replacePlaceholder(std::string& target, std::string_view placeholder, std::optional<std::string_view> value,
                        std::optional<std::string_view> defaultValue);

}  // namespace korvo
