// The macOS routing-socket message for one gateway route: its byte layout,
// the reply matching and the process-wide sequence number. Pure code, built
// on every platform so that its bytes are tested everywhere; only the socket
// around it is macOS's.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/RouteTable.h"

namespace korvo::platform::darwin {

inline constexpr std::uint8_t kRouteMessageVersion = 5;  // RTM_VERSION
inline constexpr std::int32_t kRouteFlagUp = 0x1;        // RTF_UP
inline constexpr std::int32_t kRouteFlagGateway = 0x2;   // RTF_GATEWAY
inline constexpr std::int32_t kRouteFlagHost = 0x4;      // RTF_HOST
inline constexpr std::int32_t kRouteFlagStatic = 0x800;  // RTF_STATIC
inline constexpr std::int32_t kRouteAddressDestination = 0x1;  // RTA_DST
inline constexpr std::int32_t kRouteAddressGateway = 0x2;      // RTA_GATEWAY
inline constexpr std::int32_t kRouteAddressNetmask = 0x4;      // RTA_NETMASK
inline constexpr std::uint8_t kDarwinAddressFamilyIPv4 = 2;    // AF_INET
inline constexpr std::uint8_t kDarwinAddressFamilyIPv6 = 30;   // AF_INET6 on macOS

#pragma pack(push, 1)
// struct rt_metrics of <net/route.h>.
struct BSDRouteMetrics {
    std::uint32_t rmx_locks;
    std::uint32_t rmx_mtu;
    std::uint32_t rmx_hopcount;
    std::int32_t rmx_expire;
    std::uint32_t rmx_recvpipe;
    std::uint32_t rmx_sendpipe;
    std::uint32_t rmx_ssthresh;
    std::uint32_t rmx_rtt;
    std::uint32_t rmx_rttvar;
    std::uint32_t rmx_pksent;
    std::uint32_t rmx_state;
    std::uint32_t rmx_filler[3];
};

// struct rt_msghdr of <net/route.h>, with the two bytes of alignment padding
// that the compiler puts after rtm_index written out.
struct BSDRouteMessageHeader {
    std::uint16_t rtm_msglen;
    std::uint8_t rtm_version;
    std::uint8_t rtm_type;
    std::uint16_t rtm_index;
    std::uint16_t padding;
    std::int32_t rtm_flags;
    std::int32_t rtm_addrs;
    std::int32_t rtm_pid;
    std::int32_t rtm_seq;
    std::int32_t rtm_errno;
    std::int32_t rtm_use;
    std::uint32_t rtm_inits;
    BSDRouteMetrics rtm_rmx;
};
#pragma pack(pop)

static_assert(sizeof(BSDRouteMetrics) == 56);
static_assert(sizeof(BSDRouteMessageHeader) == 92);
static_assert(offsetof(BSDRouteMessageHeader, rtm_flags) == 8);
static_assert(offsetof(BSDRouteMessageHeader, rtm_pid) == 16);
static_assert(offsetof(BSDRouteMessageHeader, rtm_seq) == 20);
static_assert(offsetof(BSDRouteMessageHeader, rtm_errno) == 24);

// The message is built in a zeroed buffer of this size; reads use it too.
inline constexpr std::size_t kRouteMessageBufferSize = 512;

// A socket address advances the write position by its length rounded up to
// a multiple of 8, also where the kernel would accept 4.
constexpr std::uint32_t roundedSocketAddressLength(std::uint32_t length) { return ((length - 1) | 7) + 1; }

// A socket address as macOS lays it out: sockaddr_in (16 bytes) or
// sockaddr_in6 (28 bytes), length byte and macOS family number first.
std::array<std::uint8_t, kIPv6SocketAddressLength> encodeSocketAddress(const RouteSocketAddress& address);

struct RouteMessage {
    std::array<std::uint8_t, kRouteMessageBufferSize> bytes{};
    std::size_t length = 0;  // rtm_msglen
};

// The RTM_ADD/RTM_DELETE message: header, then destination, gateway and
// netmask, each copied with its given length (at most its socket address's
// size) and padded to 8 bytes.
RouteMessage encodeRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute, std::int32_t pid, std::int32_t sequence);

// What one message read from the routing socket means for the request.
struct RouteReply {
    enum class Kind { NotOurs, Succeeded, Failed };
    Kind kind = Kind::NotOurs;
    int error = 0;  // rtm_errno when Failed

    friend bool operator==(const RouteReply&, const RouteReply&) = default;
};

// A reply is ours when it carries our pid and the sequence counter's current
// value. Its rtm_errno decides; ESRCH on a delete means the route was absent.
RouteReply evaluateRouteReply(std::span<const std::uint8_t> message, std::uint8_t requestType, std::int32_t ownPid,
                              std::int32_t currentSequence);

// A failed write of a delete with ESRCH or ENOENT: the route was absent.
bool routeWriteErrorMeansAbsent(std::uint8_t requestType, int error);

// The routing-socket sequence number. Replies are matched against its
// current value, so it must be one counter for the whole process, not one
// per socket: see processRouteSequenceCounter().
class RouteSequenceCounter {
public:
    // Increments and returns the new value (the first is 1; wraps like int32).
    std::int32_t increment() {
        return static_cast<std::int32_t>(value_.fetch_add(1, std::memory_order_relaxed) + 1u);
    }
    std::int32_t current() const { return static_cast<std::int32_t>(value_.load(std::memory_order_relaxed)); }

private:
    std::atomic<std::uint32_t> value_{0};
};

// The one counter of the process; it starts at 0 and is never reset.
RouteSequenceCounter& processRouteSequenceCounter();

}  // namespace korvo::platform::darwin
