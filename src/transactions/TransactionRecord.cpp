#include "transactions/TransactionRecord.h"

#include <span>

#include "util/Digest.h"
#include "util/PropertyList.h"

namespace korvo {
namespace {

constexpr std::size_t kMaximumSanitisedLength = 160;
constexpr std::size_t kHashDigits = 16;

// A text equal for two values exactly when they compare equal as property
// list values: numbers by value, everything else by type and contents.
void appendCanonical(std::string& out, const Value* value) {
    if (const std::string* s = value->asString()) {
        out += 's';
        out += std::to_string(s->size());
        out += ':';
        out += *s;
        return;
    }
    std::string text;
    if (value->isNumber()) {
        const double number = value->doubleValue().value_or(0);
        const std::int64_t integer = value->integerValue().value_or(0);
        text = static_cast<double>(integer) == number ? "i" + std::to_string(integer) : "r" + std::to_string(number);
    } else {
        text = "x" + writeXMLPropertyList(*value);
    }
    out += 'v';
    out += std::to_string(text.size());
    out += ':';
    out += text;
}

const Value* lookUp(const Dictionary& d, const char* key) {
    const auto it = d.find(key);
    return it == d.end() ? nullptr : &it->second;
}

bool isSanitisedCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

}  // namespace

Dictionary fullTransactionRecord(const std::string& identifier) {
    return Dictionary{{record_key::identifier, identifier},
                      {record_key::action, std::string(kResetNetworkAction)},
                      {record_key::tunnelInterface, std::string()},
                      {record_key::activeRoutes, Array{}},
                      {record_key::dnsSnapshots, Dictionary{}},
                      {record_key::ownerProcessID, std::int64_t{0}},
                      {record_key::ownerServiceType, std::int64_t{0}},
                      {record_key::ownerIsAmneziaWG, false}};
}

Dictionary resetTransactionRecord(const std::string& identifier, const std::string& action,
                                  const std::string& tunnelInterface) {
    return Dictionary{{record_key::identifier, identifier},
                      {record_key::action, action},
                      {record_key::tunnelInterface, tunnelInterface},
                      {record_key::activeRoutes, Array{}},
                      {record_key::dnsSnapshots, Dictionary{}}};
}

TransactionOwner ownerOfRecord(const Dictionary& record) {
    TransactionOwner owner;
    if (const Value* pid = lookUp(record, record_key::ownerProcessID)) {
        owner.processID = static_cast<std::int32_t>(pid->integerValue().value_or(0));
    }
    if (const Value* type = lookUp(record, record_key::ownerServiceType)) {
        owner.serviceType = type->integerValue().value_or(0);
    }
    if (const Value* amnezia = lookUp(record, record_key::ownerIsAmneziaWG)) {
        owner.isAmneziaWG = amnezia->boolValue().value_or(false);
    }
    return owner;
}

RouteIdentity RouteIdentity::ofOperation(const Dictionary& operation) {
    RouteIdentity identity;
    for (const char* key : {route_key::destination, route_key::gateway, route_key::isIPv6, route_key::interfaceName}) {
        const Value* value = lookUp(operation, key);
        Value& slot = identity.identity_[key];
        if (value) {
            slot = *value;
        } else if (std::string_view(key) == route_key::isIPv6) {
            slot = false;
        }
        appendCanonical(identity.key_, &slot);
    }
    return identity;
}

std::optional<std::string> _inverseRouteActionForAction(const std::optional<std::string>& action) {
    if (action == "add") return std::string("delete");
    if (action == "delete") return std::string("add");
    return std::nullopt;
}

std::int64_t _indexOfRouteIdentity(const RouteIdentity& identity, const Array& routes) {
    for (std::size_t i = 0; i < routes.size(); ++i) {
        const Dictionary* entry = routes[i].asDictionary();
        if (entry && RouteIdentity::ofOperation(*entry) == identity) return static_cast<std::int64_t>(i);
    }
    return kRouteIdentityNotFound;
}

std::string transactionFileStem(const std::string& identifier) {
    std::string stem;
    // One "_" per UTF-16 unit: a code point beyond U+FFFF is two units.
    for (std::size_t i = 0; i < identifier.size() && stem.size() < kMaximumSanitisedLength; ++i) {
        const auto byte = static_cast<unsigned char>(identifier[i]);
        if (byte < 0x80) {
            stem += isSanitisedCharacter(static_cast<char>(byte)) ? static_cast<char>(byte) : '_';
        } else if ((byte & 0xC0) != 0x80) {
            stem += (byte & 0xF8) == 0xF0 ? "__" : "_";
        }
    }
    if (stem.size() > kMaximumSanitisedLength) stem.resize(kMaximumSanitisedLength);
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(identifier.data()),
                                              identifier.size());
    const std::string hash = hexString(digestOf(DigestAlgorithm::SHA256, bytes));
    return stem + "-" + hash.substr(0, kHashDigits);
}

}  // namespace korvo
