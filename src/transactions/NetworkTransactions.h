// Network transactions: the record of what each connection changed (routes,
// dynamic-store values, the VPN process that owns it), kept on disk so that
// a disconnect, a reset request or the first request after a crash undoes
// exactly what that connection changed, and nothing that another
// connection still needs.
//
// Owns the transaction store, its lock and the network reset queue. The
// route request (network/RouteConfiguration) records through it; the tunnel
// DNS request captures dynamic-store values through DnsSnapshotCapture.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "diagnostics/CaptureSuppression.h"
#include "network/NetworkSystemOperations.h"
#include "platform/DynamicStore.h"
#include "process/StartedProcesses.h"
#include "transactions/DnsSnapshotCapture.h"
#include "transactions/TransactionRecord.h"
#include "transactions/TransactionStore.h"
#include "util/Bundle.h"
#include "util/Error.h"
#include "util/SerialQueue.h"
#include "util/StoreArea.h"
#include "util/Value.h"
#include "util/WorkerPool.h"

namespace korvo {

using TransactionReply = std::function<void(const MaybeError&)>;
using IdentifierSet = std::optional<std::set<std::string>>;

inline constexpr const char* kNetworkResetResultKey = "CSNetworkResetResult";
inline constexpr const char* kStuckOwnerIdentifiersKey = "stuckOwnerProcessTransactionIdentifiers";

class NetworkTransactions final : public DnsSnapshotCapture {
public:
    struct Dependencies {
        std::shared_ptr<const StoreArea> storeArea;  // null: records in memory only
        NetworkSystemOperations* network = nullptr;
        StartedProcesses* startedProcesses = nullptr;
        // Null until the platform's store is wired: DNS snapshots then
        // cannot be restored.
        std::shared_ptr<platform::DynamicStore> dynamicStore;
        CaptureSuppression* captureSuppression = nullptr;
        std::shared_ptr<WorkerPool> queuePool;
        // The client application's bundle, where owner executables are.
        std::function<std::optional<Bundle>()> korvoBundle;
        // How the reset waits between taking a link down and up again.
        std::function<void(std::chrono::milliseconds)> sleep;
    };

    explicit NetworkTransactions(Dependencies dependencies);
    ~NetworkTransactions() override;

    // --- Requests ---------------------------------------------------------------
    // request: the client's dictionary (any value; a non-dictionary is refused).
    void applyNetworkTransaction(const Value& request, TransactionReply reply);
    void recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                               const std::optional<std::string>& transactionIdentifier, TransactionReply reply);
    void restoreNetworkTransactionWithIdentifier(const std::optional<std::string>& identifier,
                                                 TransactionReply reply);
    void resetNetworkConfigurationForIdentifier(const std::optional<std::string>& identifier,
                                                const std::optional<std::string>& tunnelInterface,
                                                TransactionReply reply);

    // --- Store --------------------------------------------------------------------
    // Reads the records left on disk; routes whose add a killed helper had
    // begun and not finished are removed when the kernel marks them as the
    // helper's own and no transaction lists them. Called once at start.
    void _loadPersistedNetworkTransactions();
    TransactionStore& store() { return store_; }
    std::map<std::string, Dictionary> _networkTransactionsStore() const { return store_.copyOfRecords(); }
    std::string _networkTransactionStoreDirectoryPath() const { return store_.directoryPath(); }
    std::string _networkTransactionSnapshotPathForIdentifier(const std::string& identifier) const {
        return store_.snapshotPath(identifier);
    }
    MaybeError _removeNetworkTransactionWithIdentifier(const std::string& identifier);
    SerialQueue& networkResetQueue() { return *networkResetQueue_; }

    // --- Ownership ------------------------------------------------------------------
    static RouteIdentity _routeIdentityForOperation(const Dictionary& operation) {
        return RouteIdentity::ofOperation(operation);
    }
    std::optional<std::string> _ownerOfRouteIdentity(const RouteIdentity& identity,
                                                     const std::optional<std::string>& excluding);
    bool transactionListsRoute(const std::string& identifier, const RouteIdentity& identity);
    bool _isNetworkTransactionOrphaned(const std::string& identifier);
    // Recording a route operation goes through the store's journal: an add
    // is begun, then committed or abandoned (beginRouteAdd...); a delete is
    // recorded once done (recordRouteDelete).
    MaybeError _recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                                      const std::string& identifier);

    // --- DNS snapshots ---------------------------------------------------------------
    MaybeError captureDynamicStoreSnapshot(const std::string& transactionIdentifier, const std::string& storeKey,
                                           const std::optional<Dictionary>& currentSettings) override;
    MaybeError _restoreDNSSnapshotsForTransaction(const Dictionary& record);

    // --- Reset and recovery ---------------------------------------------------------
    void _performResetNetworkTransactionWithIdentifier(const std::string& identifier, const std::string& action,
                                                       const std::string& tunnelInterface,
                                                       const IdentifierSet& activeTransactionIdentifiers,
                                                       std::chrono::steady_clock::time_point operationStartDate,
                                                       TransactionReply reply);
    MaybeError _performResetNetworkConfigurationForIdentifier(const std::optional<std::string>& identifier,
                                                              const std::optional<std::string>& tunnelInterface);
    MaybeError _restoreStaleNetworkTransactionsExcludingIdentifiers(const IdentifierSet& spared);
    MaybeError _restoreStaleNetworkTransactionWithIdentifier(const std::string& identifier,
                                                             bool* ownerProcessStuck = nullptr);
    bool _terminateOwnerProcessIfPresentForTransaction(const Dictionary& record, const std::string& identifier);
    MaybeError _applyFallbackRestoreForTunnelInterface(const std::string& tunnelInterface);

private:
    MaybeError deleteTunnelLinkIfOurs(const std::string& name);
    MaybeError bounceEthernetInterface(const std::string& name);
    std::optional<std::string> expectedOwnerExecutable(const TransactionOwner& owner) const;
    MaybeError undoRecordedRoutes(const std::string& identifier, const Array& routes, bool strict);

    Dependencies deps_;
    TransactionStore store_;
    std::unique_ptr<SerialQueue> networkResetQueue_;
};

}  // namespace korvo
