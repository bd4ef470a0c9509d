#include "transactions/NetworkTransactions.h"

#include <mutex>
#include <thread>

#include "process/ProcessProbe.h"
#include "transactions/DnsSnapshots.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr std::string_view kNetworkResetQueueLabel = "com.tallowmar.korvo.utility.networkReset";

std::string text(const std::optional<std::string>& value) { return value.value_or(std::string()); }

const Value* lookUp(const Dictionary& d, const char* key) {
    const auto it = d.find(key);
    return it == d.end() ? nullptr : &it->second;
}

}  // namespace

NetworkTransactions::NetworkTransactions(Dependencies dependencies)
    : deps_(std::move(dependencies)), store_(deps_.storeArea) {
    if (!deps_.queuePool) deps_.queuePool = std::make_shared<WorkerPool>(1);
    if (!deps_.sleep) deps_.sleep = [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); };
    networkResetQueue_ = std::make_unique<SerialQueue>(std::string(kNetworkResetQueueLabel), deps_.queuePool);
}

NetworkTransactions::~NetworkTransactions() {
    // Queued resets reach into this object: let them finish first.
    networkResetQueue_.reset();
}

// --- Store -----------------------------------------------------------------------

void NetworkTransactions::_loadPersistedNetworkTransactions() {
    const auto unfinished = store_.load();
    for (const auto& [identifier, route] : unfinished) {
        const RouteIdentity identity = RouteIdentity::ofOperation(route);
        {
            std::lock_guard lock(store_.lock());
            if (store_.ownerLocked(identity, std::nullopt)) continue;
        }
        const auto destination = stringForKey(route, route_key::destination);
        const auto gateway = stringForKey(route, route_key::gateway);
        const auto isIPv6 = lookUp(route, route_key::isIPv6);
        if (!destination || !gateway || !isIPv6 || !isIPv6->isNumber()) continue;
        const std::string interfaceName = text(stringForKey(route, route_key::interfaceName));
        auto error = deps_.network->_deleteRouteAddedByHelper(*destination, *gateway, *isIPv6->boolValue(),
                                                             interfaceName);
        logMessage(error ? LOG_ERR : LOG_NOTICE,
                   "Removing route %s via %s left half-added in network transaction '%s': %s", destination->c_str(),
                   interfaceName.empty() ? gateway->c_str() : interfaceName.c_str(), identifier.c_str(),
                   error ? error->displayText().c_str() : "done");
    }
    store_.completeLoad();
}

MaybeError NetworkTransactions::_removeNetworkTransactionWithIdentifier(const std::string& identifier) {
    MaybeError removal = store_.removePersisted(identifier);
    std::lock_guard lock(store_.lock());
    store_.eraseLocked(identifier);
    return removal;
}

// --- Ownership -----------------------------------------------------------------------

std::optional<std::string> NetworkTransactions::_ownerOfRouteIdentity(const RouteIdentity& identity,
                                                                       const std::optional<std::string>& excluding) {
    std::lock_guard lock(store_.lock());
    return store_.ownerLocked(identity, excluding);
}

bool NetworkTransactions::transactionListsRoute(const std::string& identifier, const RouteIdentity& identity) {
    std::lock_guard lock(store_.lock());
    return store_.listsLocked(identifier, identity);
}

bool NetworkTransactions::_isNetworkTransactionOrphaned(const std::string& identifier) {
    TransactionOwner owner;
    {
        std::lock_guard lock(store_.lock());
        const Dictionary* record = store_.recordLocked(identifier);
        if (!record) return false;
        owner = ownerOfRecord(*record);
    }
    if (owner.processID <= 0 || owner.serviceType == 0) return false;
    return !processExists(owner.processID);
}

MaybeError NetworkTransactions::_recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                                                       const std::string& identifier) {
    if (pid < 1 || identifier.empty()) return std::nullopt;
    std::lock_guard lock(store_.lock());
    Dictionary& record = store_.recordCreatingIfMissingLocked(identifier);
    record[record_key::ownerProcessID] = static_cast<std::int64_t>(pid);
    record[record_key::ownerServiceType] = serviceType;
    record[record_key::ownerIsAmneziaWG] = isAmneziaWG;
    return store_.persistLocked(identifier);
}

// --- DNS snapshots -----------------------------------------------------------------------

MaybeError NetworkTransactions::captureDynamicStoreSnapshot(const std::string& transactionIdentifier,
                                                            const std::string& storeKey,
                                                            const std::optional<Dictionary>& currentSettings) {
    return korvo::captureDynamicStoreSnapshot(store_, transactionIdentifier, storeKey, currentSettings);
}

MaybeError NetworkTransactions::_restoreDNSSnapshotsForTransaction(const Dictionary& record) {
    return korvo::_restoreDNSSnapshotsForTransaction(deps_.dynamicStore.get(), record);
}

