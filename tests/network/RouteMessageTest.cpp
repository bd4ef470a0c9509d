// The macOS routing-socket message, byte for byte, and the reply matching.
#include <gtest/gtest.h>

#include <net/if.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "network/GatewayRoute.h"
#include "platform/darwin/RouteMessage.h"

using namespace korvo;
using namespace korvo::platform::darwin;
using korvo::platform::kRouteMessageAdd;
using korvo::platform::kRouteMessageDelete;

namespace {

std::vector<std::uint8_t> messageBytes(const RouteMessage& message) {
    return {message.bytes.begin(), message.bytes.begin() + static_cast<std::ptrdiff_t>(message.length)};
}

RouteMessage encode(std::string_view action, std::string_view destination, std::string_view gateway, bool isIPv6,
                    std::int32_t pid, std::int32_t sequence) {
    const Result<GatewayRoute> route = gatewayRouteForOperation(action, destination, gateway, isIPv6);
    EXPECT_TRUE(route.ok());
    const std::uint32_t length = route->socketAddressLength;
    return encodeRouteMessage(route->type, route->destination, length, route->gateway, length, route->netmask, length,
                              route->hostRoute, pid, sequence);
}

void putLittleEndian32(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// The 92-byte header as the kernel expects it on a little-endian Mac.
std::vector<std::uint8_t> header(std::uint16_t length, std::uint8_t type, std::uint32_t flags, std::uint32_t pid,
                                 std::uint32_t sequence) {
    std::vector<std::uint8_t> bytes(92, 0);
    bytes[0] = static_cast<std::uint8_t>(length);
    bytes[1] = static_cast<std::uint8_t>(length >> 8);
    bytes[2] = 5;  // RTM_VERSION
    bytes[3] = type;
    putLittleEndian32(bytes, 8, flags);
    putLittleEndian32(bytes, 12, 7);  // RTA_DST | RTA_GATEWAY | RTA_NETMASK
    putLittleEndian32(bytes, 16, pid);
    putLittleEndian32(bytes, 20, sequence);
    return bytes;
}

void append(std::vector<std::uint8_t>& bytes, std::initializer_list<std::uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

std::vector<std::uint8_t> reply(std::int32_t pid, std::int32_t sequence, std::int32_t error) {
    BSDRouteMessageHeader h{};
    h.rtm_msglen = sizeof h;
    h.rtm_version = 5;
    h.rtm_pid = pid;
    h.rtm_seq = sequence;
    h.rtm_errno = error;
    std::vector<std::uint8_t> bytes(sizeof h);
    std::memcpy(bytes.data(), &h, sizeof h);
    return bytes;
}

}  // namespace

TEST(RouteMessage, IPv4MessageIs140BytesWithEightByteAlignedAddresses) {
    std::vector<std::uint8_t> expected = header(140, 1, 0x803, 4242, 7);
    // sockaddr_in: length 16, AF_INET 2, port 0, address, eight zero bytes.
    append(expected, {16, 2, 0, 0, 10, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0});          // unmasked destination
    append(expected, {16, 2, 0, 0, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0});         // gateway
    append(expected, {16, 2, 0, 0, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0});     // netmask
    const RouteMessage message = encode("add", "10.1.2.3/24", "192.0.2.1", false, 4242, 7);
    EXPECT_EQ(messageBytes(message), expected);

    // A host route: RTF_HOST added, still three addresses; a delete: type 2.
    std::vector<std::uint8_t> host = messageBytes(encode("delete", "10.1.2.3", "192.0.2.1", false, 1, 2));
    ASSERT_EQ(host.size(), 140u);
    EXPECT_EQ(host[3], 2);
    EXPECT_EQ(host[8], 0x07);
    EXPECT_EQ(host[9], 0x08);
    EXPECT_EQ(host[12], 7);
    EXPECT_EQ(std::vector<std::uint8_t>(host.begin() + 124 + 4, host.begin() + 124 + 8),
              (std::vector<std::uint8_t>{255, 255, 255, 255}));

    // Everything past the message stays zero in the 512-byte buffer.
    for (std::size_t i = message.length; i < message.bytes.size(); ++i) ASSERT_EQ(message.bytes[i], 0) << i;
}

TEST(RouteMessage, IPv6MessageIs188BytesWithScopeAndPartialNetmaskByte) {
    std::vector<std::uint8_t> expected = header(188, 1, 0x803, 99, 0x01020304);
    // sockaddr_in6: length 28, AF_INET6 30, port, flow info, address, scope id; then 4 bytes of padding.
    append(expected, {28, 30, 0, 0, 0, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                      0, 0, 0, 0});
    append(expected, {28, 30, 0, 0, 0, 0, 0, 0, 0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0,
                      0, 0, 0, 0});
    append(expected, {28, 30, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255, 0x80, 0, 0, 0, 0, 0, 0, 0, 0,
                      0, 0, 0, 0, 0, 0, 0});
    // "lo" has index 1 in the test's own network namespace and usually outside it too.
    const RouteMessage message = encode("add", "2001:db8::/65", "fe80::1%lo", true, 99, 0x01020304);
    ASSERT_EQ(if_nametoindex("lo"), 1u);
    EXPECT_EQ(messageBytes(message), expected);

    const std::vector<std::uint8_t> host = messageBytes(encode("add", "2001:db8::1", "2001:db8::2", true, 1, 1));
    ASSERT_EQ(host.size(), 188u);
    EXPECT_EQ(host[8], 0x07);
}

TEST(RouteMessage, AddressesAdvanceByTheirLengthRoundedUpToEight) {
    EXPECT_EQ(roundedSocketAddressLength(1), 8u);
    EXPECT_EQ(roundedSocketAddressLength(8), 8u);
    EXPECT_EQ(roundedSocketAddressLength(9), 16u);
    EXPECT_EQ(roundedSocketAddressLength(16), 16u);
    EXPECT_EQ(roundedSocketAddressLength(28), 32u);

    // Copied lengths shorter than the address: each one still lands 8-aligned.
    const Result<GatewayRoute> route = gatewayRouteForOperation("add", "10.0.0.0/8", "192.0.2.1", false);
    ASSERT_TRUE(route.ok());
    const RouteMessage message =
        encodeRouteMessage(route->type, route->destination, 5, route->gateway, 16, route->netmask, 8, false, 1, 1);
    EXPECT_EQ(message.length, 92u + 8 + 16 + 8);
    EXPECT_EQ(message.bytes[92 + 4], 10);  // only five bytes of the destination were copied
    EXPECT_EQ(message.bytes[92 + 5], 0);
    EXPECT_EQ(message.bytes[100], 16);    // the gateway starts at the next multiple of 8
    EXPECT_EQ(message.bytes[104], 192);
    EXPECT_EQ(message.bytes[116 + 4], 255);
}

TEST(RouteMessage, RepliesMatchOnPidAndTheCountersCurrentValue) {
    using Kind = RouteReply::Kind;
    const auto evaluate = [](const std::vector<std::uint8_t>& bytes, std::uint8_t type) {
        return evaluateRouteReply(bytes, type, 500, 12);
    };
    EXPECT_EQ(evaluate(reply(500, 12, 0), kRouteMessageAdd), (RouteReply{Kind::Succeeded, 0}));
    EXPECT_EQ(evaluate(reply(501, 12, 0), kRouteMessageAdd).kind, Kind::NotOurs);
    EXPECT_EQ(evaluate(reply(500, 11, 0), kRouteMessageAdd).kind, Kind::NotOurs);
    std::vector<std::uint8_t> truncated = reply(500, 12, 0);
    truncated.resize(40);
    EXPECT_EQ(evaluate(truncated, kRouteMessageAdd).kind, Kind::NotOurs);

    EXPECT_EQ(evaluate(reply(500, 12, EEXIST), kRouteMessageAdd), (RouteReply{Kind::Failed, EEXIST}));
    EXPECT_EQ(evaluate(reply(500, 12, ESRCH), kRouteMessageAdd), (RouteReply{Kind::Failed, ESRCH}));
    EXPECT_EQ(evaluate(reply(500, 12, ESRCH), kRouteMessageDelete), (RouteReply{Kind::Succeeded, 0}));
    // ENOENT means "absent" only when the write itself fails.
    EXPECT_EQ(evaluate(reply(500, 12, ENOENT), kRouteMessageDelete), (RouteReply{Kind::Failed, ENOENT}));
    EXPECT_TRUE(routeWriteErrorMeansAbsent(kRouteMessageDelete, ENOENT));
    EXPECT_TRUE(routeWriteErrorMeansAbsent(kRouteMessageDelete, ESRCH));
    EXPECT_FALSE(routeWriteErrorMeansAbsent(kRouteMessageAdd, ESRCH));
    EXPECT_FALSE(routeWriteErrorMeansAbsent(kRouteMessageDelete, EEXIST));
}

TEST(RouteMessage, TheProcessCounterStartsAtZeroAndIsShared) {
    RouteSequenceCounter& counter = processRouteSequenceCounter();
    EXPECT_EQ(&counter, &processRouteSequenceCounter());
    EXPECT_EQ(counter.current(), 0);
    EXPECT_EQ(counter.increment(), 1);
    EXPECT_EQ(counter.current(), 1);
    EXPECT_EQ(processRouteSequenceCounter().increment(), 2);
}
