// Network transactions through the real helper on a private bus, with the
// kernel's routing table of the test's own network namespace: routes are
// recorded with their files, held against other connections, reclaimed from
// dead ones, undone exactly, and found again after the helper was killed.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "network/RouteConfiguration.h"
#include "support/HelperFixture.h"
#include "support/TestSupport.h"
#include "transactions/TransactionJournal.h"
#include "transactions/TransactionRecord.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"

namespace korvo {
namespace {

using test::HelperFixture;
using test::shell;
using ::testing::HasSubstr;

constexpr const char* kStoreDirectory = "/var/run/Korvo/network-transactions/";

Dictionary routeOperation(const std::string& action, const std::string& destination, const std::string& transaction,
                          const std::string& gateway = "10.99.0.2") {
    Dictionary op{{"action", action}, {"destination", destination}, {"gateway", gateway}, {"isIPv6", false}};
    if (!transaction.empty()) op["transactionIdentifier"] = transaction;
    return op;
}

// The i-th of many distinct /32 destinations.
std::string hostDestination(int i) {
    return "10." + std::to_string(100 + i / 62500) + "." + std::to_string(i / 250 % 250) + "." +
           std::to_string(i % 250 + 1) + "/32";
}

std::size_t helperRouteCount() {
    const std::string out = shell("ip -4 route show proto 75 | wc -l").output;
    return static_cast<std::size_t>(std::stoul(out));
}

// The record as the disk has it: its file with its journal replayed. The
// journal is read first: it is folded into the file after the reply.
std::optional<Dictionary> recordFile(const std::string& identifier) {
    const std::string stem = kStoreDirectory + transactionFileStem(identifier);
    const auto journal = readFile(stem + ".journal");
    const auto bytes = readFile(stem + ".plist");
    if (!bytes) return std::nullopt;
    auto value = readPropertyList(std::string(bytes->begin(), bytes->end()));
    if (!value || !value->asDictionary()) return std::nullopt;
    Dictionary record = *value->asDictionary();
    if (journal) replayTransactionJournal(record, std::string(journal->begin(), journal->end()));
    return record;
}

// A process that exits at once, reaped: its pid names nothing.
pid_t deadPid() {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(0);
    ::waitpid(pid, nullptr, 0);
    return pid;
}

class NetworkTransactionServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(test::runningIsolated()) << "run through tests/support/isolated";
        ASSERT_EQ(shell("ip link add ktx0 type veth peer name ktx1 && ip addr add 10.99.0.1/24 dev ktx0 && ip link set ktx1 up && ip link set ktx0 up")
                      .exitStatus,
                  0);
    }
    void TearDown() override {
        helper.stop();
        shell("ip link del ktx0; ip link del en0; ip link del tun0; ip link del tap0; rm -rf /var/run/Korvo");
    }

    Dictionary configure(const Array& operations) {
        return helper.call("configureRoutes", {{"routeOperations", operations}});
    }
    Dictionary apply(const std::string& identifier, const Array& active) {
        return helper.call("applyNetworkTransaction",
                           {{"request", Dictionary{{"identifier", identifier},
                                                   {"action", "reset-network"},
                                                   {"tunnelInterface", ""},
                                                   {"activeTransactionIdentifiers", active}}}});
    }

    HelperFixture helper;
};

TEST_F(NetworkTransactionServiceTest, RecordsAThousandRoutesAndRestoreUndoesExactlyThem) {
    ASSERT_EQ(helper.start(), std::nullopt);
    // Another program's route to the first destination, through another gateway.
    ASSERT_EQ(shell("ip route add " + hostDestination(0) + " via 10.99.0.3 metric 7").exitStatus, 0);
    const std::string before = shell("ip -4 route show").output;

    Array operations;
    for (int i = 0; i < 1000; ++i) operations.emplace_back(routeOperation("add", hostDestination(i), "vpn 1"));
    const Dictionary reply = configure(operations);
    ASSERT_EQ(test::errorCodeOf(reply), 0) << test::errorMessageOf(reply) << helper.helperLog();
    const std::string summary = stringForKey(reply, "result").value_or("");
    EXPECT_EQ(std::count(summary.begin(), summary.end(), '\n'), 999);
    EXPECT_THAT(summary, HasSubstr("Added route " + hostDestination(0) + " via 10.99.0.2\n"));
    EXPECT_EQ(helperRouteCount(), 1000u);

    const auto record = recordFile("vpn 1");
    ASSERT_TRUE(record);
    const Array& routes = *record->at("activeRoutes").asArray();
    ASSERT_EQ(routes.size(), 1000u);
    EXPECT_EQ(routes[999], Value(operations[999]));
    EXPECT_TRUE(test::eventually([] {
        const auto journal = readFile(std::string(kStoreDirectory) + transactionFileStem("vpn 1") + ".journal");
        return journal && journal->empty();
    })) << "the journal is folded into the record";

    EXPECT_TRUE(helper.call("restoreNetworkTransactionWithIdentifier", {{"identifier", "vpn 1"}}).empty());
    EXPECT_EQ(shell("ip -4 route show").output, before);
    EXPECT_FALSE(recordFile("vpn 1"));
    EXPECT_TRUE(helper.waitForLog("Restored network transaction 'vpn 1' in ")) << helper.helperLog();
}

