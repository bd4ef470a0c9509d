// WireGuard and AmneziaWG tunnels brought up by the real helper through the
// bus, with the real programs of the test bundle, against a wireguard-go
// peer in a second network namespace. Each test runs in namespaces of its
// own (tests/support/isolated).
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

#include "TestBundle.h"
#include "support/TestSupport.h"
#include "support/HelperFixture.h"

namespace korvo::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kBundlePath = KORVO_TEST_BUNDLE_PATH;

struct Variant {
    std::string operation;
    std::string displayName;
    std::string userspaceExecutable;
    std::string interfaceName;
};
void PrintTo(const Variant& variant, std::ostream* out) { *out << variant.displayName; }

class WireGuardTunnelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        work = workDir.path();
        tmp = work + "/tmp";
        std::filesystem::create_directories(tmp);
        // The peer's name resolves only through this private hosts file.
        std::ofstream(work + "/hosts") << "127.0.0.1 localhost\n" << kPeerAddress << " wg-peer.test\n";
        hosts = std::make_unique<BindMount>(work + "/hosts", "/etc/hosts");
        ASSERT_TRUE(hosts->ok());

        ASSERT_EQ(helper.start(), std::nullopt);
        helper.call("setKorvoBundlePath", {{"path", kBundlePath}});
        helper.call("setTmpDirPath", {{"path", tmp + "/"}});
    }

    void TearDown() override {
        helper.stop();
        hosts.reset();
    }

    // A client's configuration for a tunnel to the peer, with the keys only
    // the client uses (Address, DNS, MTU) and the endpoint given as a name.
    std::string writeConfig(const std::string& interfaceName, const KeyPair& keys, const std::string& peerPublicKey,
                            const std::string& file = "tunnel.conf") {
        return writeFile(file, "# KorvoInterfaceName = " + interfaceName +
                                   "\n[Interface]\nPrivateKey = " + keys.privateKey +
                                   "\nAddress = 10.77.0.2/24, fd77::2/64\nDNS = 10.77.0.53\nMTU = 1380\n\n"
                                   "[Peer]\nPublicKey = " +
                                   peerPublicKey +
                                   "\nAllowedIPs = 10.77.0.0/24, fd77::/64\nEndpoint = wg-peer.test:51820\n"
                                   "PersistentKeepalive = 25\n");
    }
    std::string writeFile(const std::string& name, const std::string& text) {
        std::ofstream(work + "/" + name) << text;
        return work + "/" + name;
    }

    Dictionary connect(const std::string& operation, const std::string& configPath, std::uint64_t comPort = 0) {
        return helper.call(operation, {{"config", configPath}, {"comPort", comPort}});
    }

    // After a failed connect: no tunnel program left running, no zombie, no
    // runtime configuration left behind.
    void expectNothingLeftBehind() {
        EXPECT_TRUE(eventually([] { return processesNamed("wireguard-go").empty(); })) << "wireguard-go still runs";
        EXPECT_TRUE(eventually([] { return zombieProcesses().empty(); })) << "a zombie remains";
        EXPECT_TRUE(std::filesystem::is_empty(tmp)) << "runtime configuration left in " << tmp;
    }

    HelperFixture helper;
    const TempDir workDir;
    std::string work;
    std::string tmp;
    std::unique_ptr<BindMount> hosts;
};

class WireGuardTunnelVariantTest : public WireGuardTunnelTest, public ::testing::WithParamInterface<Variant> {};

