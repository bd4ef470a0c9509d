// Interfaces on the real kernel, each test in namespaces of its own
// (support/isolated), where only lo exists until the test adds links.
#include <gtest/gtest.h>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "NetworkTestSupport.h"
#include "network/NetworkSystemOperations.h"

using namespace korvo;
using korvo::testing::errorMessage;
using korvo::testing::shell;

namespace {

bool exists(const char* name) { return if_nametoindex(name) != 0; }

// The up flag as the kernel reports it.
bool isUp(const char* name) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    const int result = ::ioctl(fd, SIOCGIFFLAGS, &request);
    ::close(fd);
    EXPECT_EQ(result, 0) << name;
    return (request.ifr_flags & IFF_UP) != 0;
}

}  // namespace

TEST(KernelInterfaces, TunAndTapDevicesAreDestroyedAndAbsentOnesTolerated) {
    ASSERT_TRUE(shell("ip tuntap add mode tun name utun7 && ip tuntap add mode tap name tap0"
                      " && ip tuntap add mode tun name korvotunnel1234"))
        << "run this test through tests/support/isolated";
    NetworkSystemOperations operations;

    EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun7"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("tap0"));
    EXPECT_FALSE(exists("utun7"));
    EXPECT_FALSE(exists("tap0"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun7"));
    EXPECT_FALSE(operations._deleteInterfaceIfPresent(""));

    // The name is cut to 15 characters, as an interface request holds it.
    EXPECT_FALSE(operations._deleteInterfaceIfPresent("korvotunnel1234-and-more"));
    EXPECT_FALSE(exists("korvotunnel1234"));

    // Interfaces that cannot be destroyed are a real failure.
    const MaybeError loopback = operations._deleteInterfaceIfPresent("lo");
    ASSERT_TRUE(loopback);
    EXPECT_EQ(loopback->code, 68);
    EXPECT_EQ(errorMessage(loopback).rfind("Could not delete tunnel interface lo: Operation not supported", 0), 0u)
        << errorMessage(loopback);
    EXPECT_TRUE(exists("lo"));
}

TEST(KernelInterfaces, EthernetNamedInterfacesAreListedAndBroughtDownAndUp) {
    ASSERT_TRUE(shell("ip link add en0 type veth peer name enx1 && ip link add bridge0 type bridge"
                      " && ip tuntap add mode tun name utun3 && ip link add en0123456789abc type veth peer name peer0"))
        << "run this test through tests/support/isolated";
    NetworkSystemOperations operations;

    // In index order: a veth peer may come before the end that was named first.
    std::vector<std::string> names = operations._localEthernetInterfaceNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"en0", "en0123456789abc", "enx1"}));

    EXPECT_FALSE(isUp("en0"));
    EXPECT_FALSE(operations._setInterfaceNamed("en0", true));
    EXPECT_TRUE(isUp("en0"));
    EXPECT_FALSE(operations._setInterfaceNamed("en0", true));  // already up: written again, no error
    EXPECT_TRUE(isUp("en0"));
    EXPECT_FALSE(operations._setInterfaceNamed("en0", false));
    EXPECT_FALSE(isUp("en0"));
    EXPECT_FALSE(isUp("enx1"));  // its peer is left alone

    EXPECT_FALSE(operations._setInterfaceNamed("en0123456789abcdef", true));
    EXPECT_TRUE(isUp("en0123456789abc"));

    const MaybeError absent = operations._setInterfaceNamed("en9", true);
    ASSERT_TRUE(absent);
    EXPECT_EQ(absent->code, 68);
    EXPECT_EQ(errorMessage(absent), "Could not read flags for interface en9: No such device");
}
