// connectOpenVPNWithConfig: OpenVPN puts itself in the background and is then
// driven by the client through its management interface on 127.0.0.1.
#include "backends/BackendSupport.h"
#include "core/HelperTool.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {

void KorvoHelperTool::connectOpenVPNWithConfig(const std::optional<std::string>& configPath,
                                               std::uint64_t managementPort, StringReply reply) {
    const auto bundle = korvoBundle();
    const std::string tmpDir = tmpDirPath();
    logMessage(LOG_NOTICE, "connectOpenVPNWithConfig: korvoBundle: %s, configPath: %s, managementPort: %ld, tempDirPath: %s",
               bundle ? bundle->bundlePath().c_str() : "(null)", displayText(configPath).c_str(),
               static_cast<long>(managementPort), tmpDir.c_str());

    const std::string connectionName = connectionNameForConfigPath(configPath);
    const std::string executable = auxiliaryExecutablePath(bundle, "openvpn");
    if (auto error = setPosixPermissions(executable, 0755)) {
        reply(error, std::nullopt);
        return;
    }

    const std::string logFilePath = appendPathComponent(tmpDir, connectionName) + ".log";
    // An earlier connection's log is emptied; only the permission change
    // decides whether the connect goes on.
    static_cast<void>(writeFileAtomically(logFilePath, std::string_view()));
    if (auto error = setPosixPermissions(logFilePath, 0644)) {
        reply(error, std::nullopt);
        return;
    }

    const std::string config = configPath.value_or(std::string());
    std::vector<std::string> arguments = {
        "--config", config, "--management-query-passwords", "--auth-nocache", "--cd", std::string(KorvoRunDirectory),
        "--daemon", "--log", logFilePath, "--management-hold", "--script-security", "2", "--management", "127.0.0.1",
        formatString("%ld", static_cast<long>(managementPort)), "--providers", "legacy", "default",
    };
    // A verb line in the configuration wins over the debug setting.
    if (vpnDebugLoggingEnabled() && !configFileAtPath(config, "verb")) {
        arguments.push_back("--verb");
        arguments.push_back("4");
    }

    // "--daemon": the started process returns as soon as OpenVPN runs in the
    // background, so waiting for it reports configuration errors.
    MaybeError error;
    runServiceAtPath(executable, arguments, 0, true, opensslLegacyProviderEnvironment(), &error);
    reply(error, std::nullopt);
}

}  // namespace korvo
