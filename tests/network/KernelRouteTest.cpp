// Routes on the real kernel. Each test runs in network namespaces of its own
// (support/isolated): a veth pair with 192.0.2.1/24 and 2001:db8:1::1/64 on
// veth0, and whatever the test adds.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/TestSupport.h"
#include "network/NetworkSystemOperations.h"

using namespace korvo;
using korvo::test::errorMessage;
using korvo::test::shell;

namespace {

class KernelRoutes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(shell("ip link del veth0 2>/dev/null; ip link del utun5 2>/dev/null; ip link add veth0 type veth peer name veth1 && ip link set veth0 up && ip link set veth1 up"
                          " && ip addr add 192.0.2.1/24 dev veth0 && ip -6 addr add 2001:db8:1::1/64 dev veth0 nodad").exitStatus, 0)
            << "run this test through tests/support/isolated";
    }
    // Routes with the helper's protocol number (75), as ip prints them.
    static std::string helperRoutes(const char* family) {
        return shell(std::string("ip ") + family + " -o route show proto 75 | sed -e 's/ metric [0-9]*//'"
                           " -e 's/ pref medium//' -e 's/ *$//'").output;
    }
    // The code and message of a failed operation.
    static std::string failure(const MaybeError& error) {
        return error ? std::to_string(error->code) + " " + errorMessage(error) : "success";
    }
    MaybeError add(const char* destination, const char* gateway, bool isIPv6 = false, const char* interface = "") {
        return operations._applyRouteOperationAction("add", destination, gateway, isIPv6, interface);
    }
    MaybeError remove(const char* destination, const char* gateway, bool isIPv6 = false, const char* interface = "") {
        return operations._applyRouteOperationAction("delete", destination, gateway, isIPv6, interface);
    }
    NetworkSystemOperations operations;
};

}  // namespace

TEST_F(KernelRoutes, GatewayRoutesAreAddedAndDeletedInBothFamilies) {
    for (const char* d : {"10.1.0.0/16", "10.3.3.3", "10.4/16", "10.5.6.7/24"}) EXPECT_FALSE(add(d, "192.0.2.2")) << d;
    EXPECT_FALSE(add("2001:db8:2::/48", "2001:db8:1::2", true));
    EXPECT_FALSE(add("2001:db8:3::7", "2001:db8:1::2", true));
    EXPECT_FALSE(add("2001:db8:5::/64", "fe80::2%veth0", true));
    // Host bits are cleared (10.5.6.7/24); the connected routes are not the helper's.
    EXPECT_EQ(helperRoutes("-4"),
              "10.1.0.0/16 via 192.0.2.2 dev veth0\n10.3.3.3 via 192.0.2.2 dev veth0\n"
              "10.4.0.0/16 via 192.0.2.2 dev veth0\n10.5.6.0/24 via 192.0.2.2 dev veth0\n");
    EXPECT_EQ(helperRoutes("-6"),
              "2001:db8:2::/48 via 2001:db8:1::2 dev veth0\n2001:db8:3::7 via 2001:db8:1::2 dev veth0\n"
              "2001:db8:5::/64 via fe80::2 dev veth0\n");

    for (const char* d : {"10.1.0.0/16", "10.3.3.3", "10.4.0.0/16", "10.5.6.7/24"}) EXPECT_FALSE(remove(d, "192.0.2.2")) << d;
    EXPECT_FALSE(remove("2001:db8:2::/48", "2001:db8:1::2", true));
    EXPECT_FALSE(operations._applyRouteOperationAction("remove", "2001:db8:3::7", "2001:db8:1::2", true, ""));
    EXPECT_FALSE(remove("2001:db8:5::/64", "fe80::2%veth0", true));
    EXPECT_EQ(helperRoutes("-4") + helperRoutes("-6"), "");
    EXPECT_NE(shell("ip -o route").output.find("192.0.2.0/24 dev veth0"), std::string::npos);
}

