// Routes are written as `ip route` writes them: in the main table, with
// NLM_F_CREATE|NLM_F_EXCL on add (so an existing route is EEXIST), and
// deleted with scope "nowhere" and no protocol, which matches a route
// whoever added it. A delete the kernel answers with ESRCH found nothing and
// succeeds.
#include "platform/linux/netlink/NetlinkRouteTable.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "util/AddressAdditions.h"
#include "util/Format.h"

namespace korvo::platform {
namespace {

using linux_netlink::NetlinkSocket;
using linux_netlink::NetlinkStatus;


KorvoError routeError(const std::string& message) { return errorWithKorvoErrorCode(kRoutingErrorCode, message); }

KorvoError routeFailure(int error, const std::string& detail) {
    return routeError("Route operation failed: " + std::string(std::strerror(error)) + ": " + detail);
}

std::size_t addressSize(AddressFamily family) { return family == AddressFamily::IPv6 ? 16 : 4; }

// The number of leading one bits of the netmask.
std::uint8_t prefixLengthOfNetmask(const RouteSocketAddress& netmask, AddressFamily family) {
    std::uint8_t length = 0;
    for (std::size_t i = 0; i < addressSize(family); ++i) {
        std::uint8_t byte = netmask.address[i];
        while (byte & 0x80) {
            ++length;
            byte = static_cast<std::uint8_t>(byte << 1);
        }
        if (netmask.address[i] != 0xFF) break;
    }
    return length;
}

// Clears the bits beyond the prefix: the kernel refuses 10.1.2.3/24.
void clearHostBits(RouteSocketAddress& address, std::uint8_t prefixLength) {
    for (std::size_t i = 0; i < address.address.size(); ++i) {
        const int bitsInByte = static_cast<int>(prefixLength) - static_cast<int>(i * 8);
        if (bitsInByte >= 8) continue;
        address.address[i] &= bitsInByte <= 0 ? 0 : static_cast<std::uint8_t>(0xFF << (8 - bitsInByte));
    }
}

// The destination of an interface route, read as the route tool reads it:
// an address (IPv4 may be abbreviated, "10.8" for 10.8.0.0) and an optional
// decimal prefix length.
std::optional<NetlinkRouteTable::KernelRoute> interfaceRouteDestination(std::string_view text, bool isIPv6) {
    NetlinkRouteTable::KernelRoute route;
    route.family = isIPv6 ? AddressFamily::IPv6 : AddressFamily::IPv4;
    route.destination.family = route.family;
    const unsigned maximumPrefix = isIPv6 ? 128 : 32;
    route.prefixLength = static_cast<std::uint8_t>(maximumPrefix);

    std::string_view host = text;
    if (const auto slash = text.find('/'); slash != std::string_view::npos) {
        host = text.substr(0, slash);
        const std::string_view prefix = text.substr(slash + 1);
        if (prefix.empty() || prefix.size() > 3) return std::nullopt;
        unsigned value = 0;
        for (const char c : prefix) {
            if (c < '0' || c > '9') return std::nullopt;
            value = value * 10 + static_cast<unsigned>(c - '0');
        }
        if (value > maximumPrefix) return std::nullopt;
        route.prefixLength = static_cast<std::uint8_t>(value);
    }
    if (host.find('\0') != std::string_view::npos) return std::nullopt;
    const std::string address = isIPv6 ? std::string(host) : stringByNormalizingAbbreviatedIPv4Address(host);
    if (inet_pton(isIPv6 ? AF_INET6 : AF_INET, address.c_str(), route.destination.address.data()) != 1) {
        return std::nullopt;
    }
    clearHostBits(route.destination, route.prefixLength);
    return route;
}

// The route to destination/netmask through gateway (a link-local IPv6
// gateway names its interface by its scope).
NetlinkRouteTable::KernelRoute gatewayRoute(const RouteSocketAddress& destination, const RouteSocketAddress& gateway,
                                            const RouteSocketAddress& netmask) {
    NetlinkRouteTable::KernelRoute route;
    route.family = destination.family;
    route.prefixLength = prefixLengthOfNetmask(netmask, destination.family);
    route.destination = destination;
    clearHostBits(route.destination, route.prefixLength);
    route.gateway = gateway;
    if (destination.family == AddressFamily::IPv6) route.outputInterface = gateway.scopeId;
    return route;
}

}  // namespace

MaybeError NetlinkRouteTable::deleteHelperGatewayRoute(const RouteSocketAddress& destination,
                                                       const RouteSocketAddress& gateway,
                                                       const RouteSocketAddress& netmask) {
    KernelRoute route = gatewayRoute(destination, gateway, netmask);
    route.onlyHelperRoute = true;
    return apply(route);
}

MaybeError NetlinkRouteTable::deleteHelperInterfaceRoute(const std::string& destination,
                                                         const std::string& interfaceName, bool isIPv6) {
    std::optional<KernelRoute> route = interfaceRouteDestination(destination, isIPv6);
    if (!route) return routeFailure(EINVAL, "bad destination '" + destination + "'");
    route->outputInterface =
        interfaceName.find('\0') == std::string::npos ? if_nametoindex(interfaceName.c_str()) : 0;
    if (route->outputInterface == 0) return std::nullopt;
    route->onlyHelperRoute = true;
    return apply(*route);
}

MaybeError NetlinkRouteTable::sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                               std::uint32_t, const RouteSocketAddress& gateway, std::uint32_t,
                                               const RouteSocketAddress& netmask, std::uint32_t, bool) {
    // A host route is the prefix of full length here; the flag has no
    // counterpart in rtnetlink.
    KernelRoute route = gatewayRoute(destination, gateway, netmask);
    route.add = type == kRouteMessageAdd;
    return apply(route);
}

