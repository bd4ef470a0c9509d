// connectVPNCWithConfig: vpnc for Cisco IPsec, its streams joined to the
// client's com port.
#include "backends/BackendSupport.h"
#include "backends/VpnConnections.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {

void VpnConnections::connectVPNCWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                            PidReply reply) {
    const auto bundle = korvoBundle();
    const std::string tmpDir = tmpDirPath();
    logMessage(LOG_NOTICE, "connectVPNCWithConfig: korvoBundle: %s, configPath: %s, comPort: %ld, tempDirPath: %s",
               bundle ? bundle->bundlePath().c_str() : "(null)", displayText(configPath).c_str(),
               static_cast<long>(comPort), tmpDir.c_str());

    const std::string connectionName = connectionNameForConfigPath(configPath);
    const std::string scriptPath = appendPathComponent(tmpDir, connectionName + "-vpnc-script.sh");
    if (!fileExists(scriptPath)) {
        reply(errorWithKorvoErrorCode(kRequiredFileMissingCode, formatString("vpnc script file not found at %s", scriptPath.c_str())), -1);
        return;
    }
    // vpnc reads copies that the client can no longer change: the
    // configuration checked against vpnc's allow-list, and the script only
    // when it is the vendor's or the system's vpnc-script.
    const auto copies = prepareConnectionCopies(services(), ConfiguredProgram::VPNC, connectionName,
                                                configPath.value_or(std::string()), scriptPath, "vpnc-script", 0700,
                                                true);
    if (!copies) {
        reply(copies.error(), -1);
        return;
    }

    const std::vector<std::string> arguments = {
        "--debug", vpnDebugLoggingEnabled() ? "3" : "1", copies->configuration, "--script", copies->program,
        "--local-port", "0",
    };

    const std::string executable = auxiliaryExecutablePath(bundle, "vpnc");
    if (auto error = setPosixPermissions(executable, 0755)) {
        reply(error, -1);
        return;
    }

    MaybeError error;
    const pid_t pid = runServiceAtPath(executable, arguments, comPort, false, opensslLegacyProviderEnvironment(), &error);
    reply(error, pid);
}

}  // namespace korvo
