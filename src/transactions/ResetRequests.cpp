// The requests that reset the network: opening a transaction with a reset,
// and the reset procedure alone, both on the network reset queue.
#include <mutex>

#include "transactions/NetworkTransactions.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr auto kLinkBounceDelay = std::chrono::milliseconds(1000);
constexpr int kSweptLinkCount = 10;

std::string text(const std::optional<std::string>& value) { return value.value_or(std::string()); }

std::string describe(const MaybeError& error, const char* fallback) {
    return error ? error->localizedDescription().value_or(fallback) : std::string(fallback);
}

// The request's values, as far as they have the right types.
struct TransactionRequest {
    std::optional<std::string> identifier, action, tunnelInterface;
    bool tunnelInterfaceInvalid = false;
    IdentifierSet activeTransactionIdentifiers;
};

TransactionRequest readRequest(const Dictionary& request) {
    TransactionRequest r;
    r.identifier = stringForKey(request, "identifier");
    r.action = stringForKey(request, "action");
    if (const auto it = request.find("tunnelInterface"); it != request.end()) {
        r.tunnelInterface = stringForKey(request, "tunnelInterface");
        r.tunnelInterfaceInvalid = !r.tunnelInterface;
    }
    if (const auto it = request.find("activeTransactionIdentifiers"); it != request.end() && it->second.asArray()) {
        r.activeTransactionIdentifiers.emplace();
        for (const Value& item : *it->second.asArray()) {
            if (const std::string* s = item.asString()) r.activeTransactionIdentifiers->insert(*s);
        }
    }
    return r;
}

}  // namespace

void NetworkTransactions::applyNetworkTransaction(const Value& request, TransactionReply reply) {
    const auto start = std::chrono::steady_clock::now();
    const Dictionary* dictionary = request.asDictionary();
    if (!dictionary) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode, "Missing or invalid network transaction request."));
    }
    TransactionRequest r = readRequest(*dictionary);
    logMessage(LOG_NOTICE, "Applying network transaction '%s' with action '%s' and tunnel '%s'.",
               text(r.identifier).c_str(), text(r.action).c_str(), text(r.tunnelInterface).c_str());
    if (text(r.identifier).empty()) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode, "Network transaction request is missing an identifier."));
    }
    if (text(r.action).empty()) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode, "Network transaction request is missing an action."));
    }
    if (r.tunnelInterfaceInvalid) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode,
                                             "Network transaction request contains an invalid tunnel interface."));
    }
    if (*r.action != kResetNetworkAction) {
        return reply(errorWithKorvoErrorCode(kInvalidParameterCode,
                                             "Unsupported network transaction action '" + *r.action + "'."));
    }
    deps_.captureSuppression->beginNetworkDiagnosticsSuppression();
    deps_.captureSuppression->stopPeriodicCaptureIfNeeded();
    networkResetQueue_->async([this, r = std::move(r), start, reply = std::move(reply)]() mutable {
        _performResetNetworkTransactionWithIdentifier(*r.identifier, *r.action, text(r.tunnelInterface),
                                                      r.activeTransactionIdentifiers, start, std::move(reply));
    });
}

