// CIDR splitting and the address checks: host and prefix agree with the text
// they came from, addresses built from the input round-trip through
// "host/prefix", and abbreviated IPv4 completion only ever appends ".0".
#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "util/CharacterSets.h"
#include "util/StringAdditions.h"
#include "util/Utf8.h"
#include "util/fuzz/FuzzCheck.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The prefix a "host/prefix" text should give, worked out from the text
// after the first slash: optional leading blanks, an optional sign, digits.
std::optional<std::int64_t> expectedPrefix(std::string_view tail) {
    std::size_t i = 0;
    while (i < tail.size()) {
        std::size_t next = i;
        if (!korvo::isWhitespaceOrNewline(korvo::nextCodePoint(tail, next))) break;
        i = next;
    }
    bool negative = false;
    if (i < tail.size() && (tail[i] == '+' || tail[i] == '-')) negative = tail[i++] == '-';
    const std::string_view digits = tail.substr(i);
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) return std::nullopt;
    const std::string_view significant = digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
    if (significant.size() > 3) return std::nullopt;
    const std::int64_t value = significant.empty() ? 0 : std::stoll(std::string(significant));
    if (value > 128 || (negative && value != 0)) return std::nullopt;
    return value;
}

void checkSplit(std::string_view text) {
    const std::string_view trimmed = korvo::trimmedWhitespaceAndNewlines(text);
    const std::optional<std::string> host = korvo::hostAddressFromCIDR(text);
    const std::optional<std::int64_t> prefix = korvo::prefixLengthFromCIDR(text);
    const std::size_t slash = trimmed.find('/');

    FUZZ_CHECK(host.has_value() == (!trimmed.empty() && slash != 0));
    if (host) {
        const std::string repaired = korvo::repairedUTF8(trimmed);
        FUZZ_CHECK(!host->empty() && host->find('/') == std::string::npos && korvo::isValidUTF8(*host));
        FUZZ_CHECK(repaired.compare(0, host->size(), *host) == 0);
        FUZZ_CHECK(repaired.size() == host->size() || repaired[host->size()] == '/');
    }
    const std::optional<std::int64_t> expected =
        slash == std::string_view::npos ? std::nullopt : expectedPrefix(trimmed.substr(slash + 1));
    FUZZ_CHECK(prefix == expected);

    const bool v4Default = korvo::isIPv4DefaultRouteCIDR(text);
    const bool v6Default = korvo::isIPv6DefaultRouteCIDR(text);
    FUZZ_CHECK(!(v4Default && v6Default));
    if (v4Default || v6Default) {
        FUZZ_CHECK(prefix == 0 && host && korvo::isValidIPAddress(*host));
        FUZZ_CHECK(korvo::isIPv6Address(*host) == v6Default);
    }
    FUZZ_CHECK(!korvo::isIPv6Address(text) || korvo::isValidIPAddress(text));
}

void checkAbbreviation(std::string_view text) {
    const std::string normalized = korvo::stringByNormalizingAbbreviatedIPv4Address(text);
    FUZZ_CHECK(korvo::isValidUTF8(normalized));
    if (normalized == korvo::repairedUTF8(text)) return;
    // Changed: digits and dots only, text kept as the start, ".0" appended.
    FUZZ_CHECK(normalized.compare(0, text.size(), text) == 0);
    FUZZ_CHECK(std::count(normalized.begin(), normalized.end(), '.') == 3);
    for (std::size_t i = text.size(); i < normalized.size(); i += 2) FUZZ_CHECK(normalized.compare(i, 2, ".0") == 0);
    FUZZ_CHECK(std::all_of(text.begin(), text.end(), [](char c) { return isDigit(c) || c == '.'; }));
    FUZZ_CHECK(text.find("..") == std::string_view::npos && text.front() != '.' && text.back() != '.');
}

// An address and a prefix taken from the input, written as "host/prefix"
// with blanks around it, split back into the same parts.
void checkRoundTrip(const std::uint8_t* data, std::size_t size) {
    if (size < 18) return;
    const int family = (data[0] & 1) ? AF_INET6 : AF_INET;
    char address[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(family, data + 1, address, sizeof address) == nullptr) return;
    const int prefixLength = data[17] % 160;
    const std::string cidr = std::string(data[0] & 2 ? " \t" : "") + address + "/" + std::to_string(prefixLength) +
                             (data[0] & 4 ? "\r\n" : "");

    FUZZ_CHECK(korvo::isValidIPAddress(address));
    FUZZ_CHECK(korvo::isIPv6Address(address) == (family == AF_INET6));
    FUZZ_CHECK(korvo::hostAddressFromCIDR(cidr) == std::string(address));
    const std::optional<std::int64_t> expected =
        prefixLength <= 128 ? std::optional<std::int64_t>(prefixLength) : std::nullopt;
    FUZZ_CHECK(korvo::prefixLengthFromCIDR(cidr) == expected);
    FUZZ_CHECK(korvo::isIPv4DefaultRouteCIDR(cidr) == (family == AF_INET && prefixLength == 0));
    FUZZ_CHECK(korvo::isIPv6DefaultRouteCIDR(cidr) == (family == AF_INET6 && prefixLength == 0));
    FUZZ_CHECK(!korvo::isValidIPAddress(cidr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkSplit(text);
    checkAbbreviation(text);
    checkRoundTrip(data, size);
    return 0;
}
