// Address checks on text: IP validity, CIDR splitting, default-route tests and
// completion of abbreviated IPv4 prefixes.
//
// Addresses are ASCII. Text that is not (ill-formed UTF-8, an embedded NUL,
// other scripts) is never a valid address; where a function gives text back,
// it gives it as well-formed UTF-8, ill-formed bytes read as U+FFFD.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korvo {

// True when inet_pton accepts the text as an IPv4 or IPv6 address. No
// trimming: surrounding blanks or a "/prefix" make it invalid.
bool isValidIPAddress(std::string_view text);
// A valid address that contains ":".
bool isIPv6Address(std::string_view text);

// The part of a "host/prefix" text before the first "/", after trimming white
// space and newlines; the whole trimmed text when there is no "/". Nothing for
// a blank text or one that starts with "/". The host is not validated.
std::optional<std::string> hostAddressFromCIDR(std::string_view text);
// The integer after the first "/" of the trimmed text, 0 to 128 inclusive
// (for both families). Nothing when there is no "/", nothing after it, or
// anything but an optionally signed run of ASCII digits (leading blanks
// allowed, as a number scanner skips them) follows it.
std::optional<std::int64_t> prefixLengthFromCIDR(std::string_view text);

// Prefix length 0 and an IPv4 (IPv6) host part: "0.0.0.0/0", also "10.0.0.0/0";
// not "0.0.0.0" or "default".
bool isIPv4DefaultRouteCIDR(std::string_view text);
bool isIPv6DefaultRouteCIDR(std::string_view text);

// Completes an abbreviated IPv4 network prefix with trailing "0" components:
// "10.1" gives "10.1.0.0", "10" gives "10.0.0.0". Text with more than three
// dots, an empty component or a component that is not all ASCII digits comes
// back unchanged; components are not range-checked ("300.1" gives "300.1.0.0").
std::string stringByNormalizingAbbreviatedIPv4Address(std::string_view text);

}  // namespace korvo
