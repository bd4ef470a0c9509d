#include "platform/linux/NetlinkInterfaceConfiguration.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/NetlinkSocket.h"

namespace korvo::platform::linux_netlink {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The message's payload (what follows the netlink header).
Bytes payloadOf(const nlmsghdr* nlh) {
    const auto* begin = static_cast<const std::uint8_t*>(mnl_nlmsg_get_payload(nlh));
    return Bytes(begin, begin + mnl_nlmsg_get_payload_len(nlh));
}

// The output interface of a route message; 0 when it names none.
unsigned routeOutputInterface(const nlmsghdr* nlh) {
    unsigned index = 0;
    mnl_attr_parse(
        nlh, sizeof(rtmsg),
        [](const nlattr* attr, void* data) {
            if (mnl_attr_get_type(attr) == RTA_OIF && mnl_attr_get_payload_len(attr) == sizeof(std::uint32_t)) {
                *static_cast<unsigned*>(data) = mnl_attr_get_u32(attr);
            }
            return MNL_CB_OK;
        },
        &index);
    return index;
}

void dumpInto(NetlinkSocket& socket, std::uint16_t type, std::size_t headerSize,
              const NetlinkSocket::MessageHandler& keep) {
    char buffer[NetlinkSocket::kBufferSize];
    nlmsghdr* nlh = socket.beginMessage(buffer, type, 0);
    auto* header = static_cast<std::uint8_t*>(mnl_nlmsg_put_extra_header(nlh, headerSize));
    header[0] = AF_UNSPEC;  // the family is the first byte of ifaddrmsg and rtmsg
    socket.dump(nlh, keep);
}

}  // namespace

InterfaceConfiguration saveInterfaceConfiguration(const std::string& name) {
    InterfaceConfiguration configuration{name, {}, {}};
    const unsigned index = if_nametoindex(name.c_str());
    const std::unique_ptr<NetlinkSocket> socket = index != 0 ? NetlinkSocket::open() : nullptr;
    if (!socket) return configuration;
    dumpInto(*socket, RTM_GETADDR, sizeof(ifaddrmsg), [&](const nlmsghdr* nlh) {
        const auto* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
        if (nlh->nlmsg_type == RTM_NEWADDR && ifa->ifa_index == index) configuration.addresses.push_back(payloadOf(nlh));
        return MNL_CB_OK;
    });
    dumpInto(*socket, RTM_GETROUTE, sizeof(rtmsg), [&](const nlmsghdr* nlh) {
        const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
        if (nlh->nlmsg_type == RTM_NEWROUTE && rtm->rtm_table == RT_TABLE_MAIN && rtm->rtm_type == RTN_UNICAST &&
            (rtm->rtm_flags & RTM_F_CLONED) == 0 && routeOutputInterface(nlh) == index) {
            configuration.routes.push_back(payloadOf(nlh));
        }
        return MNL_CB_OK;
    });
    return configuration;
}

std::size_t restoreInterfaceConfiguration(const InterfaceConfiguration& configuration) {
    const std::unique_ptr<NetlinkSocket> socket = NetlinkSocket::open();
    if (!socket) return configuration.addresses.size() + configuration.routes.size();
    std::size_t failures = 0;
    const auto send = [&](std::uint16_t type, const Bytes& payload) {
        char buffer[NetlinkSocket::kBufferSize];
        if (payload.size() + MNL_NLMSG_HDRLEN > sizeof buffer) return ++failures, void();
        nlmsghdr* nlh = socket->beginMessage(buffer, type, NLM_F_CREATE | NLM_F_EXCL);
        std::memcpy(mnl_nlmsg_put_extra_header(nlh, payload.size()), payload.data(), payload.size());
        const NetlinkStatus status = socket->request(nlh);
        if (!status.ok() && status.error != EEXIST) ++failures;
    };
    for (const Bytes& address : configuration.addresses) send(RTM_NEWADDR, address);
    for (const Bytes& route : configuration.routes) send(RTM_NEWROUTE, route);
    return failures;
}

}  // namespace korvo::platform::linux_netlink
