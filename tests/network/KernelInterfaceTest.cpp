// Interfaces on the real kernel, each test in namespaces of its own
// (support/isolated), where only lo exists until the test adds links.
#include <gtest/gtest.h>

#include <net/if.h>

#include <algorithm>

#include "support/TestSupport.h"
#include "network/NetworkSystemOperations.h"

using namespace korvo;
using korvo::test::errorMessage;
using korvo::test::shell;

namespace {

bool exists(const char* name) { return if_nametoindex(name) != 0; }
bool isUp(const char* name) {
    return shell(std::string("ip -o link show dev ") + name + " | grep -c '[<,]UP[,>]'").output == "1\n";
}

}  // namespace

TEST(KernelInterfaces, TunAndTapDevicesAreDestroyedAndAbsentOnesTolerated) {
    ASSERT_EQ(shell("ip link del korvotunnel1234 2>/dev/null; ip tuntap add mode tun name utun7 && ip tuntap add mode tap name tap0"
                      " && ip tuntap add mode tun name korvotunnel1234").exitStatus, 0)
        << "run this test through tests/support/isolated";
    NetworkSystemOperations operations;
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun7"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("tap0"));
    EXPECT_FALSE(exists("utun7") || exists("tap0"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun7"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent(""));
    // The name is cut to the 15 characters an interface request holds.
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("korvotunnel1234-and-more"));
    EXPECT_FALSE(exists("korvotunnel1234"));

    const MaybeError loopback = operations._deleteInterfaceIfPresent("lo");
    EXPECT_EQ(loopback.value_or(KorvoError{}).code, 68);
    EXPECT_EQ(errorMessage(loopback), "Could not delete tunnel interface lo: Operation not supported");
    EXPECT_TRUE(exists("lo"));
}

TEST(KernelInterfaces, EthernetNamedInterfacesAreListedAndBroughtDownAndUp) {
    ASSERT_EQ(shell("ip link del en0 2>/dev/null; ip link del bridge0 2>/dev/null; ip link del utun3 2>/dev/null;"
                    " ip link del en0123456789abc 2>/dev/null; ip link add en0 type veth peer name enx1 && ip link add bridge0 type bridge"
                      " && ip tuntap add mode tun name utun3 && ip link add en0123456789abc type veth peer name peer0").exitStatus, 0)
        << "run this test through tests/support/isolated";
    NetworkSystemOperations operations;
    std::vector<std::string> names = operations._localEthernetInterfaceNames();
    std::sort(names.begin(), names.end());  // index order: a veth peer may come first
    EXPECT_EQ(names, (std::vector<std::string>{"en0", "en0123456789abc", "enx1"}));

    ASSERT_FALSE(isUp("en0"));
    for (const bool enabled : {true, true, false, false}) {  // a repeated state is written again, no error
        EXPECT_FALSE(operations._setInterfaceNamed("en0", enabled));
        EXPECT_EQ(isUp("en0"), enabled);
    }
    EXPECT_FALSE(isUp("enx1"));  // its peer is left alone
    EXPECT_FALSE(operations._setInterfaceNamed("en0123456789abcdef", true));
    EXPECT_TRUE(isUp("en0123456789abc"));

    const MaybeError absent = operations._setInterfaceNamed("en9", true);
    EXPECT_EQ(absent.value_or(KorvoError{}).code, 68);
    EXPECT_EQ(errorMessage(absent), "Could not read flags for interface en9: No such device");
}
