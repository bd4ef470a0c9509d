// Tunnel DNS through the helper onto the real systemd-resolved: Debian's
// program, unpacked by scripts/setup into a directory of its own (never
// installed), serving on the test's private system bus in the test's
// namespaces. The home network's server is resolved's global DNS; the
// tunnel's server is set on the tunnel link; getent asks resolved's stub.
#include <unistd.h>

#include <cstdlib>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/linux/dns/ResolvedLinks.h"
#include "support/HelperFixture.h"
#include "support/TestSupport.h"
#include "util/PropertyList.h"

namespace korvo::test {
namespace {

const std::string kResolvedRoot = KORVO_RESOLVED_ROOT;
const std::string kResolved = kResolvedRoot + "/lib/systemd/systemd-resolved";
const std::string kLink = "vh-korvo-peer";
const std::string kStub = "nameserver 127.0.0.53\noptions edns0 trust-ad\n";
constexpr uid_t kResolveUser = 991;

class ResolvedDnsServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        if (::access(kResolved.c_str(), X_OK) != 0) GTEST_SKIP() << kResolved << " missing: run scripts/setup";
        // resolved runs as its own user, which this machine does not have.
        const std::string user = "systemd-resolve:x:991:991::/:/usr/sbin/nologin\n";
        work.write("passwd", fileText("/etc/passwd") + user);
        work.write("group", fileText("/etc/group") + "systemd-resolve:x:991:\n");
        work.write("resolv.conf", kStub);
        std::filesystem::create_directories(work.file("varlib"));
        std::filesystem::create_directories(work.file("run"));
        for (const auto& [file, target] : {std::pair{"passwd", "/etc/passwd"}, std::pair{"group", "/etc/group"},
                                           std::pair{"resolv.conf", "/etc/resolv.conf"},
                                           std::pair{"varlib", "/var/lib"}, std::pair{"run", "/var/run/Korvo"}}) {
            mounts.push_back(std::make_unique<BindMount>(work.file(file), target));
            ASSERT_TRUE(mounts.back()->ok()) << target;
        }
        // /run is the namespace's own. No fallback servers: nothing may be
        // asked but the servers of this test.
        std::filesystem::create_directories("/run/systemd/resolve");
        std::filesystem::create_directories("/run/systemd/resolved.conf.d");
        ASSERT_EQ(::chown("/run/systemd/resolve", kResolveUser, kResolveUser), 0);
        std::ofstream("/run/systemd/resolved.conf.d/korvo-test.conf")
            << "[Resolve]\nDNS=192.168.77.3\nFallbackDNS=\nLLMNR=no\nMulticastDNS=no\nDNSSEC=no\nCache=no\n";

        ASSERT_TRUE(peer.ok()) << peer.problem();
        ASSERT_EQ(peer.exec("ip addr add 192.168.77.3/24 dev vp-korvo-peer").exitStatus, 0);
        servers.push_back(startDnsServer(peer, "192.168.77.3", "printer.home.test", "10.66.6.6", "home.test",
                                         work.file("home.log")));
        servers.push_back(startDnsServer(peer, "192.168.77.2", "intranet.corp.test", "10.77.7.7", "corp.test",
                                         work.file("tunnel.log")));

        HelperFixture::Options options;
        options.extraBusPolicy = "  <include ignore_missing=\"no\">" + kResolvedRoot +
                                 "/usr/share/dbus-1/system.d/org.freedesktop.resolve1.conf</include>\n";
        helper = std::make_unique<HelperFixture>(options);
        ASSERT_EQ(helper->start(), std::nullopt);
        // Its log goes to its standard error (a file here), never to the machine's log.
        ::setenv("SYSTEMD_LOG_TARGET", "console", 1);
        resolved = std::make_unique<BackgroundProgram>("", std::vector<std::string>{kResolved}, work.file("resolved.log"));
        ASSERT_TRUE(eventually([] { return platform::dns::ResolvedLinks::running(); }, std::chrono::seconds(10)))
            << fileText(work.file("resolved.log"));
        ASSERT_TRUE(eventually([] { return lookUpHost("printer.home.test") == "10.66.6.6"; }, std::chrono::seconds(10)))
            << fileText(work.file("resolved.log"));
    }

