// The disconnect and maintenance requests sent to the real helper through
// the bus, each test in namespaces of its own (tests/support/isolated): a
// private /run, overlays over /etc and the install prefix, a private
// /root for the known-hosts file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "TestBundle.h"
#include "process/ChildProcess.h"
#include "support/HelperFixture.h"
#include "support/TestSupport.h"

namespace korvo::test {
namespace {

namespace fs = std::filesystem;
using ::testing::StartsWith;

const std::string kRunDirectory = "/var/run/Korvo";

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

bool linkExists(const std::string& name) { return shell("ip link show dev " + name).exitStatus == 0; }

class SystemMaintenanceServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
        ASSERT_EQ(helper.start(), std::nullopt);
    }

    Dictionary call(const std::string& operation, const Dictionary& arguments) {
        return helper.call(operation, arguments);
    }

    HelperFixture helper{[] {
        HelperFixture::Options options;
        options.korvoGroup = true;
        return options;
    }()};
    const TempDir work{"/tmp", 0755};
};

// The installed client run by user nobody reaches only what nobody (with the
// client's group) may reach, and the resolver directory's generated files.
TEST_F(SystemMaintenanceServiceTest, AnUnprivilegedClientWritesWithItsOwnRights) {
    OverlayMount etc("/etc");
    ASSERT_TRUE(etc.ok());
    const std::string client = HelperFixture::installProgram(HelperFixture::signedCallerPath(),
                                                             "/run/korvo-clients/korvo", helper.korvoGroupId(), 02755);
    const std::string rootOnly = "/run/korvo-root-only";
    const std::string own = "/run/korvo-nobody";
    fs::create_directories(rootOnly);
    fs::create_directories(own);
    ASSERT_EQ(::chown(own.c_str(), 65534, 65534), 0);
    std::ofstream(rootOnly + "/root-file") << "root's";
    auto send = [&](const std::string& operation, std::vector<std::string> arguments) {
        std::vector<std::string> argv = {client, "call", helper.busAddress(), operation};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return helper.runClientAsNobody(argv).standardOutput;
    };

    EXPECT_THAT(send("writeConfig", {"config=x", "path=" + rootOnly + "/marker"}), StartsWith("reply error"));
    EXPECT_THAT(send("writeConfig", {"config=x", "path=" + rootOnly + "/root-file"}), StartsWith("reply error"));
    EXPECT_THAT(send("deleteConfigAtPath", {"path=" + rootOnly + "/root-file"}), StartsWith("reply error"));
    EXPECT_FALSE(fs::exists(rootOnly + "/marker"));
    EXPECT_EQ(fileText(rootOnly + "/root-file"), "root's");

    // Its own file is replaced by a new one, never rewritten in place.
    EXPECT_THAT(send("writeConfig", {"config=first", "path=" + own + "/new/client.conf"}), StartsWith("reply\n"));
    const ino_t first = inodeOf(own + "/new/client.conf");
    EXPECT_THAT(send("writeConfig", {"config=mine", "path=" + own + "/new/client.conf"}), StartsWith("reply\n"));
    EXPECT_EQ(fileText(own + "/new/client.conf"), "mine");
    EXPECT_NE(inodeOf(own + "/new/client.conf"), first);
    struct stat status {};
    ASSERT_EQ(::stat((own + "/new/client.conf").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 65534u);
    EXPECT_THAT(send("deleteConfigAtPath", {"path=" + own + "/new/client.conf"}), StartsWith("reply\n"));
    EXPECT_FALSE(fs::exists(own + "/new/client.conf"));

    // Generated files directly in the resolver directory are written as root.
    const std::string marked = "#@KORVO_GENERATED\nnameserver 10.7.7.7\n";
    EXPECT_THAT(send("writeConfig", {"config=" + marked, "path=/etc/resolver/corp.test"}), StartsWith("reply\n"));
    EXPECT_EQ(fileText("/etc/resolver/corp.test"), marked);
    EXPECT_THAT(send("writeConfig", {"config=" + marked, "path=/etc/korvo-marker"}), StartsWith("reply error"));
    EXPECT_FALSE(fs::exists("/etc/korvo-marker"));
}

// Even for root, only regular files that carry the marker, directly in the
// resolver directory, are written or removed there.
TEST_F(SystemMaintenanceServiceTest, TheResolverDirectoryTakesOnlyGeneratedFiles) {
    OverlayMount etc("/etc");
    ASSERT_TRUE(etc.ok());
    fs::create_directories("/etc/resolver");
    std::ofstream("/etc/resolver/admin.test") << "nameserver 10.8.8.8\n";
    const std::string outside = work.write("outside", "#@KORVO_GENERATED elsewhere");
    fs::create_symlink(outside, "/etc/resolver/link.test");
    const std::string marked = "#@KORVO_GENERATED\nnameserver 10.7.7.7\n";
    auto write = [&](const std::string& text, const std::string& name) {
        return call("writeConfig", {{"config", text}, {"path", "/etc/resolver/" + name}});
    };
    auto remove = [&](const std::string& name) { return call("deleteConfigAtPath", {{"path", "/etc/resolver/" + name}}); };
    const std::vector<std::pair<const char*, Dictionary>> refused = {
        {"new text without the marker", write("nameserver 1.1.1.1\n", "new.test")},
        {"replacing the administrator's file", write(marked, "admin.test")},
        {"removing the administrator's file", remove("admin.test")},
        {"writing through a link", write(marked, "link.test")},
        {"removing a link", remove("link.test")},
    };
    for (const auto& [what, reply] : refused) EXPECT_EQ(errorCodeOf(reply), 513) << what;
    EXPECT_FALSE(fs::exists("/etc/resolver/new.test"));
    EXPECT_EQ(fileText("/etc/resolver/admin.test"), "nameserver 10.8.8.8\n");
    EXPECT_TRUE(fs::is_symlink("/etc/resolver/link.test"));
    EXPECT_EQ(fileText(outside), "#@KORVO_GENERATED elsewhere");

    EXPECT_TRUE(write(marked, "corp.test").empty());
    EXPECT_TRUE(remove("corp.test").empty());
    EXPECT_FALSE(fs::exists("/etc/resolver/corp.test"));
    EXPECT_TRUE(remove("corp.test").empty());
}

TEST_F(SystemMaintenanceServiceTest, DisconnectEndsOnlyWhatTheHelperStarted) {
    call("setKorvoBundlePath", {{"path", std::string(KORVO_TEST_BUNDLE_PATH)}});
    call("setTmpDirPath", {{"path", work.path() + "/"}});
    const KeyPair peer = generateKeyPair();
    auto connect = [&](const std::string& interfaceName) -> std::int64_t {
        const KeyPair keys = generateKeyPair();
        const std::string config = work.write(interfaceName + ".conf",
                                              "# KorvoInterfaceName = " + interfaceName + "\n[Interface]\nPrivateKey = " +
                                                  keys.privateKey + "\nAddress = 10.78.0.2/24\n\n[Peer]\nPublicKey = " +
                                                  peer.publicKey + "\nAllowedIPs = 10.78.0.0/24\nEndpoint = 127.0.0.1:9\n");
        const Dictionary reply = call("connectWireGuardWithConfig", {{"config", config}, {"comPort", std::uint64_t{0}}});
        EXPECT_EQ(errorCodeOf(reply), 0) << errorMessageOf(reply) << helper.helperLog();
        return pidOf(reply);
    };
    const auto first = static_cast<pid_t>(connect("kdisc0"));
    const auto second = static_cast<pid_t>(connect("kdisc1"));
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    ASSERT_TRUE(linkExists("kdisc0"));
    shell("ip link del kother0");  // left by an earlier repetition in this namespace
    ASSERT_EQ(shell("ip tuntap add kother0 mode tun").exitStatus, 0);
    ChildProcess::Options sleeper;
    sleeper.executable = "/bin/sleep";
    sleeper.arguments = {"60"};
    const auto stranger = ChildProcess::launch(sleeper, nullptr);
    ASSERT_TRUE(stranger);

    auto disconnect = [&](std::int64_t type, const std::string& name, pid_t pid) {
        return call("disconnectService", {{"serviceType", type}, {"remoteHost", name}, {"comPort", std::uint64_t{0}},
                                          {"pid", static_cast<std::int32_t>(pid)}});
    };
    struct Case {
        const char* what;
        std::int64_t type;
        std::string name;
        pid_t pid;
        std::int64_t code;
        std::string message;
    };
    const std::string strangerText = "Could not terminate process with PID " + std::to_string(stranger->pid());
    const std::vector<Case> refused = {
        {"pid 0", 5, "kdisc0", 0, 64, "Invalid process identifier"},
        {"negative pid", 5, "kdisc0", -1, 64, "Invalid process identifier"},
        {"OpenVPN", 0, "", first, 64, "Invalid service type for disconnect command with OPENVPN_SERVICE"},
        {"a process the helper did not start", 5, "kdisc0", stranger->pid(), 65, strangerText},
        {"type 3: nothing to do", 3, "kdisc0", stranger->pid(), 0, ""},
        {"type 7: nothing to do", 7, "kdisc0", stranger->pid(), 0, ""},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.what);
        const Dictionary reply = disconnect(c.type, c.name, c.pid);
        EXPECT_EQ(errorCodeOf(reply), c.code);
        EXPECT_EQ(errorMessageOf(reply), c.message);
    }
    EXPECT_TRUE(helper.waitForLog("ERROR: Could not terminate process with PID " + std::to_string(stranger->pid())));
    EXPECT_TRUE(stranger->isRunning());
    EXPECT_EQ(::kill(first, 0), 0);
    EXPECT_TRUE(linkExists("kdisc0"));

    // The helper's tunnel with its own interface: ended and deleted.
    EXPECT_TRUE(disconnect(5, "kdisc0", first).empty()) << helper.helperLog();
    EXPECT_TRUE(waitUntilGone(first));
    EXPECT_TRUE(eventually([] { return !linkExists("kdisc0"); }));
    // The helper's tunnel named with someone else's link: the tunnel ends,
    // the link stays.
    const Dictionary reply = disconnect(5, "kother0", second);
    EXPECT_EQ(errorCodeOf(reply), 68);
    EXPECT_TRUE(waitUntilGone(second));
    EXPECT_TRUE(linkExists("kother0"));
    EXPECT_TRUE(stranger->isRunning());
    EXPECT_TRUE(disconnect(5, "", first).empty()) << "a program that has exited needs no signal";
    stranger->terminate();
    shell("ip link del kother0");
}