MaybeError NetlinkRouteTable::changeInterfaceRoute(bool add, const std::string& destination,
                                                   const std::string& interfaceName, bool isIPv6) {
    std::optional<KernelRoute> route = interfaceRouteDestination(destination, isIPv6);
    if (!route) return routeFailure(EINVAL, "bad destination '" + destination + "'");
    route->add = add;
    route->outputInterface =
        interfaceName.find('\0') == std::string::npos ? if_nametoindex(interfaceName.c_str()) : 0;
    if (route->outputInterface == 0) {
        // Routes through an interface go with it: when it is gone, so is the route.
        if (!add) return std::nullopt;
        return routeFailure(ENODEV, "no interface '" + interfaceName + "'");
    }
    return apply(*route);
}

MaybeError NetlinkRouteTable::apply(const KernelRoute& route) {
    const std::lock_guard lock(mutex_);
    if (!socket_) {
        socket_ = NetlinkSocket::open();
        if (!socket_) return routeError(formatString("Could not open routing socket: %s", std::strerror(errno)));
    }

    char buffer[NetlinkSocket::kBufferSize];
    nlmsghdr* nlh = socket_->beginMessage(buffer, route.add ? RTM_NEWROUTE : RTM_DELROUTE,
                                          route.add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
    const bool ipv6 = route.family == AddressFamily::IPv6;
    rtm->rtm_family = ipv6 ? AF_INET6 : AF_INET;
    rtm->rtm_dst_len = route.prefixLength;
    rtm->rtm_table = RT_TABLE_MAIN;
    if (route.add) {
        rtm->rtm_protocol = kKorvoRouteProtocol;
        rtm->rtm_type = RTN_UNICAST;
        // An IPv4 route without a gateway reaches its destination on the link.
        rtm->rtm_scope = !ipv6 && !route.gateway ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    } else {
        rtm->rtm_scope = RT_SCOPE_NOWHERE;
        // The kernel matches a delete's protocol when one is given.
        if (route.onlyHelperRoute) rtm->rtm_protocol = kKorvoRouteProtocol;
    }
    const auto size = static_cast<std::uint16_t>(addressSize(route.family));
    mnl_attr_put(nlh, RTA_DST, size, route.destination.address.data());
    if (route.gateway) mnl_attr_put(nlh, RTA_GATEWAY, size, route.gateway->address.data());
    if (route.outputInterface != 0) mnl_attr_put_u32(nlh, RTA_OIF, route.outputInterface);

    const NetlinkStatus status = socket_->request(nlh);
    if (status.ok() || (!route.add && status.error == ESRCH)) return std::nullopt;
    return routeError("Route operation failed: " + status.describe());
}

std::shared_ptr<RouteTable> makeSystemRouteTable(SystemToolRunner) { return std::make_shared<NetlinkRouteTable>(); }

}  // namespace korvo::platform
