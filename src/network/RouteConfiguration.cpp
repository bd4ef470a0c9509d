#include "network/RouteConfiguration.h"

#include "util/Log.h"

namespace korvo {
namespace {

KorvoError invalid(const char* message) { return errorWithKorvoErrorCode(kInvalidParameterCode, message); }

std::string describe(const KorvoError& error, const char* fallback) {
    return error.localizedDescription().value_or(fallback);
}

}  // namespace

// One validated operation.
struct RouteConfiguration::Operation {
    const Dictionary& dictionary;
    std::string action, destination, gateway, interfaceName, transactionIdentifier;
    bool isIPv6 = false;
};

namespace {

// Fills op from the dictionary, or gives the validation error that refuses it.
MaybeError validate(const Dictionary& d, RouteConfiguration::Operation& op) {
    const auto string = [&d](const char* key) { return stringForKey(d, key); };
    const auto action = string(route_key::action);
    if (action != "add" && action != "delete") {
        return invalid("Route operation contains an invalid action. Expected 'add' or 'delete'.");
    }
    const auto destination = string(route_key::destination);
    if (!destination || destination->empty()) return invalid("Route operation contains an invalid destination.");
    const auto gateway = string(route_key::gateway);
    if (!gateway || gateway->empty()) return invalid("Route operation contains an invalid gateway.");
    const auto isIPv6 = d.find(route_key::isIPv6);
    if (isIPv6 == d.end() || !isIPv6->second.isNumber()) {
        return invalid("Route operation contains an invalid IP-version flag.");
    }
    const bool hasInterface = d.count(route_key::interfaceName) != 0;
    if (hasInterface && !string(route_key::interfaceName)) {
        return invalid("Route operation contains an invalid interface name.");
    }
    if (d.count(route_key::transactionIdentifier) != 0 && !string(route_key::transactionIdentifier)) {
        return invalid("Route operation contains an invalid transaction identifier.");
    }
    op.action = *action;
    op.destination = *destination;
    op.gateway = *gateway;
    op.isIPv6 = *isIPv6->second.boolValue();
    op.interfaceName = string(route_key::interfaceName).value_or("");
    op.transactionIdentifier = string(route_key::transactionIdentifier).value_or("");
    return std::nullopt;
}

}  // namespace

void RouteConfiguration::configureRoutes(const Value& routeOperations, const RouteSummaryReply& reply) {
    const Array* operations = routeOperations.asArray();
    const std::size_t count = operations ? operations->size()
                              : routeOperations.asDictionary() ? routeOperations.asDictionary()->size()
                                                               : 0;
    logMessage(LOG_NOTICE, "Running configureRoutes in helper with %lu route operation(s).",
               static_cast<unsigned long>(count));
    if (!operations) return reply(invalid("Invalid route operations payload."), std::nullopt);

    MaybeError failure;
    std::optional<std::string> summary;
    for (const Value& element : *operations) {
        const Dictionary* operation = element.asDictionary();
        if (!operation) {
            failure = invalid("Invalid route operation entry.");
            break;
        }
        Result<std::string> line = applyOperation(*operation);
        if (!line) {
            failure = line.error();
            break;
        }
        if (summary) {
            *summary += '\n';
            *summary += *line;
        } else {
            summary = std::move(*line);
        }
    }
    // What the request recorded is on disk before the client hears of it;
    // rewriting the records from their journals can wait until after.
    TransactionStore& store = transactions_.store();
    store.syncJournals();
    if (failure) {
        reply(failure, std::nullopt);
    } else {
        logMessage(LOG_NOTICE, "Completed configureRoutes in helper.");
        reply(std::nullopt, summary);
    }
    store.foldJournals();
}

namespace {

void logRecordingFailure(const RouteConfiguration::Operation& op, const KorvoError& error) {
    logMessage(LOG_ERR, "Could not record route operation '%s' destination '%s' gateway '%s' interface '%s': %s",
               op.action.c_str(), op.destination.c_str(), op.gateway.c_str(), op.interfaceName.c_str(),
               describe(error, "Unknown route recording error").c_str());
}

}  // namespace

MaybeError RouteConfiguration::claimRoute(const Operation& op) {
    const RouteIdentity identity = NetworkTransactions::_routeIdentityForOperation(op.dictionary);
    auto owner = transactions_._ownerOfRouteIdentity(identity, op.transactionIdentifier);
    if (owner && transactions_._isNetworkTransactionOrphaned(*owner)) {
        logMessage(LOG_NOTICE, "Reclaiming orphaned network transaction '%s' that conflicts with a new route request.",
                   owner->c_str());
        (void)transactions_._restoreStaleNetworkTransactionWithIdentifier(*owner);
        owner = transactions_._ownerOfRouteIdentity(identity, op.transactionIdentifier);
    }
    if (owner) return errorWithKorvoErrorCode(kRoutingErrorCode, std::string(kRouteInUseMessage));
    if (op.action == "add" && transactions_.transactionListsRoute(op.transactionIdentifier, identity)) {
        if (auto error = network_._applyRouteOperationAction("delete", op.destination, op.gateway, op.isIPv6,
                                                             op.interfaceName)) {
            logMessage(LOG_WARNING, "Could not remove recorded route before replacing it: %s",
                       describe(*error, "Unknown routing error").c_str());
        }
    }
    return std::nullopt;
}

Result<std::string> RouteConfiguration::applyOperation(const Dictionary& dictionary) {
    Operation op{dictionary, {}, {}, {}, {}, {}, false};
    if (auto refusal = validate(dictionary, op)) return *refusal;
    const bool recorded = !op.transactionIdentifier.empty();
    if (recorded) {
        if (auto error = claimRoute(op)) return *error;
    }
    // An add is announced in the journal before the kernel has it, so that
    // a crash in between still leaves its trace.
    std::optional<std::uint64_t> intent;
    if (recorded && op.action == "add") {
        auto sequence = transactions_.store().beginRouteAdd(op.transactionIdentifier, dictionary);
        if (!sequence) {
            logRecordingFailure(op, sequence.error());
            return sequence.error();
        }
        intent = *sequence;
    }
    if (auto error = network_._applyRouteOperationAction(op.action, op.destination, op.gateway, op.isIPv6,
                                                         op.interfaceName)) {
        if (intent) transactions_.store().abandonRouteAdd(op.transactionIdentifier, *intent);
        const std::string target =
            op.interfaceName.empty() ? "gateway '" + op.gateway + "'" : "interface '" + op.interfaceName + "'";
        const std::string message = "Route operation '" + op.action + "' failed for destination '" + op.destination +
                                    "' via " + target + ": " + describe(*error, "Unknown routing error");
        logMessage(LOG_ERR, "%s", message.c_str());
        return errorWithKorvoErrorCode(kRoutingErrorCode, message);
    }
    if (recorded) {
        MaybeError recording = intent ? transactions_.store().commitRouteAdd(op.transactionIdentifier, *intent, dictionary)
                                      : transactions_.store().recordRouteDelete(op.transactionIdentifier, dictionary);
        if (recording) {
            const auto inverse = _inverseRouteActionForAction(op.action);
            (void)network_._applyRouteOperationAction(*inverse, op.destination, op.gateway, op.isIPv6,
                                                      op.interfaceName);
            logRecordingFailure(op, *recording);
            return *recording;
        }
    }
    const std::string via = op.interfaceName.empty() ? op.destination + " via " + op.gateway
                                                      : op.destination + " via interface " + op.interfaceName;
    return std::string(op.action == "add" ? "Added" : "Deleted") + " route " + via;
}

}  // namespace korvo
