#include "core/HelperTool.h"
#include "core/RequestHandlers.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "backends/SystemMaintenance.h"
#include "core/ClientAcceptance.h"
#include "diagnostics/CaptureSuppression.h"
#include "network/NetworkSystemOperations.h"
#include "network/RouteConfiguration.h"
#include "network/TunnelDns.h"
#include "process/CallerFiles.h"
#include "transactions/NetworkTransactions.h"
#include "util/Protocol.h"
#include "platform/ServiceListener.h"
#include "util/Log.h"
#include "util/SerialQueue.h"
#include "util/WorkerPool.h"

namespace korvo {
namespace {


// Ends the process without running static destructors: request work may still
// be running on other threads and must not see the process half torn down.
[[noreturn]] void exitProcess(int status) {
    std::fflush(nullptr);
    ::_exit(status);
}

}  // namespace

// Accepts connections for the service object and runs their requests on it.
class HelperToolListenerDelegate final : public platform::ServiceListenerDelegate {
public:
    explicit HelperToolListenerDelegate(KorvoHelperTool& tool)
        : tool_(tool), acceptance_(tool.services().codeSigning, lookUpClientGroup()) {}

    bool shouldAcceptNewConnection(platform::ServiceListener& listener,
                                   const platform::ServiceConnection& connection) override {
        // Only the service object's own listener may ask; anything else is a
        // programming error that must not be papered over.
        if (&listener != tool_.listener()) {
            logMessage(LOG_ERR, "Assertion failure: listener == self.listener (HelperTool:769)");
            std::abort();
        }
        return acceptance_.shouldAcceptClient(connection);
    }

    const std::vector<Operation>& exportedOperations() override { return helperOperations(); }

    void performOperation(const platform::ServiceConnection& caller, const Operation& operation,
                          const Dictionary& arguments, ReplySender reply) override {
        (*requestHandler(operation.name))(tool_, caller, arguments, std::move(reply));
    }

    void listenerDidFail(platform::ServiceListener&, const std::string& reason) override {
        tool_.listenerDidFail(reason);
    }

private:
    KorvoHelperTool& tool_;
    const ClientAcceptance acceptance_;
};

KorvoHelperTool::KorvoHelperTool(HelperServices services) : services_(std::move(services)) {
    listenerDelegate_ = std::make_unique<HelperToolListenerDelegate>(*this);
    // Made before any request can use it; a failure leaves the requests that
    // need it to fail, and says why here.
    if (services_.storeArea) {
        if (auto error = services_.storeArea->prepare()) {
            logMessage(LOG_ERR, "Error: Unable to prepare the run directory: %s", error->displayText().c_str());
        }
    }
    startedProcesses_ = std::make_unique<StartedProcesses>(services_.storeArea);
    programRunner_ = std::make_unique<ProgramRunner>(services_.codeSigning, settings_, *startedProcesses_);
    vpnConnections_ = std::make_unique<VpnConnections>(
        BackendServices{services_.codeSigning, services_.storeArea, services_.tunnelInterfaces}, settings_,
        *programRunner_);
    networkSystemOperations_ = std::make_shared<NetworkSystemOperations>();
    systemMaintenance_ = std::make_unique<SystemMaintenance>(SystemMaintenance::Dependencies{
        *startedProcesses_, networkSystemOperations_,
        [runner = programRunner_.get()](SystemTool tool, const std::vector<std::string>& arguments) {
            MaybeError error;
            runner->runSystemTool(tool, arguments, 0, true, std::nullopt, nullptr, &error);
            return error;
        },
        [this] { return holdsNetworkStateToUndo(); }, {}});
    if (services_.locateApplicationBundle) {
        if (auto path = services_.locateApplicationBundle()) settings_.setKorvoBundlePath(*path);
    }
    // Each queue needs at most one thread at a time.
    queuePool_ = std::make_shared<WorkerPool>(2);
    NetworkDiagnosticsServices diagnostics;
    diagnostics.pool = queuePool_;
    diagnostics.dynamicStore = services_.dynamicStore;
    diagnostics.korvoBundle = [this] { return settings_.korvoBundle(); };
    diagnostics.storeArea = services_.storeArea;
    diagnostics.codeSigning = services_.codeSigning;
    diagnostics.openShell = [this] { return programRunner_->openSystemToolForLaunch(SystemTool::Bash); };
    diagnostics.periodicSchedule = services_.networkDiagnosticsPeriodicSchedule;
    networkDiagnostics_ = std::make_unique<NetworkDiagnostics>(std::move(diagnostics));
    networkTransactions_ = std::make_unique<NetworkTransactions>(NetworkTransactions::Dependencies{
        services_.storeArea, networkSystemOperations_.get(), startedProcesses_.get(), services_.dynamicStore,
        networkDiagnostics_.get(), queuePool_, [this] { return settings_.korvoBundle(); }, nullptr});
    routeConfiguration_ = std::make_unique<RouteConfiguration>(*networkSystemOperations_, *networkTransactions_);
    tunnelDns_ = std::make_unique<TunnelDns>(services_.dynamicStore, *networkTransactions_);
    // What an earlier run left to undo is known before any request arrives.
    networkTransactions_->_loadPersistedNetworkTransactions();
}

KorvoHelperTool::~KorvoHelperTool() {
    // Components that queue work on the others' queues go first.
    routeConfiguration_.reset();
    tunnelDns_.reset();
    networkTransactions_.reset();
    networkDiagnostics_.reset();
}

void KorvoHelperTool::recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                                            const std::optional<std::string>& transactionIdentifier,
                                            ErrorReply reply) {
    networkTransactions_->recordOwnerProcessPID(pid, serviceType, isAmneziaWG, transactionIdentifier, std::move(reply));
}

