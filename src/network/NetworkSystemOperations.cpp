#include "network/NetworkSystemOperations.h"

#include <algorithm>
#include <cerrno>

#include "network/GatewayRoute.h"
#include "util/FileSystem.h"

namespace korvo {
namespace {

constexpr std::int64_t kFileReadNoSuchFileCode = 260;

KorvoError interfaceError(const std::string& message) { return errorWithKorvoErrorCode(kLaunchingCode, message); }

// The failure of opening the control socket reads the same for every call.
std::optional<KorvoError> socketFailure(const platform::InterfaceFailure& failure) {
    if (failure.step != platform::InterfaceFailure::Step::OpenSocket) return std::nullopt;
    return interfaceError("Could not open interface control socket: " + failure.reason);
}

// Destroying an interface that is not there: macOS says ENXIO (or ENOENT,
// ESRCH), Linux ENODEV.
bool isAbsentInterfaceError(int error) {
    return error == ENXIO || error == ENOENT || error == ESRCH || error == ENODEV;
}

}  // namespace

NetworkSystemOperations::NetworkSystemOperations(std::shared_ptr<platform::RouteTable> routeTable,
                                                 std::shared_ptr<platform::InterfaceControl> interfaceControl,
                                                 std::string resolverDirectoryPath)
    : routeTable_(std::move(routeTable)),
      interfaceControl_(std::move(interfaceControl)),
      resolverDirectoryPath_(std::move(resolverDirectoryPath)) {}

MaybeError NetworkSystemOperations::_applyRouteOperationAction(std::string_view action, std::string_view destination,
                                                               std::string_view gateway, bool isIPv6,
                                                               std::string_view interfaceName) {
    if (!interfaceName.empty()) return _applyInterfaceRouteOperationAction(action, destination, interfaceName, isIPv6);
    Result<GatewayRoute> route = gatewayRouteForOperation(action, destination, gateway, isIPv6);
    if (!route) return route.error();
    return _sendRouteMessageForType(route->type, route->destination, route->socketAddressLength, route->gateway,
                                    route->socketAddressLength, route->netmask, route->socketAddressLength,
                                    route->hostRoute);
}

MaybeError NetworkSystemOperations::_deleteRouteAddedByHelper(std::string_view destination,
                                                              std::string_view gateway, bool isIPv6,
                                                              std::string_view interfaceName) {
    if (!interfaceName.empty()) {
        return routeTable_->deleteHelperInterfaceRoute(std::string(destination), std::string(interfaceName), isIPv6);
    }
    Result<GatewayRoute> route = gatewayRouteForOperation("delete", destination, gateway, isIPv6);
    if (!route) return route.error();
    return routeTable_->deleteHelperGatewayRoute(route->destination, route->gateway, route->netmask);
}

MaybeError NetworkSystemOperations::_applyInterfaceRouteOperationAction(std::string_view action,
                                                                        std::string_view destination,
                                                                        std::string_view interfaceName, bool isIPv6) {
    if (interfaceName.empty()) return errorWithKorvoErrorCode(kInvalidParameterCode, "Missing route interface name.");
    return routeTable_->changeInterfaceRoute(action == "add", std::string(destination), std::string(interfaceName),
                                             isIPv6);
}

MaybeError NetworkSystemOperations::_sendRouteMessageForType(
    std::uint8_t type, const platform::RouteSocketAddress& destination, std::uint32_t destinationLength,
    const platform::RouteSocketAddress& gateway, std::uint32_t gatewayLength,
    const platform::RouteSocketAddress& netmask, std::uint32_t netmaskLength, bool hostRoute) {
    return routeTable_->sendRouteMessage(type, destination, destinationLength, gateway, gatewayLength, netmask,
                                         netmaskLength, hostRoute);
}

MaybeError NetworkSystemOperations::_deleteInterfaceIfPresent(std::string_view interfaceName) {
    const std::string name(interfaceName);
    const platform::InterfaceOutcome outcome = interfaceControl_->destroyInterface(name);
    if (!outcome) return std::nullopt;
    if (auto error = socketFailure(*outcome)) return error;
    if (isAbsentInterfaceError(outcome->error)) return std::nullopt;
    return interfaceError("Could not delete tunnel interface " + name + ": " + outcome->reason);
}

MaybeError NetworkSystemOperations::_setInterfaceNamed(std::string_view interfaceName, bool enabled) {
    const std::string name(interfaceName);
    const platform::InterfaceOutcome outcome = interfaceControl_->setInterfaceUp(name, enabled);
    if (!outcome) return std::nullopt;
    if (auto error = socketFailure(*outcome)) return error;
    if (outcome->step == platform::InterfaceFailure::Step::ReadFlags) {
        return interfaceError("Could not read flags for interface " + name + ": " + outcome->reason);
    }
    return interfaceError("Could not set interface " + name + (enabled ? " up: " : " down: ") + outcome->reason);
}

std::vector<std::string> NetworkSystemOperations::_localEthernetInterfaceNames() {
    std::vector<std::string> names;
    const std::optional<std::vector<std::string>> all = interfaceControl_->interfaceNames();
    if (!all) return names;
    for (const std::string& name : *all) {
        if (name.starts_with("en") && std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return names;
}

MaybeError NetworkSystemOperations::_removeKorvoGeneratedResolverFiles() {
    Result<std::vector<std::string>> entries = directoryEntries(resolverDirectoryPath_);
    if (!entries) {
        const KorvoError& error = entries.error();
        if (error.domain == CocoaErrorDomain && error.code == kFileReadNoSuchFileCode) return std::nullopt;
        return error;
    }
    for (const std::string& entry : *entries) {
        const std::string path = appendPathComponent(resolverDirectoryPath_, entry);
        Result<std::string> text = readUTF8File(path);
        if (!text) return text.error();
        if (text->find(KorvoGeneratedResolverMarker) == std::string::npos) continue;
        if (MaybeError error = removeFile(path)) return error;
    }
    return std::nullopt;
}

platform::InterfaceConfiguration NetworkSystemOperations::_saveInterfaceConfiguration(
    const std::string& interfaceName) {
    if (!interfaceControl_) return {interfaceName, {}, {}};
    return interfaceControl_->saveConfiguration(interfaceName);
}

std::size_t NetworkSystemOperations::_restoreInterfaceConfiguration(
    const platform::InterfaceConfiguration& configuration) {
    return interfaceControl_ ? interfaceControl_->restoreConfiguration(configuration) : 0;
}

}  // namespace korvo
