#include "platform/darwin/RouteMessage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace korvo::platform::darwin {
namespace {

// Appends one socket address at offset; returns the offset after its padding.
std::size_t appendSocketAddress(RouteMessage& message, std::size_t offset, const RouteSocketAddress& address,
                                std::uint32_t length) {
    const auto encoded = encodeSocketAddress(address);
    const std::uint32_t ownSize =
        address.family == AddressFamily::IPv6 ? kIPv6SocketAddressLength : kIPv4SocketAddressLength;
    const std::uint32_t copied = std::min(length, ownSize);
    if (copied == 0) return offset;
    std::memcpy(message.bytes.data() + offset, encoded.data(), copied);
    return offset + roundedSocketAddressLength(copied);
}

}  // namespace

std::array<std::uint8_t, kIPv6SocketAddressLength> encodeSocketAddress(const RouteSocketAddress& address) {
    std::array<std::uint8_t, kIPv6SocketAddressLength> bytes{};
    if (address.family == AddressFamily::IPv4) {
        // sin_len, sin_family, sin_port, sin_addr, sin_zero[8]
        bytes[0] = kIPv4SocketAddressLength;
        bytes[1] = kDarwinAddressFamilyIPv4;
        std::memcpy(&bytes[4], address.address.data(), 4);
    } else {
        // sin6_len, sin6_family, sin6_port, sin6_flowinfo, sin6_addr, sin6_scope_id
        bytes[0] = kIPv6SocketAddressLength;
        bytes[1] = kDarwinAddressFamilyIPv6;
        std::memcpy(&bytes[8], address.address.data(), 16);
        std::memcpy(&bytes[24], &address.scopeId, sizeof address.scopeId);
    }
    return bytes;
}

RouteMessage encodeRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute, std::int32_t pid,
                                std::int32_t sequence) {
    RouteMessage message;
    std::size_t offset = sizeof(BSDRouteMessageHeader);
    offset = appendSocketAddress(message, offset, destination, destinationLength);
    offset = appendSocketAddress(message, offset, gateway, gatewayLength);
    offset = appendSocketAddress(message, offset, netmask, netmaskLength);
    message.length = offset;

    BSDRouteMessageHeader header{};
    header.rtm_msglen = static_cast<std::uint16_t>(offset);
    header.rtm_version = kRouteMessageVersion;
    header.rtm_type = type;
    header.rtm_flags = kRouteFlagUp | kRouteFlagGateway | kRouteFlagStatic | (hostRoute ? kRouteFlagHost : 0);
    header.rtm_addrs = kRouteAddressDestination | kRouteAddressGateway | kRouteAddressNetmask;
    header.rtm_pid = pid;
    header.rtm_seq = sequence;
    std::memcpy(message.bytes.data(), &header, sizeof header);
    return message;
}

RouteReply evaluateRouteReply(std::span<const std::uint8_t> message, std::uint8_t requestType, std::int32_t ownPid,
                              std::int32_t currentSequence) {
    BSDRouteMessageHeader header{};
    if (message.size() < sizeof header) return {};
    std::memcpy(&header, message.data(), sizeof header);
    if (header.rtm_pid != ownPid || header.rtm_seq != currentSequence) return {};
    if (header.rtm_errno == 0) return {RouteReply::Kind::Succeeded, 0};
    // Only ESRCH: a reply with ENOENT is a real failure, unlike a write's.
    if (requestType == kRouteMessageDelete && header.rtm_errno == ESRCH) return {RouteReply::Kind::Succeeded, 0};
    return {RouteReply::Kind::Failed, header.rtm_errno};
}

bool routeWriteErrorMeansAbsent(std::uint8_t requestType, int error) {
    return requestType == kRouteMessageDelete && (error == ESRCH || error == ENOENT);
}

RouteSequenceCounter& processRouteSequenceCounter() {
    static RouteSequenceCounter counter;
    return counter;
}

}  // namespace korvo::platform::darwin
