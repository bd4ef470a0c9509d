#include "diagnostics/NetworkDiagnostics.h"

#include <ctime>

#include "backends/BackendSupport.h"
#include "backends/ConnectionDirectory.h"
#include "diagnostics/CaptureRun.h"
#include "diagnostics/CaptureScript.h"
#include "diagnostics/DynamicStoreText.h"
#include "platform/DynamicStore.h"
#include "util/AddressAdditions.h"
#include "util/InterfaceName.h"
#include "util/Log.h"
#include "util/SerialQueue.h"
#include "util/StoreArea.h"
#include "util/Utf8.h"

namespace korvo {
namespace {

constexpr const char* kStoreSessionName = "com.tallowmar.korvo.utility";
constexpr const char* kPeriodicTrigger = "periodic (30s)";
constexpr const char* kUntriggered = "periodic";
// The checked copy of the bundle's wg lives in a directory of the store
// area, made anew for each capture.
constexpr const char* kCopyDirectory = "network-diagnostics";
constexpr mode_t kLogFileMode = 0644;
constexpr const char* kChildPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::optional<std::string> stringIn(const std::optional<Dictionary>& dictionary, const std::string& key) {
    return dictionary ? stringForKey(*dictionary, key) : std::nullopt;
}

}  // namespace

std::string networkDiagnosticsHeader(std::chrono::system_clock::time_point time, std::string_view trigger) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char date[64];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return "\n==================== " + std::string(date) + " (trigger: " + std::string(trigger) +
           ") ====================\n";
}

std::string tunnelInterfaceForPrimaryInterface(std::string_view primaryInterface) {
    return primaryInterface.starts_with("utun") ? std::string(primaryInterface) : std::string();
}

std::vector<std::string> captureScriptArguments(const std::string& wgPath, const std::string& router,
                                                const std::string& dnsServer, const std::string& primaryInterface) {
    const auto address = [](const std::string& text) { return isValidIPAddress(text) ? text : std::string(); };
    std::string tunnel = tunnelInterfaceForPrimaryInterface(primaryInterface);
    if (!isUsableInterfaceName(tunnel)) tunnel.clear();
    return {wgPath, address(router), address(dnsServer), tunnel};
}

NetworkDiagnostics::NetworkDiagnostics(NetworkDiagnosticsServices services) : services_(std::move(services)) {
    if (!services_.pool) services_.pool = std::make_shared<WorkerPool>(1);
    if (!services_.appendToLog) {
        services_.appendToLog = [](const CallerRights& caller, const std::string& path, std::string_view bytes) {
            return appendFileAsCaller(caller, path, bytes, kLogFileMode);
        };
    }
    queue_ = std::make_unique<SerialQueue>(std::string(kNetworkDiagnosticsQueueLabel), services_.pool);
}

NetworkDiagnostics::~NetworkDiagnostics() {
    {
        // Queued starts find capture disabled and start nothing.
        std::lock_guard lock(objectLock_);
        networkDiagnosticsCaptureEnabled_ = false;
        networkDiagnosticsPeriodicTimer_.reset();
    }
    queue_.reset();
}

void NetworkDiagnostics::setNetworkDiagnosticsCaptureEnabled(bool enabled,
                                                             const std::optional<std::string>& logFilePath,
                                                             const std::optional<CallerRights>& caller) {
    std::lock_guard lock(objectLock_);
    networkDiagnosticsCaptureEnabled_ = enabled;
    networkDiagnosticsLogPath_ = logFilePath;
    logWriter_ = caller;
    if (!enabled) networkDiagnosticsPeriodicTimer_.reset();
}

std::string NetworkDiagnostics::triggerText(std::string_view event, std::int64_t serviceType,
                                            const std::optional<std::string>& accountDescription) const {
    return "connection " + std::string(event) + " (" + _serviceTypeDisplayNameForType(serviceType) + ", " +
           accountDescription.value_or("unknown account") + ")";
}

