// What the dynamic store's DNS keys ask of the machine's resolver, worked out
// from the whole store: which servers and domains belong to which tunnel
// interface, and whether a tunnel takes over all name resolution. Both
// resolver backends (systemd-resolved, a managed /etc/resolv.conf) apply a
// plan; neither reads the store itself.
//
// Values come from the client: a server that is not a numeric address or a
// domain that is not a plain host name is left out (and logged), so nothing
// a client sends can add a line or an option to a resolver file.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "util/Value.h"

namespace korvo::platform::dns {

// One key of the store with its value, in the order the keys were last set
// (oldest first).
using StoreEntries = std::vector<std::pair<std::string, Dictionary>>;

inline constexpr std::string_view kGlobalDNSKey = "State:/Network/Global/DNS";

// The DNS of one service ("State:/Network/Service/ID/DNS").
struct ServiceDns {
    std::string serviceIdentifier;
    std::string interfaceName;  // from the service's IPv4 or IPv6 entry; may be empty
    std::vector<std::string> servers;
    std::vector<std::string> searchDomains;  // the domain name first, then the search domains

    friend bool operator==(const ServiceDns&, const ServiceDns&) = default;
};

struct DnsPlan {
    // Newest first: the connection set up last is asked first.
    std::vector<ServiceDns> services;
    // The global entry: a tunnel that takes over all name resolution.
    std::vector<std::string> globalServers;
    std::string globalInterfaceName;

    bool takesOver() const { return !globalServers.empty(); }
    bool empty() const;
    // Every service's servers, newest first, without repeats.
    std::vector<std::string> tunnelServers() const;
    std::vector<std::string> tunnelSearchDomains() const;

    friend bool operator==(const DnsPlan&, const DnsPlan&) = default;
};

DnsPlan planFromStore(const StoreEntries& entries);

// Whether a client's text may stand in a resolver file as a server or a
// search domain.
bool isUsableNameServer(const std::string& text);
bool isUsableSearchDomain(const std::string& text);

// Appends the items of from that are not in to yet.
void appendUnique(std::vector<std::string>& to, const std::vector<std::string>& from);

}  // namespace korvo::platform::dns
