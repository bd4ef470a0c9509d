// The client's route request: an ordered list of route operations, each
// applied through NetworkSystemOperations and, when it names a transaction,
// checked against the routes other transactions own and recorded in its
// transaction so that restoring the transaction undoes it.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "network/NetworkSystemOperations.h"
#include "transactions/NetworkTransactions.h"
#include "util/Error.h"
#include "util/Value.h"

namespace korvo {

// The error and, on success, the summary (nil for an empty list).
using RouteSummaryReply = std::function<void(const MaybeError&, const std::optional<std::string>&)>;

inline constexpr std::string_view kRouteInUseMessage =
    "A route required for this connection is still in use by another active Korvo connection. If no other Korvo "
    "connection should currently be active, try 'Reset Network Configuration' in Korvo's Advanced preferences.";

class RouteConfiguration {
public:
    RouteConfiguration(NetworkSystemOperations& network, NetworkTransactions& transactions)
        : network_(network), transactions_(transactions) {}

    // routeOperations: the client's value as it came (an array of route
    // operation dictionaries when well formed). The first failing operation
    // ends the request; the ones before it stay applied and recorded.
    void configureRoutes(const Value& routeOperations, const RouteSummaryReply& reply);

    // One operation with its values checked.
    struct Operation;

private:
    // The summary line, or the error that ends the request.
    Result<std::string> applyOperation(const Dictionary& operation);
    MaybeError claimRoute(const Operation& op);
    MaybeError recordedAdd(const Operation& op);

    NetworkSystemOperations& network_;
    NetworkTransactions& transactions_;
};

}  // namespace korvo
