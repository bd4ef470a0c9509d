// A route-netlink socket: requests answered by the kernel's acknowledgement,
// with the kernel's own error text (extended ack), and dumps.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace korvo::platform::linux_netlink {

// The kernel's answer to one request: errno (0 on success) and, when the
// kernel gave one, its explanation.
struct NetlinkStatus {
    int error = 0;
    std::string kernelMessage;
    bool ok() const { return error == 0; }
    // "strerror(error)" or "strerror(error): kernel message".
    std::string describe() const;
};

class NetlinkSocket {
public:
    // Opens and binds a NETLINK_ROUTE socket; nullptr with errno set on failure.
    static std::unique_ptr<NetlinkSocket> open();
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    // Buffer big enough for any single request the helper builds.
    static constexpr size_t kBufferSize = 8192;

    // Starts a message of the given type and flags in buffer, with a fresh
    // sequence number; NLM_F_REQUEST is always set.
    nlmsghdr* beginMessage(char* buffer, std::uint16_t type, std::uint16_t flags);

    // Sends the message with NLM_F_ACK and waits for the kernel's answer.
    NetlinkStatus request(nlmsghdr* message);

    // Sends a dump request and calls onMessage for every message of the reply.
    // onMessage returns MNL_CB_OK to continue, MNL_CB_STOP to stop.
    using MessageHandler = std::function<int(const nlmsghdr*)>;
    NetlinkStatus dump(nlmsghdr* message, const MessageHandler& onMessage);

private:
    explicit NetlinkSocket(mnl_socket* socket);
    NetlinkStatus receiveUntilDone(std::uint32_t sequence, const MessageHandler* onMessage);

    mnl_socket* socket_;
    std::uint32_t portId_;
    std::uint32_t sequence_;
};

}  // namespace korvo::platform::linux_netlink