TEST_F(NetworkTransactionServiceTest, KorvoctlSendsARouteFileAndListsTheStore) {
    ASSERT_EQ(helper.start(), std::nullopt);
    const test::TempDir dir;
    const std::string routes = dir.write("routes", "add 10.90.0.0/24 via 10.99.0.2\nadd 10.91.0.0/24 via 10.99.0.2\n");
    const auto sent = helper.runClient({HelperFixture::korvoctlPath(), "configureRoutes", "routes=" + routes,
                                        "transaction=office"});
    EXPECT_EQ(sent.exitStatus, 0) << sent.standardError;
    EXPECT_THAT(sent.standardOutput, HasSubstr("Added route 10.90.0.0/24 via 10.99.0.2"));
    helper.call("recordOwnerProcessPID", {{"pid", std::int64_t{4242}},
                                          {"serviceType", std::int64_t{5}},
                                          {"isAmneziaWG", true},
                                          {"transactionIdentifier", "office"}});

    const auto listed = helper.runClient({HelperFixture::korvoctlPath(), "transactions"});
    EXPECT_EQ(listed.exitStatus, 0) << listed.standardError;
    EXPECT_EQ(listed.standardOutput, "IDENTIFIER\tOWNER\tROUTES\tDNS KEYS\n"
                                     "office\tpid 4242 (type 5, AmneziaWG)\t2\t-\n");
}

TEST_F(NetworkTransactionServiceTest, ARouteIsHeldAgainstLiveOwnersAndReclaimedFromDeadOnes) {
    ASSERT_EQ(helper.start(), std::nullopt);
    const std::string held = "10.60.0.0/24", orphaned = "10.61.0.0/24";
    ASSERT_EQ(test::errorCodeOf(configure({Value(routeOperation("add", held, "live")),
                                           Value(routeOperation("add", orphaned, "dead"))})),
              0);
    const auto own = [this](const char* identifier, pid_t pid) {
        return helper.call("recordOwnerProcessPID", {{"pid", static_cast<std::int64_t>(pid)},
                                                     {"serviceType", std::int64_t{5}},
                                                     {"isAmneziaWG", false},
                                                     {"transactionIdentifier", identifier}});
    };
    EXPECT_TRUE(own("live", ::getpid()).empty());
    EXPECT_TRUE(own("dead", deadPid()).empty());

    const Dictionary conflict = configure({Value(routeOperation("add", held, "next"))});
    EXPECT_EQ(test::errorCodeOf(conflict), 66);
    EXPECT_EQ(test::errorMessageOf(conflict), kRouteInUseMessage);

    const Dictionary reclaimed = configure({Value(routeOperation("add", orphaned, "next"))});
    EXPECT_EQ(test::errorCodeOf(reclaimed), 0) << test::errorMessageOf(reclaimed);
    EXPECT_TRUE(helper.waitForLog(
        "Reclaiming orphaned network transaction 'dead' that conflicts with a new route request."));
    EXPECT_FALSE(recordFile("dead"));
    EXPECT_EQ(shell("ip -4 route show " + orphaned).output, orphaned + " via 10.99.0.2 dev ktx0 proto 75 \n");

    // A delete recorded by the owner frees the route for the others.
    EXPECT_EQ(test::errorCodeOf(configure({Value(routeOperation("delete", held, "live"))})), 0);
    EXPECT_EQ(test::errorCodeOf(configure({Value(routeOperation("add", held, "next"))})), 0);
    EXPECT_EQ(recordFile("live")->at("activeRoutes").asArray()->size(), 0u);
    EXPECT_EQ(recordFile("next")->at("activeRoutes").asArray()->size(), 2u);
}

