// NetworkDiagnostics: snapshots of the machine's network state, appended to
// a log file that the client names, for support: one when the client reports
// a VPN connection established, one when it reports it terminated, and one
// every 30 seconds while a connection is up. Each snapshot runs the capture
// script as root (capture-network-state.sh, compiled in); the log itself is
// written with the rights of the client that named it. Captures are skipped
// while a network reset runs, so that its transient state is not recorded.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/CaptureSuppression.h"
#include "process/CallerFiles.h"
#include "util/Bundle.h"
#include "util/Error.h"
#include "util/QueueTimer.h"
#include "util/UniqueFd.h"

namespace korvo {

class SerialQueue;
class StoreArea;
class WorkerPool;

namespace platform {
class CodeSigning;
class DynamicStore;
}  // namespace platform

inline constexpr std::string_view kNetworkDiagnosticsQueueLabel = "com.tallowmar.korvo.utility.networkDiagnostics";

// What the diagnostics need from the rest of the helper.
struct NetworkDiagnosticsServices {
    // The threads the diagnostics queue runs on.
    std::shared_ptr<WorkerPool> pool;
    // The global network state and the keys shown in a capture; null: none
    // (the router, DNS server and primary interface stay empty).
    std::shared_ptr<platform::DynamicStore> dynamicStore;
    // The client application's bundle, whose wg the capture runs.
    std::function<std::optional<Bundle>()> korvoBundle;
    // Where the checked copy of wg is kept; null: the capture runs no wg.
    std::shared_ptr<StoreArea> storeArea;
    // Checks that the copy of wg is the vendor's; null: no wg runs.
    std::shared_ptr<platform::CodeSigning> codeSigning;
    // /bin/bash opened and checked for starting; invalid when refused.
    std::function<UniqueFd()> openShell;
    // Appends bytes to the file at path with the rights of caller; empty:
    // appendFileAsCaller, creating the file with mode 0644.
    std::function<MaybeError(const CallerRights& caller, const std::string& path, std::string_view bytes)>
        appendToLog;
    // The periodic capture's timer; tests drive one with a clock of their own.
    QueueTimerFactory makeTimer = startQueueTimer;
    TimerSchedule periodicSchedule{std::chrono::seconds(30), std::chrono::seconds(30), std::chrono::seconds(5)};
    // How long one run of the capture script may take before it is ended.
    double captureTimeoutSeconds = 45.0;
};

class NetworkDiagnostics final : public CaptureSuppression {
public:
    explicit NetworkDiagnostics(NetworkDiagnosticsServices services);
    // Stops the periodic capture and waits for the queued captures.
    ~NetworkDiagnostics() override;
    NetworkDiagnostics(const NetworkDiagnostics&) = delete;
    NetworkDiagnostics& operator=(const NetworkDiagnostics&) = delete;

    // --- Requests -------------------------------------------------------------
    // Stores the flag and the log path with the rights of the caller who
    // named it (nullopt: unknown, and the log is never written); disabling
    // stops the periodic capture.
    void setNetworkDiagnosticsCaptureEnabled(bool enabled, const std::optional<std::string>& logFilePath,
                                             const std::optional<CallerRights>& caller);
    // Counts the connection and queues a capture, then the periodic capture.
    void networkDiagnosticsConnectionEstablishedForServiceType(std::int64_t serviceType,
                                                               const std::optional<std::string>& accountDescription);
    // Queues a capture, then counts the connection down; the last one stops
    // the periodic capture.
    void networkDiagnosticsConnectionTerminatedForServiceType(std::int64_t serviceType,
                                                              const std::optional<std::string>& accountDescription);

    // --- CaptureSuppression -------------------------------------------------
    void beginNetworkDiagnosticsSuppression() override { _beginNetworkDiagnosticsSuppression(); }
    void endNetworkDiagnosticsSuppression() override { _endNetworkDiagnosticsSuppression(); }
    // Queued on the diagnostics queue, behind the captures already queued,
    // so that a periodic start queued earlier cannot outlive it.
    void stopPeriodicCaptureIfNeeded() override;

    // --- Fields -----------------------------------------------------------------
    bool networkDiagnosticsCaptureEnabled() const;
    std::optional<std::string> _networkDiagnosticsLogPath() const;
    std::int64_t networkDiagnosticsActiveConnectionCount() const;
    bool hasPeriodicTimer() const;
    SerialQueue& _networkDiagnosticsQueue() { return *queue_; }

    // --- The category's operations ------------------------------------------------
    static std::string _serviceTypeDisplayNameForType(std::int64_t serviceType);
    // Appends text to the log as the caller who named it, under the log lock.
    void _networkDiagnosticsAppendString(std::string_view text);
    // The global IPv4 router and primary interface and the first global DNS
    // server, each left as it was when the store has none.
    void _currentActiveRouterAddress(std::string* router, std::string* dnsServer, std::string* primaryInterface);
    // One capture, on the diagnostics queue; a null trigger reads "periodic".
    void _networkDiagnosticsCaptureOnceWithTrigger(const std::optional<std::string>& trigger);
    // Starts the timer when none runs and capture is still enabled.
    void _networkDiagnosticsStartPeriodicCaptureIfNeeded();
    void _networkDiagnosticsStopPeriodicCaptureIfNeeded();
    void _networkDiagnosticsQueue(std::function<void()> work);
    bool _networkDiagnosticsSuppressed() const;
    void _beginNetworkDiagnosticsSuppression();
    void _endNetworkDiagnosticsSuppression();

private:
    // Everything the log gets for one capture, header included.
    std::string captureText(const std::string& trigger);
    // The bundle's wg as a checked copy; "" when there is none.
    std::string wireGuardToolCopy();
    std::string triggerText(std::string_view event, std::int64_t serviceType,
                            const std::optional<std::string>& accountDescription) const;

    NetworkDiagnosticsServices services_;
    std::unique_ptr<SerialQueue> queue_;

    // The service object's lock in the original design: settings, the
    // connection count and the timer.
    mutable std::mutex objectLock_;
    bool networkDiagnosticsCaptureEnabled_ = false;
    std::optional<std::string> networkDiagnosticsLogPath_;
    std::optional<CallerRights> logWriter_;
    std::int64_t networkDiagnosticsActiveConnectionCount_ = 0;
    std::unique_ptr<QueueTimer> networkDiagnosticsPeriodicTimer_;

    std::mutex networkDiagnosticsLogLock_;
    std::atomic<std::int32_t> networkDiagnosticsSuppressionCount_{0};
};

// "\n==================== DATE (trigger: TRIGGER) ====================\n",
// the date as "2026-11-15 02:44:00 +0000".
std::string networkDiagnosticsHeader(std::chrono::system_clock::time_point time, std::string_view trigger);

// TUNNEL_IF of the capture: the primary interface when it is a utun, else "".
std::string tunnelInterfaceForPrimaryInterface(std::string_view primaryInterface);

// The script's arguments: WG_PATH, VPN_GATEWAY, VPN_DNS, TUNNEL_IF. The store
// holds what clients published: a router or server that is no IP address,
// or an interface name a program could take for an option, is left empty.
std::vector<std::string> captureScriptArguments(const std::string& wgPath, const std::string& router,
                                                const std::string& dnsServer, const std::string& primaryInterface);

}  // namespace korvo
