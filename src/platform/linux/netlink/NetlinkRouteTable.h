// Linux routing table over rtnetlink: one socket for the table's lifetime,
// shared by all threads, so that thousands of routes cost one request each
// and no socket setup.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/RouteTable.h"
#include "platform/linux/netlink/NetlinkSocket.h"

namespace korvo::platform {

// The routing-protocol number on every route the helper adds, so that
// `ip route show proto 75` lists exactly the helper's routes. Unassigned in
// the kernel's and iproute2's tables.
inline constexpr std::uint8_t kKorvoRouteProtocol = 75;

class NetlinkRouteTable final : public RouteTable {
public:
    MaybeError sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute) override;
    MaybeError changeInterfaceRoute(bool add, const std::string& destination, const std::string& interfaceName,
                                    bool isIPv6) override;

    // One route as the kernel is asked for it.
    struct KernelRoute {
        bool add = false;
        AddressFamily family = AddressFamily::IPv4;
        RouteSocketAddress destination;  // host bits already cleared
        std::uint8_t prefixLength = 0;
        std::optional<RouteSocketAddress> gateway;
        unsigned outputInterface = 0;  // 0: none
    };

private:
    MaybeError apply(const KernelRoute& route);

    std::mutex mutex_;
    // Opened on first use, so that a failure to open is reported by the
    // request that needed it and retried by the next.
    std::unique_ptr<linux_netlink::NetlinkSocket> socket_;
};

}  // namespace korvo::platform
