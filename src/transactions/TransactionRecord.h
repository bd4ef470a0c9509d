// A network transaction record: what one connection changed (the routes it
// added, the dynamic-store values it replaced, the process that owns it), the
// identity by which routes are matched, and the name of the record's file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "util/Value.h"

namespace korvo {

namespace record_key {
inline constexpr const char* identifier = "identifier";
inline constexpr const char* action = "action";
inline constexpr const char* tunnelInterface = "tunnelInterface";
inline constexpr const char* activeRoutes = "activeRoutes";
inline constexpr const char* dnsSnapshots = "dnsSnapshots";
inline constexpr const char* ownerProcessID = "ownerProcessID";
inline constexpr const char* ownerServiceType = "ownerServiceType";
inline constexpr const char* ownerIsAmneziaWG = "ownerIsAmneziaWG";
}  // namespace record_key

// The keys of a route operation dictionary.
namespace route_key {
inline constexpr const char* action = "action";
inline constexpr const char* destination = "destination";
inline constexpr const char* gateway = "gateway";
inline constexpr const char* isIPv6 = "isIPv6";
inline constexpr const char* interfaceName = "interfaceName";
inline constexpr const char* transactionIdentifier = "transactionIdentifier";
}  // namespace route_key

inline constexpr std::string_view kResetNetworkAction = "reset-network";

// A record made when a route or an owner is recorded for an unknown
// identifier: every key, empty.
Dictionary fullTransactionRecord(const std::string& identifier);
// The record a reset request opens: no owner keys until one is recorded.
Dictionary resetTransactionRecord(const std::string& identifier, const std::string& action,
                                  const std::string& tunnelInterface);

// The owner as a record names it; a missing or malformed key means none.
struct TransactionOwner {
    std::int32_t processID = 0;
    std::int64_t serviceType = 0;
    bool isAmneziaWG = false;
};
TransactionOwner ownerOfRecord(const Dictionary& record);

// The four values that make two route operations the same route:
// destination, gateway, isIPv6 and interfaceName as the operation holds them
// (an absent one counts as "" or false). No normalisation: "10.0.0.0/8" and
// "10/8" are different routes. Values compare as property-list values, so a
// stored boolean true and a stored number 1 are the same isIPv6.
class RouteIdentity {
public:
    static RouteIdentity ofOperation(const Dictionary& operation);

    const Dictionary& dictionary() const { return identity_; }
    // A text that is equal for two identities exactly when they match; the
    // key of the ownership index.
    const std::string& key() const { return key_; }

    friend bool operator==(const RouteIdentity& a, const RouteIdentity& b) { return a.key_ == b.key_; }

private:
    Dictionary identity_;
    std::string key_;
};

// "delete" for "add", "add" for "delete", nullopt for anything else.
std::optional<std::string> _inverseRouteActionForAction(const std::optional<std::string>& action);

// The not-found answer of _indexOfRouteIdentity.
inline constexpr std::int64_t kRouteIdentityNotFound = INT64_MAX;
// The position of the first entry of routes (dictionaries) with this
// identity; kRouteIdentityNotFound when there is none.
std::int64_t _indexOfRouteIdentity(const RouteIdentity& identity, const Array& routes);

// The file name of an identifier's record, without extension: the
// identifier with every character outside [A-Za-z0-9._-] (each UTF-16 unit)
// replaced by "_", cut to 160 characters, then "-" and 16 hexadecimal digits
// of its SHA-256, so that identifiers that sanitise alike still get files of
// their own, and no name is too long or is "." or "..".
std::string transactionFileStem(const std::string& identifier);

}  // namespace korvo