TEST_F(NetworkTransactionServiceTest, RefusesMalformedRequestsWithTheirTexts) {
    ASSERT_EQ(helper.start(), std::nullopt);
    Dictionary interfaceOnly = routeOperation("add", "10.1.0.0/16", "");
    interfaceOnly["gateway"] = "";
    interfaceOnly["interfaceName"] = "ktx0";
    Dictionary textFlag = routeOperation("add", "10.1.0.0/16", "");
    textFlag["isIPv6"] = "1";
    const struct {
        const char* what;
        Value payload;
        std::string message;
    } cases[] = {
        {"a dictionary", Value(Dictionary{}), "Invalid route operations payload."},
        {"an entry that is no dictionary", Value(Array{Value("x")}), "Invalid route operation entry."},
        {"action remove", Value(Array{Value(routeOperation("remove", "10.1.0.0/16", ""))}),
         "Route operation contains an invalid action. Expected 'add' or 'delete'."},
        {"no gateway beside an interface", Value(Array{Value(interfaceOnly)}),
         "Route operation contains an invalid gateway."},
        {"isIPv6 as text", Value(Array{Value(textFlag)}), "Route operation contains an invalid IP-version flag."},
    };
    for (const auto& c : cases) {
        const Dictionary reply = helper.call("configureRoutes", {{"routeOperations", c.payload}});
        EXPECT_EQ(test::errorCodeOf(reply), 64) << c.what;
        EXPECT_EQ(test::errorMessageOf(reply), c.message) << c.what;
    }
    const Dictionary apply = helper.call("applyNetworkTransaction", {{"request", Dictionary{{"identifier", "x"}}}});
    EXPECT_EQ(test::errorMessageOf(apply), "Network transaction request is missing an action.");
    const Dictionary failed = configure({Value(routeOperation("add", "10.2.0.0/16", "t", "10.98.0.1"))});
    EXPECT_EQ(test::errorCodeOf(failed), 66);
    EXPECT_THAT(test::errorMessageOf(failed),
                HasSubstr("Route operation 'add' failed for destination '10.2.0.0/16' via gateway '10.98.0.1': "));
    EXPECT_FALSE(recordFile("t"));  // a failed first add leaves no transaction
}

TEST_F(NetworkTransactionServiceTest, TheSweepEndsNoProcessItDidNotStartAndReportsItAsStuck) {
    ASSERT_EQ(helper.start(), std::nullopt);
    // An ssh the helper did not start (the executable the type names), and
    // a process whose executable is another one.
    const test::BackgroundProgram ssh("", {"/usr/bin/ssh", "-F", "/dev/null", "-o", "ProxyCommand=sleep 600", "-o",
                                           "BatchMode=yes", "-N", "nohost"}, "/dev/null");
    const test::BackgroundProgram sleeper("", {"/bin/sleep", "600"}, "/dev/null");
    const pid_t sshPid = ssh.pid(), sleepPid = sleeper.pid();
    ASSERT_GT(sshPid, 0);
    ASSERT_GT(sleepPid, 0);

    ASSERT_EQ(test::errorCodeOf(configure({Value(routeOperation("add", "10.70.0.0/24", "stuck")),
                                           Value(routeOperation("add", "10.71.0.0/24", "reused"))})),
              0);
    for (const auto& [identifier, pid] : {std::pair{"stuck", sshPid}, std::pair{"reused", sleepPid}}) {
        helper.call("recordOwnerProcessPID", {{"pid", static_cast<std::int64_t>(pid)},
                                              {"serviceType", std::int64_t{2}},
                                              {"isAmneziaWG", false},
                                              {"transactionIdentifier", identifier}});
    }
    const Dictionary reply = apply("now", {Value("now")});
    EXPECT_EQ(test::errorCodeOf(reply), 74) << helper.helperLog();
    const Dictionary* error = reply.count("error") ? reply.at("error").asDictionary() : nullptr;
    ASSERT_TRUE(error);
    const Value expected(Dictionary{{"stuckOwnerProcessTransactionIdentifiers", Array{Value("stuck")}}});
    EXPECT_EQ(error->at("userInfo").asDictionary()->at("CSNetworkResetResult"), expected);
    EXPECT_TRUE(ssh.running());
    EXPECT_TRUE(sleeper.running());
    EXPECT_THAT(helper.helperLog(), HasSubstr("is no longer the expected executable ('/usr/bin/sleep' != "
                                              "'/usr/bin/ssh'); leaving it alone."));
    EXPECT_EQ(helperRouteCount(), 0u);
    EXPECT_FALSE(recordFile("stuck"));
    EXPECT_TRUE(recordFile("now"));
}