void NetworkDiagnostics::networkDiagnosticsConnectionEstablishedForServiceType(
    std::int64_t serviceType, const std::optional<std::string>& accountDescription) {
    {
        std::lock_guard lock(objectLock_);
        if (!networkDiagnosticsCaptureEnabled_) return;
        ++networkDiagnosticsActiveConnectionCount_;
    }
    _networkDiagnosticsQueue([this, trigger = triggerText("established", serviceType, accountDescription)] {
        _networkDiagnosticsCaptureOnceWithTrigger(trigger);
        _networkDiagnosticsStartPeriodicCaptureIfNeeded();
    });
}

void NetworkDiagnostics::networkDiagnosticsConnectionTerminatedForServiceType(
    std::int64_t serviceType, const std::optional<std::string>& accountDescription) {
    if (!networkDiagnosticsCaptureEnabled()) return;
    _networkDiagnosticsQueue([this, trigger = triggerText("terminated", serviceType, accountDescription)] {
        _networkDiagnosticsCaptureOnceWithTrigger(trigger);
        std::lock_guard lock(objectLock_);
        if (networkDiagnosticsActiveConnectionCount_ > 0) --networkDiagnosticsActiveConnectionCount_;
        if (networkDiagnosticsActiveConnectionCount_ == 0) networkDiagnosticsPeriodicTimer_.reset();
    });
}

void NetworkDiagnostics::stopPeriodicCaptureIfNeeded() {
    _networkDiagnosticsQueue([this] { _networkDiagnosticsStopPeriodicCaptureIfNeeded(); });
}

bool NetworkDiagnostics::networkDiagnosticsCaptureEnabled() const {
    std::lock_guard lock(objectLock_);
    return networkDiagnosticsCaptureEnabled_;
}

std::optional<std::string> NetworkDiagnostics::_networkDiagnosticsLogPath() const {
    std::lock_guard lock(objectLock_);
    return networkDiagnosticsLogPath_;
}

std::int64_t NetworkDiagnostics::networkDiagnosticsActiveConnectionCount() const {
    std::lock_guard lock(objectLock_);
    return networkDiagnosticsActiveConnectionCount_;
}

bool NetworkDiagnostics::hasPeriodicTimer() const {
    std::lock_guard lock(objectLock_);
    return networkDiagnosticsPeriodicTimer_ != nullptr;
}

std::string NetworkDiagnostics::_serviceTypeDisplayNameForType(std::int64_t serviceType) {
    switch (serviceType) {
        case 0: return "OpenVPN";
        case 1: return "VPNC";
        case 2: return "SSH";
        case 4: return "OpenConnect";
        case 5: return "WireGuard";
        default: return "Unknown";
    }
}

void NetworkDiagnostics::_networkDiagnosticsAppendString(std::string_view text) {
    std::optional<std::string> path;
    std::optional<CallerRights> writer;
    {
        std::lock_guard lock(objectLock_);
        path = networkDiagnosticsLogPath_;
        writer = logWriter_;
    }
    if (text.empty() || !path || path->empty()) return;
    std::lock_guard logLock(networkDiagnosticsLogLock_);
    if (!writer || services_.appendToLog(*writer, *path, text)) {
        logMessage(LOG_ERR, "Could not open network diagnostics log file at %s for writing.", path->c_str());
    }
}

void NetworkDiagnostics::_currentActiveRouterAddress(std::string* router, std::string* dnsServer,
                                                     std::string* primaryInterface) {
    if (!services_.dynamicStore) return;
    const auto session = services_.dynamicStore->openSession(kStoreSessionName);
    if (!session) return;
    const auto ipv4 = session->copyValue("State:/Network/Global/IPv4");
    if (auto value = stringIn(ipv4, "Router")) *router = *value;
    if (auto value = stringIn(ipv4, "PrimaryInterface")) *primaryInterface = *value;
    const auto dns = session->copyValue("State:/Network/Global/DNS");
    const auto servers = dns ? dns->find("ServerAddresses") : Dictionary::const_iterator();
    if (dns && servers != dns->end()) {
        const Array* list = servers->second.asArray();
        if (list && !list->empty() && list->front().isString()) *dnsServer = *list->front().asString();
    }
}

