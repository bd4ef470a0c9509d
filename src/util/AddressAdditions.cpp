#include "util/AddressAdditions.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <vector>

#include "util/CharacterSets.h"
#include "util/IntegerScan.h"

namespace korvo {

namespace {

// Longer than any text inet_pton accepts (an IPv6 address with an IPv4 tail
// takes at most 45 characters); spares copying a long text to reject it.
constexpr std::size_t kLongestAddressText = 64;

// inet_pton wants a C string; text with a NUL in it is no address.
bool parsesAsAddress(int family, std::string_view text) {
    if (text.size() > kLongestAddressText || text.find('\0') != std::string_view::npos) return false;
    const std::string terminated(text);
    in6_addr buffer{};
    return inet_pton(family, terminated.c_str(), &buffer) == 1;
}

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

bool isDefaultRouteCIDR(int family, std::string_view text) {
    const auto prefix = prefixLengthFromCIDR(text);
    if (!prefix || *prefix != 0) return false;
    const auto host = hostAddressFromCIDR(text);
    return host && !host->empty() && parsesAsAddress(family, *host);
}

}  // namespace

bool isValidIPAddress(std::string_view text) {
    return parsesAsAddress(AF_INET, text) || parsesAsAddress(AF_INET6, text);
}

bool isIPv6Address(std::string_view text) {
    return isValidIPAddress(text) && text.find(':') != std::string_view::npos;
}

std::optional<std::string> hostAddressFromCIDR(std::string_view text) {
    const std::string_view trimmed = trimmedWhitespaceAndNewlines(text);
    if (trimmed.empty()) return std::nullopt;
    const std::size_t slash = trimmed.find('/');
    if (slash == 0) return std::nullopt;
    return repairedUTF8(trimmed.substr(0, slash));
}

std::optional<std::int64_t> prefixLengthFromCIDR(std::string_view text) {
    const std::string_view trimmed = trimmedWhitespaceAndNewlines(text);
    const std::size_t slash = trimmed.find('/');
    if (slash == std::string_view::npos || slash + 1 == trimmed.size()) return std::nullopt;
    const auto value = wholeInteger(trimmed.substr(slash + 1));
    if (!value || *value < 0 || *value > 128) return std::nullopt;
    return value;
}

bool isIPv4DefaultRouteCIDR(std::string_view text) { return isDefaultRouteCIDR(AF_INET, text); }

bool isIPv6DefaultRouteCIDR(std::string_view text) { return isDefaultRouteCIDR(AF_INET6, text); }

std::string stringByNormalizingAbbreviatedIPv4Address(std::string_view text) {
    std::vector<std::string_view> components;
    for (std::size_t start = 0;;) {
        const std::size_t dot = text.find('.', start);
        components.push_back(text.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start));
        if (dot == std::string_view::npos || components.size() > 4) break;
        start = dot + 1;
    }
    const bool wellFormed = components.size() < 4 &&
        std::all_of(components.begin(), components.end(), [](std::string_view component) {
            return !component.empty() && std::all_of(component.begin(), component.end(), isAsciiDigit);
        });
    if (!wellFormed) return repairedUTF8(text);
    std::string result(text);
    for (std::size_t count = components.size(); count < 4; ++count) result += ".0";
    return result;
}

}  // namespace korvo