void NetworkTransactions::_performResetNetworkTransactionWithIdentifier(
    const std::string& identifier, const std::string& action, const std::string& tunnelInterface,
    const IdentifierSet& activeTransactionIdentifiers, std::chrono::steady_clock::time_point operationStartDate,
    TransactionReply reply) {
    MaybeError persisted;
    {
        std::lock_guard lock(store_.lock());
        persisted = store_.replaceAndPersistLocked(identifier,
                                                   resetTransactionRecord(identifier, action, tunnelInterface));
        if (persisted) store_.eraseLocked(identifier);
    }
    if (persisted) {
        logMessage(LOG_ERR, "Could not persist network transaction '%s': %s", identifier.c_str(),
                   describe(persisted, "Unknown persistence error").c_str());
        deps_.captureSuppression->endNetworkDiagnosticsSuppression();
        return reply(persisted);
    }
    if (MaybeError failure = _performResetNetworkConfigurationForIdentifier(identifier, tunnelInterface)) {
        logMessage(LOG_ERR, "Network transaction '%s' apply failed during reset phase: %s", identifier.c_str(),
                   describe(failure, "Unknown reset error").c_str());
        if (auto cleanup = _removeNetworkTransactionWithIdentifier(identifier)) {
            logMessage(LOG_ERR, "Could not clean up failed transaction snapshot '%s': %s", identifier.c_str(),
                       describe(cleanup, "Unknown cleanup error").c_str());
        }
        deps_.captureSuppression->endNetworkDiagnosticsSuppression();
        return reply(failure);
    }
    MaybeError sweep = _restoreStaleNetworkTransactionsExcludingIdentifiers(activeTransactionIdentifiers);
    if (sweep) {
        logMessage(LOG_ERR, "Network transaction '%s' completed with errors while restoring stale transactions: %s",
                   identifier.c_str(), describe(sweep, "Unknown error").c_str());
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - operationStartDate;
    logMessage(LOG_NOTICE, "Applied network transaction '%s' in %.3fs.", identifier.c_str(), elapsed.count());
    deps_.captureSuppression->endNetworkDiagnosticsSuppression();
    reply(sweep);
}

void NetworkTransactions::resetNetworkConfigurationForIdentifier(const std::optional<std::string>& identifier,
                                                                 const std::optional<std::string>& tunnelInterface,
                                                                 TransactionReply reply) {
    networkResetQueue_->async([this, identifier, tunnelInterface, reply = std::move(reply)] {
        reply(_performResetNetworkConfigurationForIdentifier(identifier, tunnelInterface));
    });
}

MaybeError NetworkTransactions::deleteTunnelLinkIfOurs(const std::string& name) {
    // tun0 or tap0 may as well be another program's: only a link that a
    // program the helper started made is deleted.
    if (!deps_.startedProcesses->isStartedLink(name)) return std::nullopt;
    if (auto error = deps_.network->_deleteInterfaceIfPresent(name)) return error;
    deps_.startedProcesses->forgetLink(name);
    return std::nullopt;
}

MaybeError NetworkTransactions::bounceEthernetInterface(const std::string& name) {
    // Linux forgets a link's routes (and IPv6 addresses) when it goes down;
    // the bounce is to renew the link, not to lose its configuration.
    const platform::InterfaceConfiguration saved = deps_.network->_saveInterfaceConfiguration(name);
    if (auto error = deps_.network->_setInterfaceNamed(name, false)) return error;
    deps_.sleep(kLinkBounceDelay);
    MaybeError enabled = deps_.network->_setInterfaceNamed(name, true);
    if (const std::size_t lost = deps_.network->_restoreInterfaceConfiguration(saved)) {
        logMessage(LOG_WARNING, "Could not put back %lu address(es) or route(s) of interface %s after the reset.",
                   static_cast<unsigned long>(lost), name.c_str());
    }
    return enabled;
}

MaybeError NetworkTransactions::_performResetNetworkConfigurationForIdentifier(
    const std::optional<std::string>& identifier, const std::optional<std::string>& tunnelInterface) {
    if (text(identifier).empty()) {
        return errorWithKorvoErrorCode(kInvalidParameterCode, "Reset request is missing a transaction identifier.");
    }
    const std::string tunnel = text(tunnelInterface);
    if (!tunnel.empty()) {
        if (tunnel.starts_with("en")) return bounceEthernetInterface(tunnel);
        if (tunnel.starts_with("tun") || tunnel.starts_with("tap") || tunnel.starts_with("gif")) {
            if (auto error = deleteTunnelLinkIfOurs(tunnel)) return error;
            return deps_.network->_removeKorvoGeneratedResolverFiles();
        }
        if (tunnel.starts_with("utun")) return deps_.network->_removeKorvoGeneratedResolverFiles();
        return std::nullopt;
    }
    for (int n = 0; n < kSweptLinkCount; ++n) {
        for (const char* kind : {"tun", "tap"}) {
            if (auto error = deleteTunnelLinkIfOurs(kind + std::to_string(n))) return error;
        }
    }
    for (int n = 0; n < kSweptLinkCount; ++n) {
        if (auto error = deleteTunnelLinkIfOurs("gif" + std::to_string(n))) return error;
    }
    for (const std::string& name : deps_.network->_localEthernetInterfaceNames()) {
        if (auto error = bounceEthernetInterface(name)) return error;
    }
    return std::nullopt;
}

}  // namespace korvo
