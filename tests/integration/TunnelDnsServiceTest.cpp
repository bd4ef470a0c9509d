// Tunnel DNS through the real helper on a private bus: the helper projects
// what it publishes onto a private /etc/resolv.conf (bind-mounted, as in a
// container), dnsmasq in a peer namespace plays the tunnels' DNS servers and
// the home network's, and getent is the user's view. Each connection opens
// its transaction first and restores it at the end, as the client does.
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <tuple>

#include <gtest/gtest.h>

#include "support/HelperFixture.h"
#include "support/TestSupport.h"

namespace korvo::test {
namespace {

// The machine's own file: no final line feed, so that a restore that is not
// byte for byte shows.
const std::string kOriginal =
    "# home network\nnameserver 192.168.77.3\nsearch home.test\noptions timeout:1 attempts:1";
const std::string kTunnelA = "192.168.77.2", kTunnelB = "192.168.77.5";
const std::string kLink = "vh-korvo-peer";

class TunnelDnsServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        std::filesystem::create_directories(work.file("varlib"));
        work.write("resolv.conf", kOriginal);
        std::filesystem::create_directories(work.file("run"));
        // The run directory too, so that no test finds another's store.
        for (const auto& [file, target] : {std::pair{"resolv.conf", "/etc/resolv.conf"},
                                           std::pair{"varlib", "/var/lib"}, std::pair{"run", "/var/run/Korvo"}}) {
            mounts.push_back(std::make_unique<BindMount>(work.file(file), target));
            ASSERT_TRUE(mounts.back()->ok()) << target;
        }
        ASSERT_TRUE(peer.ok()) << peer.problem();
        ASSERT_EQ(peer.exec("ip addr add 192.168.77.3/24 dev vp-korvo-peer").exitStatus, 0);
        ASSERT_EQ(peer.exec("ip addr add 192.168.77.5/24 dev vp-korvo-peer").exitStatus, 0);
        for (const auto& [address, host, hostAddress, domain] :
             {std::tuple{"192.168.77.3", "printer.home.test", "10.66.6.6", "home.test"},
              std::tuple{"192.168.77.2", "intranet.corp.test", "10.77.7.7", "corp.test"},
              std::tuple{"192.168.77.5", "vault.b.test", "10.55.5.5", "b.test"}}) {
            servers.push_back(startDnsServer(peer, address, host, hostAddress, domain, work.file(host)));
        }
        ASSERT_TRUE(eventually([] { return lookUpHost("printer.home.test") == "10.66.6.6"; }, std::chrono::seconds(10)));
        ASSERT_EQ(helper.start(), std::nullopt);
    }

    void TearDown() override {
        helper.stop();
        servers.clear();
    }

    Dictionary publish(const std::string& service, const std::string& server,
                       const std::vector<std::string>& searchDomains = {}) {
        return helper.publishDns(service, server, searchDomains, kLink, {"a", "b"});
    }
    static Dictionary restore(HelperFixture& helper, const std::string& service) {
        return helper.call("restoreNetworkTransactionWithIdentifier", {{"identifier", "tx-" + service}});
    }
    Dictionary restore(const std::string& service) { return restore(helper, service); }

    TempDir work;
    std::vector<std::unique_ptr<BindMount>> mounts;
    PeerNamespace peer;
    std::vector<std::unique_ptr<BackgroundProgram>> servers;
    HelperFixture helper;
};

TEST_F(TunnelDnsServiceTest, TakeoverAsksOnlyTheTunnelAndRestoreGivesTheFileBackByteForByte) {
    ASSERT_EQ(publish("a", kTunnelA), Dictionary{}) << helper.helperLog();
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("printer.home.test"), "");  // the home server is no longer asked
    ASSERT_EQ(restore("a"), Dictionary{});
    EXPECT_EQ(fileText("/etc/resolv.conf"), kOriginal);
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "");
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");
}

TEST_F(TunnelDnsServiceTest, SplitAsksTheTunnelFirstAndUsesItsSearchDomain) {
    const Dictionary transaction{
        {"identifier", "tx-a"}, {"action", "reset-network"}, {"activeTransactionIdentifiers", strings({"tx-a"})}};
    ASSERT_EQ(helper.call("applyNetworkTransaction", {{"request", transaction}}), Dictionary{});
    const auto sent = helper.runClient({HelperFixture::korvoctlPath(), "updateNameServerAddresses",
                                        "nameServerAddresses=" + kTunnelA, "searchDomains=corp.test",
                                        "serviceIdentifier=a", "interfaceName=" + kLink,
                                        "IPv4Addresses=192.168.77.1", "transactionIdentifier=tx-a"});
    ASSERT_EQ(sent.exitStatus, 0) << sent.standardError << helper.helperLog();
    const auto shown = helper.runClient({HelperFixture::korvoctlPath(), "dns"});
    EXPECT_NE(shown.standardOutput.find("State:/Network/Service/a/DNS = {SearchDomains: [corp.test], "
                                        "ServerAddresses: [192.168.77.2]}"),
              std::string::npos)
        << shown.standardOutput;
    EXPECT_NE(shown.standardOutput.find("resolver: resolv.conf /etc/resolv.conf\n  written:\n"), std::string::npos)
        << shown.standardOutput;
    EXPECT_NE(shown.standardOutput.find("    nameserver 192.168.77.2\n    nameserver 192.168.77.3\n"
                                        "    search corp.test home.test\n"),
              std::string::npos)
        << shown.standardOutput;
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("intranet"), "10.77.7.7");
    // The tunnel's server refuses names outside its domain, so glibc asks
    // the home server next; a server that answered NXDOMAIN would end it.
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");
    ASSERT_EQ(restore("a"), Dictionary{});
    EXPECT_EQ(fileText("/etc/resolv.conf"), kOriginal);
    EXPECT_EQ(lookUpHost("intranet"), "");
}

