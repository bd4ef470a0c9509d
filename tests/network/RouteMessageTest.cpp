// The macOS routing-socket message byte for byte, and the reply matching.
#include <gtest/gtest.h>

#include <net/if.h>

#include <cerrno>
#include <cstring>

#include "network/GatewayRoute.h"
#include "platform/darwin/RouteMessage.h"

using namespace korvo;
using namespace korvo::platform::darwin;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<std::uint8_t> encode(const char* action, const char* destination, const char* gateway, bool isIPv6,
                                 std::uint32_t length = 0) {
    const Result<GatewayRoute> r = gatewayRouteForOperation(action, destination, gateway, isIPv6);
    EXPECT_TRUE(r.ok());
    const std::uint32_t n = length ? length : r->socketAddressLength;
    const RouteMessage m =
        encodeRouteMessage(r->type, r->destination, n, r->gateway, n, r->netmask, n, r->hostRoute, 0x4142, 7);
    EXPECT_TRUE(std::all_of(m.bytes.begin() + static_cast<long>(m.length), m.bytes.end(), [](auto b) { return b == 0; }));
    return {m.bytes.begin(), m.bytes.begin() + static_cast<long>(m.length)};
}

// The 92-byte rt_msghdr on a little-endian Mac: length, version 5, type, flags,
// addrs 7, pid 0x4142, seq 7; everything else zero.
std::vector<std::uint8_t> header(int length, int type, int flags) {
    std::vector<std::uint8_t> h(92, 0);
    h[0] = static_cast<std::uint8_t>(length), h[2] = 5, h[3] = static_cast<std::uint8_t>(type);
    h[8] = static_cast<std::uint8_t>(flags), h[9] = static_cast<std::uint8_t>(flags >> 8);
    h[12] = 7, h[16] = 0x42, h[17] = 0x41, h[20] = 7;
    return h;
}

std::vector<std::uint8_t> operator+(std::vector<std::uint8_t> a, const std::vector<std::uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<std::uint8_t> reply(std::int32_t pid, std::int32_t sequence, std::int32_t error) {
    BSDRouteMessageHeader h{};
    h.rtm_pid = pid, h.rtm_seq = sequence, h.rtm_errno = error;
    std::vector<std::uint8_t> bytes(sizeof h);
    std::memcpy(bytes.data(), &h, sizeof h);
    return bytes;
}

}  // namespace

TEST(RouteMessage, IPv4MessageIs140BytesAndCarriesTheDestinationUnmasked) {
    // sockaddr_in: length 16, AF_INET 2, port, address, 8 zero bytes.
    const std::vector<std::uint8_t> net = header(140, 1, 0x803) +
        Bytes{16, 2, 0, 0, 10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{16, 2, 0, 0, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{16, 2, 0, 0, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(encode("add", "10.1.2.3/24", "192.0.2.1", false), net);

    std::vector<std::uint8_t> host = header(140, 2, 0x807) +
        Bytes{16, 2, 0, 0, 10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{16, 2, 0, 0, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{16, 2, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(encode("delete", "10.1.2.3", "192.0.2.1", false), host);

    // A shorter copy still advances to the next multiple of 8: 5 -> 8.
    const std::vector<std::uint8_t> cut = encode("add", "10.1.2.3/24", "192.0.2.1", false, 5);
    EXPECT_EQ(cut, (header(116, 1, 0x803) + Bytes{16, 2, 0, 0, 10, 0, 0, 0, 16, 2, 0, 0, 192, 0, 0, 0} +
                    Bytes{16, 2, 0, 0, 255, 0, 0, 0}));
}

TEST(RouteMessage, IPv6MessageIs188BytesWithScopeAndPartialNetmaskByte) {
    ASSERT_EQ(if_nametoindex("lo"), 1u);
    // sockaddr_in6: length 28, AF_INET6 30 (macOS), port, flow info, address,
    // scope id; then 4 bytes to reach 32.
    const std::vector<std::uint8_t> expected = header(188, 1, 0x803) +
        Bytes{28, 30, 0, 0, 0, 0, 0, 0, 0x20, 1, 0xd, 0xb8, 0, 0, 0, 0,
                                  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{28, 30, 0, 0, 0, 0, 0, 0, 0xfe, 0x80, 0, 0, 0, 0, 0, 0,
                                  0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0} +
        Bytes{28, 30, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255,
                                  0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(encode("add", "2001:db8::/65", "fe80::1%lo", true), expected);
    EXPECT_EQ(encode("add", "2001:db8::1", "2001:db8::2", true)[8], 0x07);
}

TEST(RouteMessage, RepliesMatchOnPidAndSequence) {
    using Kind = RouteReply::Kind;
    const auto add = [](const std::vector<std::uint8_t>& r) { return evaluateRouteReply(r, 1, 500, 12); };
    const auto del = [](const std::vector<std::uint8_t>& r) { return evaluateRouteReply(r, 2, 500, 12); };
    EXPECT_EQ(add(reply(500, 12, 0)), (RouteReply{Kind::Succeeded, 0}));
    EXPECT_EQ(add(reply(501, 12, 0)).kind, Kind::NotOurs);
    EXPECT_EQ(add(reply(500, 11, 0)).kind, Kind::NotOurs);
    EXPECT_EQ(add(std::vector<std::uint8_t>(40, 0)).kind, Kind::NotOurs);
    EXPECT_EQ(add(reply(500, 12, ESRCH)), (RouteReply{Kind::Failed, ESRCH}));
    EXPECT_EQ(del(reply(500, 12, ESRCH)), (RouteReply{Kind::Succeeded, 0}));
    // ENOENT means "absent" only when the write itself fails.
    EXPECT_EQ(del(reply(500, 12, ENOENT)), (RouteReply{Kind::Failed, ENOENT}));
    EXPECT_TRUE(routeWriteErrorMeansAbsent(2, ENOENT) && routeWriteErrorMeansAbsent(2, ESRCH));
    EXPECT_FALSE(routeWriteErrorMeansAbsent(1, ESRCH) || routeWriteErrorMeansAbsent(2, EEXIST));
}
