#include "backends/VpnConnections.h"

#include "platform/TunnelInterfaceConfigurator.h"
#include "util/HelperSettings.h"

namespace korvo {

VpnConnections::VpnConnections(BackendServices services, const HelperSettings& settings, ProgramRunner& runner)
    : services_(std::move(services)), settings_(settings), runner_(runner) {
    if (!services_.tunnelInterfaces) services_.tunnelInterfaces = platform::makeSystemTunnelInterfaceConfigurator();
}

std::string VpnConnections::tmpDirPath() const { return settings_.tmpDirPath(); }

std::optional<Bundle> VpnConnections::korvoBundle() const { return settings_.korvoBundle(); }

bool VpnConnections::vpnDebugLoggingEnabled() const { return settings_.vpnDebugLoggingEnabled(); }

}  // namespace korvo