void KorvoHelperTool::configureRoutes(const Value& routeOperations, StringReply reply) {
    routeConfiguration_->configureRoutes(routeOperations, reply);
}

void KorvoHelperTool::applyNetworkTransaction(const Value& request, ErrorReply reply) {
    networkTransactions_->applyNetworkTransaction(request, std::move(reply));
}

void KorvoHelperTool::restoreNetworkTransactionWithIdentifier(const std::optional<std::string>& identifier,
                                                              ErrorReply reply) {
    networkTransactions_->restoreNetworkTransactionWithIdentifier(identifier, std::move(reply));
}

void KorvoHelperTool::resetNetworkConfigurationForIdentifier(const std::optional<std::string>& identifier,
                                                             const std::optional<std::string>& tunnelInterface,
                                                             ErrorReply reply) {
    networkTransactions_->resetNetworkConfigurationForIdentifier(identifier, tunnelInterface, std::move(reply));
}

void KorvoHelperTool::attachListener(platform::ServiceListener& listener) {
    std::lock_guard lock(runMutex_);
    listener_ = &listener;
    running_ = true;
}

int KorvoHelperTool::run() {
    std::unique_lock lock(runMutex_);
    runCondition_.wait(lock, [this] { return stopRequested_; });
    running_ = false;
    return listenerFailed_ ? EXIT_FAILURE : EXIT_SUCCESS;
}

void KorvoHelperTool::listenerDidFail(const std::string& reason) {
    logMessage(LOG_ERR, "Error: Stopped listening for requests: %s", reason.c_str());
    std::lock_guard lock(runMutex_);
    listenerFailed_ = true;
    stopRequested_ = true;
    runCondition_.notify_all();
}

void KorvoHelperTool::terminateWithReply(ErrorReply reply) {
    logMessage(LOG_NOTICE, "Terminating helper utility on Korvo request.");
    if (reply) reply(std::nullopt);
    std::unique_lock lock(runMutex_);
    if (!running_) {
        lock.unlock();
        exitProcess(EXIT_SUCCESS);
    }
    stopRequested_ = true;
    runCondition_.notify_all();
}

bool KorvoHelperTool::holdsNetworkStateToUndo() const {
    if (networkTransactions_ && !networkTransactions_->_networkTransactionsStore().empty()) return true;
    return services_.dynamicStore && services_.dynamicStore->holdsHelperPublishedValues();
}

void KorvoHelperTool::updateNameServerAddresses(const NameServerSettings& settings, ErrorReply reply) {
    reply(tunnelDns_->updateNameServerAddresses(settings));
}

void KorvoHelperTool::disconnectService(std::int64_t serviceType, const std::optional<std::string>& remoteHost,
                                        std::uint64_t comPort, std::int32_t pid, ErrorReply reply) {
    reply(systemMaintenance_->disconnectService(serviceType, remoteHost, comPort, pid));
}

void KorvoHelperTool::writeConfig(const platform::ServiceConnection& caller, const std::optional<std::string>& config,
                                  const std::optional<std::string>& path, ErrorReply reply) {
    reply(systemMaintenance_->writeConfig(callerRightsOf(caller), config, path));
}

void KorvoHelperTool::deleteConfigAtPath(const platform::ServiceConnection& caller,
                                         const std::optional<std::string>& path, ErrorReply reply) {
    reply(systemMaintenance_->deleteConfigAtPath(callerRightsOf(caller), path));
}

void KorvoHelperTool::cleanKnownHostsForRemoteHost(const std::optional<std::string>& host, ErrorReply reply) {
    reply(systemMaintenance_->cleanKnownHostsForRemoteHost(host));
}

void KorvoHelperTool::cleanSystem(std::int64_t cleanMask, ErrorReply reply) {
    reply(systemMaintenance_->cleanSystem(cleanMask));
}

void KorvoHelperTool::setTimeMachineEnabled(bool enabled, ErrorReply reply) {
    reply(systemMaintenance_->setTimeMachineEnabled(enabled));
}

}  // namespace korvo