TEST_P(WireGuardTunnelVariantTest, TunnelCarriesTrafficBothWaysAndEndsOnSigint) {
    const Variant& variant = GetParam();
    // AmneziaWG's programs here are WireGuard's under other names: they keep
    // their sockets where WireGuard's do, and the helper looks in AmneziaWG's
    // directory.
    std::unique_ptr<BindMount> amneziaSockets;
    if (variant.displayName == "AmneziaWG") {
        std::filesystem::create_directories("/var/run/wireguard");
        amneziaSockets = std::make_unique<BindMount>("/var/run/wireguard", "/var/run/amneziawg");
        ASSERT_TRUE(amneziaSockets->ok());
    }
    PeerNamespace peer;
    ASSERT_TRUE(peer.ok()) << peer.problem();
    const KeyPair peerKeys = generateKeyPair();
    const KeyPair helperKeys = generateKeyPair();
    ASSERT_EQ(peer.startWireGuard("kwgpeer0", peerKeys, 51820, helperKeys.publicKey, work), "");

    ComPortListener comPort;
    ASSERT_NE(comPort.port(), 0u);
    const Dictionary reply =
        connect(variant.operation, writeConfig(variant.interfaceName, helperKeys, peerKeys.publicKey), comPort.port());
    ASSERT_EQ(errorCodeOf(reply), 0) << errorMessageOf(reply) << "\n" << helper.helperLog();

    // The reply names the running tunnel program, whose streams reach the
    // client's com port.
    const auto pid = static_cast<pid_t>(pidOf(reply));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe"),
              kBundlePath + "/Contents/MacOS/" + variant.userspaceExecutable);
    EXPECT_TRUE(comPort.connected(std::chrono::seconds(5)));

    // The endpoint's name was resolved before the program saw it, and the
    // runtime configuration file is gone.
    EXPECT_EQ(shell("wg show " + variant.interfaceName + " endpoints").output,
              peerKeys.publicKey + "\t" + kPeerAddress + ":51820\n");
    EXPECT_TRUE(
        helper.waitForLog("Rewriting WireGuard endpoint 'wg-peer.test:51820' to IPv4 endpoint "
                          "'192.168.77.2:51820' for runtime configuration."));
    EXPECT_TRUE(std::filesystem::is_empty(tmp));

    // Up, with a host address and the IPv6 address with its prefix.
    EXPECT_THAT(shell("ip -o link show dev " + variant.interfaceName).output, HasSubstr(",UP"));
    EXPECT_THAT(shell("ip -o addr show dev " + variant.interfaceName).output,
                AllOf(HasSubstr("inet 10.77.0.2/32"), HasSubstr("inet6 fd77::2/64")));

    // With a route (the client's next request), traffic crosses both ways.
    ASSERT_EQ(shell("ip route add 10.77.0.0/24 dev " + variant.interfaceName).exitStatus, 0);
    const ShellResult outbound = shell("ping -c 1 -W 5 10.77.0.1");
    EXPECT_EQ(outbound.exitStatus, 0) << outbound.output;
    const ShellResult inbound = peer.exec("ping -c 1 -W 5 10.77.0.2");
    EXPECT_EQ(inbound.exitStatus, 0) << inbound.output;
    EXPECT_THAT(shell("wg show kwgpeer0 latest-handshakes").output,
                AllOf(HasSubstr(helperKeys.publicKey), Not(HasSubstr("\t0\n"))));

    // The client's disconnect: SIGINT to the reply's pid ends the tunnel.
    ASSERT_EQ(::kill(pid, SIGINT), 0);
    EXPECT_TRUE(eventually([&] { return shell("ip link show dev " + variant.interfaceName).exitStatus != 0; }));
    EXPECT_TRUE(eventually([] { return zombieProcesses().empty(); }));
}

INSTANTIATE_TEST_SUITE_P(
    Variants, WireGuardTunnelVariantTest,
    ::testing::Values(Variant{"connectWireGuardWithConfig", "WireGuard", "wireguard-go", "kwgtun0"},
                      Variant{"connectAmneziaWGWithConfig", "AmneziaWG", "amneziawg-go", "kawgtun0"}),
    [](const auto& info) { return info.param.displayName; });

