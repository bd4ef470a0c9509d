// connectSSHWithConfig: the system's ssh for SSH tunnels. It is started
// directly rather than through the runner: its standard input stays the
// helper's, and its askpass program gets the connection's name.
#include <unistd.h>

#include "backends/BackendSupport.h"
#include "backends/VpnConnections.h"
#include "process/ChildProcess.h"
#include "util/UniqueFd.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

extern char** environ;

namespace korvo {

namespace {

constexpr const char* kSSHPath = "/usr/bin/ssh";

Environment environmentWith(const Environment& additions) {
    Environment environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals != std::string_view::npos) {
            environment.emplace(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
        }
    }
    for (const auto& [key, value] : additions) environment[key] = value;
    return environment;
}

}  // namespace

void VpnConnections::connectSSHWithConfig(const std::optional<std::string>& configPath,
                                           const std::optional<std::string>& host,
                                           const std::optional<std::string>& credentials, std::uint64_t comPort,
                                           PidReply reply) {
    const auto bundle = korvoBundle();
    logMessage(LOG_NOTICE, "connectSSHWithConfig: korvoBundle: %s, configPath: %s, remoteHost: %s, userName: %s, comPort: %ld",
               bundle ? bundle->bundlePath().c_str() : "(null)", displayText(configPath).c_str(),
               displayText(host).c_str(), displayText(credentials).c_str(), static_cast<long>(comPort));

    std::vector<std::string> arguments = {"-v", "-N", "-F", configPath.value_or(std::string())};
    if (credentials && !credentials->empty()) {
        arguments.push_back("-l");
        arguments.push_back(*credentials);
    }
    // The host ends the options: a host that begins with "-" is a host,
    // never an option such as -oProxyCommand.
    arguments.push_back("--");
    arguments.push_back(host.value_or(std::string()));

    if (!fileExists(kSSHPath)) {
        reply(errorWithKorvoErrorCode(kRequiredFileMissingCode, formatString("SSH binary not found at %s", kSSHPath)), -1);
        return;
    }
    const std::string askpassPath = auxiliaryExecutablePath(bundle, "ssh_askpass_korvo");
    if (askpassPath.empty() || !fileExists(askpassPath)) {
        reply(errorWithKorvoErrorCode(
                  kRequiredFileMissingCode, formatString("SSH askpass file not found at %s", askpassPath.empty() ? "(null)" : askpassPath.c_str())),
              -1);
        return;
    }
    // ssh gets copies in the connection's root-only directory: its
    // configuration checked against ssh's allow-list, and the askpass
    // program, root's and 0755, only when it is the vendor's. Neither the
    // client's askpass nor the run directory is opened up to everyone.
    const std::string connectionName = connectionNameForConfigPath(configPath);
    const auto copies = prepareConnectionCopies(services(), ConfiguredProgram::SSH, connectionName,
                                                configPath.value_or(std::string()), askpassPath, "ssh_askpass_korvo",
                                                0755, false);
    if (!copies) {
        reply(copies.error(), -1);
        return;
    }
    arguments[3] = copies->configuration;
    const UniqueFd ssh = openSystemToolForLaunch(SystemTool::SSH);
    if (!ssh) {
        logMessage(LOG_ERR, "Cannot verify signature of executable at path '%s'.", kSSHPath);
        reply(errorWithKorvoErrorCode(kInvalidSignatureCode, formatString("Cannot verify signature of executable at path %s", kSSHPath)),
              -1);
        return;
    }

    ChildProcess::Options options;
    options.executable = kSSHPath;
    options.executableDescriptor = ssh.get();
    options.arguments = std::move(arguments);
    options.workingDirectory = tmpDirPath();
    options.environment = environmentWith({{"SSH_ASKPASS", copies->program},
                                           {"DISPLAY", ":0"},
                                           {"CS_UNIQUE_IDENTIFIER", connectionName}});
    // Without a com port socket ssh keeps the helper's own streams.
    UniqueFd comSocket(openSocketOnPort(comPort));
    options.standardOutput = comSocket.get();
    options.standardError = comSocket.get();

    int launchError = 0;
    const auto child = ChildProcess::launch(options, &launchError);
    if (!child) {
        logMessage(LOG_ERR, "Executable '%s' could not be executed successfully.", kSSHPath);
        reply(errorWithKorvoErrorCode(kLaunchingCode, formatString("Cannot find executable at path %s", kSSHPath)), -1);
        return;
    }
    startedProcesses().recordStart(child->pid(), kSSHPath);
    reply(std::nullopt, child->pid());
}

}  // namespace korvo
