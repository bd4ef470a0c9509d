// The connect requests: one per VPN program kind. Each prepares the
// program's arguments, checked copies of its configuration and scripts, and
// starts it through the process runner, replying with its process
// identifier (OpenVPN: with its nil result).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "backends/BackendSupport.h"
#include "process/ProgramRunner.h"
#include "process/StartedProcesses.h"
#include "util/Error.h"

namespace korvo {

class HelperSettings;

namespace platform {
class TunnelInterfaceConfigurator;
}

using PidReply = std::function<void(const MaybeError&, std::int32_t pid)>;
using StringReply = std::function<void(const MaybeError&, const std::optional<std::string>&)>;

class VpnConnections {
public:
    // services.tunnelInterfaces null: the platform's own.
    VpnConnections(BackendServices services, const HelperSettings& settings, ProgramRunner& runner);

    void connectOpenVPNWithConfig(const std::optional<std::string>& configPath, std::uint64_t managementPort,
                                  StringReply reply);
    void connectVPNCWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort, PidReply reply);
    void connectSSHWithConfig(const std::optional<std::string>& configPath, const std::optional<std::string>& host,
                              const std::optional<std::string>& credentials, std::uint64_t comPort, PidReply reply);
    void connectOpenConnectWithConfig(const std::optional<std::string>& configPath,
                                      const std::optional<std::string>& host,
                                      const std::optional<std::string>& resolve,
                                      const std::optional<std::string>& credentials,
                                      const std::optional<std::string>& hash, std::uint64_t comPort,
                                      PidReply reply);
    void connectWireGuardWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply);
    void connectAmneziaWGWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply);
    // The shared WireGuard-family procedure behind the two requests above.
    void connectWireGuardVariantWithConfig(const std::optional<std::string>& configPath,
                                           const std::string& userspaceExecutableName,
                                           const std::string& controlExecutableName,
                                           const std::string& displayName, const std::string& uapiDirectory,
                                           std::uint64_t comPort, PidReply reply);

    // The environment that lets OpenVPN and OpenConnect load OpenSSL's legacy
    // provider: the system's modules and the helper's own configuration.
    Environment opensslLegacyProviderEnvironment();
    // True when the configuration file at path has a line whose first word
    // is directive (comment lines aside).
    static bool configFileAtPath(const std::string& path, const std::string& directive);

    // What the backend procedures use of the services, the runner and the
    // settings.
    const BackendServices& services() const { return services_; }
    platform::TunnelInterfaceConfigurator& tunnelInterfaces() { return *services_.tunnelInterfaces; }
    template <typename... Args>
    pid_t runServiceAtPath(Args&&... args) {
        return runner_.runServiceAtPath(std::forward<Args>(args)...);
    }
    template <typename... Args>
    pid_t runSystemTool(Args&&... args) {
        return runner_.runSystemTool(std::forward<Args>(args)...);
    }
    UniqueFd openExecutableForLaunch(const std::string& path) { return runner_.openExecutableForLaunch(path); }
    UniqueFd openSystemToolForLaunch(SystemTool tool) { return runner_.openSystemToolForLaunch(tool); }
    int openSocketOnPort(std::uint64_t port) { return runner_.openSocketOnPort(port); }
    bool killProcessWithID(pid_t pid, int signal) { return runner_.killProcessWithID(pid, signal); }
    StartedProcesses& startedProcesses() { return runner_.startedProcesses(); }
    std::string tmpDirPath() const;
    std::optional<Bundle> korvoBundle() const;
    bool vpnDebugLoggingEnabled() const;

private:
    BackendServices services_;
    const HelperSettings& settings_;
    ProgramRunner& runner_;
};

}  // namespace korvo
