// The WireGuard and AmneziaWG connect requests. Both start the userspace
// tunnel program from the client's bundle, wait for its control socket, hand
// it the runtime configuration through the control program's "setconf",
// bring the interface up and give it its addresses. The reply's process
// identifier is the tunnel: the client ends it with a disconnect request.
// Once the program runs, every failure interrupts it (SIGINT) before the
// error is returned, so no half-configured tunnel is left behind.
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/BackendSupport.h"
#include "backends/ConnectionDirectory.h"
#include "backends/WireGuardConfig.h"
#include "backends/WireGuardTunnel.h"
#include "backends/VpnConnections.h"
#include "process/CapturedProcessOutput.h"
#include "util/DataAdditions.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/InterfaceName.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr mode_t kExecutableMode = 0755;
// The runtime configuration holds the private key.
constexpr mode_t kRuntimeConfigurationMode = 0600;

const char* describe(const std::optional<std::string>& text) { return text ? text->c_str() : "(null)"; }

// What the connect request takes from the client's configuration.
struct TunnelConfiguration {
    std::string text;
    std::string interfaceName;
    std::vector<std::string> addresses;
};

Result<TunnelConfiguration> readTunnelConfiguration(const std::string& configPath, const char* display) {
    const Result<std::string> config = readUTF8File(configPath);
    if (!config) return config.error();
    if (config->empty()) {
        return errorWithKorvoErrorCode(kGeneralErrorCode, formatString("Could not parse %s configuration file.", display));
    }
    const std::optional<std::string> interfaceName = wireGuardInterfaceNameFromConfig(*config);
    if (!interfaceName) {
        return errorWithKorvoErrorCode(kInvalidParameterCode,
                                       formatString("%s interface name is missing in configuration.", display));
    }
    // The name becomes the program's argument and part of its control
    // socket's path.
    if (!isUsableInterfaceName(*interfaceName)) {
        return errorWithKorvoErrorCode(kInvalidParameterCode,
                                       formatString("%s interface name is not valid in configuration.", display));
    }
    return TunnelConfiguration{*config, *interfaceName, wireGuardAddressesFromConfig(*config)};
}

// Once the program's control socket is there: the runtime configuration
// through the control program, the link up, the addresses. The runtime
// configuration is written where only root can reach it: the client could
// swap a file in its own temporary directory between the write and the
// control program's read.
MaybeError configureTunnel(VpnConnections& tool, const std::string& controlPath, const TunnelConfiguration& tunnel,
                           const std::string& connectionName, pid_t pid) {
    if (!tool.services().storeArea) {
        return errorWithKorvoErrorCode(kHelperProblemCode, std::string("The helper has no run directory."));
    }
    auto directory = ConnectionDirectory::create(*tool.services().storeArea, connectionName);
    if (!directory) return directory.error();
    const std::string runtime = wireGuardRuntimeConfiguration(tunnel.text);
    auto runtimePath = directory->writeFile(randomUUIDString() + ".conf", bytesOf(runtime), kRuntimeConfigurationMode);
    if (!runtimePath) return runtimePath.error();
    MaybeError setconfError;
    tool.runServiceAtPath(controlPath, std::vector<std::string>{"setconf", tunnel.interfaceName, *runtimePath}, 0,
                          true, &setconfError);
    // The file holds the private key: it goes whatever the outcome.
    removeFile(*runtimePath);
    if (setconfError) return setconfError;

    tool.startedProcesses().recordLink(pid, tunnel.interfaceName);
    if (auto upError = wireGuardBringInterfaceUp(tool.tunnelInterfaces(), tunnel.interfaceName)) return upError;
    for (const std::string& address : tunnel.addresses) {
        if (auto addressError = wireGuardConfigureAddress(tool.tunnelInterfaces(), tunnel.interfaceName, address)) return addressError;
    }
    return std::nullopt;
}

}  // namespace

void VpnConnections::connectWireGuardWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                                 PidReply reply) {
    connectWireGuardVariantWithConfig(configPath, "wireguard-go", "wg", "WireGuard", "/var/run/wireguard", comPort,
                                      std::move(reply));
}

void VpnConnections::connectAmneziaWGWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                                 PidReply reply) {
    connectWireGuardVariantWithConfig(configPath, "amneziawg-go", "awg", "AmneziaWG", "/var/run/amneziawg", comPort,
                                      std::move(reply));
}

void VpnConnections::connectWireGuardVariantWithConfig(const std::optional<std::string>& configPath,
                                                        const std::string& userspaceExecutableName,
                                                        const std::string& controlExecutableName,
                                                        const std::string& displayName,
                                                        const std::string& uapiDirectory, std::uint64_t comPort,
                                                        PidReply reply) {
    const std::optional<Bundle> bundle = korvoBundle();
    logMessage(LOG_NOTICE,
               "connectWireGuardWithConfig: korvoBundle: %s, configPath: %s, userspaceExecutableName: %s, "
               "controlExecutableName: %s",
               bundle ? bundle->bundlePath().c_str() : "(null)", describe(configPath), userspaceExecutableName.c_str(),
               controlExecutableName.c_str());

    const auto fail = [&reply](const KorvoError& error) { reply(error, -1); };
    const char* display = displayName.c_str();

    if (!configPath || !fileExists(*configPath)) {
        return fail(errorWithKorvoErrorCode(
            kRequiredFileMissingCode, formatString("WireGuard config file not found at %s", describe(configPath))));
    }

    const auto userspacePath = bundle ? bundle->pathForAuxiliaryExecutable(userspaceExecutableName) : std::nullopt;
    if (!userspacePath) {
        return fail(errorWithKorvoErrorCode(
            kRequiredFileMissingCode, formatString("%s launcher executable '%s' not found in app bundle.", display,
                                           userspaceExecutableName.c_str())));
    }
    const auto controlPath = bundle ? bundle->pathForAuxiliaryExecutable(controlExecutableName) : std::nullopt;
    if (!controlPath) {
        return fail(errorWithKorvoErrorCode(kRequiredFileMissingCode,
                                            formatString("%s control executable '%s' not found in app bundle.", display,
                                                         controlExecutableName.c_str())));
    }
    for (const std::string* path : {&*userspacePath, &*controlPath}) {
        if (auto error = setPosixPermissions(*path, kExecutableMode)) return fail(*error);
    }

    const Result<TunnelConfiguration> tunnel = readTunnelConfiguration(*configPath, display);
    if (!tunnel) return fail(tunnel.error());
    const std::optional<std::string> interfaceName = tunnel->interfaceName;

    // Kept in the foreground, the program's process identifier is the
    // tunnel's for as long as the tunnel lives.
    std::shared_ptr<CSCapturedProcessOutput> output;
    MaybeError error;
    const pid_t pid = runServiceAtPath(*userspacePath, std::vector<std::string>{*interfaceName}, comPort, false,
                                       Environment{{"WG_PROCESS_FOREGROUND", "1"}}, &output, &error);
    if (error || pid < 1) {
        return fail(error ? *error
                          : errorWithKorvoErrorCode(kHelperProblemCode,
                                                    formatString("Could not start %s userspace backend.", display)));
    }

    const auto finish = [&](const MaybeError& failure) {
        if (!failure) return reply(std::nullopt, pid);
        killProcessWithID(pid, SIGINT);
        fail(*failure);
    };

    if (auto waitError = wireGuardWaitForControlSocket(*interfaceName, uapiDirectory, pid, displayName, output.get())) {
        return finish(waitError);
    }

    finish(configureTunnel(*this, *controlPath, *tunnel, connectionNameForConfigPath(configPath), pid));
}

}  // namespace korvo