TEST_F(KernelRoutes, ExistingRoutesAreRefusedAndAbsentOnesDeleted) {
    ASSERT_FALSE(add("10.1.2.3/24", "192.0.2.2"));
    ASSERT_FALSE(add("2001:db8:4::/64", "2001:db8:1::2", true));
    EXPECT_EQ(failure(add("10.1.2.0/24", "192.0.2.2")), "66 Route operation failed: File exists");
    EXPECT_EQ(failure(add("2001:db8:4::/64", "2001:db8:1::2", true)), "66 Route operation failed: File exists");
    // The kernel's own explanation comes with its error.
    EXPECT_EQ(failure(add("10.7.0.0/16", "198.51.100.1")),
              "66 Route operation failed: Network is unreachable: Nexthop has invalid gateway");
    EXPECT_EQ(failure(add("2001:db8:6::/64", "fe80::2", true)),
              "66 Route operation failed: Invalid argument: Egress device not specified");

    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_FALSE(remove("10.1.2.3/24", "192.0.2.2"));
        EXPECT_FALSE(remove("2001:db8:4::/64", "2001:db8:1::2", true));
    }
    EXPECT_EQ(helperRoutes("-4") + helperRoutes("-6"), "");
    // A delete removes the route whoever added it.
    ASSERT_EQ(shell("ip route add 10.5.0.0/16 via 192.0.2.2 proto static").exitStatus, 0);
    EXPECT_FALSE(remove("10.5.0.0/16", "192.0.2.2"));
    EXPECT_EQ(shell("ip -o route show 10.5.0.0/16").output, "");
}

TEST_F(KernelRoutes, InterfaceRoutesOnATunDevice) {
    ASSERT_EQ(shell("ip tuntap add mode tun name utun5 && ip link set utun5 up").exitStatus, 0);
    EXPECT_FALSE(add("10.8.0.0/24", "", false, "utun5"));
    EXPECT_FALSE(add("10.9.1.1/16", "ignored", false, "utun5"));
    EXPECT_FALSE(add("172.20", "", false, "utun5"));
    EXPECT_FALSE(add("2001:db8:8::/64", "", true, "utun5"));
    EXPECT_EQ(helperRoutes("-4"),
              "10.8.0.0/24 dev utun5 scope link linkdown\n10.9.0.0/16 dev utun5 scope link linkdown\n"
              "172.20.0.0 dev utun5 scope link linkdown\n");
    EXPECT_EQ(helperRoutes("-6"), "2001:db8:8::/64 dev utun5 linkdown\n");

    EXPECT_EQ(failure(add("10.8.0.0/24", "", false, "utun5")), "66 Route operation failed: File exists");
    EXPECT_EQ(failure(add("10.8.0.0/24", "", false, "nosuch0")),
              "66 Route operation failed: No such device: no interface 'nosuch0'");
    EXPECT_EQ(failure(add("10.8.0.0/40", "", false, "utun5")),
              "66 Route operation failed: Invalid argument: bad destination '10.8.0.0/40'");

    for (const char* d : {"10.8.0.0/24", "10.9.0.0/16", "172.20.0.0"}) EXPECT_FALSE(remove(d, "", false, "utun5")) << d;
    EXPECT_FALSE(remove("2001:db8:8::/64", "", true, "utun5"));
    EXPECT_EQ(helperRoutes("-4") + helperRoutes("-6"), "");
    // Gone already, or gone with its interface: both succeed.
    EXPECT_FALSE(remove("10.8.0.0/24", "", false, "utun5"));
    EXPECT_FALSE(remove("10.8.0.0/24", "", false, "nosuch0"));
}

TEST_F(KernelRoutes, ThreadsSharingTheOperationsGetTheirOwnAnswers) {
    // One socket serves every thread; each must still get its own answer.
    std::atomic<int> wrongAnswers{0};
    const auto work = [&](const char* action, bool expectFailure) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 200; ++i) {
                    const std::string d = "10." + std::to_string(t) + "." + std::to_string(i) + ".0/24";
                    if (operations._applyRouteOperationAction(action, d, "192.0.2.2", false, "").has_value() !=
                        expectFailure)
                        ++wrongAnswers;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    };
    work("add", false);
    EXPECT_EQ(shell("ip -o route show proto 75 | wc -l").output, "800\n");
    work("add", true);
    work("delete", false);
    EXPECT_EQ(helperRoutes("-4"), "");
    EXPECT_EQ(wrongAnswers.load(), 0);
}
