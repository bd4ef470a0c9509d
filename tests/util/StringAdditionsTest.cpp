#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/DataAdditions.h"
#include "util/StringAdditions.h"

namespace korvo {
namespace {

using namespace std::string_literals;

TEST(ProfileNames, TableWordsSeparatorsAndCapitalization) {
    const std::pair<const char*, const char*> cases[] = {
        {"my_openvpn-profile", "My OpenVPN Profile"}, {"uk.London+vpn", "UK London VPN"}, {"office2", "office2"},
        {"WIREGUARD__usa", "WireGuard USA"}, {"amneziawg ipsec SSH", "AmneziaWG IPsec SSH"}, {"iPhone", "iPhone"},
        {"  home \t--  office\n", "Home Office"}, {"\u00e9cole_stra\u00dfe", "\u00c9cole Stra\u00dfe"},
        {"\u00dfig", "Ssig"}, {"\u00a0z\u00fcrich\u2003", "Z\u00fcrich"}, {"  ", "  "}, {" _-. ", "_-."},
    };
    for (const auto& [name, humanized] : cases) EXPECT_EQ(stringByHumanizingProfileName(name), humanized) << name;
}

// Text that reaches a configuration file as one quoted value or one line.
TEST(ConfigurationText, EscapesAndLinesCannotBreakOut) {
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("a\\\"b"), "a\\\\\\\"b");
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("C:\\dir\\"), "C:\\\\dir\\\\");
    std::string text = "first\n";
    appendStringLine(text, "a\tb\r\nc");
    appendStringLine(text, "x\u2028y\u2029z\u0085!\u200b\u00ad");
    appendStringLine(text, "nul\0byte"s);
    appendFormatLine(text, "%s = %d", "key\nwith break", 42);
    EXPECT_EQ(text, "first\nabc\nxyz!\nnulbyte\nkeywith break = 42\n");
}

TEST(Placeholders, ValueOrDefaultReplacesEveryOccurrence) {
    const struct {
        std::string text, placeholder;
        std::optional<std::string> value, fallback;
        std::string expected;
    } cases[] = {
        {"remote %HOST% # %HOST%/%host%", "%HOST%", "vpn.test", "fallback", "remote vpn.test # vpn.test/%host%"},
        {"port %PORT%", "%PORT%", std::nullopt, "1194", "port 1194"},
        {"port %PORT%", "%PORT%", std::nullopt, std::nullopt, "port %PORT%"},
        {"aaaa", "aa", "a", std::nullopt, "aa"},
        {"x", "", "y", std::nullopt, "x"},
    };
    for (auto c : cases) {
        replacePlaceholder(c.text, c.placeholder, c.value, c.fallback);
        EXPECT_EQ(c.text, c.expected);
    }
}

TEST(BadInput, IllFormedUTF8ReadsAsReplacementCharacters) {
    const std::string bad = "a\xff\xc3" "b\xed\xa0\x80" "c";  // stray byte, cut sequence, surrogate
    const std::string read = "a\ufffd\ufffdb\ufffd\ufffd\ufffdc";
    EXPECT_EQ(stringByStrippingDoubleSpaces(bad), read);
    EXPECT_EQ(stringWithOpenVPNSlashEscapes(bad), read);
    EXPECT_EQ(stringByHumanizingProfileName(bad), read);
    std::string line;
    appendStringLine(line, bad);
    EXPECT_EQ(line, read + "\n");
    EXPECT_TRUE(containsString(bad, "\ufffdb"));
    EXPECT_EQ(stringByDecodingBase64(base64EncodedString(bytesOf(bad)), StringEncoding::UTF8), std::nullopt);
}

}  // namespace
}  // namespace korvo
