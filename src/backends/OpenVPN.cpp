// connectOpenVPNWithConfig: OpenVPN puts itself in the background and is then
// driven by the client through its management interface on 127.0.0.1.
#include <chrono>
#include <cstdint>
#include <thread>
#include <filesystem>

#include "backends/BackendSupport.h"
#include "backends/ConnectionDirectory.h"
#include "backends/VpnConnections.h"
#include "util/DataAdditions.h"
#include "util/IntegerScan.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr std::size_t kManagementPasswordBytes = 32;
constexpr auto kPidFileWait = std::chrono::seconds(2);

struct OpenVPNFiles {
    std::string config;              // the checked copy OpenVPN reads
    std::string log;                 // root's, in the run directory; linked where the client reads it
    std::string managementPassword;  // root's, readable by the client group
    std::string pid;                 // where OpenVPN writes its pid once in the background
};

// What OpenVPN opens by path, made where the client cannot swap it: the
// configuration's copy in the connection's directory, the log and the
// management password in the run directory. The client reads the log at
// TMPDIR/NAME.log, as before.
Result<OpenVPNFiles> prepareOpenVPNFiles(const StoreArea* store, const std::string& configPath,
                                         const std::string& connectionName, const std::string& tmpDir) {
    if (!store) {
        return errorWithKorvoErrorCode(kHelperProblemCode, std::string("The helper has no run directory."));
    }
    auto directory = ConnectionDirectory::create(*store, connectionName);
    if (!directory) return directory.error();
    auto config = copyCheckedConfiguration(*directory, ConfiguredProgram::OpenVPN, configPath, "config");
    if (!config) return config.error();

    const std::string sharedName = std::filesystem::path(directory->path()).filename().string();
    auto log = store->replaceSharedFile(sharedName + ".log", {}, 0644);
    if (!log) return log.error();
    if (auto error = linkSharedFileForClient(*log, tmpDir, connectionName + ".log")) return *error;

    // Without a password any local user could take the management port
    // before the client does.
    const std::string password = SHA256HexDigest(randomDataWithBytes(kManagementPasswordBytes)) + "\n";
    auto passwordFile = store->replaceSharedFile(sharedName + ".management", bytesOf(password), 0640);
    if (!passwordFile) return passwordFile.error();
    return OpenVPNFiles{*config, *log, *passwordFile, directory->pathOf("openvpn.pid")};
}

// The program in the background is the one the helper may end later. It
// writes its pid once it is there, which may be just after the process the
// helper started has returned: wait a little for the file's one line.
pid_t waitForPidFile(const std::string& path) {
    const auto deadline = std::chrono::steady_clock::now() + kPidFileWait;
    do {
        if (const auto text = readUTF8File(path); text && text->find('\n') != std::string::npos) {
            const auto pid = scanInteger(*text);
            return pid && pid->value > 0 && pid->value <= INT32_MAX ? static_cast<pid_t>(pid->value) : -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
    return -1;
}

}  // namespace

void VpnConnections::connectOpenVPNWithConfig(const std::optional<std::string>& configPath,
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
    auto prepared =
        prepareOpenVPNFiles(services().storeArea.get(), configPath.value_or(std::string()), connectionName, tmpDir);
    if (!prepared) {
        reply(prepared.error(), std::nullopt);
        return;
    }
    const OpenVPNFiles& files = *prepared;

    std::vector<std::string> arguments = {
        "--config", files.config, "--management-query-passwords", "--auth-nocache", "--cd",
        services().storeArea->runDirectory(), "--daemon", "--log", files.log, "--management-hold", "--script-security",
        "2", "--management", "127.0.0.1", formatString("%ld", static_cast<long>(managementPort)),
        files.managementPassword, "--providers", "legacy", "default", "--writepid", files.pid,
    };
    // A verb line in the configuration wins over the debug setting.
    if (vpnDebugLoggingEnabled() && !configFileAtPath(files.config, "verb")) {
        arguments.push_back("--verb");
        arguments.push_back("4");
    }

    // "--daemon": the started process returns as soon as OpenVPN runs in the
    // background, so waiting for it reports configuration errors.
    MaybeError error;
    runServiceAtPath(executable, arguments, 0, true, opensslLegacyProviderEnvironment(), &error);
    if (!error) {
        if (const pid_t background = waitForPidFile(files.pid); background > 0) {
            startedProcesses().recordStart(background, executable);
        }
    }
    reply(error, std::nullopt);
}

}  // namespace korvo
