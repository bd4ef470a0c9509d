// The kernel's routing table as the helper changes it: one route at a time,
// either through a gateway address or through an interface. On Linux this is
// rtnetlink; on macOS the routing socket and "/sbin/route".
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/SystemToolRunner.h"
#include "util/Error.h"

namespace korvo::platform {

enum class AddressFamily : std::uint8_t { IPv4, IPv6 };

// One socket address of a gateway route: destination, gateway or netmask.
struct RouteSocketAddress {
    AddressFamily family = AddressFamily::IPv4;
    // Network byte order; an IPv4 address uses the first four bytes.
    std::array<std::uint8_t, 16> address{};
    // The IPv6 scope (interface index) of a link-local gateway; 0 for none.
    std::uint32_t scopeId = 0;

    friend bool operator==(const RouteSocketAddress&, const RouteSocketAddress&) = default;
};

// The lengths of the BSD socket addresses (sockaddr_in, sockaddr_in6) a route
// message carries for each family.
inline constexpr std::uint32_t kIPv4SocketAddressLength = 16;
inline constexpr std::uint32_t kIPv6SocketAddressLength = 28;

// Route message types, with the routing socket's numbers.
inline constexpr std::uint8_t kRouteMessageAdd = 1;     // RTM_ADD
inline constexpr std::uint8_t kRouteMessageDelete = 2;  // RTM_DELETE

// Every failure is an error of code 66 with a message saying what failed.
// Removing a route that is not there succeeds.
class RouteTable {
public:
    virtual ~RouteTable() = default;

    // Adds (kRouteMessageAdd) or deletes (any other type) the route to
    // destination/netmask through gateway. Each length is the number of bytes
    // of the family's socket address that the message carries (16 or 28).
    // hostRoute marks a route to a single address.
    virtual MaybeError sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                        std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                        std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                        std::uint32_t netmaskLength, bool hostRoute) = 0;

    // Adds or deletes the route to destination (CIDR text as the client wrote
    // it: an address, optionally "/" and a prefix length) that points at
    // interfaceName.
    virtual MaybeError changeInterfaceRoute(bool add, const std::string& destination,
                                            const std::string& interfaceName, bool isIPv6) = 0;
};

// The platform's routing table. Thread-safe; it may hold one open socket for
// its lifetime.
std::shared_ptr<RouteTable> makeSystemRouteTable(SystemToolRunner runTool = {});

}  // namespace korvo::platform
