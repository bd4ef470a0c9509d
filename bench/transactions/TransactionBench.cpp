// One configureRoutes request of 10,000 routes recorded in a transaction
// (journal written and synced; until the reply), then the restore of that transaction,
// each against `ip -batch` doing the same to the routing table; then the
// time to load 1,000 persisted transactions. Prints the times and ratios.
// Changes the routing table: run it only through bench/transactions/run.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "diagnostics/CaptureSuppression.h"
#include "network/RouteConfiguration.h"
#include "platform/linux/netlink/NetlinkRouteTable.h"
#include "transactions/NetworkTransactions.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"

#include "../routes/RouteBenchSupport.h"

namespace {

constexpr int kRouteCount = 10000;
constexpr int kRounds = 3;
constexpr int kPersistedTransactions = 1000;
constexpr int kRoutesPerPersistedTransaction = 10;
constexpr const char* kGateway = "192.0.2.2";

using Clock = std::chrono::steady_clock;
using korvo::Dictionary;
using korvo::Value;

using korvo::bench::destination;
using korvo::bench::helperRouteCount;

bool check(bool condition, const char* what) {
    if (!condition) std::fprintf(stderr, "transaction-bench: %s\n", what);
    return condition;
}

double seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

class NoSuppression final : public korvo::CaptureSuppression {
public:
    void beginNetworkDiagnosticsSuppression() override {}
    void endNetworkDiagnosticsSuppression() override {}
    void stopPeriodicCaptureIfNeeded() override {}
};

struct Helper {
    explicit Helper(const std::string& runDirectory)
        : area(std::make_shared<korvo::StoreArea>(runDirectory, std::nullopt)),
          started(nullptr),
          transactions({area, &network, &started, nullptr, &suppression, nullptr, nullptr, nullptr}),
          routes(network, transactions) {}
    std::shared_ptr<korvo::StoreArea> area;
    korvo::NetworkSystemOperations network;
    korvo::StartedProcesses started;
    NoSuppression suppression;
    korvo::NetworkTransactions transactions;
    korvo::RouteConfiguration routes;
};

// Seconds for the request that adds and records, and for the restore.
std::pair<double, double> helperRound(Helper& helper, const korvo::Array& operations, bool& ok) {
    auto start = Clock::now();
    korvo::MaybeError failure;
    double add = 0;
    // Until the reply: the client's wait. The journal is folded into the
    // record file after it.
    helper.routes.configureRoutes(Value(operations), [&](const korvo::MaybeError& error, const auto&) {
        add = seconds(start);
        failure = error;
    });
    ok = ok && check(!failure, "configureRoutes failed") && check(helperRouteCount() == kRouteCount, "helper: routes missing");
    start = Clock::now();
    helper.transactions.restoreNetworkTransactionWithIdentifier("bench", [&](const korvo::MaybeError& error) { failure = error; });
    const double restore = seconds(start);
    ok = ok && check(!failure, "restore failed") && check(helperRouteCount() == 0, "helper: routes left");
    return {add, restore};
}

std::pair<double, double> ipBatchRound(const std::string& addFile, const std::string& deleteFile, bool& ok) {
    auto start = Clock::now();
    ok = ok && check(std::system(("ip -batch " + addFile).c_str()) == 0, "ip -batch add failed");
    const double add = seconds(start);
    ok = ok && check(helperRouteCount() == kRouteCount, "ip: routes missing");
    start = Clock::now();
    ok = ok && check(std::system(("ip -batch " + deleteFile).c_str()) == 0, "ip -batch delete failed");
    const double remove = seconds(start);
    ok = ok && check(helperRouteCount() == 0, "ip: routes left");
    return {add, remove};
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

// Seconds for a new store to load kPersistedTransactions records.
double startUp(const std::string& runDirectory, bool& ok) {
    {
        Helper writer(runDirectory);
        auto& store = writer.transactions.store();
        std::lock_guard lock(store.lock());
        for (int t = 0; t < kPersistedTransactions; ++t) {
            const std::string identifier = "connection-" + std::to_string(t);
            Dictionary& record = store.recordCreatingIfMissingLocked(identifier);
            korvo::Array routes;
            for (int r = 0; r < kRoutesPerPersistedTransaction; ++r) {
                routes.emplace_back(Dictionary{{"action", "add"}, {"destination", destination(t * 10 + r)},
                                               {"gateway", kGateway}, {"isIPv6", false},
                                               {"transactionIdentifier", identifier}});
            }
            record["activeRoutes"] = std::move(routes);
            ok = ok && check(!store.persistLocked(identifier), "could not write a record");
        }
    }
    const auto start = Clock::now();
    Helper reader(runDirectory);
    reader.transactions._loadPersistedNetworkTransactions();
    const double elapsed = seconds(start);
    ok = ok && check(reader.transactions._networkTransactionsStore().size() == kPersistedTransactions, "load incomplete");
    return elapsed;
}

}  // namespace

int main() {
    if (std::getenv("KORVO_ISOLATED") == nullptr) {
        std::fprintf(stderr, "transaction-bench: changes the routing table; run it through bench/transactions/run\n");
        return 2;
    }
    if (std::system("ip link add veth0 type veth peer name veth1 && ip link set veth0 up && ip link set veth1 up"
                    " && ip addr add 192.0.2.1/24 dev veth0") != 0) {
        std::fprintf(stderr, "transaction-bench: could not set up the test link\n");
        return 1;
    }
    std::vector<std::string> destinations;
    korvo::Array operations;
    for (int i = 0; i < kRouteCount; ++i) {
        destinations.push_back(destination(i));
        operations.emplace_back(Dictionary{{"action", "add"}, {"destination", destinations.back()},
                                           {"gateway", kGateway}, {"isIPv6", false}, {"transactionIdentifier", "bench"}});
    }
    // The store lives where the helper keeps it, on /run (a tmpfs, as the
    // machine's /var/run is); bench/transactions/run gives a private one.
    char directory[] = "/run/korvo-transaction-bench-XXXXXX";
    if (!::mkdtemp(directory)) return 1;
    const std::string addFile = std::string(directory) + "/add", deleteFile = std::string(directory) + "/delete";
    if (!writeBatch(addFile, "add", destinations) || !writeBatch(deleteFile, "del", destinations)) return 1;

    bool ok = true;
    std::pair<double, double> helperBest{1e9, 1e9}, ipBest{1e9, 1e9};
    {
        Helper helper(std::string(directory) + "/run");
        for (int round = 1; round <= kRounds && ok; ++round) {
            const auto ip = ipBatchRound(addFile, deleteFile, ok);
            const auto helped = helperRound(helper, operations, ok);
            if (!ok) break;
            std::printf("round %d: configureRoutes %.1f ms, ip -batch add %.1f ms; restore %.1f ms, ip -batch del %.1f ms\n",
                        round, helped.first * 1e3, ip.first * 1e3, helped.second * 1e3, ip.second * 1e3);
            helperBest = {std::min(helperBest.first, helped.first), std::min(helperBest.second, helped.second)};
            ipBest = {std::min(ipBest.first, ip.first), std::min(ipBest.second, ip.second)};
        }
    }
    const double load = ok ? startUp(std::string(directory) + "/startup", ok) : 0;
    std::system(("rm -rf " + std::string(directory)).c_str());
    if (!ok) return 1;

    const auto verdict = [](double ratio) { return ratio <= 1.0 ? "goal met" : ratio <= 1.5 ? "within limit" : "NOT MET"; };
    const double addRatio = helperBest.first / ipBest.first, restoreRatio = helperBest.second / ipBest.second;
    std::printf("%d recorded routes (best of %d rounds)\n", kRouteCount, kRounds);
    std::printf("configureRoutes: %.1f ms, ip -batch add: %.1f ms, ratio %.2f (goal <= 1.0, limit 1.5) %s\n",
                helperBest.first * 1e3, ipBest.first * 1e3, addRatio, verdict(addRatio));
    std::printf("restore:         %.1f ms, ip -batch del: %.1f ms, ratio %.2f (goal <= 1.0, limit 1.5) %s\n",
                helperBest.second * 1e3, ipBest.second * 1e3, restoreRatio, verdict(restoreRatio));
    std::printf("start-up with %d persisted transactions: %.1f ms (limit 200 ms) %s\n", kPersistedTransactions,
                load * 1e3, load <= 0.2 ? "met" : "NOT MET");
    return 0;
}
