// A gateway route operation read from the client's text: the three socket
// addresses and flags that the routing table is given.
#pragma once

#include <cstdint>
#include <string_view>

#include "util/Error.h"
#include "platform/RouteTable.h"

namespace korvo {

struct GatewayRoute {
    std::uint8_t type = platform::kRouteMessageDelete;
    platform::RouteSocketAddress destination;  // as given, host bits kept
    platform::RouteSocketAddress gateway;
    platform::RouteSocketAddress netmask;
    std::uint32_t socketAddressLength = platform::kIPv4SocketAddressLength;
    bool hostRoute = false;
};

// Reads a route through a gateway. action "add" adds; anything else deletes.
// destination is "address[/prefix]"; the prefix defaults to the full length,
// and one that is not a clean number (wholeInteger) is refused. An IPv4 destination may be
// abbreviated ("10/8"); an IPv6 gateway may carry a scope ("fe80::1%en0").
// Failures are code 64 with the message naming the piece that is wrong.
Result<GatewayRoute> gatewayRouteForOperation(std::string_view action, std::string_view destination,
                                              std::string_view gateway, bool isIPv6);

}  // namespace korvo