TEST_F(WireGuardTunnelTest, ProgramThatExitsAtOnceIsReportedWithItsOutput) {
    // The loopback link is no tun device: wireguard-go gives up at once.
    const Dictionary reply =
        connect("connectWireGuardWithConfig", writeConfig("lo", generateKeyPair(), generateKeyPair().publicKey));
    EXPECT_EQ(errorCodeOf(reply), 55);
    EXPECT_EQ(pidOf(reply), -1);
    EXPECT_THAT(errorMessageOf(reply),
                AllOf(HasSubstr("WireGuard userspace backend terminated before its control socket became available. "
                                "Backend output: "),
                      HasSubstr("Failed to create TUN device")));
    expectNothingLeftBehind();
}

TEST_F(WireGuardTunnelTest, ConfigurationRejectedBySetconfStopsTheProgram) {
    const Dictionary reply = connect(
        "connectWireGuardWithConfig",
        writeFile("badkey.conf",
                  "# KorvoInterfaceName = kwgbad0\n[Interface]\nPrivateKey = not-a-key\nAddress = 10.77.0.2\n"));
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_EQ(pidOf(reply), -1);
    EXPECT_THAT(errorMessageOf(reply), HasSubstr("Key is not the correct length or format"));
    expectNothingLeftBehind();
    EXPECT_TRUE(eventually([] { return shell("ip link show dev kwgbad0").exitStatus != 0; }));
}

TEST_F(WireGuardTunnelTest, RefusedBeforeAnyProgramStarts) {
    const KeyPair keys = generateKeyPair();
    const std::string noName = writeFile("noname.conf", "#KorvoInterfaceName=\n[Interface]\nPrivateKey = k\n");
    const std::string good = writeConfig("kwgref0", keys, keys.publicKey);
    const std::vector<std::tuple<std::string, std::string, std::int64_t, std::string>> cases = {
        {"connectWireGuardWithConfig", noName, 64, "WireGuard interface name is missing in configuration."},
        {"connectAmneziaWGWithConfig", noName, 64, "AmneziaWG interface name is missing in configuration."},
        // Names that would be an option of the program or leave its socket directory.
        {"connectWireGuardWithConfig", writeFile("option.conf", "#KorvoInterfaceName=-f\n[Interface]\n"), 64,
         "WireGuard interface name is not valid in configuration."},
        {"connectAmneziaWGWithConfig", writeFile("path.conf", "#KorvoInterfaceName=../../x\n[Interface]\n"), 64,
         "AmneziaWG interface name is not valid in configuration."},
        {"connectWireGuardWithConfig", writeFile("empty.conf", ""), 1, "Could not parse WireGuard configuration file."},
        {"connectWireGuardWithConfig", work + "/missing.conf", 62,
         "WireGuard config file not found at " + work + "/missing.conf"},
    };
    for (const auto& [operation, config, code, message] : cases) {
        const Dictionary reply = connect(operation, config);
        EXPECT_EQ(errorCodeOf(reply), code) << message;
        EXPECT_EQ(errorMessageOf(reply), message);
        EXPECT_EQ(pidOf(reply), -1);
    }

    // A bundle holding the tunnel program but not the control program.
    const std::string bundle = work + "/Partial.app";
    std::filesystem::create_directories(bundle + "/Contents/MacOS");
    std::filesystem::copy_file(kBundlePath + "/Contents/MacOS/wireguard-go", bundle + "/Contents/MacOS/wireguard-go");
    helper.call("setKorvoBundlePath", {{"path", bundle}});
    EXPECT_EQ(errorMessageOf(connect("connectWireGuardWithConfig", good)),
              "WireGuard control executable 'wg' not found in app bundle.");
    EXPECT_EQ(errorMessageOf(connect("connectAmneziaWGWithConfig", good)),
              "AmneziaWG launcher executable 'amneziawg-go' not found in app bundle.");

    EXPECT_THAT(processesNamed("wireguard-go"), IsEmpty());
    EXPECT_THAT(zombieProcesses(), IsEmpty());
}

}  // namespace
}  // namespace korvo::test
