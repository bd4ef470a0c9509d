// KorvoHelperTool: the helper's one service object. Every request of the
// client arrives as a call of one of its request methods, and each method
// hands the request to the component that does it; this header is where
// every request and its component can be read off. The object owns the
// components and the listener; settings made through the setters last for
// the life of the process and are shared by all clients.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "backends/VpnConnections.h"
#include "diagnostics/NetworkDiagnostics.h"
#include "platform/CodeSigning.h"
#include "process/CallerFiles.h"
#include "process/ProgramRunner.h"
#include "process/StartedProcesses.h"
#include "util/Error.h"
#include "util/HelperSettings.h"
#include "util/KorvoIdentity.h"
#include "util/StoreArea.h"
#include "util/Value.h"

namespace korvo {

class CaptureSuppression;
class NetworkSystemOperations;
class NetworkTransactions;
class RouteConfiguration;
class SerialQueue;
class SystemMaintenance;
class TunnelDns;
class WorkerPool;
struct NameServerSettings;

namespace platform {
class DynamicStore;
class ServiceListener;
class ServiceListenerDelegate;
struct ServiceConnection;
class TunnelInterfaceConfigurator;
}  // namespace platform

using ErrorReply = std::function<void(const MaybeError&)>;

// The platform services the service object uses. production() gives the real
// ones; tests replace single services or leave the listener out.
struct HelperServices {
    std::shared_ptr<platform::CodeSigning> codeSigning;
    std::shared_ptr<platform::TunnelInterfaceConfigurator> tunnelInterfaces;
    // Finds the client application's bundle path; nullopt when none is installed.
    std::function<std::optional<std::string>()> locateApplicationBundle;
    // The run directory and the helper's own store directories beneath it;
    // null: none (a unit test that touches no helper state).
    std::shared_ptr<StoreArea> storeArea;
    // The dynamic store that tunnel DNS is published in and DNS snapshots
    // are restored into; null: none (the DNS request then fails as when no
    // session can be opened, and so does restoring a DNS snapshot).
    std::shared_ptr<platform::DynamicStore> dynamicStore;
    // The periodic diagnostics capture's schedule (a test daemon shortens it).
    TimerSchedule networkDiagnosticsPeriodicSchedule{std::chrono::seconds(30), std::chrono::seconds(30),
                                                     std::chrono::seconds(5)};

    // The real services: the platform's code signing and tunnel interfaces,
    // the desktop's application lookup, the run directory.
    static HelperServices production();
};

class KorvoHelperTool {
public:
    // init: sets the defaults and loads persisted state. The daemon's entry
    // then makes the platform's listener with listenerDelegate(), attaches
    // it, resumes it and calls run.
    explicit KorvoHelperTool(HelperServices services = HelperServices::production());
    ~KorvoHelperTool();
    KorvoHelperTool(const KorvoHelperTool&) = delete;
    KorvoHelperTool& operator=(const KorvoHelperTool&) = delete;

    // The listener's delegate: it accepts or refuses clients and hands each
    // request of an accepted one to its request method.
    platform::ServiceListenerDelegate& listenerDelegate() { return *listenerDelegate_; }
    // The one listener whose clients the delegate judges. From now on
    // terminateWithReply ends the process through run.
    void attachListener(platform::ServiceListener& listener);
    // Serves requests until terminateWithReply (returns EXIT_SUCCESS) or
    // until the listener fails (EXIT_FAILURE); the caller then invalidates
    // the listener and ends the process with that status.
    int run();

    // --- Requests without a reply -------------------------------------------
    void setKorvoBundlePath(const std::optional<std::string>& path) { settings_.setKorvoBundlePath(path); }
    void setTmpDirPath(const std::optional<std::string>& path) { settings_.setTmpDirPath(path); }
    void setVPNDebugLoggingEnabled(bool enabled) { settings_.setVPNDebugLoggingEnabled(enabled); }

    // Diagnostics: NetworkDiagnostics. The log is written with the rights of
    // the caller who named it.
    void setNetworkDiagnosticsCaptureEnabled(bool enabled, const std::optional<std::string>& logFilePath,
                                             const std::optional<CallerRights>& caller) {
        networkDiagnostics_->setNetworkDiagnosticsCaptureEnabled(enabled, logFilePath, caller);
    }
    void networkDiagnosticsConnectionEstablishedForServiceType(std::int64_t serviceType,
                                                               const std::optional<std::string>& accountDescription) {
        networkDiagnostics_->networkDiagnosticsConnectionEstablishedForServiceType(serviceType, accountDescription);
    }
    void networkDiagnosticsConnectionTerminatedForServiceType(std::int64_t serviceType,
                                                              const std::optional<std::string>& accountDescription) {
        networkDiagnostics_->networkDiagnosticsConnectionTerminatedForServiceType(serviceType, accountDescription);
    }

    // --- Requests with a reply ----------------------------------------------
    // Logs, replies, and ends the process with status 0: at once before run,
    // else through run, whose caller first stops the listener.
    void terminateWithReply(ErrorReply reply);

