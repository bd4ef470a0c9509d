#include "platform/linux/netlink/NetlinkSocket.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

namespace korvo::platform::linux_netlink {
namespace {

#ifndef NETLINK_EXT_ACK
#define NETLINK_EXT_ACK 11
#endif
#ifndef NETLINK_CAP_ACK
#define NETLINK_CAP_ACK 10
#endif

int collectExtAckMessage(const nlattr* attr, void* data) {
    if (mnl_attr_get_type(attr) == NLMSGERR_ATTR_MSG && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) >= 0) {
        *static_cast<std::string*>(data) = mnl_attr_get_str(attr);
    }
    return MNL_CB_OK;
}

// Reads errno and the extended-ack text out of an NLMSG_ERROR message.
NetlinkStatus statusFromError(const nlmsghdr* nlh) {
    NetlinkStatus status;
    if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
        status.error = EBADMSG;
        return status;
    }
    const auto* err = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
    status.error = err->error < 0 ? -err->error : err->error;
    if (status.error != 0 && (nlh->nlmsg_flags & NLM_F_ACK_TLVS)) {
        unsigned offset = sizeof(nlmsgerr);
        if (!(nlh->nlmsg_flags & NLM_F_CAPPED)) offset += err->msg.nlmsg_len - sizeof(nlmsghdr);
        if (mnl_nlmsg_size(offset) <= nlh->nlmsg_len)
            mnl_attr_parse(nlh, offset, collectExtAckMessage, &status.kernelMessage);
    }
    return status;
}

}  // namespace

std::string NetlinkStatus::describe() const {
    std::string text = std::strerror(error);
    if (!kernelMessage.empty()) text += ": " + kernelMessage;
    return text;
}

std::unique_ptr<NetlinkSocket> NetlinkSocket::open() {
    mnl_socket* s = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (!s) return nullptr;
    int one = 1;
    // Both are optional: without them errors are still reported, only without
    // the kernel's text.
    mnl_socket_setsockopt(s, NETLINK_EXT_ACK, &one, sizeof one);
    mnl_socket_setsockopt(s, NETLINK_CAP_ACK, &one, sizeof one);
    if (mnl_socket_bind(s, 0, MNL_SOCKET_AUTOPID) < 0) {
        const int err = errno;
        mnl_socket_close(s);
        errno = err;
        return nullptr;
    }
    return std::unique_ptr<NetlinkSocket>(new NetlinkSocket(s));
}

NetlinkSocket::NetlinkSocket(mnl_socket* socket)
    : socket_(socket), portId_(mnl_socket_get_portid(socket)), sequence_(static_cast<std::uint32_t>(std::time(nullptr))) {}

NetlinkSocket::~NetlinkSocket() { mnl_socket_close(socket_); }

nlmsghdr* NetlinkSocket::beginMessage(char* buffer, std::uint16_t type, std::uint16_t flags) {
    nlmsghdr* nlh = mnl_nlmsg_put_header(buffer);
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    nlh->nlmsg_seq = ++sequence_;
    return nlh;
}

NetlinkStatus NetlinkSocket::request(nlmsghdr* message) {
    message->nlmsg_flags |= NLM_F_ACK;
    if (mnl_socket_sendto(socket_, message, message->nlmsg_len) < 0) return NetlinkStatus{errno, {}};
    return receiveUntilDone(message->nlmsg_seq, nullptr);
}

NetlinkStatus NetlinkSocket::dump(nlmsghdr* message, const MessageHandler& onMessage) {
    message->nlmsg_flags |= NLM_F_DUMP;
    if (mnl_socket_sendto(socket_, message, message->nlmsg_len) < 0) return NetlinkStatus{errno, {}};
    return receiveUntilDone(message->nlmsg_seq, &onMessage);
}

NetlinkStatus NetlinkSocket::receiveUntilDone(std::uint32_t sequence, const MessageHandler* onMessage) {
    std::vector<char> buffer(kBufferSize * 4);
    bool stopped = false;
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return NetlinkStatus{errno, {}};
        }
        int remaining = static_cast<int>(n);
        for (auto* nlh = reinterpret_cast<const nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(nlh, remaining);
             nlh = mnl_nlmsg_next(nlh, &remaining)) {
            if (nlh->nlmsg_seq != sequence || nlh->nlmsg_pid != portId_) continue;  // a stale answer
            if (nlh->nlmsg_type == NLMSG_ERROR) return statusFromError(nlh);
            if (nlh->nlmsg_type == NLMSG_DONE) {
                // A dump ends with DONE; it may carry an error code of its own.
                int err = 0;
                if (nlh->nlmsg_len >= mnl_nlmsg_size(sizeof(int)))
                    std::memcpy(&err, mnl_nlmsg_get_payload(nlh), sizeof err);
                return NetlinkStatus{err < 0 ? -err : 0, {}};
            }
            if (onMessage && !stopped && (*onMessage)(nlh) != MNL_CB_OK) stopped = true;
        }
    }
}

}  // namespace korvo::platform::linux_netlink
