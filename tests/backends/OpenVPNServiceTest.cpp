// OpenVPN end to end: the real helper on a private bus starts the bundle's
// OpenVPN against a server in a peer namespace; the test, as the client
// application, drives it through the management interface.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "TestBundle.h"
#include "support/TestSupport.h"
#include "support/HelperFixture.h"

namespace korvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr std::uint64_t kManagementPort = 17505;

// Line-based talk with OpenVPN's management interface.
class ManagementClient {
public:
    bool connect(std::chrono::milliseconds timeout) {
        return eventually([&] {
            fd_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(kManagementPort);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            return ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        }, timeout);
    }
    void send(const std::string& command) { ASSERT_EQ(::write(fd_.get(), command.data(), command.size()), static_cast<ssize_t>(command.size())); }
    // Reads until the received text contains needle; false at the timeout.
    bool readUntil(const std::string& needle, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (received_.find(needle) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{fd_.get(), POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
            char buffer[4096];
            const ssize_t n = ::read(fd_.get(), buffer, sizeof buffer);
            if (n <= 0) return false;
            received_.append(buffer, static_cast<std::size_t>(n));
        }
        return true;
    }
    const std::string& received() const { return received_; }

private:
    UniqueFd fd_;
    std::string received_;
};

class OpenVPNServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        ASSERT_TRUE(network_.ok());
        std::filesystem::create_directories("/var/run/Korvo");
        ASSERT_EQ(makeCertificates(), "");
        ASSERT_EQ(helper_.start(), std::nullopt);
        helper_.call("setKorvoBundlePath", {{"path", std::string(KORVO_TEST_BUNDLE_PATH)}});
        helper_.call("setTmpDirPath", {{"path", dir_.path() + "/"}});
    }

    std::string makeCertificates() {
        const std::string d = dir_.path();
        const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        const auto result = shell(
            "set -e; cd " + d + "; openssl req -x509" + ec + " -keyout ca.key -out ca.crt -subj /CN=KorvoTestCA -days 2; " +
            "for n in server client; do openssl req" + ec + " -keyout $n.key -out $n.csr -subj /CN=$n; " +
            "openssl x509 -req -in $n.csr -CA ca.crt -CAkey ca.key -CAcreateserial -out $n.crt -days 2; done");
        return result.exitStatus == 0 ? "" : result.output;
    }

    std::string clientConfig(const std::string& extra = "") {
        const std::string d = dir_.path();
        return dir_.write("Office.ovpn", "client\ndev tun\nproto udp\nremote 10.77.0.2 1194\nnobind\ndisable-dco\n"
                                         "ca " + d + "/ca.crt\ncert " + d + "/client.crt\nkey " + d + "/client.key\n" + extra);
    }

    std::unique_ptr<BackgroundProgram> startServer() {
        const std::string d = dir_.path();
        return std::make_unique<BackgroundProgram>(
            network_.name(),
            std::vector<std::string>{"/usr/sbin/openvpn", "--dev", "tun", "--proto", "udp", "--local", "10.77.0.2",
                                     "--port", "1194", "--server", "10.8.0.0", "255.255.255.0", "--topology", "subnet",
                                     "--ca", d + "/ca.crt", "--cert", d + "/server.crt", "--key", d + "/server.key",
                                     "--dh", "none", "--disable-dco", "--verb", "3"},
            d + "/server.log");
    }

    TempDir dir_{"/tmp", 0755};
    PeerNamespace network_{"ovpn", "10.77.0.1", "10.77.0.2"};
    HelperFixture helper_;
};

