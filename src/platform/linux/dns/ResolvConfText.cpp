#include "platform/linux/dns/ResolvConfText.h"

#include <sstream>

namespace korvo::platform::dns {
namespace {

std::vector<std::string> words(std::string_view line) {
    std::vector<std::string> out;
    std::istringstream in{std::string(line)};
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

}  // namespace

ResolvConfContents parseResolvConf(std::string_view text) {
    ResolvConfContents contents;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        auto items = words(line);
        if (items.empty() || items[0][0] == '#' || items[0][0] == ';') continue;
        const std::string keyword = items[0];
        items.erase(items.begin());
        if (keyword == "nameserver") {
            if (!items.empty()) contents.nameServers.push_back(items[0]);
        } else if (keyword == "search" || keyword == "domain") {
            contents.searchDomains = items;
        } else {
            contents.otherLines.emplace_back(line);
        }
    }
    return contents;
}

std::string composeResolvConf(std::string_view original, const DnsPlan& plan) {
    const ResolvConfContents machine = parseResolvConf(original);
    std::vector<std::string> servers;
    if (plan.takesOver()) {
        servers = plan.globalServers;
    } else {
        servers = plan.tunnelServers();
        appendUnique(servers, machine.nameServers);
    }
    std::vector<std::string> search = plan.tunnelSearchDomains();
    appendUnique(search, machine.searchDomains);

    std::string text =
        "# Written by the Korvo helper while a VPN connection's DNS is in force.\n"
        "# The machine's own file is put back when the connection ends.\n";
    text += plan.takesOver() ? "# The VPN's name servers answer every query.\n"
                             : "# The VPN's name servers come first; glibc asks at most three.\n";
    for (const auto& server : servers) text += "nameserver " + server + "\n";
    if (!search.empty()) {
        text += "search";
        for (const auto& domain : search) text += " " + domain;
        text += "\n";
    }
    for (const auto& line : machine.otherLines) text += line + "\n";
    return text;
}

}  // namespace korvo::platform::dns
