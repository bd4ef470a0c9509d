// Adds and then deletes 10,000 routes through _applyRouteOperationAction and
// the same routes with `ip -batch`, in the same network namespace, and prints
// both times and their ratio. Changes the routing table: run it only through
// bench/routes/run, which gives it a namespace of its own.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "network/NetworkSystemOperations.h"
#include "platform/linux/netlink/NetlinkRouteTable.h"

#include "RouteBenchSupport.h"

namespace {

constexpr int kRouteCount = 10000;
constexpr int kRounds = 3;
constexpr const char* kGateway = "192.0.2.2";

using Clock = std::chrono::steady_clock;

using korvo::bench::destination;
using korvo::bench::helperRouteCount;

bool check(bool condition, const char* what) {
    if (!condition) std::fprintf(stderr, "route-bench: %s\n", what);
    return condition;
}

// Seconds to add and then delete every route through the helper's code.
double helperRound(korvo::NetworkSystemOperations& operations, const std::vector<std::string>& destinations,
                   bool& ok) {
    const auto start = Clock::now();
    for (const std::string& d : destinations) {
        if (auto error = operations._applyRouteOperationAction("add", d, kGateway, false, "")) {
            std::fprintf(stderr, "route-bench: add %s: %s\n", d.c_str(), error->displayText().c_str());
            ok = false;
            return 0;
        }
    }
    const auto added = Clock::now();
    ok = ok && check(helperRouteCount() == kRouteCount, "helper: not every route is in the table");
    const auto deleteStart = Clock::now();
    for (const std::string& d : destinations) {
        if (auto error = operations._applyRouteOperationAction("delete", d, kGateway, false, "")) {
            std::fprintf(stderr, "route-bench: delete %s: %s\n", d.c_str(), error->displayText().c_str());
            ok = false;
            return 0;
        }
    }
    const auto end = Clock::now();
    ok = ok && check(helperRouteCount() == 0, "helper: routes left in the table");
    return std::chrono::duration<double>((added - start) + (end - deleteStart)).count();
}

// Seconds for `ip -batch` to add and then delete the same routes.
double ipBatchRound(const std::string& addFile, const std::string& deleteFile, bool& ok) {
    const auto start = Clock::now();
    ok = ok && check(std::system(("ip -batch " + addFile).c_str()) == 0, "ip -batch add failed");
    const auto added = Clock::now();
    ok = ok && check(helperRouteCount() == kRouteCount, "ip: not every route is in the table");
    const auto deleteStart = Clock::now();
    ok = ok && check(std::system(("ip -batch " + deleteFile).c_str()) == 0, "ip -batch delete failed");
    const auto end = Clock::now();
    ok = ok && check(helperRouteCount() == 0, "ip: routes left in the table");
    return std::chrono::duration<double>((added - start) + (end - deleteStart)).count();
}

bool writeBatch(const std::string& path, const char* verb, const std::vector<std::string>& destinations) {
    FILE* file = std::fopen(path.c_str(), "w");
    if (!file) return false;
    for (const std::string& d : destinations) {
        std::fprintf(file, "route %s %s via %s proto %d\n", verb, d.c_str(), kGateway,
                     korvo::platform::kKorvoRouteProtocol);
    }
    return std::fclose(file) == 0;
}

}  // namespace

int main() {
    if (std::getenv("KORVO_ISOLATED") == nullptr) {
        std::fprintf(stderr, "route-bench: changes the routing table; run it through bench/routes/run\n");
        return 2;
    }
    if (std::system("ip link add veth0 type veth peer name veth1 && ip link set veth0 up && ip link set veth1 up"
                    " && ip addr add 192.0.2.1/24 dev veth0") != 0) {
        std::fprintf(stderr, "route-bench: could not set up the test link\n");
        return 1;
    }
    std::vector<std::string> destinations;
    for (int i = 0; i < kRouteCount; ++i) destinations.push_back(destination(i));

    char directory[] = "/tmp/korvo-route-bench-XXXXXX";
    if (!::mkdtemp(directory)) return 1;
    const std::string addFile = std::string(directory) + "/add";
    const std::string deleteFile = std::string(directory) + "/delete";
    if (!writeBatch(addFile, "add", destinations) || !writeBatch(deleteFile, "del", destinations)) return 1;

    korvo::NetworkSystemOperations operations;
    bool ok = true;
    double helperBest = 1e9;
    double ipBest = 1e9;
    for (int round = 1; round <= kRounds && ok; ++round) {
        const double ip = ipBatchRound(addFile, deleteFile, ok);
        const double helper = helperRound(operations, destinations, ok);
        if (!ok) break;
        std::printf("round %d: helper %.1f ms, ip -batch %.1f ms\n", round, helper * 1e3, ip * 1e3);
        helperBest = std::min(helperBest, helper);
        ipBest = std::min(ipBest, ip);
    }
    std::remove(addFile.c_str());
    std::remove(deleteFile.c_str());
    ::rmdir(directory);
    if (!ok) return 1;

    const double ratio = helperBest / ipBest;
    std::printf("%d routes added and deleted (best of %d rounds)\n", kRouteCount, kRounds);
    std::printf("_applyRouteOperationAction: %.1f ms\n", helperBest * 1e3);
    std::printf("ip -batch:                  %.1f ms\n", ipBest * 1e3);
    std::printf("ratio: %.2f (target <= 1.50) %s\n", ratio, ratio <= 1.5 ? "met" : "NOT MET");
    return 0;
}
