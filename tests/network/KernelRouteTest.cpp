// Routes on the real kernel. Each test runs in network namespaces of its own
// (support/isolated): a veth pair with 192.0.2.1/24 and 2001:db8:1::1/64 on
// veth0, and whatever the test adds.
#include <gtest/gtest.h>

#include <string>

#include "NetworkTestSupport.h"
#include "network/NetworkSystemOperations.h"
#include "platform/linux/NetlinkRouteTable.h"

using namespace korvo;
using korvo::testing::errorMessage;
using korvo::testing::shell;
using korvo::testing::shellOutput;

namespace {

class KernelRoutes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(shell("ip link add veth0 type veth peer name veth1 && ip link set veth0 up && ip link set veth1 up"
                          " && ip addr add 192.0.2.1/24 dev veth0"
                          " && ip -6 addr add 2001:db8:1::1/64 dev veth0 nodad"))
            << "run this test through tests/support/isolated";
    }

    // The routes carrying the helper's protocol number, one per line, as ip prints them.
    static std::string helperRoutes(const char* family) {
        return shellOutput(std::string("ip ") + family + " -o route show proto " +
                           std::to_string(platform::kKorvoRouteProtocol) +
                           " | sed -e 's/ metric [0-9]*//' -e 's/ pref medium//' -e 's/ *$//'");
    }

    NetworkSystemOperations operations;
};

}  // namespace

TEST_F(KernelRoutes, GatewayRoutesAreAddedAndDeletedInBothFamilies) {
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.1.0.0/16", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.3.3.3", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.4/16", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "2001:db8:2::/48", "2001:db8:1::2", true, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "2001:db8:3::7", "2001:db8:1::2", true, ""));
    // Only the helper's routes carry its protocol: the connected routes are not listed.
    EXPECT_EQ(helperRoutes("-4"),
              "10.1.0.0/16 via 192.0.2.2 dev veth0\n"
              "10.3.3.3 via 192.0.2.2 dev veth0\n"
              "10.4.0.0/16 via 192.0.2.2 dev veth0\n");
    EXPECT_EQ(helperRoutes("-6"),
              "2001:db8:2::/48 via 2001:db8:1::2 dev veth0\n"
              "2001:db8:3::7 via 2001:db8:1::2 dev veth0\n");

    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.1.0.0/16", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("remove", "10.3.3.3", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.4.0.0/16", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:2::/48", "2001:db8:1::2", true, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:3::7", "2001:db8:1::2", true, ""));
    EXPECT_EQ(helperRoutes("-4"), "");
    EXPECT_EQ(helperRoutes("-6"), "");
    // The connected routes are untouched.
    EXPECT_NE(shellOutput("ip -o route").find("192.0.2.0/24 dev veth0"), std::string::npos);
}

TEST_F(KernelRoutes, HostBitsAreClearedExistingRoutesRefusedAbsentOnesDeleted) {
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.1.2.3/24", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "2001:db8:4::1/64", "2001:db8:1::2", true, ""));
    EXPECT_EQ(helperRoutes("-4"), "10.1.2.0/24 via 192.0.2.2 dev veth0\n");
    EXPECT_EQ(helperRoutes("-6"), "2001:db8:4::/64 via 2001:db8:1::2 dev veth0\n");

    for (const auto& [destination, gateway, isIPv6] :
         {std::tuple{"10.1.2.0/24", "192.0.2.2", false}, std::tuple{"10.1.2.3/24", "192.0.2.9", false},
          std::tuple{"2001:db8:4::/64", "2001:db8:1::2", true}}) {
        const MaybeError error = operations._applyRouteOperationAction("add", destination, gateway, isIPv6, "");
        ASSERT_TRUE(error) << destination;
        EXPECT_EQ(error->code, 66);
        EXPECT_EQ(errorMessage(error).rfind("Route operation failed: File exists", 0), 0u) << errorMessage(error);
    }

    // A gateway that is not on any link: the kernel's reason comes with its text.
    const MaybeError unreachable = operations._applyRouteOperationAction("add", "10.7.0.0/16", "198.51.100.1", false, "");
    ASSERT_TRUE(unreachable);
    EXPECT_EQ(unreachable->code, 66);
    EXPECT_EQ(errorMessage(unreachable).rfind("Route operation failed: ", 0), 0u);

    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.1.2.3/24", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:4::1/64", "2001:db8:1::2", true, ""));
    EXPECT_EQ(helperRoutes("-4"), "");
    EXPECT_EQ(helperRoutes("-6"), "");
    // Deleting what is not there succeeds, also in a table that never had it.
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.1.2.3/24", "192.0.2.2", false, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:4::/64", "2001:db8:1::2", true, ""));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "0/0", "192.0.2.2", false, ""));
}

