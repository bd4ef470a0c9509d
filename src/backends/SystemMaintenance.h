// The disconnect and maintenance requests: stopping a VPN program that the
// helper started, configuration files at paths the client names, the
// known-hosts entry of an SSH server, cleaning up the installation, and
// Time Machine's automatic backups. Each request returns its reply's error.
//
// The helper touches only what is its own: it signals only programs it
// started and deletes only the links they made (StartedProcesses), writes
// and deletes client-named files with the client's own rights (CallerFiles),
// the resolver directory's generated files excepted, and keeps its store
// area while that still holds something to undo.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/NetworkSystemOperations.h"
#include "process/CallerFiles.h"
#include "process/Executables.h"
#include "process/StartedProcesses.h"
#include "util/Error.h"
#include "util/StoreArea.h"

namespace korvo {

// Where the Time Machine preferences are kept (macOS); the file is that
// path with the extension "plist".
inline constexpr std::string_view TimeMachinePreferencesDomain = "/Library/Preferences/com.apple.TimeMachine";

// The files of the helper's installation that cleaning removes, in order:
// the systemd unit, the D-Bus system service, the bus policy and the daemon,
// where this build installs them.
std::vector<std::string> installedHelperFiles();

// Whether the store area holds network transactions or published DNS
// settings: entries in their store directories.
bool storeAreaHoldsNetworkState(const StoreArea& store);

class SystemMaintenance {
public:
    // Runs one of the helper's system tools with the arguments and waits for
    // it: nullopt when it exited with status 0, else the runner's error.
    using SystemToolRunner = std::function<MaybeError(SystemTool tool, const std::vector<std::string>& arguments)>;

    struct Paths {
        std::string runDirectory = "/var/run/Korvo";
        std::string resolverDirectory = std::string(KorvoResolverDirectoryPath);
        std::vector<std::string> installedFiles = installedHelperFiles();
        std::string timeMachinePreferencesDomain = std::string(TimeMachinePreferencesDomain);
    };

    struct Dependencies {
        StartedProcesses& startedProcesses;
        std::shared_ptr<NetworkSystemOperations> networkSystemOperations;
        SystemToolRunner runSystemTool;
        // True while the store area holds what a restore or reset must undo.
        std::function<bool()> storeAreaHoldsNetworkState;
        Paths paths;
    };

    explicit SystemMaintenance(Dependencies dependencies);

    MaybeError disconnectService(std::int64_t serviceType, const std::optional<std::string>& remoteHost,
                                 std::uint64_t comPort, std::int32_t pid);
    // caller nullopt: the client's rights are unknown; nothing is written.
    MaybeError writeConfig(const std::optional<CallerRights>& caller, const std::optional<std::string>& config,
                           const std::optional<std::string>& path);
    MaybeError deleteConfigAtPath(const std::optional<CallerRights>& caller, const std::optional<std::string>& path);
    MaybeError cleanKnownHostsForRemoteHost(const std::optional<std::string>& host);
    MaybeError cleanSystem(std::int64_t cleanMask);
    MaybeError setTimeMachineEnabled(bool enabled);

private:
    MaybeError interruptStartedProcess(std::int32_t pid);
    MaybeError destroyStartedLink(const std::string& interfaceName);
    // The file's name when path lies directly in the resolver directory.
    std::optional<std::string> resolverFileName(const std::string& path) const;
    MaybeError removeRunDirectory();
    MaybeError removeInstalledFiles();

    StartedProcesses& startedProcesses_;
    std::shared_ptr<NetworkSystemOperations> networkSystemOperations_;
    SystemToolRunner runSystemTool_;
    std::function<bool()> storeAreaHoldsNetworkState_;
    Paths paths_;
};

}  // namespace korvo
