#include "transactions/TransactionJournal.h"

#include <map>
#include <optional>
#include <unordered_set>

#include "transactions/TransactionRecord.h"
#include "util/PropertyList.h"

namespace korvo {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";

void appendEscaped(std::string& out, std::string_view text) {
    if (text == "-") {
        out += "%2D";
        return;
    }
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F || c == '%') {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0F];
        } else {
            out += c;
        }
    }
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> unescape(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '%') {
            out += field[i];
            continue;
        }
        if (i + 2 >= field.size()) return std::nullopt;
        const int high = hexValue(field[i + 1]), low = hexValue(field[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

// The operation in the short form when it has the usual shape.
bool appendShortRoute(std::string& out, const Dictionary& operation) {
    std::string fields[5];
    bool present[5] = {};
    bool isIPv6 = false;
    for (const auto& [key, value] : operation) {
        const std::string* text = value.asString();
        int slot = -1;
        if (key == route_key::destination) slot = 0;
        if (key == route_key::gateway) slot = 1;
        if (key == route_key::interfaceName) slot = 2;
        if (key == route_key::transactionIdentifier) slot = 3;
        if (key == route_key::action) slot = 4;
        if (key == route_key::isIPv6) {
            if (!value.isBooleanStorage()) return false;
            isIPv6 = *value.boolValue();
            continue;
        }
        if (slot < 0 || !text) return false;
        fields[slot] = *text;
        present[slot] = true;
    }
    if (!operation.count(route_key::isIPv6) || !present[4] || fields[4] != "add") return false;
    out += "R ";
    for (int slot : {0, 1}) {
        if (present[slot]) appendEscaped(out, fields[slot]); else out += '-';
        out += ' ';
    }
    out += isIPv6 ? "1 " : "0 ";
    for (int slot : {2, 3}) {
        if (present[slot]) appendEscaped(out, fields[slot]); else out += '-';
        out += slot == 2 ? " " : "";
    }
    return true;
}

void appendRoute(std::string& out, const Dictionary& operation) {
    if (appendShortRoute(out, operation)) return;
    out += "P ";
    appendEscaped(out, writeXMLPropertyList(Value(operation)));
}

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (start <= line.size()) {
        const std::size_t space = line.find(' ', start);
        const std::size_t end = space == std::string_view::npos ? line.size() : space;
        fields.push_back(line.substr(start, end - start));
        if (space == std::string_view::npos) break;
        start = space + 1;
    }
    return fields;
}

std::optional<Dictionary> parseRoute(const std::vector<std::string_view>& fields, std::size_t first) {
    if (fields.size() <= first) return std::nullopt;
    if (fields[first] == "P" && fields.size() == first + 2) {
        const auto xml = unescape(fields[first + 1]);
        if (!xml) return std::nullopt;
        auto value = readPropertyList(*xml);
        if (!value || !value->asDictionary()) return std::nullopt;
        return *value->asDictionary();
    }
    if (fields[first] != "R" || fields.size() != first + 6) return std::nullopt;
    Dictionary operation{{route_key::action, "add"}};
    const char* keys[] = {route_key::destination, route_key::gateway, nullptr, route_key::interfaceName,
                          route_key::transactionIdentifier};
    for (int i = 0; i < 5; ++i) {
        const std::string_view field = fields[first + 1 + i];
        if (keys[i] == nullptr) {
            if (field != "0" && field != "1") return std::nullopt;
            operation[route_key::isIPv6] = field == "1";
            continue;
        }
        if (field == "-") continue;
        const auto text = unescape(field);
        if (!text) return std::nullopt;
        operation[keys[i]] = *text;
    }
    return operation;
}

std::optional<std::uint64_t> parseSequence(std::string_view field) {
    if (field.empty() || field.size() > 19) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : field) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return value;
}

// The routes a record lists, by identity, kept in step with its array.
class ListedRoutes {
public:
    explicit ListedRoutes(Array& routes) : routes_(routes) {
        for (const Value& entry : routes_) {
            if (const Dictionary* d = entry.asDictionary()) keys_.insert(RouteIdentity::ofOperation(*d).key());
        }
    }
    bool lists(const RouteIdentity& identity) const { return keys_.count(identity.key()) != 0; }
    void add(const Dictionary& operation) {
        const RouteIdentity identity = RouteIdentity::ofOperation(operation);
        if (!keys_.insert(identity.key()).second) return;
        routes_.emplace_back(operation);
    }
    void remove(const Dictionary& operation) {
        const RouteIdentity identity = RouteIdentity::ofOperation(operation);
        if (keys_.erase(identity.key()) == 0) return;
        const std::int64_t index = _indexOfRouteIdentity(identity, routes_);
        if (index != kRouteIdentityNotFound) routes_.erase(routes_.begin() + index);
    }

private:
    Array& routes_;
    std::unordered_set<std::string> keys_;
};

}  // namespace

std::string journalIntentLine(std::uint64_t sequence, const Dictionary& operation) {
    std::string line = "I " + std::to_string(sequence) + " ";
    appendRoute(line, operation);
    line += '\n';
    return line;
}

std::string journalCommitLine(std::uint64_t sequence) { return "A " + std::to_string(sequence) + "\n"; }
std::string journalAbandonLine(std::uint64_t sequence) { return "X " + std::to_string(sequence) + "\n"; }

std::string journalDeleteLine(const Dictionary& operation) {
    std::string line = "D ";
    appendRoute(line, operation);
    line += '\n';
    return line;
}

Array& mutableActiveRoutes(Dictionary& record) {
    Value& routes = record[record_key::activeRoutes];
    if (!routes.isArray()) routes = Array{};
    return *routes.asArray();
}

std::vector<Dictionary> replayTransactionJournal(Dictionary& record, std::string_view journal) {
    if (journal.empty()) return {};
    ListedRoutes listed(mutableActiveRoutes(record));
    std::map<std::uint64_t, Dictionary> open;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = journal.find('\n', start);
        if (end == std::string_view::npos) break;  // the last line was cut short
        const auto fields = splitFields(journal.substr(start, end - start));
        start = end + 1;
        if (fields.size() < 2) continue;
        if (fields[0] == "D") {
            if (auto route = parseRoute(fields, 1)) listed.remove(*route);
            continue;
        }
        const auto sequence = parseSequence(fields[1]);
        if (!sequence) continue;
        if (fields[0] == "I") {
            if (auto route = parseRoute(fields, 2)) open[*sequence] = std::move(*route);
        } else if (fields[0] == "A" && fields.size() == 2) {
            if (auto it = open.find(*sequence); it != open.end()) {
                listed.add(it->second);
                open.erase(it);
            }
        } else if (fields[0] == "X" && fields.size() == 2) {
            open.erase(*sequence);
        }
    }
    std::vector<Dictionary> intentOnly;
    for (auto& [sequence, route] : open) {
        if (!listed.lists(RouteIdentity::ofOperation(route))) intentOnly.push_back(std::move(route));
    }
    return intentOnly;
}

}  // namespace korvo
