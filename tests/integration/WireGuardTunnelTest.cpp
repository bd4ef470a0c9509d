// WireGuard and AmneziaWG tunnels brought up by the real helper through the
// bus, with the real programs of the test bundle, against a wireguard-go
// peer in a second network namespace. Each test runs in namespaces of its
// own (tests/support/isolated).
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "WireGuardTestNetwork.h"
#include "support/HelperFixture.h"
#include "TestBundle.h"

namespace korvo::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int kPeerListenPort = 51820;
constexpr const char* kPeerHostName = "wg-peer.test";
const std::string kBundlePath = KORVO_TEST_BUNDLE_PATH;

std::string readlinkOf(const std::string& path) {
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

std::string errorDescription(const Dictionary& reply) {
    const auto it = reply.find("error");
    if (it == reply.end() || !it->second.asDictionary()) return "";
    return stringForKey(*it->second.asDictionary(), "description").value_or("");
}

std::int64_t errorCode(const Dictionary& reply) {
    const auto it = reply.find("error");
    if (it == reply.end() || !it->second.asDictionary()) return 0;
    const auto& error = *it->second.asDictionary();
    const auto code = error.find("code");
    return code == error.end() ? 0 : code->second.integerValue().value_or(0);
}

std::int64_t replyPid(const Dictionary& reply) {
    const auto it = reply.find("pid");
    return it == reply.end() ? 0 : it->second.integerValue().value_or(0);
}

// A TCP listener on the loopback interface standing in for the client's com
// port: it accepts the one connection the tunnel program's streams use.
class ComPortListener {
public:
    ComPortListener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(fd_, 1) == 0 &&
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            port_ = ntohs(address.sin_port);
        }
        accepted_ = std::async(std::launch::async, [fd = fd_] { return ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC); }).share();
    }
    ~ComPortListener() {
        ::shutdown(fd_, SHUT_RDWR);
        const int connection = accepted_.get();
        if (connection >= 0) ::close(connection);
        ::close(fd_);
    }
    std::uint64_t port() const { return port_; }
    bool connected(std::chrono::milliseconds timeout) {
        return accepted_.wait_for(timeout) == std::future_status::ready && accepted_.get() >= 0;
    }

private:
    int fd_ = -1;
    std::uint64_t port_ = 0;
    std::shared_future<int> accepted_;
};

// What each variant of the request names.
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
        char pattern[] = "/tmp/korvo-wg-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        workDirectory = pattern;
        tmpDirectory = workDirectory + "/tmp";
        std::filesystem::create_directories(tmpDirectory);
        hosts = std::make_unique<PrivateHosts>(workDirectory, std::string("127.0.0.1 localhost\n192.168.77.2 ") +
                                                                  kPeerHostName + "\n");
        ASSERT_TRUE(hosts->ok());

        ASSERT_EQ(helper.start(), std::nullopt);
        helper.call("setKorvoBundlePath", {{"path", kBundlePath}});
        helper.call("setTmpDirPath", {{"path", tmpDirectory + "/"}});
    }

    void TearDown() override {
        helper.stop();
        hosts.reset();
        std::error_code ignored;
        if (!workDirectory.empty()) std::filesystem::remove_all(workDirectory, ignored);
    }

    std::string writeConfig(const std::string& name, const std::string& text) {
        const std::string path = workDirectory + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

    // A client's configuration for a tunnel to the peer, with the keys that
    // only the client uses (Address, DNS, MTU) and the endpoint as a name.
    std::string tunnelConfig(const std::string& interfaceName, const KeyPair& keys, const std::string& peerPublicKey) {
        return "# KorvoInterfaceName = " + interfaceName +
               "\n"
               "[Interface]\n"
               "PrivateKey = " + keys.privateKey +
               "\n"
               "Address = 10.77.0.2/24, fd77::2/64\n"
               "DNS = 10.77.0.53\n"
               "MTU = 1380\n"
               "\n"
               "[Peer]\n"
               "PublicKey = " + peerPublicKey +
               "\n"
               "AllowedIPs = 10.77.0.0/24, fd77::/64\n"
               "Endpoint = " + kPeerHostName + ":" + std::to_string(kPeerListenPort) +
               "\n"
               "PersistentKeepalive = 25\n";
    }

    Dictionary connect(const std::string& operation, const std::string& configPath, std::uint64_t comPort = 0) {
        return helper.call(operation, {{"config", configPath}, {"comPort", comPort}});
    }

    // After a failed connect: the tunnel program has gone, nothing is left
    // as a zombie, and the runtime configuration file is not left behind.
    void expectNothingLeftBehind(const std::string& programName) {
        EXPECT_TRUE(eventually([&] { return processesNamed(programName).empty(); }))
            << programName << " still running";
        EXPECT_TRUE(eventually([] { return zombieProcesses().empty(); })) << "a zombie remains";
        EXPECT_THAT(std::filesystem::is_empty(tmpDirectory), true) << "runtime configuration left in tmp";
    }

    HelperFixture helper;
    std::string workDirectory;
    std::string tmpDirectory;
    std::unique_ptr<PrivateHosts> hosts;
};

