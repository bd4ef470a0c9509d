// The text of /etc/resolv.conf while tunnel DNS is in force, made from the
// machine's original file and a plan.
//
// Takeover: only the tunnel's servers. Split: the tunnel's servers first,
// then the original ones. In both, the tunnel's search domains come before
// the original's, and the original's options stay. glibc asks at most three
// servers, in order, and takes an NXDOMAIN from the first that answers as
// final: split DNS through resolv.conf means "the tunnel's servers answer
// first", not routing by domain (docs/dns.md).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/dns/DnsPlan.h"

namespace korvo::platform::dns {

// The parts of a resolv.conf that the helper combines.
struct ResolvConfContents {
    std::vector<std::string> nameServers;
    std::vector<std::string> searchDomains;  // the last "search" or "domain" line, as glibc reads it
    std::vector<std::string> otherLines;     // options, sortlist: kept as written
};

ResolvConfContents parseResolvConf(std::string_view text);

// The file to write; original is the machine's own file (empty when there
// was none).
std::string composeResolvConf(std::string_view original, const DnsPlan& plan);

}  // namespace korvo::platform::dns
