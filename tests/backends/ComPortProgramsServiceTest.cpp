// ssh, vpnc and OpenConnect end to end: the real helper on a private bus
// starts the real programs with their streams on the test's com port, as the
// client application would see them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "TestBundle.h"
#include "support/TestSupport.h"
#include "support/HelperFixture.h"

namespace korvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

const std::string kBundle = KORVO_TEST_BUNDLE_PATH;

class ComPortProgramsServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        ASSERT_TRUE(gateway_.ok());
        std::filesystem::create_directories("/var/run/Korvo");
        ASSERT_EQ(helper_.start(), std::nullopt);
        helper_.call("setKorvoBundlePath", {{"path", kBundle}});
        helper_.call("setTmpDirPath", {{"path", dir_.path() + "/"}});
    }
    void TearDown() override {
        for (const pid_t pid : started_) {
            ::kill(pid, SIGKILL);
            waitUntilGone(pid);
        }
        // Whatever the helper started has been reaped by it.
        EXPECT_TRUE(zombieChildrenOf(helper_.helperPid()).empty());
    }

    // A gateway that takes the programs' first packets and never answers, so
    // that they stay up while the test looks at them.
    void silentGateway() {
        ike_ = gateway_.socketInside(SOCK_DGRAM);
        https_ = gateway_.socketInside(SOCK_STREAM);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, "10.79.0.2", &address.sin_addr);
        address.sin_port = htons(500);
        ASSERT_EQ(::bind(ike_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address.sin_port = htons(443);
        ASSERT_EQ(::bind(https_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(https_.get(), 4), 0);
    }

    pid_t started(const Dictionary& reply) {
        const pid_t pid = static_cast<pid_t>(pidOf(reply));
        if (pid > 0) started_.push_back(pid);
        return pid;
    }

    TempDir dir_{"/tmp", 0755};
    PeerNamespace gateway_{"vpngw", "10.79.0.1", "10.79.0.2"};
    HelperFixture helper_;
    UniqueFd ike_, https_;
    std::vector<pid_t> started_;
};

TEST_F(ComPortProgramsServiceTest, SSHAuthenticatesToAServerInAPeerNamespace) {
    PeerNamespace server("sshsrv", "10.78.0.1", "10.78.0.2");
    ASSERT_TRUE(server.ok());
    std::filesystem::create_directories("/run/sshd");
    const std::string d = dir_.path();
    const auto keys = shell("set -e; ssh-keygen -q -t ed25519 -N '' -f " + d + "/host_key; ssh-keygen -q -t ed25519 -N '' -f " +
                                 d + "/client_key; cp " + d + "/client_key.pub " + d + "/authorized_keys");
    ASSERT_EQ(keys.exitStatus, 0) << keys.output;
    const std::string sshdConfig =
        dir_.write("sshd_config", "ListenAddress 10.78.0.2\nHostKey " + d + "/host_key\nAuthorizedKeysFile " + d +
                                      "/authorized_keys\nPermitRootLogin prohibit-password\nStrictModes no\n"
                                      "UsePAM no\nPidFile none\n");
    BackgroundProgram sshd(server.name(), {"/usr/sbin/sshd", "-D", "-e", "-f", sshdConfig}, d + "/sshd.log");
    const std::string config = dir_.write("Tunnel.sshconfig", "Host *\n  IdentityFile " + d + "/client_key\n"
                                                              "  IdentitiesOnly yes\n  StrictHostKeyChecking no\n"
                                                              "  UserKnownHostsFile /dev/null\n");
    // sshd may need a moment to listen.
    eventually([] { return shell("ip netns exec sshsrv ss -ltn | grep -q 10.78.0.2:22").exitStatus == 0; }, 5s);

    ComPortListener comPort;
    const Dictionary reply = helper_.call("connectSSHWithConfig", {{"config", config}, {"host", "10.78.0.2"},
                                                                   {"credentials", "root"}, {"comPort", comPort.port()}});
    ASSERT_EQ(reply.count("error"), 0u) << errorMessageOf(reply) << helper_.helperLog();
    const pid_t pid = started(reply);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(comPort.waitFor("Authenticated to 10.78.0.2")) << comPort.text() << "\nsshd:\n" << sshd.log();
    // ssh runs on copies in the connection's root-only directory; neither
    // the client's askpass program nor the run directory is opened up.
    const std::string copies = "/var/run/Korvo/connections/Tunnel/";
    EXPECT_EQ(commandLineOf(pid), (std::vector<std::string>{"/usr/bin/ssh", "-v", "-N", "-F", copies + "config", "-l",
                                                           "root", "--", "10.78.0.2"}));
    struct stat st {};
    ASSERT_EQ(::stat((copies + "ssh_askpass_korvo").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_EQ(st.st_uid, 0u);
    ASSERT_EQ(::stat((kBundle + "/Contents/MacOS/ssh_askpass_korvo").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0022, 0u);
    ASSERT_EQ(::stat("/var/run/Korvo", &st), 0);
    EXPECT_EQ(st.st_mode & 0002, 0u);
    const auto environment = shell("tr '\\0' '\\n' < /proc/" + std::to_string(pid) + "/environ").output;
    EXPECT_THAT(environment, HasSubstr("SSH_ASKPASS=" + copies + "ssh_askpass_korvo\n"));
    EXPECT_THAT(environment, HasSubstr("DISPLAY=:0\n"));
    EXPECT_THAT(environment, HasSubstr("CS_UNIQUE_IDENTIFIER=Tunnel\n"));

    ::kill(pid, SIGTERM);
    EXPECT_TRUE(waitUntilGone(pid));
}

TEST_F(ComPortProgramsServiceTest, VPNCRunsWithItsExactArgumentsOnTheComPort) {
    silentGateway();
    const std::string config = dir_.write("Branch.conf", "IPSec gateway 10.79.0.2\nIPSec ID group\nIPSec secret s\n"
                                                         "Xauth username user\nXauth password p\n");
    const std::string script = dir_.path() + "/Branch-vpnc-script.sh";
    std::filesystem::create_symlink("/usr/share/vpnc-scripts/vpnc-script", script);
    helper_.call("setVPNDebugLoggingEnabled", {{"enabled", true}});

    ComPortListener comPort;
    const Dictionary reply = helper_.call("connectVPNCWithConfig", {{"config", config}, {"comPort", comPort.port()}});
    ASSERT_EQ(reply.count("error"), 0u) << errorMessageOf(reply) << helper_.helperLog();
    const pid_t pid = started(reply);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(comPort.waitFor("vpnc version")) << comPort.text();
    // vpnc runs on copies in the connection's root-only directory.
    const std::string copies = "/var/run/Korvo/connections/Branch/";
    EXPECT_EQ(commandLineOf(pid), (std::vector<std::string>{kBundle + "/Contents/MacOS/vpnc", "--debug", "3",
                                                           copies + "config", "--script", copies + "vpnc-script",
                                                           "--local-port", "0"}));
    EXPECT_EQ(shell("cmp " + copies + "vpnc-script /usr/share/vpnc-scripts/vpnc-script").exitStatus, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), dir_.path());
}

TEST_F(ComPortProgramsServiceTest, OpenConnectStaysInTheForegroundOnTheComPort) {
    silentGateway();
    const std::string text = "protocol=anyconnect\nbackground\nuseragent=Korvo\n";
    const std::string config = dir_.write("Corp.conf", text);
    std::filesystem::create_symlink("/usr/share/vpnc-scripts/vpnc-script", dir_.path() + "/Corp-openconnect-script.sh");
    helper_.call("setVPNDebugLoggingEnabled", {{"enabled", true}});

    ComPortListener comPort;
    const Dictionary reply = helper_.call(
        "connectOpenConnectWithConfig", {{"config", config}, {"host", "10.79.0.2"}, {"resolve", ""},
                                         {"credentials", "webvpn=cookie"}, {"hash", "pin-sha256:AAAA"},
                                         {"comPort", comPort.port()}});
    ASSERT_EQ(reply.count("error"), 0u) << errorMessageOf(reply) << helper_.helperLog();
    const pid_t pid = started(reply);
    ASSERT_GT(pid, 0);
    // openconnect reads the copy, without the option that would daemonize
    // it; the client's own file stays as it wrote it.
    const std::string copies = "/var/run/Korvo/connections/Corp/";
    EXPECT_EQ(shell("cat " + copies + "config").output, "protocol=anyconnect\nuseragent=Korvo\n");
    EXPECT_EQ(shell("cat " + config).output, text);
    EXPECT_TRUE(helper_.waitForLog("Removed daemonizing background option from OpenConnect configuration at path '" +
                                   config + "'."));
    EXPECT_TRUE(comPort.waitFor("10.79.0.2")) << comPort.text();
    EXPECT_EQ(commandLineOf(pid),
              (std::vector<std::string>{kBundle + "/Contents/MacOS/openconnect", "--config=" + copies + "config",
                                        "--cookie-on-stdin", "--script='" + copies + "openconnect-script'",
                                        "--servercert=pin-sha256:AAAA", "--os=mac-intel", "-v", "-v", "--",
                                        "10.79.0.2"}));
}

TEST_F(ComPortProgramsServiceTest, FailuresAUserMeetsStartNothing) {
    const std::string config = dir_.write("Branch.conf", "IPSec gateway 10.79.0.2\n");
    const std::string marker = dir_.path() + "/payload-ran";
    // A script the client wrote itself never runs as root.
    dir_.write("Branch-vpnc-script.sh", "#!/bin/sh\ntouch " + marker + "\n");
    Dictionary reply = helper_.call("connectVPNCWithConfig", {{"config", config}, {"comPort", std::uint64_t{1}}});
    EXPECT_EQ(errorCodeOf(reply), 69);
    EXPECT_EQ(errorMessageOf(reply), "Cannot verify signature of executable at path " + dir_.path() +
                                         "/Branch-vpnc-script.sh");
    std::filesystem::remove(dir_.path() + "/Branch-vpnc-script.sh");
    std::filesystem::create_symlink("/usr/share/vpnc-scripts/vpnc-script", dir_.path() + "/Branch-vpnc-script.sh");

    // Nobody listens on the com port.
    std::uint64_t closedPort;
    {
        ComPortListener gone;
        closedPort = gone.port();
    }
    reply = helper_.call("connectVPNCWithConfig", {{"config", config}, {"comPort", closedPort}});
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_EQ(errorMessageOf(reply), "Could not open the VPN process communication socket.");
    EXPECT_EQ(pidOf(reply), -1);

    // Unsigned, untrusted and changed programs.
    for (const std::string bundle :
         {KORVO_TEST_BUNDLE_UNSIGNED_PATH, KORVO_TEST_BUNDLE_ADHOC_PATH, KORVO_TEST_BUNDLE_MODIFIED_PATH}) {
        helper_.call("setKorvoBundlePath", {{"path", bundle}});
        ComPortListener comPort;
        reply = helper_.call("connectVPNCWithConfig", {{"config", config}, {"comPort", comPort.port()}});
        EXPECT_EQ(errorCodeOf(reply), 69) << bundle;
        EXPECT_EQ(errorMessageOf(reply), "Cannot verify signature of executable at path " + bundle + "/Contents/MacOS/vpnc");
        EXPECT_EQ(pidOf(reply), -1);
        EXPECT_FALSE(comPort.connected());
    }
    helper_.call("setKorvoBundlePath", {{"path", kBundle}});

    // Missing script, nil configuration, unreadable configuration.
    reply = helper_.call("connectVPNCWithConfig", {{"comPort", closedPort}});
    EXPECT_EQ(errorCodeOf(reply), 62);
    EXPECT_EQ(errorMessageOf(reply), "vpnc script file not found at " + dir_.path() + "/-vpnc-script.sh");
    dir_.write("Bad-openconnect-script.sh", "#!/bin/sh\n");
    const std::string notText = dir_.write("Bad.conf", "user=\xc3\x28\n");
    reply = helper_.call("connectOpenConnectWithConfig", {{"config", notText}, {"host", "h"}, {"comPort", closedPort}});
    EXPECT_EQ(errorDomainOf(reply), "NSCocoaErrorDomain");
    EXPECT_EQ(errorCodeOf(reply), 261);
    EXPECT_EQ(pidOf(reply), -1);
    // An ssh configuration that would run a command is refused before ssh starts.
    const std::string proxy = dir_.write("Proxy.sshconfig", "Host *\n  ProxyCommand touch " + marker + "\n");
    reply = helper_.call("connectSSHWithConfig", {{"config", proxy}, {"host", "10.79.0.2"}, {"comPort", closedPort}});
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_EQ(errorMessageOf(reply), "Directive 'ProxyCommand' is not allowed in an ssh configuration (line 2).");
    EXPECT_EQ(pidOf(reply), -1);

    EXPECT_TRUE(processesRunningFrom(kBundle).empty());
    EXPECT_FALSE(std::filesystem::exists(marker));
}

}  // namespace
}  // namespace korvo::test