TEST_F(TunnelDnsServiceTest, AHelperKilledInTheMiddleKeepsTheTunnelDnsAndRestoresAfterRestart) {
    ASSERT_EQ(publish("a", kTunnelA, {"corp.test"}), Dictionary{});
    const std::string written = fileText("/etc/resolv.conf");
    ASSERT_EQ(::kill(helper.helperPid(), SIGKILL), 0);
    ASSERT_EQ(helper.waitForHelperExit(), -1);
    helper.stop();
    HelperFixture restarted;
    ASSERT_EQ(restarted.start(), std::nullopt);
    EXPECT_EQ(fileText("/etc/resolv.conf"), written);
    EXPECT_EQ(lookUpHost("intranet"), "10.77.7.7");
    ASSERT_EQ(restore(restarted, "a"), Dictionary{});
    EXPECT_EQ(fileText("/etc/resolv.conf"), kOriginal);
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "");
}

// Two connections that both take over DNS. The second one's snapshot of the
// global entry holds the first one's value (the first capture wins), so what
// the resolver gets depends on the order of the restores.
class TwoConnectionsTest : public TunnelDnsServiceTest {
protected:
    void SetUp() override {
        TunnelDnsServiceTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_EQ(publish("a", kTunnelA), Dictionary{});
        ASSERT_EQ(publish("b", kTunnelB), Dictionary{});
        EXPECT_EQ(lookUpHost("vault.b.test"), "10.55.5.5");
        EXPECT_EQ(lookUpHost("intranet.corp.test"), "");
    }
};

TEST_F(TwoConnectionsTest, SecondRestoredFirst) {
    ASSERT_EQ(restore("b"), Dictionary{});  // the first connection's global entry is back
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("vault.b.test"), "");
    ASSERT_EQ(restore("a"), Dictionary{});
    EXPECT_EQ(fileText("/etc/resolv.conf"), kOriginal);
}

TEST_F(TwoConnectionsTest, FirstRestoredFirst) {
    // The first one's restore removes the global entry: the second
    // connection is left with its service DNS, asked first.
    ASSERT_EQ(restore("a"), Dictionary{});
    EXPECT_EQ(lookUpHost("vault.b.test"), "10.55.5.5");
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");
    // The second one's restore puts the global entry back as it found it:
    // the first connection's servers, though that connection is gone, and
    // no transaction is left to remove it.
    ASSERT_EQ(restore("b"), Dictionary{});
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("printer.home.test"), "");
    // A reboot empties the run directory, and the helper's start puts the
    // machine's file back.
    helper.stop();
    ASSERT_EQ(::unlink("/var/run/Korvo/dynamic-store/store.plist"), 0);
    HelperFixture rebooted;
    ASSERT_EQ(rebooted.start(), std::nullopt);
    EXPECT_EQ(fileText("/etc/resolv.conf"), kOriginal);
}

TEST_F(TunnelDnsServiceTest, ARewriteByAnotherProgramIsWrittenOverAndKeptForTheRestore) {
    ASSERT_EQ(publish("a", kTunnelA), Dictionary{});
    // A DHCP client writes the file in place, as it must with a mounted one.
    const std::string dhcp = "nameserver 192.168.77.3\nsearch home.test\n";
    ASSERT_EQ(shell("printf 'nameserver 192.168.77.3\\nsearch home.test\\n' > /etc/resolv.conf").exitStatus, 0);
    EXPECT_TRUE(helper.waitForLog("was rewritten by another program while the VPN's DNS is in force"));
    EXPECT_TRUE(eventually([] { return lookUpHost("intranet.corp.test") == "10.77.7.7"; }));
    EXPECT_EQ(lookUpHost("printer.home.test"), "");
    ASSERT_EQ(restore("a"), Dictionary{});
    EXPECT_EQ(fileText("/etc/resolv.conf"), dhcp);
}

}  // namespace
}  // namespace korvo::test
