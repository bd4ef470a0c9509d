// What the route logic hands the routing table for an operation, and which
// operations it refuses before the table sees them.
#include <gtest/gtest.h>

#include <net/if.h>

#include <algorithm>
#include <array>
#include <limits>

#include "support/TestSupport.h"
#include "network/GatewayRoute.h"
#include "network/NetworkSystemOperations.h"

using namespace korvo;
using korvo::test::errorMessage;

namespace {

// Records the calls it gets and succeeds.
class RecordingRouteTable : public platform::RouteTable {
public:
    MaybeError sendRouteMessage(std::uint8_t type, const platform::RouteSocketAddress& destination, std::uint32_t,
                                const platform::RouteSocketAddress& gateway, std::uint32_t,
                                const platform::RouteSocketAddress& netmask, std::uint32_t length,
                                bool hostRoute) override {
        gatewayCalls.push_back({type, destination, gateway, netmask, length, hostRoute});
        return std::nullopt;
    }
    MaybeError changeInterfaceRoute(bool, const std::string&, const std::string&, bool) override { return std::nullopt; }
    std::vector<GatewayRoute> gatewayCalls;
};

std::array<std::uint8_t, 16> bytes(std::initializer_list<int> leading) {
    std::array<std::uint8_t, 16> out{};
    std::transform(leading.begin(), leading.end(), out.begin(), [](int b) { return static_cast<std::uint8_t>(b); });
    return out;
}

}  // namespace

TEST(RouteOperation, RefusesMalformedOperationsWithCode64BeforeTheTableSeesThem) {
    const std::vector<std::tuple<std::string, std::string, bool, std::string>> cases = {
        {"10.0.0.0/8/1", "192.0.2.1", false, "Invalid CIDR destination '10.0.0.0/8/1'."},
        {"/24", "192.0.2.1", false, "Invalid CIDR destination '/24'."},
        {"10.0.0.0/33", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/33'."},
        {"10.0.0.0/-1", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/-1'."},
        // Not a clean number: refused, never read as prefix 0 (a default route).
        {"10.0.0.0/abc", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/abc'."},
        {"10.0.0.0/24x", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/24x'."},
        {"10.0.0.0/", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/'."},
        {"2001:db8::/129", "2001:db8::1", true, "Invalid prefix length in destination '2001:db8::/129'."},
        {"10..1/16", "192.0.2.1", false, "Invalid IPv4 destination '10..1'."},
        {std::string("10.0.0.1\0x", 10), "192.0.2.1", false, std::string("Invalid IPv4 destination '10.0.0.1\0x'.", 38)},
        {"10.0.0.0/8", "192.0.2", false, "Invalid IPv4 gateway '192.0.2'."},  // gateways are not completed
        {"10.0.0.0/8", "2001:db8::1", true, "Invalid IPv6 destination '10.0.0.0'."},
        {"2001:db8::/64", "fe80::1%nosuch0", true, "Invalid IPv6 gateway scope 'nosuch0'."},
        {"2001:db8::/64", "fe80::zz%lo", true, "Invalid IPv6 gateway 'fe80::zz%lo'."},
    };
    for (const auto& [destination, gateway, isIPv6, message] : cases) {
        auto table = std::make_shared<RecordingRouteTable>();
        NetworkSystemOperations operations(table, nullptr, "/nonexistent");
        const MaybeError error = operations._applyRouteOperationAction("add", destination, gateway, isIPv6, "");
        ASSERT_TRUE(error) << destination;
        EXPECT_EQ(error->code, 64) << destination;
        EXPECT_EQ(errorMessage(error), message);
        EXPECT_TRUE(table->gatewayCalls.empty());
    }
}

TEST(RouteOperation, SendsTheDestinationAsGivenWithItsNetmaskAndHostFlag) {
    struct Case {
        const char *action, *destination, *gateway;
        bool isIPv6;
        std::uint8_t type;
        std::array<std::uint8_t, 16> sentDestination, netmask;
        bool hostRoute;
    };
    const std::vector<Case> cases = {
        {"add", "10.1.2.3/24", "192.0.2.1", false, 1, bytes({10, 1, 2, 3}), bytes({255, 255, 255, 0}), false},
        {"add", "10.1.2.3", "192.0.2.1", false, 1, bytes({10, 1, 2, 3}), bytes({255, 255, 255, 255}), true},
        {"remove", "172.16/12", "192.0.2.1", false, 2, bytes({172, 16}), bytes({255, 240}), false},
        {"Add", "10.0.0.0/8", "192.0.2.1", false, 2, bytes({10}), bytes({255}), false},  // "add" is case-sensitive
        {"add", "10.0.0.0/ 17", "192.0.2.1", false, 1, bytes({10}), bytes({255, 255, 128}), false},
        // Unicode white space before the number, as every reader of the helper skips it.
        {"add", "10.1.0.0/\u00A024", "192.0.2.1", false, 1, bytes({10, 1}), bytes({255, 255, 255}), false},
        {"add", "2001:db8::1", "2001:db8::ff", true, 1, bytes({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
         bytes({255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255}), true},
        {"delete", "2001:db8::/65", "2001:db8::ff", true, 2, bytes({0x20, 1, 0xd, 0xb8}),
         bytes({255, 255, 255, 255, 255, 255, 255, 255, 0x80}), false},
    };
    for (const Case& c : cases) {
        auto table = std::make_shared<RecordingRouteTable>();
        NetworkSystemOperations operations(table, nullptr, "/nonexistent");
        EXPECT_FALSE(operations._applyRouteOperationAction(c.action, c.destination, c.gateway, c.isIPv6, ""));
        ASSERT_EQ(table->gatewayCalls.size(), 1u) << c.destination;
        const GatewayRoute& sent = table->gatewayCalls.front();
        EXPECT_EQ(sent.type, c.type) << c.destination;
        EXPECT_EQ(sent.destination.address, c.sentDestination) << c.destination;
        EXPECT_EQ(sent.netmask.address, c.netmask) << c.destination;
        EXPECT_EQ(sent.hostRoute, c.hostRoute) << c.destination;
        EXPECT_EQ(sent.socketAddressLength, c.isIPv6 ? 28u : 16u);
    }
    const Result<GatewayRoute> scoped = gatewayRouteForOperation("add", "2001:db8::/64", "fe80::1%lo", true);
    ASSERT_TRUE(scoped.ok());
    EXPECT_EQ(scoped->gateway.scopeId, if_nametoindex("lo"));
    EXPECT_EQ(scoped->gateway.address, bytes({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

// Interface routes on a real tun device: KernelRouteTest.
TEST(RouteOperation, AnInterfaceRouteNeedsTheInterfaceName) {
    auto table = std::make_shared<RecordingRouteTable>();
    NetworkSystemOperations operations(table, nullptr, "/nonexistent");
    const MaybeError missing = operations._applyInterfaceRouteOperationAction("add", "10.8.0.0/24", "", false);
    EXPECT_EQ(missing.value_or(KorvoError{}).code, 64);
    EXPECT_EQ(errorMessage(missing), "Missing route interface name.");
    EXPECT_TRUE(table->gatewayCalls.empty());
}