// The reset deletes only links that programs the helper started made (tun0
// and tap0 here are someone else's), and its bounce of an "en" link puts
// back the routes and addresses the kernel dropped when the link went down.
TEST_F(NetworkTransactionServiceTest, ResetLeavesOtherSoftwaresLinksAndKeepsTheBouncedLinksConfiguration) {
    ASSERT_EQ(helper.start(), std::nullopt);
    ASSERT_EQ(shell("ip tuntap add mode tun name tun0 && ip tuntap add mode tap name tap0"
                    " && ip link add en0 type veth peer name peer98 && ip link set peer98 up && ip link set en0 up"
                    " && ip addr add 10.98.0.1/24 dev en0 && ip addr add fd98::1/64 dev en0 nodad"
                    " && ip route add 10.97.0.0/24 via 10.98.0.2 && ip route add fd97::/64 via fd98::2")
                  .exitStatus,
              0);
    const auto state = [] {
        return shell("ip -4 route show dev en0; ip -6 route show dev en0 | grep -v fe80; "
                     "ip addr show dev en0 scope global | grep inet")
            .output;
    };
    const std::string before = state();
    ASSERT_THAT(before, HasSubstr("fd97::/64 via fd98::2"));

    for (const char* tunnel : {"", "tun0", "en0"}) {
        const Dictionary reply = helper.call("resetNetworkConfigurationForIdentifier",
                                             {{"identifier", "x"}, {"tunnelInterface", tunnel}});
        EXPECT_TRUE(reply.empty()) << tunnel << ": " << test::errorMessageOf(reply);
        EXPECT_EQ(state(), before) << tunnel;
    }
    EXPECT_EQ(shell("ip link show tun0 && ip link show tap0").exitStatus, 0);
    EXPECT_THAT(shell("ip link show en0").output, HasSubstr(",UP"));
    EXPECT_EQ(helper.helperLog().find("Could not put back"), std::string::npos) << helper.helperLog();
}

// The journal decides what a helper killed mid-request added: a route it
// announced and the kernel marks as the helper's goes; one that was there
// before the (failed) add stays.
TEST_F(NetworkTransactionServiceTest, AfterAKillARestartAndAResetRemoveWhatTheDeadHelperAdded) {
    ASSERT_EQ(helper.start(), std::nullopt);
    ASSERT_EQ(shell("ip route add 10.80.0.0/24 via 10.99.0.3").exitStatus, 0);

    Array operations;
    for (int i = 0; i < 10000; ++i) operations.emplace_back(routeOperation("add", hostDestination(i), "big"));
    std::thread request([&] { configure(operations); });
    EXPECT_TRUE(test::eventually([] { return helperRouteCount() >= 500; }, std::chrono::seconds(20)));
    ::kill(helper.helperPid(), SIGKILL);
    request.join();
    helper.stop();
    const std::size_t left = helperRouteCount();
    ASSERT_GT(left, 0u);

    // Two half-finished adds as a crash leaves them.
    const std::string stem = std::string(kStoreDirectory) + transactionFileStem("crashed");
    writeFileAtomically(stem + ".plist", writeXMLPropertyList(Value(fullTransactionRecord("crashed"))), 0600);
    ASSERT_EQ(shell("ip route add 10.81.0.0/24 via 10.99.0.2 proto 75").exitStatus, 0);
    std::ofstream(stem + ".journal") << journalIntentLine(1, routeOperation("add", "10.80.0.0/24", "crashed", "10.99.0.3"))
                                     << journalIntentLine(2, routeOperation("add", "10.81.0.0/24", "crashed"));

    HelperFixture restarted;
    ASSERT_EQ(restarted.start(), std::nullopt);
    EXPECT_EQ(shell("ip -4 route show 10.80.0.0/24").output, "10.80.0.0/24 via 10.99.0.3 dev ktx0 \n");
    EXPECT_EQ(shell("ip -4 route show 10.81.0.0/24").output, "");
    const Dictionary reply = restarted.call("applyNetworkTransaction",
                                            {{"request", Dictionary{{"identifier", "after"},
                                                                    {"action", "reset-network"},
                                                                    {"activeTransactionIdentifiers", Array{}}}}});
    EXPECT_EQ(test::errorCodeOf(reply), 0) << restarted.helperLog();
    EXPECT_EQ(helperRouteCount(), 0u) << "left by the kill: " << left;
    EXPECT_THAT(restarted.helperLog(), HasSubstr("Restored stale network transaction 'big'."));
    restarted.stop();
}

}  // namespace
}  // namespace korvo