TEST_F(OpenVPNServiceTest, ConnectsThroughTheManagementInterfaceAndCarriesTraffic) {
    const auto server = startServer();
    helper_.call("setVPNDebugLoggingEnabled", {{"enabled", true}});
    const std::string config = clientConfig();

    const Dictionary reply =
        helper_.call("connectOpenVPNWithConfig", {{"config", config}, {"managementPort", kManagementPort}});
    ASSERT_EQ(reply.count("error"), 0u) << errorMessageOf(reply) << helper_.helperLog();
    EXPECT_EQ(reply.count("result"), 0u);
    EXPECT_EQ(reply.count("pid"), 0u);

    // The management interface is the client's alone: it asks for the
    // password that the helper left readable by root and the client group.
    ManagementClient management;
    ASSERT_TRUE(management.connect(10s)) << helper_.helperLog();
    ASSERT_TRUE(management.readUntil("ENTER PASSWORD:", 10s)) << management.received();
    EXPECT_EQ(management.received().find(">HOLD"), std::string::npos);
    management.send(shell("cat /run/Korvo/Office.management").output);
    ASSERT_TRUE(management.readUntil(">HOLD:Waiting for hold release", 10s)) << management.received();
    management.send("pid\n");
    ASSERT_TRUE(management.readUntil("SUCCESS: pid=", 5s));
    const auto at = management.received().find("SUCCESS: pid=");
    const pid_t daemonPid = static_cast<pid_t>(std::stol(management.received().substr(at + 13)));

    // Debug logging is on and the configuration has no verb line.
    const auto argv = commandLineOf(daemonPid);
    ASSERT_GE(argv.size(), 2u);
    EXPECT_EQ(argv[0], std::string(KORVO_TEST_BUNDLE_PATH) + "/Contents/MacOS/openvpn");
    EXPECT_EQ(std::vector<std::string>(argv.end() - 2, argv.end()), (std::vector<std::string>{"--verb", "4"}));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemonPid) + "/cwd"), "/run/Korvo");
    // The program in the background is in the table of what the helper started.
    EXPECT_THAT(shell("cat /run/Korvo/started-processes/table.plist").output,
                HasSubstr("<integer>" + std::to_string(daemonPid) + "</integer>"));

    management.send("state on\nhold release\n");
    ASSERT_TRUE(management.readUntil(",CONNECTED,SUCCESS,", 30s))
        << management.received() << "\nserver:\n" << server->log();
    const auto ping = shell("ping -c 1 -W 3 10.8.0.1");
    EXPECT_EQ(ping.exitStatus, 0) << ping.output;

    // OpenVPN writes its log where the helper told it to.
    EXPECT_THAT(shell("cat '" + dir_.path() + "/Office.log'").output, HasSubstr("Initialization Sequence Completed"));

    management.send("signal SIGTERM\n");
    EXPECT_TRUE(waitUntilGone(daemonPid));
    EXPECT_TRUE(zombieChildrenOf(helper_.helperPid()).empty());
}

// A configuration outside the allow-list starts nothing; one that OpenVPN
// itself rejects comes back in OpenVPN's words.
TEST_F(OpenVPNServiceTest, ConfigurationErrorsComeBackWithOpenVPNsOwnWords) {
    helper_.call("setVPNDebugLoggingEnabled", {{"enabled", true}});
    const std::string marker = dir_.path() + "/payload-ran";
    const std::string hostile = dir_.write("Hostile.ovpn", "client\ndev tun\nscript-security 2\nup \"/bin/touch " +
                                                              marker + "\"\n");
    Dictionary reply =
        helper_.call("connectOpenVPNWithConfig", {{"config", hostile}, {"managementPort", kManagementPort}});
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_EQ(errorMessageOf(reply),
              "Value of directive 'script-security' is not allowed in an OpenVPN configuration (line 3).");

    const std::string broken = dir_.write("Broken.ovpn", "client\nproto bogus\n");
    reply = helper_.call("connectOpenVPNWithConfig", {{"config", broken}, {"managementPort", kManagementPort}});
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_THAT(errorMessageOf(reply), HasSubstr("Options error"));
    // The log arrives through a pipe, possibly after the reply.
    EXPECT_TRUE(helper_.waitForLog("Executable '" + std::string(KORVO_TEST_BUNDLE_PATH) +
                                   "/Contents/MacOS/openvpn' could not be executed successfully."));
    EXPECT_TRUE(processesRunningFrom(KORVO_TEST_BUNDLE_PATH).empty());
    EXPECT_TRUE(zombieChildrenOf(helper_.helperPid()).empty());
    EXPECT_FALSE(std::filesystem::exists(marker));
}

}  // namespace
}  // namespace korvo::test
