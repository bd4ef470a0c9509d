// The text side of a WireGuard-family connect: what the client's
// configuration becomes before the tunnel program sees it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "backends/WireGuardConfig.h"
#include "backends/WireGuardTunnel.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(WireGuardRuntimeConfigurationTest, KeepsOnlyWhatSetconfUnderstands) {
    // Every key setconf takes, in any case, in its own section; keys of the
    // other section and those only the client uses are dropped.
    std::string config =
        "# KorvoInterfaceName = utun7\n[Interface]\nAddress = 10.0.0.2/24\nDNS = 10.0.0.1\nMTU = 1420\n";
    std::string expected = "[Interface]\n";
    for (const char* key :
         {"PrivateKey", "listenport", "FwMark", "Jc", "Jmin", "Jmax", "S1", "S2", "H1", "H2", "H3", "H4"}) {
        config += std::string(key) + " = 1\n";
        expected += std::string(key) + " = 1\n";
    }
    config += "PostUp = iptables -A FORWARD\nPublicKey = not-here\n\n[Peer]\nPrivateKey = no\nListenPort = 1\n";
    expected += "\n[Peer]\n";
    for (const char* key : {"PublicKey", "presharedkey", "AllowedIPs", "PERSISTENTKEEPALIVE"}) {
        config += std::string(key) + " = 1\n";
        expected += std::string(key) + " = 1\n";
    }
    // The text's final line break ends an empty last line.
    EXPECT_EQ(wireGuardRuntimeConfiguration(config), expected + "\n");
}

TEST(WireGuardRuntimeConfigurationTest, SectionsCommentsAndLineEnds) {
    const std::pair<std::string, std::string> cases[] = {
        // Nothing before the first header; an unknown section drops everything
        // up to the next known one; headers in any case and with inner blanks.
        {"Endpoint = 192.0.2.1:1\nPrivateKey = early\n[Other]\nPrivateKey = other\n[ peer ]\nPublicKey = p1\n"
         "[INTERFACE]\nPrivateKey = k\n[]\nPrivateKey = after-empty-header\n",
         "[ peer ]\nPublicKey = p1\n[INTERFACE]\nPrivateKey = k\n\n"},
        // An unclosed bracket is a key line, and key lines need an "=".
        {"[Peer]\n[Interface\nPublicKey\nPublicKey = p", "[Peer]\nPublicKey = p\n"},
        // Keys compared without blanks and in lower case; lines kept as written.
        {"[Interface]\n   PRIVATEKEY\t =  k  ", "[Interface]\nPRIVATEKEY =  k\n"},
        {"\xEF\xBB\xBF[Interface]\n\n\n# a comment\n; another\nPrivateKey = k\n   \n\t\nDNS = 1.1.1.1\n\n[Peer]\n"
         "PublicKey = p\n\n\n\n",
         "[Interface]\n\nPrivateKey = k\n\n[Peer]\nPublicKey = p\n\n"},
        {"\n\nMTU = 1\n\n[Interface]\nPrivateKey = k", "[Interface]\nPrivateKey = k\n"},
        // Every "\r\n" is two line breaks; no carriage return survives.
        {"[Interface]\r\nPrivateKey = k\r\nMTU = 1\r\n", "[Interface]\n\nPrivateKey = k\n\n"},
        {"[Interface]\nPrivateKey = a\tb\x01" "c", "[Interface]\nPrivateKey = abc\n"},
        {"# only a comment\n", ""},
    };
    for (const auto& [config, runtime] : cases) EXPECT_EQ(wireGuardRuntimeConfiguration(config), runtime) << config;
}

// A peer's endpoint name rewritten in the runtime text: WireGuardTunnelTest.
TEST(WireGuardIPv4EndpointTest, ResolvesNamesAndLeavesEverythingElse) {
    EXPECT_EQ(wireGuardIPv4Endpoint("  localhost:1  "), "127.0.0.1:1");
    // A numeric IPv4 form that is not dotted quad is normalised by the resolver.
    EXPECT_EQ(wireGuardIPv4Endpoint("127.1:7"), "127.0.0.1:7");

    test::LogCapture log;
    for (const std::string value : {"", "192.0.2.9:51820", "[2001:db8::1]:51820", "[fe80::1%eth0]:1", "fd00::1:51820",
                                    "localhost", ":51820", "localhost:", " 192.0.2.9:51820 "}) {
        EXPECT_EQ(wireGuardIPv4Endpoint(value), value) << value;
    }
    EXPECT_THAT(log.lines(), IsEmpty());

    // A port that no service table knows fails before any name is looked up.
    EXPECT_EQ(wireGuardIPv4Endpoint("localhost:no-such-port"), "localhost:no-such-port");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_THAT(log.lines()[0], HasSubstr("Could not resolve WireGuard endpoint host 'localhost' to an IPv4 address "
                                        "for runtime configuration: "));
}

TEST(WireGuardInterfaceNameTest, FirstNonEmptyMarkerLineWins) {
    EXPECT_EQ(wireGuardInterfaceNameFromConfig("[Interface]\n  # KorvoInterfaceName = utun7  \nPrivateKey = k\n"),
              "utun7");
    EXPECT_EQ(wireGuardInterfaceNameFromConfig("#KorvoInterfaceName=\n#KorvoInterfaceName = \t\n"
                                               "## KorvoInterfaceName: x = utun3\n# KorvoInterfaceName = utun4\n"),
              "utun3");
    EXPECT_EQ(wireGuardInterfaceNameFromConfig("# KorvoInterfaceName = a=b\n"), "a=b");

    // Only comment lines, the exact word, and an "=" count.
    EXPECT_EQ(wireGuardInterfaceNameFromConfig("KorvoInterfaceName = utun1\n"
                                               "; KorvoInterfaceName = utun2\n"
                                               "# korvointerfacename = utun3\n"
                                               "# KorvoInterfaceName utun4\n"
                                               "#KorvoInterfaceName=\n"),
              std::nullopt);
    EXPECT_EQ(wireGuardInterfaceNameFromConfig(""), std::nullopt);
}

TEST(WireGuardAddressesTest, EveryAddressLineInFileOrder) {
    EXPECT_THAT(wireGuardAddressesFromConfig("[Interface]\n"
                                             "Address = 10.0.0.2/24, fd00::2\n"
                                             "  Address=10.0.0.3 ,, ,\n"
                                             "address = 10.9.9.9\n"
                                             "# Address = 10.8.8.8\n"
                                             "Address\n"
                                             "[Peer]\n"
                                             "Address = 10.0.0.4/32\n"),
                ElementsAre("10.0.0.2/24", "fd00::2", "10.0.0.3", "10.0.0.4/32"));
    EXPECT_THAT(wireGuardAddressesFromConfig("[Interface]\nPrivateKey = k\n"), IsEmpty());
}

TEST(NetmaskTest, PrefixLengthsToDottedMasks) {
    const std::vector<std::pair<long, std::optional<std::string>>> masks = {
        {0, "0.0.0.0"},          {1, "128.0.0.0"},        {9, "255.128.0.0"}, {24, "255.255.255.0"},
        {31, "255.255.255.254"}, {32, "255.255.255.255"}, {33, std::nullopt}, {-1, std::nullopt}};
    for (const auto& [prefix, mask] : masks) EXPECT_EQ(netmaskStringForPrefixLength(prefix), mask) << prefix;
}

}  // namespace
}  // namespace korvo
