// Tunnel interface configuration with /sbin/ifconfig, run through the
// service object's process runner as one of its system tools and waited
// for; ifconfig's own failure comes back as the runner's error (code 68
// with its output).
#include <optional>
#include <string>
#include <vector>

#include "core/HelperTool.h"
#include "platform/TunnelInterfaceConfigurator.h"
#include "util/Format.h"

namespace korvo::platform {
namespace {

MaybeError runIfconfig(KorvoHelperTool& tool, std::vector<std::string> arguments) {
    MaybeError error;
    tool.runSystemTool(SystemTool::Ifconfig, std::move(arguments), 0, true, std::nullopt, nullptr, &error);
    return error;
}

class IfconfigTunnelInterfaceConfigurator final : public TunnelInterfaceConfigurator {
public:
    MaybeError bringInterfaceUp(KorvoHelperTool& tool, const std::string& interfaceName) override {
        return runIfconfig(tool, {interfaceName, "up"});
    }

    MaybeError addIPv4Address(KorvoHelperTool& tool, const std::string& interfaceName, const std::string& localAddress,
                              const std::string& destinationAddress, const std::string& netmask) override {
        return runIfconfig(tool, {interfaceName, "inet", localAddress, destinationAddress, "netmask", netmask, "up"});
    }

    MaybeError addIPv6Address(KorvoHelperTool& tool, const std::string& interfaceName, const std::string& address,
                              long prefixLength) override {
        return runIfconfig(tool,
                           {interfaceName, "inet6", formatString("%s/%ld", address.c_str(), prefixLength), "alias"});
    }
};

}  // namespace

std::shared_ptr<TunnelInterfaceConfigurator> makeSystemTunnelInterfaceConfigurator() {
    return std::make_shared<IfconfigTunnelInterfaceConfigurator>();
}

}  // namespace korvo::platform
