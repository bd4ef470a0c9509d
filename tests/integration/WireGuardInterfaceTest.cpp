// The Linux tunnel interface operations on a real tun device, inside the
// test's own network namespace (tests/support/isolated).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "platform/TunnelInterfaceConfigurator.h"

namespace korvo::test {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;

std::string descriptionOf(const MaybeError& error) { return error ? error->localizedDescription().value_or("") : ""; }

class TunnelInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        ASSERT_EQ(shell("ip tuntap add dev ktun0 mode tun").exitStatus, 0);
    }
    void TearDown() override { shell("ip link del ktun0"); }

    std::shared_ptr<platform::TunnelInterfaceConfigurator> interfaces =
        platform::makeSystemTunnelInterfaceConfigurator();
};

TEST_F(TunnelInterfaceTest, UpWithAHostAddressAndAnIPv6Prefix) {
    EXPECT_EQ(interfaces->bringInterfaceUp("ktun0"), std::nullopt);
    EXPECT_THAT(shell("ip -o link show dev ktun0").output, HasSubstr(",UP"));

    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.2", "10.1.0.2", "255.255.255.255"), std::nullopt);
    // Adding what is already there succeeds, as with ifconfig.
    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.2", "10.1.0.2", "255.255.255.255"), std::nullopt);
    // A point-to-point pair: our end and the peer's.
    EXPECT_EQ(interfaces->addIPv4Address("ktun0", "10.1.0.3", "10.1.0.4", "255.255.255.255"), std::nullopt);
    EXPECT_EQ(interfaces->addIPv6Address("ktun0", "fd00::2", 64), std::nullopt);
    EXPECT_EQ(interfaces->addIPv6Address("ktun0", "fd00:1::2", 32), std::nullopt);

    const std::string addresses = shell("ip -o addr show dev ktun0").output;
    EXPECT_THAT(addresses, AllOf(HasSubstr("inet 10.1.0.2/32"), HasSubstr("inet 10.1.0.3 peer 10.1.0.4/32"),
                                 HasSubstr("inet6 fd00::2/64"), HasSubstr("inet6 fd00:1::2/32")));
}

TEST_F(TunnelInterfaceTest, FailuresAreCode68WithTheReason) {
    MaybeError error = interfaces->bringInterfaceUp("knosuch0");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 68);
    EXPECT_THAT(descriptionOf(error), EndsWith("\n\nCould not set interface knosuch0 up: No such device"));

    error = interfaces->addIPv4Address("knosuch0", "10.1.0.2", "10.1.0.2", "255.255.255.255");
    EXPECT_THAT(descriptionOf(error), EndsWith("Could not add address 10.1.0.2 to interface knosuch0: No such device"));
    error = interfaces->addIPv6Address("knosuch0", "fd00::2", 64);
    EXPECT_THAT(descriptionOf(error),
                EndsWith("Could not add address fd00::2/64 to interface knosuch0: No such device"));

    error = interfaces->addIPv4Address("ktun0", "10.1.0.300", "10.1.0.300", "255.255.255.255");
    EXPECT_THAT(descriptionOf(error),
                EndsWith("Could not add address 10.1.0.300 to interface ktun0: Invalid argument"));
    error = interfaces->addIPv4Address("ktun0", "10.1.0.2", "10.1.0.2", "255.0.255.0");
    EXPECT_THAT(descriptionOf(error), HasSubstr("Invalid argument"));
    error = interfaces->addIPv6Address("ktun0", "10.1.0.2", 64);
    EXPECT_THAT(descriptionOf(error), HasSubstr("Invalid argument"));
    EXPECT_EQ(shell("ip -o addr show dev ktun0").output, "");
}

}  // namespace
}  // namespace korvo::test
