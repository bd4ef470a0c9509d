// connectOpenConnectWithConfig: openconnect for AnyConnect-compatible
// servers, kept in the foreground so that the replied process identifier and
// the com port belong to the process that holds the tunnel.
#include "backends/BackendSupport.h"
#include "backends/VpnConnections.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {

void VpnConnections::connectOpenConnectWithConfig(const std::optional<std::string>& configPath,
                                                   const std::optional<std::string>& host,
                                                   const std::optional<std::string>& resolve,
                                                   const std::optional<std::string>& credentials,
                                                   const std::optional<std::string>& hash, std::uint64_t comPort,
                                                   PidReply reply) {
    const auto bundle = korvoBundle();
    const std::string tmpDir = tmpDirPath();
    logMessage(LOG_NOTICE,
               "connectOpenConnectWithConfig: korvoBundle: %s, configPath: %s, remoteHost: %s, certHash: %s, comPort: %ld, tempDirPath: %s",
               bundle ? bundle->bundlePath().c_str() : "(null)", displayText(configPath).c_str(),
               displayText(host).c_str(), displayText(hash).c_str(), static_cast<long>(comPort), tmpDir.c_str());

    const std::string config = configPath.value_or(std::string());
    const std::string scriptPath =
        appendPathComponent(tmpDir, connectionNameForConfigPath(configPath) + "-openconnect-script.sh");
    if (!fileExists(scriptPath)) {
        reply(errorWithKorvoErrorCode(kRequiredFileMissingCode, formatString("openconnect script file not found at %s", scriptPath.c_str())),
              -1);
        return;
    }

    // openconnect reads copies that the client can no longer change: the
    // configuration checked against openconnect's allow-list (the
    // "background" option is dropped from the copy: the started process must
    // stay the tunnel's), and the script only when it is the vendor's or the
    // system's vpnc-script.
    bool removed = false;
    const auto copies = prepareConnectionCopies(
        services(), ConfiguredProgram::OpenConnect, connectionNameForConfigPath(configPath), config, scriptPath,
        "openconnect-script", 0700, true,
        [&removed](std::string text) { return configTextByRemovingBackgroundOption(text, &removed); });
    if (!copies) {
        reply(copies.error(), -1);
        return;
    }
    if (removed) {
        logMessage(LOG_NOTICE, "Removed daemonizing background option from OpenConnect configuration at path '%s'.",
                   config.c_str());
    }

    std::vector<std::string> arguments = {
        "--config=" + copies->configuration,
        // The session cookie comes on standard input, never in the
        // arguments, which every local user can read.
        "--cookie-on-stdin",
        // openconnect hands the script to /bin/sh -c: the path is one
        // quoted word, whatever characters the client put in its names.
        "--script=" + shellQuoted(copies->program),
        "--servercert=" + hash.value_or(std::string()),
        "--os=mac-intel",
    };
    if (resolve && !resolve->empty()) arguments.push_back("--resolve=" + *resolve);
    if (vpnDebugLoggingEnabled()) {
        arguments.push_back("-v");
        arguments.push_back("-v");
        logMessage(LOG_NOTICE, "OpenConnect VPN debug logging is enabled.");
    }
    // The server ends the options: one beginning with "-" is a server.
    arguments.push_back("--");
    arguments.push_back(host.value_or(std::string()));

    const std::string executable = auxiliaryExecutablePath(bundle, "openconnect");
    if (auto error = setPosixPermissions(executable, 0755)) {
        reply(error, -1);
        return;
    }

    MaybeError error;
    const pid_t pid =
        runServiceAtPath(executable, arguments, comPort, false, opensslLegacyProviderEnvironment(), nullptr, &error,
                         credentials.value_or(std::string()) + "\n");
    reply(error, pid);
}

}  // namespace korvo
