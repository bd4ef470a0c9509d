// connectVPNCWithConfig: vpnc for Cisco IPsec, its streams joined to the
// client's com port.
#include "backends/BackendSupport.h"
#include "core/HelperTool.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {

void KorvoHelperTool::connectVPNCWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                            PidReply reply) {
    const auto bundle = korvoBundle();
    const std::string tmpDir = tmpDirPath();
    logMessage(LOG_NOTICE, "connectVPNCWithConfig: korvoBundle: %s, configPath: %s, comPort: %ld, tempDirPath: %s",
               bundle ? bundle->bundlePath().c_str() : "(null)", displayText(configPath).c_str(),
               static_cast<long>(comPort), tmpDir.c_str());

    const std::string scriptPath =
        appendPathComponent(tmpDir, connectionNameForConfigPath(configPath) + "-vpnc-script.sh");
    if (!fileExists(scriptPath)) {
        reply(errorWithKorvoErrorCode(62, formatString("vpnc script file not found at %s", scriptPath.c_str())), -1);
        return;
    }

    const std::vector<std::string> arguments = {
        "--debug", vpnDebugLoggingEnabled() ? "3" : "1", configPath.value_or(std::string()),
        "--script", scriptPath, "--local-port", "0",
    };

    const std::string executable = auxiliaryExecutablePath(bundle, "vpnc");
    for (const auto& path : {scriptPath, executable}) {
        if (auto error = setPosixPermissions(path, 0755)) {
            reply(error, -1);
            return;
        }
    }

    MaybeError error;
    const pid_t pid = runServiceAtPath(executable, arguments, comPort, false, opensslLegacyProviderEnvironment(), &error);
    reply(error, pid);
}

}  // namespace korvo
