#include "network/GatewayRoute.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <limits>
#include <string>

#include "util/AddressAdditions.h"
#include "util/IntegerScan.h"

namespace korvo {
namespace {


KorvoError invalidParameter(std::string_view prefix, std::string_view value) {
    return errorWithKorvoErrorCode(kInvalidParameterCode, std::string(prefix) + std::string(value) + "'.");
}

// inet_pton on text that must not hide anything after a NUL.
bool parseAddress(int family, std::string_view text, std::uint8_t* out) {
    if (text.find('\0') != std::string_view::npos) return false;
    return inet_pton(family, std::string(text).c_str(), out) == 1;
}

}  // namespace

Result<GatewayRoute> gatewayRouteForOperation(std::string_view action, std::string_view destination,
                                              std::string_view gateway, bool isIPv6) {
    // Split at "/": one or two pieces, the first not empty.
    const auto slash = destination.find('/');
    const std::string_view host = destination.substr(0, slash);
    if (host.empty() || (slash != std::string_view::npos && destination.find('/', slash + 1) != std::string_view::npos)) {
        return invalidParameter("Invalid CIDR destination '", destination);
    }
    const std::int64_t maximumPrefix = isIPv6 ? 128 : 32;
    // A prefix that is not a clean number is refused rather than read as 0,
    // which would turn "10.1.0.0/x24" into a default route.
    const std::optional<std::int64_t> readPrefix =
        slash == std::string_view::npos ? maximumPrefix : wholeInteger(destination.substr(slash + 1));
    if (!readPrefix || *readPrefix < 0 || *readPrefix > maximumPrefix) {
        return invalidParameter("Invalid prefix length in destination '", destination);
    }
    const std::int64_t prefix = *readPrefix;

    GatewayRoute route;
    route.type = action == "add" ? platform::kRouteMessageAdd : platform::kRouteMessageDelete;
    route.hostRoute = prefix == maximumPrefix;
    const auto family = isIPv6 ? platform::AddressFamily::IPv6 : platform::AddressFamily::IPv4;
    route.destination.family = route.gateway.family = route.netmask.family = family;

    if (isIPv6) {
        route.socketAddressLength = platform::kIPv6SocketAddressLength;
        if (!parseAddress(AF_INET6, host, route.destination.address.data())) {
            return invalidParameter("Invalid IPv6 destination '", host);
        }
        std::string_view gatewayAddress = gateway;
        if (const auto percent = gateway.find('%'); percent != std::string_view::npos) {
            const std::string_view scope = gateway.substr(percent + 1);
            gatewayAddress = gateway.substr(0, percent);
            const unsigned index =
                scope.find('\0') == std::string_view::npos ? if_nametoindex(std::string(scope).c_str()) : 0;
            if (index == 0) return invalidParameter("Invalid IPv6 gateway scope '", scope);
            route.gateway.scopeId = index;
        }
        if (!parseAddress(AF_INET6, gatewayAddress, route.gateway.address.data())) {
            return invalidParameter("Invalid IPv6 gateway '", gateway);
        }
        const auto fullBytes = static_cast<std::size_t>(prefix / 8);
        for (std::size_t i = 0; i < fullBytes; ++i) route.netmask.address[i] = 0xFF;
        if (prefix % 8 > 0) route.netmask.address[fullBytes] = static_cast<std::uint8_t>(0xFF << (8 - prefix % 8));
    } else {
        route.socketAddressLength = platform::kIPv4SocketAddressLength;
        if (!parseAddress(AF_INET, stringByNormalizingAbbreviatedIPv4Address(host), route.destination.address.data())) {
            return invalidParameter("Invalid IPv4 destination '", host);
        }
        if (!parseAddress(AF_INET, gateway, route.gateway.address.data())) {
            return invalidParameter("Invalid IPv4 gateway '", gateway);
        }
        const std::uint32_t mask = prefix == 0 ? 0 : 0xFFFFFFFFu << (32 - prefix);
        const std::uint32_t networkOrder = htonl(mask);
        std::memcpy(route.netmask.address.data(), &networkOrder, sizeof networkOrder);
    }
    return route;
}

}  // namespace korvo