class WireGuardTunnelVariantTest : public WireGuardTunnelTest, public ::testing::WithParamInterface<Variant> {};

TEST_P(WireGuardTunnelVariantTest, TunnelCarriesTrafficBothWaysAndEndsOnSigint) {
    const Variant& variant = GetParam();
    // AmneziaWG's programs here are WireGuard's under other names: they keep
    // their sockets in the WireGuard directory, where the helper looks for
    // AmneziaWG's.
    std::unique_ptr<DirectoryAlias> amneziaSockets;
    if (variant.displayName == "AmneziaWG") {
        amneziaSockets = std::make_unique<DirectoryAlias>("/var/run/wireguard", "/var/run/amneziawg");
        ASSERT_TRUE(amneziaSockets->ok());
    }

    PeerNamespace peer;
    ASSERT_EQ(peer.create(), "");
    const KeyPair peerKeys = generateKeyPair();
    const KeyPair helperKeys = generateKeyPair();
    ASSERT_EQ(peer.startWireGuard("kwgpeer0", peerKeys, kPeerListenPort, helperKeys.publicKey, "10.77.0.2/32",
                                  "10.77.0.1", "10.77.0.2/32", workDirectory),
              "");

    const std::string configPath =
        writeConfig("tunnel.conf", tunnelConfig(variant.interfaceName, helperKeys, peerKeys.publicKey));
    ComPortListener comPort;
    ASSERT_NE(comPort.port(), 0u);
    const Dictionary reply = connect(variant.operation, configPath, comPort.port());
    ASSERT_EQ(reply.count("error"), 0u) << errorDescription(reply) << "\n" << helper.helperLog();

    // The reply names the running tunnel program, whose streams reach the
    // client's com port.
    const auto pid = static_cast<pid_t>(replyPid(reply));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(readlinkOf("/proc/" + std::to_string(pid) + "/exe"),
              kBundlePath + "/Contents/MacOS/" + variant.userspaceExecutable);
    EXPECT_TRUE(comPort.connected(std::chrono::seconds(5)));

    // The endpoint name was resolved through the private hosts file before
    // the program saw it; the runtime configuration file is gone.
    EXPECT_EQ(shell("wg show " + variant.interfaceName + " endpoints").output,
              peerKeys.publicKey + "\t192.168.77.2:51820\n");
    EXPECT_TRUE(helper.waitForLog("Rewriting WireGuard endpoint 'wg-peer.test:51820' to IPv4 endpoint "
                                  "'192.168.77.2:51820' for runtime configuration."));
    EXPECT_TRUE(std::filesystem::is_empty(tmpDirectory));

    // Up, with a host address and the IPv6 address with its prefix.
    const std::string link = shell("ip -o link show dev " + variant.interfaceName).output;
    EXPECT_THAT(link, HasSubstr(",UP"));
    const std::string addresses = shell("ip -o addr show dev " + variant.interfaceName).output;
    EXPECT_THAT(addresses, AllOf(HasSubstr("inet 10.77.0.2/32"), HasSubstr("inet6 fd77::2/64")));

    // With a route (the client's job), traffic crosses in both directions.
    ASSERT_EQ(shell("ip route add 10.77.0.0/24 dev " + variant.interfaceName).exitStatus, 0);
    const ShellResult outbound = shell("ping -c 1 -W 5 10.77.0.1");
    EXPECT_EQ(outbound.exitStatus, 0) << outbound.output;
    const ShellResult inbound = peer.exec("ping -c 1 -W 5 10.77.0.2");
    EXPECT_EQ(inbound.exitStatus, 0) << inbound.output;
    EXPECT_THAT(shell("wg show kwgpeer0 latest-handshakes").output,
                AllOf(HasSubstr(helperKeys.publicKey), Not(HasSubstr("\t0\n"))));

    // The client's disconnect: SIGINT to the pid of the reply ends the tunnel.
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
    const KeyPair keys = generateKeyPair();
    // Longer than any interface name may be: wireguard-go gives up at once.
    const std::string configPath =
        writeConfig("long.conf", tunnelConfig("kwg-name-much-too-long", keys, generateKeyPair().publicKey));
    const Dictionary reply = connect("connectWireGuardWithConfig", configPath);
    EXPECT_EQ(errorCode(reply), 55);
    EXPECT_EQ(replyPid(reply), -1);
    EXPECT_THAT(errorDescription(reply),
                AllOf(HasSubstr("WireGuard userspace backend terminated before its control socket became available. "
                                "Backend output: "),
                      HasSubstr("interface name too long")));
    expectNothingLeftBehind("wireguard-go");
}

