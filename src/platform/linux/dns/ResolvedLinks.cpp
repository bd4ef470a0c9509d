#include "platform/linux/dns/ResolvedLinks.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <sdbus-c++/sdbus-c++.h>

#include "util/Format.h"
#include "util/Log.h"

namespace korvo::platform::dns {
namespace {

constexpr const char* kResolvedName = "org.freedesktop.resolve1";
constexpr const char* kResolvedPath = "/org/freedesktop/resolve1";
constexpr const char* kManagerInterface = "org.freedesktop.resolve1.Manager";

LinkDns& linkNamed(std::vector<LinkDns>& links, const std::string& name) {
    for (auto& link : links) {
        if (link.interfaceName == name) return link;
    }
    links.push_back(LinkDns{name, {}, {}, false});
    return links.back();
}

void addDomain(LinkDns& link, const std::string& name, bool routingOnly) {
    for (const auto& domain : link.domains) {
        if (domain.first == name) return;
    }
    link.domains.emplace_back(name, routingOnly);
}

using Address = sdbus::Struct<std::int32_t, std::vector<std::uint8_t>>;

std::vector<Address> addressesOf(const std::vector<std::string>& servers) {
    std::vector<Address> out;
    for (const auto& server : servers) {
        unsigned char bytes[16];
        if (::inet_pton(AF_INET, server.c_str(), bytes) == 1) {
            out.emplace_back(AF_INET, std::vector<std::uint8_t>(bytes, bytes + 4));
        } else if (::inet_pton(AF_INET6, server.c_str(), bytes) == 1) {
            out.emplace_back(AF_INET6, std::vector<std::uint8_t>(bytes, bytes + 16));
        }
    }
    return out;
}

KorvoError resolvedError(const std::string& interfaceName, const sdbus::Error& e) {
    logMessage(LOG_ERR, "Error: systemd-resolved refused the DNS settings of '%s': %s: %s", interfaceName.c_str(),
               e.getName().c_str(), e.getMessage().c_str());
    return errorWithKorvoErrorCode(kGeneralErrorCode,
                                   formatString("systemd-resolved refused the DNS settings of '%s'.",
                                                interfaceName.c_str()));
}

// Whether another manager (NetworkManager, a DHCP client) has given the link
// DNS servers: such a link is not a tunnel of the helper's, and setting or
// later reverting it would take that manager's DNS away.
bool hasForeignServers(sdbus::IConnection& connection, sdbus::IProxy& manager, std::int32_t index) {
    sdbus::ObjectPath path;
    manager.callMethod("GetLink").onInterface(kManagerInterface).withArguments(index).storeResultsTo(path);
    const auto link = sdbus::createProxy(connection, kResolvedName, path);
    const auto servers = link->getProperty("DNS").onInterface("org.freedesktop.resolve1.Link").get<std::vector<Address>>();
    return !servers.empty();
}

}  // namespace

std::vector<LinkDns> linkSettingsForPlan(const DnsPlan& plan) {
    std::vector<LinkDns> links;
    if (plan.takesOver()) {
        std::string name = plan.globalInterfaceName;
        for (const auto& service : plan.services) {
            if (name.empty()) name = service.interfaceName;
        }
        if (name.empty()) {
            logMessage(LOG_WARNING, "Warning: The VPN's global DNS names no interface; systemd-resolved cannot use it.");
        } else {
            LinkDns& link = linkNamed(links, name);
            appendUnique(link.servers, plan.globalServers);
            addDomain(link, ".", true);
            link.defaultRoute = true;
        }
    }
    for (const auto& service : plan.services) {
        if (service.servers.empty() && service.searchDomains.empty()) continue;
        if (service.interfaceName.empty()) {
            logMessage(LOG_WARNING, "Warning: The DNS of service '%s' names no interface; systemd-resolved cannot use it.",
                       service.serviceIdentifier.c_str());
            continue;
        }
        LinkDns& link = linkNamed(links, service.interfaceName);
        appendUnique(link.servers, service.servers);
        for (const auto& domain : service.searchDomains) addDomain(link, domain, false);
    }
    return links;
}

bool ResolvedLinks::running() {
    try {
        auto connection = sdbus::createSystemBusConnection();
        auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        bool hasOwner = false;
        proxy->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(std::string(kResolvedName))
            .storeResultsTo(hasOwner);
        return hasOwner;
    } catch (const sdbus::Error&) {
        return false;
    }
}

MaybeError ResolvedLinks::apply(const DnsPlan& plan, const std::set<std::string>& previous,
                                std::set<std::string>* current) {
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> proxy;
    try {
        connection = sdbus::createSystemBusConnection();
        proxy = sdbus::createProxy(*connection, kResolvedName, kResolvedPath);
    } catch (const sdbus::Error& e) {
        return resolvedError("the system bus", e);
    }
    const auto links = linkSettingsForPlan(plan);
    current->clear();
    for (const auto& link : links) {
        const auto index = static_cast<std::int32_t>(::if_nametoindex(link.interfaceName.c_str()));
        if (index == 0) {
            logMessage(LOG_ERR, "Error: Cannot set the DNS of '%s': no such interface.", link.interfaceName.c_str());
            return errorWithKorvoErrorCode(kGeneralErrorCode,
                                           formatString("No interface '%s'.", link.interfaceName.c_str()));
        }
        std::vector<sdbus::Struct<std::string, bool>> domains;
        for (const auto& [name, routingOnly] : link.domains) domains.emplace_back(name, routingOnly);
        try {
            if (previous.count(link.interfaceName) == 0 && hasForeignServers(*connection, *proxy, index)) {
                logMessage(LOG_ERR, "Error: Not setting the VPN's DNS on '%s': another program manages its DNS.",
                           link.interfaceName.c_str());
                return errorWithKorvoErrorCode(
                    kGeneralErrorCode, formatString("The DNS of '%s' belongs to another program.", link.interfaceName.c_str()));
            }
            proxy->callMethod("SetLinkDNS").onInterface(kManagerInterface).withArguments(index, addressesOf(link.servers));
            proxy->callMethod("SetLinkDomains").onInterface(kManagerInterface).withArguments(index, domains);
            proxy->callMethod("SetLinkDefaultRoute").onInterface(kManagerInterface).withArguments(index, link.defaultRoute);
        } catch (const sdbus::Error& e) {
            return resolvedError(link.interfaceName, e);
        }
        current->insert(link.interfaceName);
    }
    for (const auto& name : previous) {
        if (current->count(name) != 0) continue;
        const auto index = static_cast<std::int32_t>(::if_nametoindex(name.c_str()));
        if (index == 0) continue;  // gone, and resolved forgot it with it
        try {
            proxy->callMethod("RevertLink").onInterface(kManagerInterface).withArguments(index);
        } catch (const sdbus::Error& e) {
            current->insert(name);
            return resolvedError(name, e);
        }
    }
    return std::nullopt;
}

}  // namespace korvo::platform::dns
