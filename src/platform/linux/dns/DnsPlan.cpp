#include "platform/linux/dns/DnsPlan.h"

#include <algorithm>
#include <map>

#include "util/AddressAdditions.h"
#include "util/Log.h"

namespace korvo::platform::dns {
namespace {

constexpr std::string_view kServicePrefix = "State:/Network/Service/";

std::vector<std::string> stringsForKey(const Dictionary& d, const std::string& key) {
    std::vector<std::string> out;
    const auto it = d.find(key);
    if (it == d.end() || !it->second.asArray()) return out;
    for (const auto& item : *it->second.asArray()) {
        if (const auto* s = item.asString()) out.push_back(*s);
    }
    return out;
}

std::vector<std::string> usable(const std::vector<std::string>& items, bool (*check)(const std::string&),
                                 const char* what, const std::string& key) {
    std::vector<std::string> out;
    for (const auto& item : items) {
        if (check(item)) {
            if (std::find(out.begin(), out.end(), item) == out.end()) out.push_back(item);
        } else {
            logMessage(LOG_WARNING, "Warning: Left out %s '%s' of '%s': not usable by the resolver.", what,
                       item.c_str(), key.c_str());
        }
    }
    return out;
}

// "State:/Network/Service/ID/SUFFIX" gives ID when the suffix matches.
std::optional<std::string> serviceOfKey(const std::string& key, std::string_view suffix) {
    if (key.rfind(kServicePrefix, 0) != 0 || key.size() <= kServicePrefix.size() + suffix.size()) return std::nullopt;
    if (key.compare(key.size() - suffix.size(), suffix.size(), suffix) != 0) return std::nullopt;
    return key.substr(kServicePrefix.size(), key.size() - kServicePrefix.size() - suffix.size());
}

}  // namespace

bool isUsableNameServer(const std::string& text) { return isValidIPAddress(text); }

bool isUsableSearchDomain(const std::string& text) {
    if (text.empty() || text.size() > 253 || text.front() == '.' || text.front() == '-') return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '.' || c == '_';
    });
}

void appendUnique(std::vector<std::string>& to, const std::vector<std::string>& from) {
    for (const auto& item : from) {
        if (std::find(to.begin(), to.end(), item) == to.end()) to.push_back(item);
    }
}

bool DnsPlan::empty() const {
    if (takesOver()) return false;
    return std::all_of(services.begin(), services.end(),
                       [](const ServiceDns& s) { return s.servers.empty() && s.searchDomains.empty(); });
}

std::vector<std::string> DnsPlan::tunnelServers() const {
    std::vector<std::string> out;
    for (const auto& service : services) appendUnique(out, service.servers);
    return out;
}

std::vector<std::string> DnsPlan::tunnelSearchDomains() const {
    std::vector<std::string> out;
    for (const auto& service : services) appendUnique(out, service.searchDomains);
    return out;
}

DnsPlan planFromStore(const StoreEntries& entries) {
    std::map<std::string, std::string> interfaces;  // service identifier to its tunnel interface
    for (const auto& [key, value] : entries) {
        auto service = serviceOfKey(key, "/IPv4");
        if (!service) service = serviceOfKey(key, "/IPv6");
        const auto name = stringForKey(value, "InterfaceName");
        // IPv4's interface wins over IPv6's.
        if (service && name && !name->empty() && (!interfaces.count(*service) || key.ends_with("/IPv4"))) {
            interfaces[*service] = *name;
        }
    }
    DnsPlan plan;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        const auto& [key, value] = *it;
        if (key == kGlobalDNSKey) {
            plan.globalServers = usable(stringsForKey(value, "ServerAddresses"), isUsableNameServer, "name server", key);
            plan.globalInterfaceName = stringForKey(value, "InterfaceName").value_or("");
            continue;
        }
        const auto service = serviceOfKey(key, "/DNS");
        if (!service) continue;
        ServiceDns dns;
        dns.serviceIdentifier = *service;
        if (auto found = interfaces.find(*service); found != interfaces.end()) dns.interfaceName = found->second;
        dns.servers = usable(stringsForKey(value, "ServerAddresses"), isUsableNameServer, "name server", key);
        std::vector<std::string> domains;
        if (auto domain = stringForKey(value, "DomainName"); domain && !domain->empty()) domains.push_back(*domain);
        appendUnique(domains, stringsForKey(value, "SearchDomains"));
        dns.searchDomains = usable(domains, isUsableSearchDomain, "search domain", key);
        plan.services.push_back(std::move(dns));
    }
    return plan;
}

}  // namespace korvo::platform::dns