TEST_F(KernelRoutes, ADeleteRemovesTheRouteWhoeverAddedIt) {
    ASSERT_TRUE(shell("ip route add 10.5.0.0/16 via 192.0.2.2 proto static"));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.5.0.0/16", "192.0.2.2", false, ""));
    EXPECT_EQ(shellOutput("ip -o route show 10.5.0.0/16"), "");
}

TEST_F(KernelRoutes, ScopedIPv6GatewaysUseTheScopeInterface) {
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "2001:db8:5::/64", "fe80::2%veth0", true, ""));
    EXPECT_EQ(helperRoutes("-6"), "2001:db8:5::/64 via fe80::2 dev veth0\n");
    // Without its scope a link-local gateway names no link.
    const MaybeError unscoped = operations._applyRouteOperationAction("add", "2001:db8:6::/64", "fe80::2", true, "");
    ASSERT_TRUE(unscoped);
    EXPECT_EQ(unscoped->code, 66);
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:5::/64", "fe80::2%veth0", true, ""));
    EXPECT_EQ(helperRoutes("-6"), "");
}

TEST_F(KernelRoutes, InterfaceRoutesOnATunDevice) {
    ASSERT_TRUE(shell("ip tuntap add mode tun name utun5 && ip link set utun5 up"));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.8.0.0/24", "", false, "utun5"));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "10.9.1.1/16", "ignored", false, "utun5"));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "172.20", "", false, "utun5"));
    EXPECT_FALSE(operations._applyRouteOperationAction("add", "2001:db8:8::/64", "", true, "utun5"));
    EXPECT_EQ(helperRoutes("-4"),
              "10.8.0.0/24 dev utun5 scope link linkdown\n"
              "10.9.0.0/16 dev utun5 scope link linkdown\n"
              "172.20.0.0 dev utun5 scope link linkdown\n");
    EXPECT_EQ(helperRoutes("-6"), "2001:db8:8::/64 dev utun5 linkdown\n");

    const MaybeError existing = operations._applyRouteOperationAction("add", "10.8.0.0/24", "", false, "utun5");
    ASSERT_TRUE(existing);
    EXPECT_EQ(existing->code, 66);
    EXPECT_EQ(errorMessage(existing).rfind("Route operation failed: File exists", 0), 0u);

    const MaybeError noInterface = operations._applyRouteOperationAction("add", "10.8.0.0/24", "", false, "nosuch0");
    ASSERT_TRUE(noInterface);
    EXPECT_EQ(errorMessage(noInterface), "Route operation failed: No such device: no interface 'nosuch0'");
    const MaybeError badDestination = operations._applyRouteOperationAction("add", "10.8.0.0/40", "", false, "utun5");
    ASSERT_TRUE(badDestination);
    EXPECT_EQ(badDestination->code, 66);
    EXPECT_EQ(errorMessage(badDestination), "Route operation failed: Invalid argument: bad destination '10.8.0.0/40'");

    for (const char* destination : {"10.8.0.0/24", "10.9.0.0/16", "172.20.0.0"}) {
        EXPECT_FALSE(operations._applyRouteOperationAction("delete", destination, "", false, "utun5")) << destination;
    }
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "2001:db8:8::/64", "", true, "utun5"));
    EXPECT_EQ(helperRoutes("-4"), "");
    EXPECT_EQ(helperRoutes("-6"), "");
    // Gone already, or gone with its interface: both succeed.
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.8.0.0/24", "", false, "utun5"));
    EXPECT_FALSE(operations._applyRouteOperationAction("delete", "10.8.0.0/24", "", false, "nosuch0"));
}
