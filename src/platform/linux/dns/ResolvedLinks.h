// The tunnel's DNS as systemd-resolved's per-link settings, over its D-Bus
// API (org.freedesktop.resolve1.Manager): the servers and domains of each
// tunnel interface, "~." and the default route on the interface of a tunnel
// that takes over DNS. Real split DNS: resolved sends a query for a tunnel
// domain to the tunnel's servers and everything else to the other links.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/dns/DnsPlan.h"
#include "util/Error.h"

namespace korvo::platform::dns {

struct LinkDns {
    std::string interfaceName;
    std::vector<std::string> servers;
    std::vector<std::pair<std::string, bool>> domains;  // name, routing only
    bool defaultRoute = false;

    friend bool operator==(const LinkDns&, const LinkDns&) = default;
};

// What each tunnel interface gets. A service without an interface name has
// no link to be set on and is left out (logged).
std::vector<LinkDns> linkSettingsForPlan(const DnsPlan& plan);

class ResolvedLinks {
public:
    // Whether systemd-resolved serves on the system bus.
    static bool running();

    // Sets every link of the plan and reverts the links in previous that
    // the plan no longer names (a link that is gone is skipped). Returns
    // the links now set in *current. A link outside previous that already
    // has DNS servers belongs to another manager and is refused: the client
    // names the interface, and a machine's own link is not the helper's.
    MaybeError apply(const DnsPlan& plan, const std::set<std::string>& previous, std::set<std::string>* current);
};

}  // namespace korvo::platform::dns
