#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "util/StringAdditions.h"

namespace korvo {
namespace {

using namespace std::string_literals;

struct CIDRCase {
    std::string text;
    std::optional<std::string> host;
    std::optional<std::int64_t> prefix;
};

TEST(CIDR, SplitsHostAndPrefix) {
    const CIDRCase cases[] = {
        {"10.0.0.0/24", "10.0.0.0", 24},
        {"10.0.0.0/", "10.0.0.0", std::nullopt},
        {"/24", std::nullopt, 24},
        {"\t 10.0.0.0/24\r\n", "10.0.0.0", 24},
        {"\u00a010.0.0.0/8\u3000\u2029", "10.0.0.0", 8},  // Unicode blanks trim too
        {"10.0.0.0/24x", "10.0.0.0", std::nullopt},
        {"10.0.0.0/129", "10.0.0.0", std::nullopt},
        {"10.0.0.0/-1", "10.0.0.0", std::nullopt},
        {"10.0.0.0/-0", "10.0.0.0", 0},
        {"10.0.0.0/+8", "10.0.0.0", 8},
        {"10.0.0.0/ 8", "10.0.0.0", 8},
        {"10.0.0.0/99999999999999999999999", "10.0.0.0", std::nullopt},
        {"10.0.0.0/18446744073709551626", "10.0.0.0", std::nullopt},  // 2^64 + 10
        {"10.0.0.0/+", "10.0.0.0", std::nullopt},
        {"10.0.0.0/\u0668", "10.0.0.0", std::nullopt},  // Arabic-Indic digit eight
        {"fe80::1/128", "fe80::1", 128},
        {"1/2/3", "1", std::nullopt},
        {"10.0.0.0", "10.0.0.0", std::nullopt},
        {"", std::nullopt, std::nullopt},
        {"a\0b/8"s, "a\0b"s, 8},
        {"\xff/8", "\xef\xbf\xbd", 8},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(hostAddressFromCIDR(c.text), c.host) << c.text;
        EXPECT_EQ(prefixLengthFromCIDR(c.text), c.prefix) << c.text;
    }
}

TEST(CIDR, DefaultRoutesNeedPrefixZeroAndAnAddressOfTheFamily) {
    for (const char* yes : {"0.0.0.0/0", "10.0.0.0/0", " 0.0.0.0/0\n"}) EXPECT_TRUE(isIPv4DefaultRouteCIDR(yes)) << yes;
    for (const char* no : {"0.0.0.0", "default", "0/0", "0.0.0.0/1", "::/0", "/0"}) {
        EXPECT_FALSE(isIPv4DefaultRouteCIDR(no)) << no;
    }
    EXPECT_TRUE(isIPv6DefaultRouteCIDR("2001:db8::/0"));
    EXPECT_FALSE(isIPv6DefaultRouteCIDR("0.0.0.0/0"));
    EXPECT_FALSE(isIPv6DefaultRouteCIDR("::/128"));
}

// A NUL inside is never cut off into a valid address.
TEST(IPAddress, TheWholeTextMustBeTheAddress) {
    EXPECT_TRUE(isValidIPAddress("::ffff:1.2.3.4"));
    for (const auto& invalid : {" 1.2.3.4"s, "1.2.3.4/32"s, "fe80::1%eth0"s, "1.2.3.4\0"s, "1.2.3.4\0junk"s}) {
        EXPECT_FALSE(isValidIPAddress(invalid)) << invalid;
    }
}

TEST(AbbreviatedIPv4, PadsAtTheEndAndLeavesAnythingElseAlone) {
    EXPECT_EQ(stringByNormalizingAbbreviatedIPv4Address("10"), "10.0.0.0");
    EXPECT_EQ(stringByNormalizingAbbreviatedIPv4Address("192.168.1"), "192.168.1.0");
    EXPECT_EQ(stringByNormalizingAbbreviatedIPv4Address("300.1"), "300.1.0.0");
    for (const char* unchanged : {"1.2.3.4", "1.2.3.4.5", "1..2", "10.a", "", ".", "10.", " 10", "+1"}) {
        EXPECT_EQ(stringByNormalizingAbbreviatedIPv4Address(unchanged), unchanged);
    }
}

}  // namespace
}  // namespace korvo
