// What the route benchmarks share: the destinations they add, and how many
// routes the helper has in the kernel's table (by its route protocol).
#pragma once

#include <cstdio>
#include <string>

#include "platform/linux/netlink/NetlinkRouteTable.h"

namespace korvo::bench {

inline std::string destination(int i) {
    return "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0/24";
}

inline int helperRouteCount() {
    const std::string command =
        "ip -4 route show proto " + std::to_string(korvo::platform::kKorvoRouteProtocol) + " | wc -l";
    FILE* pipe = ::popen(command.c_str(), "r");
    int count = -1;
    if (pipe) {
        if (std::fscanf(pipe, "%d", &count) != 1) count = -1;
        ::pclose(pipe);
    }
    return count;
}

}  // namespace korvo::bench