// --- Owner and restore requests ----------------------------------------------------------------

void NetworkTransactions::recordOwnerProcessPID(std::int32_t pid, std::int64_t serviceType, bool isAmneziaWG,
                                                const std::optional<std::string>& transactionIdentifier,
                                                TransactionReply reply) {
    reply(_recordOwnerProcessPID(pid, serviceType, isAmneziaWG, text(transactionIdentifier)));
}

MaybeError NetworkTransactions::undoRecordedRoutes(const std::string& identifier, const Array& routes, bool strict) {
    for (auto it = routes.rbegin(); it != routes.rend(); ++it) {
        const Dictionary* entry = it->asDictionary();
        if (!entry) {
            if (!strict) continue;
            return errorWithKorvoErrorCode(kGeneralErrorCode, "Stored transaction has malformed route entry.");
        }
        const auto destination = stringForKey(*entry, route_key::destination);
        const auto gateway = stringForKey(*entry, route_key::gateway);
        const Value* isIPv6 = lookUp(*entry, route_key::isIPv6);
        const auto inverse = _inverseRouteActionForAction(stringForKey(*entry, route_key::action));
        if (!destination || destination->empty() || !gateway || gateway->empty() || !isIPv6 ||
            !isIPv6->isNumber() || !inverse) {
            if (!strict) continue;
            return errorWithKorvoErrorCode(kGeneralErrorCode,
                                           "Stored transaction contains invalid route restoration data.");
        }
        if (const auto owner = _ownerOfRouteIdentity(RouteIdentity::ofOperation(*entry), identifier)) {
            logMessage(LOG_NOTICE,
                       strict ? "Skipping route restore for transaction '%s': route is still owned by transaction '%s'."
                              : "Skipping route restore for stale transaction '%s': route is still owned by "
                                "transaction '%s'.",
                       identifier.c_str(), owner->c_str());
            continue;
        }
        const std::string interfaceName = text(stringForKey(*entry, route_key::interfaceName));
        if (auto error = deps_.network->_applyRouteOperationAction(*inverse, *destination, *gateway,
                                                                   *isIPv6->boolValue(), interfaceName)) {
            return error;
        }
    }
    return std::nullopt;
}

void NetworkTransactions::restoreNetworkTransactionWithIdentifier(const std::optional<std::string>& identifier,
                                                                  TransactionReply reply) {
    const auto start = std::chrono::steady_clock::now();
    const std::string id = text(identifier);
    logMessage(LOG_NOTICE, "Restoring network transaction '%s'.", id.c_str());
    if (id.empty()) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode,
                                             "Network transaction restore request is missing an identifier."));
    }
    std::optional<std::string> action, tunnelInterface;
    std::optional<Array> routes;
    Dictionary snapshots;
    {
        std::lock_guard lock(store_.lock());
        const Dictionary* record = store_.recordLocked(id);
        if (!record) {
            logMessage(LOG_NOTICE, "No active network transaction snapshot found for '%s'; nothing to restore.",
                       id.c_str());
            return reply(std::nullopt);
        }
        action = stringForKey(*record, record_key::action);
        tunnelInterface = stringForKey(*record, record_key::tunnelInterface);
        if (const Value* r = lookUp(*record, record_key::activeRoutes); r && r->asArray()) routes = *r->asArray();
        if (const Value* d = lookUp(*record, record_key::dnsSnapshots); d && d->asDictionary()) {
            snapshots = *d->asDictionary();
        }
    }
    if (action != kResetNetworkAction) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode,
                                             "Unsupported network transaction action '" + text(action) + "'."));
    }
    if (!routes) {
        return reply(errorWithKorvoErrorCode(kGeneralErrorCode, "Stored transaction has invalid route snapshot data."));
    }
    if (auto error = undoRecordedRoutes(id, *routes, true)) return reply(error);
    if (auto error = _restoreDNSSnapshotsForTransaction(Dictionary{{record_key::dnsSnapshots, snapshots}})) {
        return reply(error);
    }
    if (auto error = deps_.network->_removeKorvoGeneratedResolverFiles()) return reply(error);
    if (tunnelInterface && !tunnelInterface->empty()) {
        if (auto error = _applyFallbackRestoreForTunnelInterface(*tunnelInterface)) return reply(error);
    }
    MaybeError removal = _removeNetworkTransactionWithIdentifier(id);
    if (removal) {
        logMessage(LOG_ERR, "Restored network transaction '%s' but could not remove snapshot: %s", id.c_str(),
                   removal->localizedDescription().value_or("Unknown cleanup error").c_str());
    } else {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        logMessage(LOG_NOTICE, "Restored network transaction '%s' in %.3fs (routes=%lu).", id.c_str(),
                   elapsed.count(), static_cast<unsigned long>(routes->size()));
    }
    reply(removal);
}

}  // namespace korvo
