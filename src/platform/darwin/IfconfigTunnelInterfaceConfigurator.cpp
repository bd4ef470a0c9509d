// Tunnel interface configuration with /sbin/ifconfig, run through the
// helper's process runner as one of its system tools and waited for;
// ifconfig's own failure comes back as the runner's error (code 68 with its
// output).
#include <optional>
#include <string>
#include <vector>

#include "platform/TunnelInterfaceConfigurator.h"
#include "util/Format.h"

namespace korvo::platform {
namespace {

constexpr const char* kIfconfigPath = "/sbin/ifconfig";

class IfconfigTunnelInterfaceConfigurator final : public TunnelInterfaceConfigurator {
public:
    explicit IfconfigTunnelInterfaceConfigurator(SystemToolRunner runTool) : runTool_(std::move(runTool)) {}

    MaybeError bringInterfaceUp(const std::string& interfaceName) override {
        return runIfconfig({interfaceName, "up"});
    }

    MaybeError addIPv4Address(const std::string& interfaceName, const std::string& localAddress,
                              const std::string& destinationAddress, const std::string& netmask) override {
        return runIfconfig({interfaceName, "inet", localAddress, destinationAddress, "netmask", netmask, "up"});
    }

    MaybeError addIPv6Address(const std::string& interfaceName, const std::string& address,
                              long prefixLength) override {
        return runIfconfig({interfaceName, "inet6", formatString("%s/%ld", address.c_str(), prefixLength), "alias"});
    }

private:
    MaybeError runIfconfig(const std::vector<std::string>& arguments) {
        if (!runTool_) return errorWithKorvoErrorCode(kLaunchingCode, "No process runner for ifconfig.");
        return runTool_(kIfconfigPath, arguments);
    }

    SystemToolRunner runTool_;
};

}  // namespace

std::shared_ptr<TunnelInterfaceConfigurator> makeSystemTunnelInterfaceConfigurator(SystemToolRunner runTool) {
    return std::make_shared<IfconfigTunnelInterfaceConfigurator>(std::move(runTool));
}

}  // namespace korvo::platform
