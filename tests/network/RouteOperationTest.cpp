// What the route logic hands the routing table for a given operation, and
// which operations it refuses before the table sees them.
#include <gtest/gtest.h>

#include <net/if.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "network/GatewayRoute.h"
#include "network/NetworkSystemOperations.h"
#include "NetworkTestSupport.h"

using namespace korvo;
using korvo::platform::AddressFamily;
using korvo::platform::RouteSocketAddress;
using korvo::testing::errorMessage;

namespace {

struct GatewayCall {
    std::uint8_t type;
    RouteSocketAddress destination, gateway, netmask;
    std::uint32_t destinationLength, gatewayLength, netmaskLength;
    bool hostRoute;
};

struct InterfaceCall {
    bool add;
    std::string destination, interfaceName;
    bool isIPv6;
    friend bool operator==(const InterfaceCall&, const InterfaceCall&) = default;
};

// Records what it is asked to do and answers with a preset result.
class RecordingRouteTable : public platform::RouteTable {
public:
    MaybeError sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute) override {
        gatewayCalls.push_back(
            {type, destination, gateway, netmask, destinationLength, gatewayLength, netmaskLength, hostRoute});
        return result;
    }
    MaybeError changeInterfaceRoute(bool add, const std::string& destination, const std::string& interfaceName,
                                    bool isIPv6) override {
        interfaceCalls.push_back({add, destination, interfaceName, isIPv6});
        return result;
    }

    std::vector<GatewayCall> gatewayCalls;
    std::vector<InterfaceCall> interfaceCalls;
    MaybeError result;
};

struct Fixture {
    std::shared_ptr<RecordingRouteTable> table = std::make_shared<RecordingRouteTable>();
    NetworkSystemOperations operations{table, nullptr, "/nonexistent"};
};

std::array<std::uint8_t, 16> bytes(std::initializer_list<std::uint8_t> leading) {
    std::array<std::uint8_t, 16> out{};
    std::copy(leading.begin(), leading.end(), out.begin());
    return out;
}

// The single gateway call an accepted operation makes.
GatewayCall sent(std::string_view action, std::string_view destination, std::string_view gateway, bool isIPv6) {
    Fixture f;
    const MaybeError error = f.operations._applyRouteOperationAction(action, destination, gateway, isIPv6, "");
    EXPECT_FALSE(error) << destination << ": " << errorMessage(error);
    EXPECT_EQ(f.table->gatewayCalls.size(), 1u) << destination;
    return f.table->gatewayCalls.empty() ? GatewayCall{} : f.table->gatewayCalls.front();
}

}  // namespace

TEST(RouteOperation, RefusesMalformedOperationsWithCode64BeforeTheTableSeesThem) {
    struct Case {
        std::string destination, gateway;
        bool isIPv6;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"10.0.0.0/8/1", "192.0.2.1", false, "Invalid CIDR destination '10.0.0.0/8/1'."},
        {"/24", "192.0.2.1", false, "Invalid CIDR destination '/24'."},
        {"", "192.0.2.1", false, "Invalid CIDR destination ''."},
        {"10.0.0.0/33", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/33'."},
        {"10.0.0.0/-1", "192.0.2.1", false, "Invalid prefix length in destination '10.0.0.0/-1'."},
        {"2001:db8::/129", "2001:db8::1", true, "Invalid prefix length in destination '2001:db8::/129'."},
        {"10.0.0.256/24", "192.0.2.1", false, "Invalid IPv4 destination '10.0.0.256'."},
        {"10..1/16", "192.0.2.1", false, "Invalid IPv4 destination '10..1'."},
        {std::string("10.0.0.1\0x", 10), "192.0.2.1", false, std::string("Invalid IPv4 destination '10.0.0.1\0x'.", 38)},
        // The gateway is not completed like the destination.
        {"10.0.0.0/8", "192.0.2", false, "Invalid IPv4 gateway '192.0.2'."},
        {"10.0.0.0/8", "2001:db8::1", false, "Invalid IPv4 gateway '2001:db8::1'."},
        {"2001:db8::zz/64", "2001:db8::1", true, "Invalid IPv6 destination '2001:db8::zz'."},
        {"10.0.0.0/8", "2001:db8::1", true, "Invalid IPv6 destination '10.0.0.0'."},
        {"2001:db8::/64", "fe80::1%nosuch0", true, "Invalid IPv6 gateway scope 'nosuch0'."},
        {"2001:db8::/64", "fe80::1%", true, "Invalid IPv6 gateway scope ''."},
        {"2001:db8::/64", "fe80::zz%lo", true, "Invalid IPv6 gateway 'fe80::zz%lo'."},
        {"2001:db8::/64", "192.0.2.1", true, "Invalid IPv6 gateway '192.0.2.1'."},
    };
    for (const Case& c : cases) {
        Fixture f;
        const MaybeError error = f.operations._applyRouteOperationAction("add", c.destination, c.gateway, c.isIPv6, "");
        ASSERT_TRUE(error) << c.destination;
        EXPECT_EQ(error->domain, KorvoErrorDomain);
        EXPECT_EQ(error->code, 64) << c.destination;
        EXPECT_EQ(errorMessage(error), c.message);
        EXPECT_TRUE(f.table->gatewayCalls.empty());
    }
}

