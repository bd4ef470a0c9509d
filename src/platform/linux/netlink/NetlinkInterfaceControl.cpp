// Linux interface control: a tunnel interface is destroyed with RTM_DELLINK
// (Linux has no SIOCIFDESTROY); flags and names use the calls shared with
// macOS.
#include <linux/rtnetlink.h>

#include <cerrno>

#include "platform/InterfaceControl.h"
#include "platform/InterfaceIoctl.h"
#include "platform/linux/netlink/NetlinkSocket.h"

namespace korvo::platform {
namespace {

using linux_netlink::NetlinkSocket;

class NetlinkInterfaceControl final : public InterfaceControl {
public:
    InterfaceOutcome destroyInterface(const std::string& name) override {
        const std::unique_ptr<NetlinkSocket> socket = NetlinkSocket::open();
        if (!socket) return interfaceFailure(InterfaceFailure::Step::OpenSocket, errno);
        char buffer[NetlinkSocket::kBufferSize];
        nlmsghdr* nlh = socket->beginMessage(buffer, RTM_DELLINK, 0);
        auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        ifi->ifi_family = AF_UNSPEC;
        mnl_attr_put_strz(nlh, IFLA_IFNAME, interfaceRequestName(name).c_str());
        const linux_netlink::NetlinkStatus status = socket->request(nlh);
        if (status.ok()) return std::nullopt;
        return InterfaceFailure{InterfaceFailure::Step::Destroy, status.error, status.describe()};
    }

    InterfaceOutcome setInterfaceUp(const std::string& name, bool up) override { return setInterfaceUpFlag(name, up); }

    std::optional<std::vector<std::string>> interfaceNames() override { return systemInterfaceNames(); }
};

}  // namespace

std::shared_ptr<InterfaceControl> makeSystemInterfaceControl() { return std::make_shared<NetlinkInterfaceControl>(); }

}  // namespace korvo::platform