std::string NetworkDiagnostics::wireGuardToolCopy() {
    const std::optional<Bundle> bundle = services_.korvoBundle ? services_.korvoBundle() : std::nullopt;
    const auto source = bundle ? bundle->pathForAuxiliaryExecutable("wg") : std::nullopt;
    if (!source || !services_.storeArea || !services_.codeSigning) return std::string();
    auto directory = ConnectionDirectory::create(*services_.storeArea, kCopyDirectory);
    if (!directory) return std::string();
    // The script runs the copy as root: only the vendor's wg, copied where
    // the client cannot change it, is ever handed over.
    auto copy = copyVendorProgram(*services_.codeSigning, *directory, *source, "wg", 0700, false);
    if (!copy) {
        logMessage(LOG_WARNING, "Cannot verify signature of executable at path '%s'.", source->c_str());
        return std::string();
    }
    return *copy;
}

std::string NetworkDiagnostics::captureText(const std::string& trigger) {
    const std::string wgPath = wireGuardToolCopy();
    std::string router, dnsServer, primaryInterface;
    _currentActiveRouterAddress(&router, &dnsServer, &primaryInterface);
    const std::vector<std::string> arguments = captureScriptArguments(wgPath, router, dnsServer, primaryInterface);
    const std::string& tunnelInterface = arguments[3];

    std::map<std::string, std::string> environment = {{"PATH", kChildPath}};
    if (services_.dynamicStore) {
        if (const auto session = services_.dynamicStore->openSession(kStoreSessionName)) {
            environment["DYNAMIC_STORE_KEYS"] =
                dynamicStoreKeysText(*session, networkDiagnosticsStoreKeys(tunnelInterface));
        }
    }

    std::string text = networkDiagnosticsHeader(std::chrono::system_clock::now(), trigger);
    CaptureRun run = runCaptureScript(services_.openShell ? services_.openShell() : UniqueFd(),
                                      std::string(kNetworkDiagnosticsCaptureScript), "networkDiagnostics",
                                      arguments, environment,
                                      services_.captureTimeoutSeconds);
    if (run.launchFailure) {
        return text + "Could not launch network diagnostics capture: " + *run.launchFailure + "\n";
    }
    if (isValidUTF8(run.output)) text += run.output;
    if (run.timedOut) {
        text += "Network diagnostics capture timed out and was terminated.\n";
        logMessage(LOG_ERR, "Network diagnostics capture timed out after %.0fs and was terminated.",
                   services_.captureTimeoutSeconds);
    }
    return text;
}

void NetworkDiagnostics::_networkDiagnosticsCaptureOnceWithTrigger(const std::optional<std::string>& trigger) {
    const auto path = _networkDiagnosticsLogPath();
    if (!path || path->empty()) return;
    const std::string shown = trigger.value_or(kUntriggered);
    if (_networkDiagnosticsSuppressed()) {
        logMessage(LOG_NOTICE, "Skipping network diagnostics capture (trigger: %s) because a network reset is in progress.",
                   shown.c_str());
        return;
    }
    _networkDiagnosticsAppendString(captureText(shown));
}

void NetworkDiagnostics::_networkDiagnosticsStartPeriodicCaptureIfNeeded() {
    std::lock_guard lock(objectLock_);
    // A start queued before capture was switched off must not outlive it.
    if (networkDiagnosticsPeriodicTimer_ || !networkDiagnosticsCaptureEnabled_) return;
    networkDiagnosticsPeriodicTimer_ = services_.makeTimer(*queue_, services_.periodicSchedule, [this] {
        _networkDiagnosticsCaptureOnceWithTrigger(std::string(kPeriodicTrigger));
    });
}

void NetworkDiagnostics::_networkDiagnosticsStopPeriodicCaptureIfNeeded() {
    std::lock_guard lock(objectLock_);
    networkDiagnosticsPeriodicTimer_.reset();
}

void NetworkDiagnostics::_networkDiagnosticsQueue(std::function<void()> work) { queue_->async(std::move(work)); }

bool NetworkDiagnostics::_networkDiagnosticsSuppressed() const { return networkDiagnosticsSuppressionCount_.load() > 0; }

void NetworkDiagnostics::_beginNetworkDiagnosticsSuppression() { networkDiagnosticsSuppressionCount_.fetch_add(1); }

void NetworkDiagnostics::_endNetworkDiagnosticsSuppression() {
    if (networkDiagnosticsSuppressionCount_.fetch_sub(1) < 1) networkDiagnosticsSuppressionCount_.store(0);
}

}  // namespace korvo
