// The helper's only way of changing routes and interfaces and of removing
// the client's resolver files. The route request, transaction restore,
// network reset and stale-transaction recovery all go through it. Methods
// return nullopt on success and never log: the caller decides what to report.
// Removing what is already gone (a route, an interface, the resolver
// directory) is a success.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "util/Error.h"
#include "platform/InterfaceControl.h"
#include "platform/RouteTable.h"

namespace korvo {

inline constexpr std::string_view KorvoResolverDirectoryPath = "/etc/resolver/";
// A resolver file that contains this text anywhere was written by the client.
inline constexpr std::string_view KorvoGeneratedResolverMarker = "#@KORVO_GENERATED";

class NetworkSystemOperations {
public:
    explicit NetworkSystemOperations(
        std::shared_ptr<platform::RouteTable> routeTable = platform::makeSystemRouteTable(),
        std::shared_ptr<platform::InterfaceControl> interfaceControl = platform::makeSystemInterfaceControl(),
        std::string resolverDirectoryPath = std::string(KorvoResolverDirectoryPath));

    // --- Routes (errors of code 64 for bad input, 66 for the routing table) ---

    // With a non-empty interfaceName the route points at that interface and
    // gateway is not looked at; otherwise it goes through gateway. action
    // "add" adds, anything else deletes. destination: "address[/prefix]".
    MaybeError _applyRouteOperationAction(std::string_view action, std::string_view destination,
                                          std::string_view gateway, bool isIPv6, std::string_view interfaceName);
    MaybeError _applyInterfaceRouteOperationAction(std::string_view action, std::string_view destination,
                                                   std::string_view interfaceName, bool isIPv6);
    MaybeError _sendRouteMessageForType(std::uint8_t type, const platform::RouteSocketAddress& destination,
                                        std::uint32_t destinationLength, const platform::RouteSocketAddress& gateway,
                                        std::uint32_t gatewayLength, const platform::RouteSocketAddress& netmask,
                                        std::uint32_t netmaskLength, bool hostRoute);

    // Deletes the route of an add whose outcome is unknown (the helper died
    // during it), only when the kernel marks the route as the helper's own:
    // a route that existed before, whose add then failed, stays.
    MaybeError _deleteRouteAddedByHelper(std::string_view destination, std::string_view gateway, bool isIPv6,
                                         std::string_view interfaceName);

    // --- Interfaces (errors of code 68) ---------------------------------------

    MaybeError _deleteInterfaceIfPresent(std::string_view interfaceName);
    MaybeError _setInterfaceNamed(std::string_view interfaceName, bool enabled);
    // The addresses and routes of an interface, and putting back those of
    // them that are missing (after the interface was down): the count of
    // those that could not be put back.
    platform::InterfaceConfiguration _saveInterfaceConfiguration(const std::string& interfaceName);
    std::size_t _restoreInterfaceConfiguration(const platform::InterfaceConfiguration& configuration);
    // Names beginning with "en", once each, in the system's order; empty when
    // the interfaces cannot be listed.
    std::vector<std::string> _localEthernetInterfaceNames();

    // --- Resolver files -------------------------------------------------------

    // Removes every file directly in the resolver directory whose text holds
    // the marker. The first entry that cannot be read or removed stops the
    // walk with its file-system error; files removed before it stay removed.
    MaybeError _removeKorvoGeneratedResolverFiles();

private:
    std::shared_ptr<platform::RouteTable> routeTable_;
    std::shared_ptr<platform::InterfaceControl> interfaceControl_;
    std::string resolverDirectoryPath_;
};

}  // namespace korvo
