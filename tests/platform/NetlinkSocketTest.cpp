#include <gtest/gtest.h>

#include <linux/rtnetlink.h>
#include <net/if.h>

#include "platform/linux/netlink/NetlinkSocket.h"

using namespace korvo::platform::linux_netlink;

// Runs in a namespace of its own: the only link is lo.
TEST(NetlinkSocket, DumpsLinksAndReportsKernelErrors) {
    auto socket = NetlinkSocket::open();
    ASSERT_TRUE(socket);
    char buffer[NetlinkSocket::kBufferSize];

    std::vector<int> indexes;
    nlmsghdr* dump = socket->beginMessage(buffer, RTM_GETLINK, 0);
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(dump, sizeof(ifinfomsg)));
    ifm->ifi_family = AF_UNSPEC;
    auto status = socket->dump(dump, [&](const nlmsghdr* nlh) {
        indexes.push_back(static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh))->ifi_index);
        return MNL_CB_OK;
    });
    ASSERT_TRUE(status.ok()) << status.describe();
    EXPECT_EQ(indexes, std::vector<int>{static_cast<int>(if_nametoindex("lo"))});

    // Deleting a link that does not exist: ENODEV from the kernel.
    nlmsghdr* del = socket->beginMessage(buffer, RTM_DELLINK, 0);
    auto* delm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(del, sizeof(ifinfomsg)));
    delm->ifi_family = AF_UNSPEC;
    mnl_attr_put_strz(del, IFLA_IFNAME, "korvo-absent0");
    status = socket->request(del);
    EXPECT_EQ(status.error, ENODEV);
    EXPECT_FALSE(status.describe().empty());
}
