// Tunnel interface configuration over rtnetlink: RTM_NEWLINK for the up flag,
// RTM_NEWADDR for addresses. An IPv4 address is added as ifconfig adds one to
// a point-to-point interface: IFA_LOCAL is our end, IFA_ADDRESS the peer's.
#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/TunnelInterfaceConfigurator.h"
#include "platform/linux/netlink/NetlinkSocket.h"
#include "util/Format.h"

namespace korvo::platform {
namespace {

using linux_netlink::NetlinkSocket;
using linux_netlink::NetlinkStatus;


KorvoError interfaceError(const std::string& message) { return errorWithKorvoErrorCode(kLaunchingCode, message); }

// The request's socket and the interface's index, or the error that stops it.
struct Target {
    std::unique_ptr<NetlinkSocket> socket;
    unsigned index = 0;
};

Result<Target> openTarget(const std::string& interfaceName, const std::string& failurePrefix) {
    Target target;
    target.socket = NetlinkSocket::open();
    if (!target.socket) {
        return interfaceError(formatString("Could not open interface control socket: %s", std::strerror(errno)));
    }
    target.index = if_nametoindex(interfaceName.c_str());
    if (target.index == 0) {
        const int err = errno == 0 ? ENODEV : errno;
        return interfaceError(formatString("%s: %s", failurePrefix.c_str(), std::strerror(err)));
    }
    return target;
}

NetlinkStatus setLinkUp(NetlinkSocket& socket, unsigned index) {
    std::vector<char> buffer(NetlinkSocket::kBufferSize);
    nlmsghdr* nlh = socket.beginMessage(buffer.data(), RTM_NEWLINK, 0);
    auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_family = AF_UNSPEC;
    ifi->ifi_index = static_cast<int>(index);
    ifi->ifi_flags = IFF_UP;
    ifi->ifi_change = IFF_UP;
    return socket.request(nlh);
}

// Adds our address and the peer's with the prefix length. NLM_F_REPLACE
// lets adding an address the interface already has succeed, as with ifconfig.
template <typename Address>
NetlinkStatus addAddress(NetlinkSocket& socket, unsigned index, std::uint8_t family, std::uint8_t prefixLength,
                         const Address& local, const Address& peer) {
    std::vector<char> buffer(NetlinkSocket::kBufferSize);
    nlmsghdr* nlh = socket.beginMessage(buffer.data(), RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE);
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
    ifa->ifa_family = family;
    ifa->ifa_prefixlen = prefixLength;
    ifa->ifa_scope = RT_SCOPE_UNIVERSE;
    ifa->ifa_index = index;
    mnl_attr_put(nlh, IFA_LOCAL, sizeof local, &local);
    mnl_attr_put(nlh, IFA_ADDRESS, sizeof peer, &peer);
    return socket.request(nlh);
}

// The prefix length of a contiguous dotted netmask.
std::optional<std::uint8_t> prefixLengthOfNetmask(const std::string& netmask) {
    in_addr mask{};
    if (inet_pton(AF_INET, netmask.c_str(), &mask) != 1) return std::nullopt;
    const std::uint32_t bits = ntohl(mask.s_addr);
    const int ones = std::countl_one(bits);
    if (ones < 32 && (bits << ones) != 0) return std::nullopt;
    return static_cast<std::uint8_t>(ones);
}

class NetlinkTunnelInterfaceConfigurator final : public TunnelInterfaceConfigurator {
public:
    MaybeError bringInterfaceUp(const std::string& interfaceName) override {
        const std::string failure = formatString("Could not set interface %s up", interfaceName.c_str());
        auto target = openTarget(interfaceName, failure);
        if (!target) return target.error();
        const NetlinkStatus status = setLinkUp(*target->socket, target->index);
        if (!status.ok()) return interfaceError(failure + ": " + status.describe());
        return std::nullopt;
    }

    MaybeError addIPv4Address(const std::string& interfaceName, const std::string& localAddress,
                              const std::string& destinationAddress, const std::string& netmask) override {
        const std::string failure =
            formatString("Could not add address %s to interface %s", localAddress.c_str(), interfaceName.c_str());
        in_addr local{};
        in_addr peer{};
        const auto prefixLength = prefixLengthOfNetmask(netmask);
        if (inet_pton(AF_INET, localAddress.c_str(), &local) != 1 ||
            inet_pton(AF_INET, destinationAddress.c_str(), &peer) != 1 || !prefixLength) {
            return interfaceError(failure + ": " + std::strerror(EINVAL));
        }
        auto target = openTarget(interfaceName, failure);
        if (!target) return target.error();
        NetlinkStatus status = addAddress(*target->socket, target->index, AF_INET, *prefixLength, local, peer);
        if (!status.ok()) return interfaceError(failure + ": " + status.describe());
        // ifconfig's trailing "up".
        status = setLinkUp(*target->socket, target->index);
        if (!status.ok()) {
            return interfaceError(
                formatString("Could not set interface %s up: %s", interfaceName.c_str(), status.describe().c_str()));
        }
        return std::nullopt;
    }

    MaybeError addIPv6Address(const std::string& interfaceName, const std::string& address,
                              long prefixLength) override {
        const std::string failure = formatString("Could not add address %s/%ld to interface %s", address.c_str(),
                                                 prefixLength, interfaceName.c_str());
        in6_addr host{};
        if (inet_pton(AF_INET6, address.c_str(), &host) != 1 || prefixLength < 1 || prefixLength > 128) {
            return interfaceError(failure + ": " + std::strerror(EINVAL));
        }
        auto target = openTarget(interfaceName, failure);
        if (!target) return target.error();
        const NetlinkStatus status =
            addAddress(*target->socket, target->index, AF_INET6, static_cast<std::uint8_t>(prefixLength), host, host);
        if (!status.ok()) return interfaceError(failure + ": " + status.describe());
        return std::nullopt;
    }
};

}  // namespace

std::shared_ptr<TunnelInterfaceConfigurator> makeSystemTunnelInterfaceConfigurator(SystemToolRunner) {
    return std::make_shared<NetlinkTunnelInterfaceConfigurator>();
}

}  // namespace korvo::platform