    void TearDown() override {
        if (helper) helper->stop();
        resolved.reset();
        servers.clear();
    }

    Dictionary publish(const std::vector<std::string>& searchDomains, const std::string& link = kLink) {
        return helper->publishDns("a", "192.168.77.2", searchDomains, link, {"a"});
    }

    Dictionary restore() { return helper->call("restoreNetworkTransactionWithIdentifier", {{"identifier", "tx-a"}}); }

    Dictionary projection() const {
        const auto value = readPropertyList(fileText("/var/run/Korvo/dynamic-store/projection.plist"));
        return value && value->asDictionary() ? *value->asDictionary() : Dictionary{};
    }

    TempDir work;
    std::vector<std::unique_ptr<BindMount>> mounts;
    PeerNamespace peer;
    std::vector<std::unique_ptr<BackgroundProgram>> servers;
    std::unique_ptr<HelperFixture> helper;
    std::unique_ptr<BackgroundProgram> resolved;
};

TEST_F(ResolvedDnsServiceTest, SplitRoutesOnlyTheTunnelDomainToTheTunnel) {
    ASSERT_EQ(publish({"corp.test"}), Dictionary{}) << helper->helperLog();
    EXPECT_EQ(projection().at("Backend"), Value("systemd-resolved"));
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");  // still the home server's
    // The search domain reaches programs through resolved's stub file.
    ASSERT_EQ(shell("cat /run/systemd/resolve/stub-resolv.conf > /etc/resolv.conf").exitStatus, 0);
    EXPECT_EQ(lookUpHost("intranet"), "10.77.7.7");
    ASSERT_EQ(shell("printf '" + std::string("nameserver 127.0.0.53\\noptions edns0 trust-ad\\n") + "' > /etc/resolv.conf").exitStatus, 0);
    ASSERT_EQ(restore(), Dictionary{});
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "");
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");
    EXPECT_EQ(fileText("/etc/resolv.conf"), kStub);  // never touched with resolved
}

TEST_F(ResolvedDnsServiceTest, TakeoverSendsEveryQueryToTheTunnel) {
    ASSERT_EQ(publish({}), Dictionary{}) << helper->helperLog();
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "10.77.7.7");
    EXPECT_EQ(lookUpHost("printer.home.test"), "");
    ASSERT_EQ(restore(), Dictionary{});
    EXPECT_EQ(lookUpHost("printer.home.test"), "10.66.6.6");
    EXPECT_EQ(lookUpHost("intranet.corp.test"), "");
}

// The client names the interface: a link whose DNS another manager set (as
// NetworkManager does over the same API) is not the helper's to change.
TEST_F(ResolvedDnsServiceTest, ALinkWithAnotherManagersDnsIsLeftAlone) {
    ASSERT_EQ(shell("ip link del home0 2>/dev/null; ip link add home0 type veth peer name home1 && ip link set home0 up")
                  .exitStatus,
              0);
    const std::string index = shell("ip -o link show home0 | cut -d: -f1").output;
    ASSERT_EQ(shell("busctl --system call org.freedesktop.resolve1 /org/freedesktop/resolve1 "
                    "org.freedesktop.resolve1.Manager SetLinkDNS 'ia(iay)' " + index.substr(0, index.find('\n')) +
                    " 1 2 4 192 168 77 3").exitStatus, 0);
    EXPECT_EQ(errorMessageOf(publish({}, "home0")), "Could not update DNS settings.");
    EXPECT_TRUE(helper->waitForLog("Error: Not setting the VPN's DNS on 'home0': another program manages its DNS."));
    const auto servers = shell(kResolvedRoot + "/usr/bin/resolvectl dns home0").output;
    EXPECT_NE(servers.find("192.168.77.3"), std::string::npos) << servers;
    EXPECT_EQ(servers.find("192.168.77.2"), std::string::npos) << servers;
    EXPECT_EQ(restore(), Dictionary{});
    shell("ip link del home0");
}

}  // namespace
}  // namespace korvo::test