TEST(RouteOperation, BuildsIPv4AddressesNetmasksAndHostFlag) {
    // The destination goes as given, host bits and all; the netmask says the rest.
    GatewayCall call = sent("add", "10.1.2.3/24", "192.0.2.1", false);
    EXPECT_EQ(call.type, platform::kRouteMessageAdd);
    EXPECT_EQ(call.destination.family, AddressFamily::IPv4);
    EXPECT_EQ(call.destination.address, bytes({10, 1, 2, 3}));
    EXPECT_EQ(call.gateway.address, bytes({192, 0, 2, 1}));
    EXPECT_EQ(call.netmask.address, bytes({255, 255, 255, 0}));
    EXPECT_FALSE(call.hostRoute);
    EXPECT_EQ(call.destinationLength, 16u);
    EXPECT_EQ(call.gatewayLength, 16u);
    EXPECT_EQ(call.netmaskLength, 16u);

    call = sent("add", "10.1.2.3", "192.0.2.1", false);
    EXPECT_TRUE(call.hostRoute);
    EXPECT_EQ(call.netmask.address, bytes({255, 255, 255, 255}));

    call = sent("add", "10/8", "192.0.2.1", false);
    EXPECT_EQ(call.destination.address, bytes({10, 0, 0, 0}));
    EXPECT_EQ(call.netmask.address, bytes({255, 0, 0, 0}));

    call = sent("add", "172.16/12", "192.0.2.1", false);
    EXPECT_EQ(call.destination.address, bytes({172, 16, 0, 0}));
    EXPECT_EQ(call.netmask.address, bytes({255, 240, 0, 0}));

    // A prefix that is not a number reads as 0: a default-sized netmask of 0.
    call = sent("add", "10.0.0.0/abc", "192.0.2.1", false);
    EXPECT_EQ(call.netmask.address, bytes({}));
    EXPECT_FALSE(call.hostRoute);

    call = sent("add", "10.0.0.0/ 17", "192.0.2.1", false);
    EXPECT_EQ(call.netmask.address, bytes({255, 255, 128, 0}));

    call = sent("add", "0.0.0.0/1", "192.0.2.1", false);
    EXPECT_EQ(call.netmask.address, bytes({128}));
}

TEST(RouteOperation, BuildsIPv6AddressesNetmasksScopeAndHostFlag) {
    GatewayCall call = sent("add", "2001:db8::1", "2001:db8::ff", true);
    EXPECT_TRUE(call.hostRoute);
    EXPECT_EQ(call.destination.family, AddressFamily::IPv6);
    EXPECT_EQ(call.destination.address, bytes({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(call.netmask.address, bytes({255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255}));
    EXPECT_EQ(call.gateway.scopeId, 0u);
    EXPECT_EQ(call.destinationLength, 28u);
    EXPECT_EQ(call.netmaskLength, 28u);

    call = sent("add", "2001:db8::/65", "2001:db8::ff", true);
    EXPECT_FALSE(call.hostRoute);
    EXPECT_EQ(call.netmask.address, bytes({255, 255, 255, 255, 255, 255, 255, 255, 0x80}));

    call = sent("add", "2001:db8::/0", "2001:db8::ff", true);
    EXPECT_EQ(call.netmask.address, bytes({}));

    call = sent("add", "2001:db8::/64", "fe80::1%lo", true);
    EXPECT_EQ(call.gateway.scopeId, if_nametoindex("lo"));
    EXPECT_EQ(call.gateway.address, bytes({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(RouteOperation, OnlyTheExactActionAddAdds) {
    EXPECT_EQ(sent("add", "10.0.0.0/8", "192.0.2.1", false).type, platform::kRouteMessageAdd);
    for (const char* action : {"delete", "remove", "Add", "", "add "}) {
        EXPECT_EQ(sent(action, "10.0.0.0/8", "192.0.2.1", false).type, platform::kRouteMessageDelete) << action;
    }
}

TEST(RouteOperation, AnInterfaceNameTakesTheInterfacePathAndIgnoresTheGateway) {
    Fixture f;
    EXPECT_FALSE(f.operations._applyRouteOperationAction("add", "10.8.0.0/24", "not an address", false, "utun5"));
    EXPECT_FALSE(f.operations._applyRouteOperationAction("remove", "2001:db8::/64", "", true, "utun5"));
    const std::vector<InterfaceCall> expected = {{true, "10.8.0.0/24", "utun5", false},
                                                 {false, "2001:db8::/64", "utun5", true}};
    EXPECT_EQ(f.table->interfaceCalls, expected);
    EXPECT_TRUE(f.table->gatewayCalls.empty());

    const MaybeError missing = f.operations._applyInterfaceRouteOperationAction("add", "10.8.0.0/24", "", false);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code, 64);
    EXPECT_EQ(errorMessage(missing), "Missing route interface name.");
    EXPECT_EQ(f.table->interfaceCalls.size(), 2u);
}

TEST(RouteOperation, PassesTheTablesErrorThrough) {
    Fixture f;
    f.table->result = errorWithKorvoErrorCode(66, std::string("Route operation failed: File exists"));
    EXPECT_EQ(f.operations._applyRouteOperationAction("add", "10.0.0.0/8", "192.0.2.1", false, ""), f.table->result);
    EXPECT_EQ(f.operations._applyRouteOperationAction("add", "10.0.0.0/8", "", false, "tun0"), f.table->result);
}

TEST(IntegerValueOfString, ReadsTheLeadingNumberLikeFoundation) {
    const std::vector<std::pair<std::string, std::int64_t>> cases = {
        {"24", 24},          {"  24", 24},     {"\t\n-1", -1},   {"+7", 7},   {"12abc", 12},
        {"abc", 0},          {"", 0},          {"-", 0},         {"- 5", 0},  {"0x10", 0},
        {"007", 7},          {"3.9", 3},       {"--1", 0},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"9223372036854775808", std::numeric_limits<std::int64_t>::max()},
        {"99999999999999999999999", std::numeric_limits<std::int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"-99999999999999999999999", std::numeric_limits<std::int64_t>::min()},
    };
    for (const auto& [text, value] : cases) EXPECT_EQ(integerValueOfString(text), value) << "'" << text << "'";
}