TEST_F(SystemMaintenanceServiceTest, CleansRootsKnownHostsEntry) {
    const TempDir home;
    BindMount root(home.path(), "/root");
    ASSERT_TRUE(root.ok());
    ASSERT_EQ(shell("ssh-keygen -q -t ed25519 -N '' -f " + work.file("key")).exitStatus, 0);
    const std::string key = shell("cut -d' ' -f1,2 " + work.file("key.pub")).output;
    fs::create_directories("/root/.ssh");
    std::ofstream("/root/.ssh/known_hosts") << "kh-remove.test " << key << "kh-keep.test " << key;

    EXPECT_TRUE(call("cleanKnownHostsForRemoteHost", {{"host", std::string("kh-remove.test")}}).empty())
        << helper.helperLog();
    EXPECT_EQ(fileText("/root/.ssh/known_hosts"), "kh-keep.test " + key);
    fs::remove("/root/.ssh/known_hosts");
    const Dictionary reply = call("cleanKnownHostsForRemoteHost", {{"host", std::string("kh-keep.test")}});
    EXPECT_EQ(errorCodeOf(reply), 67);
    EXPECT_EQ(errorMessageOf(reply), "Cannot clean known hosts file for remote host kh-keep.test");
}

TEST_F(SystemMaintenanceServiceTest, CleanSystemRemovesWhatItsBitsName) {
    OverlayMount etc("/etc");
    OverlayMount prefix(KORVO_INSTALL_PREFIX);
    ASSERT_TRUE(etc.ok() && prefix.ok());
    const std::vector<std::string> installed = {KORVO_INSTALLED_SYSTEMD_UNIT, KORVO_INSTALLED_DBUS_SERVICE,
                                                KORVO_INSTALLED_DBUS_POLICY, KORVO_INSTALLED_HELPER};
    for (const auto& file : installed) {
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(file) << "installed";
    }
    fs::create_directories("/etc/resolver");
    std::ofstream("/etc/resolver/generated.test") << "#@KORVO_GENERATED\nnameserver 10.7.7.7\n";
    std::ofstream("/etc/resolver/admin.test") << "nameserver 10.8.8.8\n";

    // A transaction on record: the store area stays, the rest goes.
    EXPECT_TRUE(call("recordOwnerProcessPID", {{"pid", std::int64_t{::getpid()}},
                                               {"serviceType", std::int64_t{5}},
                                               {"transactionIdentifier", std::string("pending")}})
                    .empty());
    std::ofstream(kRunDirectory + "/openvpn.log") << "log";
    // The client's group may plant links there: removed, never followed.
    const std::string outside = work.write("outside", "kept");
    fs::create_symlink(outside, kRunDirectory + "/planted-link");
    fs::create_directory_symlink(work.path(), kRunDirectory + "/planted-folder");
    EXPECT_TRUE(call("cleanSystem", {{"cleanMask", std::int64_t{4}}}).empty()) << helper.helperLog();
    EXPECT_FALSE(fs::is_empty(kRunDirectory + "/network-transactions"));
    EXPECT_FALSE(fs::exists(kRunDirectory + "/openvpn.log"));
    EXPECT_TRUE(helper.waitForLog("Kept the helper's store area"));

    EXPECT_TRUE(call("restoreNetworkTransactionWithIdentifier", {{"identifier", std::string("pending")}}).empty());
    EXPECT_TRUE(call("cleanSystem", {{"cleanMask", std::int64_t{4 | 16 | 2 | 1}}}).empty()) << helper.helperLog();
    EXPECT_FALSE(fs::exists(kRunDirectory));
    EXPECT_EQ(fileText(outside), "kept");
    EXPECT_FALSE(fs::exists("/etc/resolver/generated.test"));
    EXPECT_TRUE(fs::exists("/etc/resolver/admin.test"));
    for (const auto& file : installed) EXPECT_FALSE(fs::exists(file)) << file;
    EXPECT_TRUE(helper.waitForLog("Could not perform all cleaning operations. Remaining clean mask: 1."));

    // Without the run directory bit 4 fails, before bit 2 is tried.
    std::ofstream(installed.back()) << "installed";
    const Dictionary reply = call("cleanSystem", {{"cleanMask", std::int64_t{6}}});
    EXPECT_EQ(errorDomainOf(reply), "NSCocoaErrorDomain");
    EXPECT_EQ(errorCodeOf(reply), 4);
    EXPECT_TRUE(fs::exists(installed.back()));
    EXPECT_TRUE(call("cleanSystem", {{"cleanMask", std::int64_t{2}}}).empty());
    EXPECT_FALSE(fs::exists(installed.back()));
}

}  // namespace
}  // namespace korvo::test