TEST_F(WireGuardTunnelTest, ConfigurationRejectedBySetconfStopsTheProgram) {
    const std::string configPath = writeConfig("badkey.conf",
                                               "# KorvoInterfaceName = kwgbad0\n"
                                               "[Interface]\n"
                                               "PrivateKey = not-a-key\n"
                                               "Address = 10.77.0.2/32\n");
    const Dictionary reply = connect("connectWireGuardWithConfig", configPath);
    EXPECT_EQ(errorCode(reply), 68);
    EXPECT_EQ(replyPid(reply), -1);
    EXPECT_THAT(errorDescription(reply), HasSubstr("Key is not the correct length or format"));
    expectNothingLeftBehind("wireguard-go");
    EXPECT_TRUE(eventually([] { return shell("ip link show dev kwgbad0").exitStatus != 0; }));
}

TEST_F(WireGuardTunnelTest, RefusedBeforeAnyProgramStarts) {
    const KeyPair keys = generateKeyPair();
    struct Case {
        std::string operation;
        std::string configPath;
        std::int64_t code;
        std::string message;
    };
    const std::string noName = writeConfig("noname.conf",
                                           "#KorvoInterfaceName=\n"
                                           "[Interface]\n"
                                           "PrivateKey = " + keys.privateKey + "\n");
    const std::string empty = writeConfig("empty.conf", "");
    const std::string good = writeConfig("good.conf", tunnelConfig("kwgref0", keys, keys.publicKey));
    const std::vector<Case> cases = {
        {"connectWireGuardWithConfig", noName, 64, "WireGuard interface name is missing in configuration."},
        {"connectAmneziaWGWithConfig", noName, 64, "AmneziaWG interface name is missing in configuration."},
        {"connectWireGuardWithConfig", empty, 1, "Could not parse WireGuard configuration file."},
        {"connectWireGuardWithConfig", workDirectory + "/missing.conf", 62,
         "WireGuard config file not found at " + workDirectory + "/missing.conf"},
    };
    for (const Case& c : cases) {
        const Dictionary reply = connect(c.operation, c.configPath);
        EXPECT_EQ(errorCode(reply), c.code) << c.message;
        EXPECT_THAT(errorDescription(reply), ::testing::EndsWith("\n\n" + c.message));
        EXPECT_EQ(replyPid(reply), -1);
    }

    // A bundle holding the tunnel program but not the control program.
    const std::string bundle = workDirectory + "/Partial.app";
    std::filesystem::create_directories(bundle + "/Contents/MacOS");
    std::filesystem::copy_file(kBundlePath + "/Contents/MacOS/wireguard-go",
                               bundle + "/Contents/MacOS/wireguard-go");
    helper.call("setKorvoBundlePath", {{"path", bundle}});
    Dictionary reply = connect("connectWireGuardWithConfig", good);
    EXPECT_EQ(errorCode(reply), 62);
    EXPECT_THAT(errorDescription(reply), ::testing::EndsWith("WireGuard control executable 'wg' not found in app bundle."));
    reply = connect("connectAmneziaWGWithConfig", good);
    EXPECT_EQ(errorCode(reply), 62);
    EXPECT_THAT(errorDescription(reply),
                ::testing::EndsWith("AmneziaWG launcher executable 'amneziawg-go' not found in app bundle."));

    EXPECT_THAT(processesNamed("wireguard-go"), IsEmpty());
    EXPECT_THAT(processesNamed("amneziawg-go"), IsEmpty());
    EXPECT_THAT(zombieProcesses(), IsEmpty());
}

}  // namespace
}  // namespace korvo::test
