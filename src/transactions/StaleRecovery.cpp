// Undoing transactions whose connection is gone: all of them except those
// the client names as live at a reset, or one whose owner died when a new
// route request needs its route. An owner process still running is ended
// only when it is a program the helper started and still runs the
// executable its service type names.
#include <csignal>
#include <mutex>

#include "process/ProcessProbe.h"
#include "transactions/NetworkTransactions.h"
#include "util/Log.h"

namespace korvo {
namespace {

std::string describe(const KorvoError& error, const char* fallback) {
    return error.localizedDescription().value_or(fallback);
}

}  // namespace

MaybeError NetworkTransactions::_restoreStaleNetworkTransactionsExcludingIdentifiers(const IdentifierSet& spared) {
    std::vector<std::string> stale;
    {
        std::lock_guard lock(store_.lock());
        for (auto& identifier : store_.identifiersLocked()) {
            if (!spared || spared->count(identifier) == 0) stale.push_back(std::move(identifier));
        }
    }
    MaybeError firstError;
    Array stuck;
    for (const std::string& identifier : stale) {
        bool ownerStuck = false;
        MaybeError error = _restoreStaleNetworkTransactionWithIdentifier(identifier, &ownerStuck);
        if (ownerStuck) stuck.emplace_back(identifier);
        if (error) {
            logMessage(LOG_ERR, "Could not restore stale network transaction '%s' during global reset: %s",
                       identifier.c_str(), describe(*error, "Unknown error").c_str());
            if (!firstError) firstError = std::move(error);
        }
    }
    if (firstError) return firstError;
    if (stuck.empty()) return std::nullopt;
    return errorWithKorvoErrorCode(
        kResetLeftVPNProcessCode, std::nullopt,
        Dictionary{{kNetworkResetResultKey, Dictionary{{kStuckOwnerIdentifiersKey, std::move(stuck)}}}});
}

MaybeError NetworkTransactions::_restoreStaleNetworkTransactionWithIdentifier(const std::string& identifier,
                                                                             bool* ownerProcessStuck) {
    if (ownerProcessStuck) *ownerProcessStuck = false;
    Dictionary record;
    {
        std::lock_guard lock(store_.lock());
        const Dictionary* found = store_.recordLocked(identifier);
        if (!found) return std::nullopt;
        record = *found;
    }
    logMessage(LOG_NOTICE, "Restoring stale network transaction '%s' left behind by an inactive connection.",
               identifier.c_str());
    const bool ended = _terminateOwnerProcessIfPresentForTransaction(record, identifier);
    if (ownerProcessStuck) *ownerProcessStuck = !ended;
    if (const auto routes = record.find(record_key::activeRoutes);
        routes != record.end() && routes->second.asArray()) {
        if (auto error = undoRecordedRoutes(identifier, *routes->second.asArray(), false)) return error;
    }
    if (auto error = _restoreDNSSnapshotsForTransaction(record)) return error;
    const auto tunnel = stringForKey(record, record_key::tunnelInterface);
    if (tunnel && !tunnel->empty()) {
        if (auto error = _applyFallbackRestoreForTunnelInterface(*tunnel)) return error;
    }
    if (auto error = _removeNetworkTransactionWithIdentifier(identifier)) return error;
    logMessage(LOG_NOTICE, "Restored stale network transaction '%s'.", identifier.c_str());
    return std::nullopt;
}

std::optional<std::string> NetworkTransactions::expectedOwnerExecutable(const TransactionOwner& owner) const {
    const auto auxiliary = [this](std::string_view name) -> std::optional<std::string> {
        const auto bundle = deps_.korvoBundle ? deps_.korvoBundle() : std::nullopt;
        return bundle ? bundle->pathForAuxiliaryExecutable(name) : std::nullopt;
    };
    switch (owner.serviceType) {
        case 1: return auxiliary("vpnc");
        case 2: return std::string("/usr/bin/ssh");
        case 4: return auxiliary("openconnect");
        case 5: return auxiliary(owner.isAmneziaWG ? "amneziawg-go" : "wireguard-go");
        default: return std::nullopt;
    }
}

bool NetworkTransactions::_terminateOwnerProcessIfPresentForTransaction(const Dictionary& record,
                                                                        const std::string& identifier) {
    const TransactionOwner owner = ownerOfRecord(record);
    if (owner.processID <= 0 || owner.serviceType == 0 || !processExists(owner.processID)) return true;
    const auto expected = expectedOwnerExecutable(owner);
    if (!expected || expected->empty()) {
        logMessage(LOG_WARNING,
                   "Could not determine expected executable path for owner process %d of stale transaction '%s'; "
                   "skipping termination.",
                   owner.processID, identifier.c_str());
        return true;
    }
    std::string actual;
    using Outcome = StartedProcesses::OwnerOutcome;
    const Outcome outcome = deps_.startedProcesses->signalExecutable(owner.processID, SIGINT, *expected, &actual);
    if (outcome == Outcome::Gone) return true;
    if (outcome == Outcome::OtherExecutable) {
        logMessage(LOG_NOTICE,
                   "Process %d for stale transaction '%s' is no longer the expected executable ('%s' != '%s'); "
                   "leaving it alone.",
                   owner.processID, identifier.c_str(), actual.c_str(), expected->c_str());
        return true;
    }
    logMessage(LOG_NOTICE, "Terminating owner process %d ('%s') left behind by stale transaction '%s'.",
               owner.processID, expected->c_str(), identifier.c_str());
    if (outcome == Outcome::Sent) return true;
    // Not a program the helper started (or no longer the one): never
    // signalled, and the client hears that it is still there.
    logMessage(LOG_ERR, "Failed to terminate owner process %d ('%s') left behind by stale transaction '%s'.",
               owner.processID, expected->c_str(), identifier.c_str());
    return false;
}

MaybeError NetworkTransactions::_applyFallbackRestoreForTunnelInterface(const std::string& tunnelInterface) {
    if (tunnelInterface.starts_with("en")) return bounceEthernetInterface(tunnelInterface);
    if (tunnelInterface.starts_with("tun") || tunnelInterface.starts_with("tap") ||
        tunnelInterface.starts_with("gif")) {
        return deleteTunnelLinkIfOurs(tunnelInterface);
    }
    return std::nullopt;
}

}  // namespace korvo