    // The connect requests: VpnConnections.
    void connectOpenVPNWithConfig(const std::optional<std::string>& configPath, std::uint64_t managementPort,
                                  StringReply reply) {
        vpnConnections_->connectOpenVPNWithConfig(configPath, managementPort, std::move(reply));
    }
    void connectVPNCWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort, PidReply reply) {
        vpnConnections_->connectVPNCWithConfig(configPath, comPort, std::move(reply));
    }
    void connectSSHWithConfig(const std::optional<std::string>& configPath, const std::optional<std::string>& host,
                              const std::optional<std::string>& credentials, std::uint64_t comPort, PidReply reply) {
        vpnConnections_->connectSSHWithConfig(configPath, host, credentials, comPort, std::move(reply));
    }
    void connectOpenConnectWithConfig(const std::optional<std::string>& configPath,
                                      const std::optional<std::string>& host,
                                      const std::optional<std::string>& resolve,
                                      const std::optional<std::string>& credentials,
                                      const std::optional<std::string>& hash, std::uint64_t comPort,
                                      PidReply reply) {
        vpnConnections_->connectOpenConnectWithConfig(configPath, host, resolve, credentials, hash, comPort,
                                                      std::move(reply));
    }
    void connectWireGuardWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply) {
        vpnConnections_->connectWireGuardWithConfig(configPath, comPort, std::move(reply));
    }
    void connectAmneziaWGWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply) {
        vpnConnections_->connectAmneziaWGWithConfig(configPath, comPort, std::move(reply));
    }

    // Tunnel DNS: TunnelDns.
    void updateNameServerAddresses(const NameServerSettings& settings, ErrorReply reply);

    // Disconnect and maintenance: SystemMaintenance. writeConfig and
    // deleteConfigAtPath act with the rights of the caller.
    void disconnectService(std::int64_t serviceType, const std::optional<std::string>& remoteHost,
                           std::uint64_t comPort, std::int32_t pid, ErrorReply reply);
    void writeConfig(const platform::ServiceConnection& caller, const std::optional<std::string>& config,
                     const std::optional<std::string>& path, ErrorReply reply);
    void deleteConfigAtPath(const platform::ServiceConnection& caller, const std::optional<std::string>& path,
                            ErrorReply reply);
    void cleanKnownHostsForRemoteHost(const std::optional<std::string>& host, ErrorReply reply);
    void cleanSystem(std::int64_t cleanMask, ErrorReply reply);
    void setTimeMachineEnabled(bool enabled, ErrorReply reply);

    // Network transactions: NetworkTransactions; the route request:
    // RouteConfiguration.
    void recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                               const std::optional<std::string>& transactionIdentifier, ErrorReply reply);
    void configureRoutes(const Value& routeOperations, StringReply reply);
    void applyNetworkTransaction(const Value& request, ErrorReply reply);
    void restoreNetworkTransactionWithIdentifier(const std::optional<std::string>& identifier, ErrorReply reply);
    void resetNetworkConfigurationForIdentifier(const std::optional<std::string>& identifier,
                                                const std::optional<std::string>& tunnelInterface, ErrorReply reply);

    // --- Components -------------------------------------------------------------
    const HelperSettings& settings() const { return settings_; }
    // Every program the helper starts goes through the runner.
    ProgramRunner& programRunner() { return *programRunner_; }
    VpnConnections& vpnConnections() { return *vpnConnections_; }
    // Diagnostics capture and log; also what a network reset suppresses.
    NetworkDiagnostics& networkDiagnostics() { return *networkDiagnostics_; }
    // The programs the helper started and the links they made: the only
    // ones it will ever signal or delete.
    StartedProcesses& startedProcesses() { return *startedProcesses_; }

    // The transaction store, the reset queue and the undo procedures.
    NetworkTransactions& networkTransactions() { return *networkTransactions_; }
    // Routes, interfaces and resolver files: the only code that changes them.
    NetworkSystemOperations& networkSystemOperations() { return *networkSystemOperations_; }
    platform::ServiceListener* listener() const { return listener_; }
    const HelperServices& services() const { return services_; }

private:
    HelperServices services_;

    HelperSettings settings_;
    // The threads the diagnostics queue and the reset queue run on.
    std::shared_ptr<WorkerPool> queuePool_;
    std::unique_ptr<StartedProcesses> startedProcesses_;
    std::unique_ptr<ProgramRunner> programRunner_;
    std::unique_ptr<VpnConnections> vpnConnections_;
    std::shared_ptr<NetworkSystemOperations> networkSystemOperations_;
    std::unique_ptr<SystemMaintenance> systemMaintenance_;
    std::unique_ptr<NetworkDiagnostics> networkDiagnostics_;
    std::unique_ptr<NetworkTransactions> networkTransactions_;
    std::unique_ptr<RouteConfiguration> routeConfiguration_;
    std::unique_ptr<TunnelDns> tunnelDns_;

    std::unique_ptr<platform::ServiceListenerDelegate> listenerDelegate_;
    platform::ServiceListener* listener_ = nullptr;

    // run() blocks on this until terminateWithReply asks it to stop.
    std::mutex runMutex_;
    std::condition_variable runCondition_;
    bool running_ = false;
    bool stopRequested_ = false;
    bool listenerFailed_ = false;  // run() then returns EXIT_FAILURE

    friend class HelperToolListenerDelegate;
    // Transactions or published DNS settings that only the store area
    // records: cleaning keeps the store area while there are any.
    bool holdsNetworkStateToUndo() const;
    void listenerDidFail(const std::string& reason);
};

}  // namespace korvo
