// The Linux tunnel interface operations on a real tun device, inside the
// test's own network namespace (tests/support/isolated). Bringing a tunnel
// up with its addresses through the bus: WireGuardTunnelTest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "platform/TunnelInterfaceConfigurator.h"

namespace korvo::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(TunnelInterfaceTest, AddressesAddTwiceAndFailuresAreCode68WithTheReason) {
    ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
    ASSERT_EQ(shell("ip link del ktun0 2>/dev/null; ip tuntap add dev ktun0 mode tun").exitStatus, 0);
    const auto interfaces = platform::makeSystemTunnelInterfaceConfigurator();
    // Adding what is already there succeeds, as with ifconfig; a
    // point-to-point pair is our end and the peer's.
    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.2", "10.1.0.2", "255.255.255.255"), std::nullopt);
    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.2", "10.1.0.2", "255.255.255.255"), std::nullopt);
    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.3", "10.1.0.4", "255.255.255.255"), std::nullopt);
    EXPECT_THAT(shell("ip -o addr show dev ktun0").output,
                AllOf(HasSubstr("inet 10.1.0.2/32"), HasSubstr("inet 10.1.0.3 peer 10.1.0.4/32")));

    const std::pair<MaybeError, std::string> failures[] = {
        {interfaces->bringInterfaceUp("knosuch0"), "Could not set interface knosuch0 up: No such device"},
        {interfaces->addIPv6Address("knosuch0", "fd00::2", 64),
         "Could not add address fd00::2/64 to interface knosuch0: No such device"},
        {interfaces->addIPv4Address("ktun0", "10.1.0.300", "10.1.0.300", "255.255.255.255"),
         "Could not add address 10.1.0.300 to interface ktun0: Invalid argument"},
        {interfaces->addIPv4Address("ktun0", "10.1.0.5", "10.1.0.5", "255.0.255.0"), "Invalid argument"},
        {interfaces->addIPv6Address("ktun0", "10.1.0.2", 64), "Invalid argument"},
    };
    for (const auto& [error, reason] : failures) {
        ASSERT_TRUE(error) << reason;
        EXPECT_EQ(error->code, 68);
        EXPECT_THAT(error->localizedDescription().value_or(""), HasSubstr(reason));
    }
    shell("ip link del ktun0");
}

}  // namespace
}  // namespace korvo::test
