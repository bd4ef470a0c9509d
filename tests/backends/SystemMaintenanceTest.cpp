// The maintenance component on its own: real processes and files in
// temporary folders, a recording stand-in for interface control and for the
// system-tool runner. The requests through the bus, with the real helper,
// are in tests/integration/SystemMaintenanceServiceTest.cpp.
#include "backends/SystemMaintenance.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "network/NetworkSystemOperations.h"
#include "process/ChildProcess.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::errorMessage;
using test::LogCapture;
using test::TempDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

class RecordingInterfaceControl : public platform::InterfaceControl {
public:
    platform::InterfaceOutcome destroyInterface(const std::string& name) override {
        destroyed.push_back(name);
        return std::nullopt;
    }
    platform::InterfaceOutcome setInterfaceUp(const std::string&, bool) override { return std::nullopt; }
    std::optional<std::vector<std::string>> interfaceNames() override { return std::vector<std::string>{}; }
    std::vector<std::string> destroyed;
};

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::shared_ptr<ChildProcess> sleeper() {
    ChildProcess::Options options;
    options.executable = "/bin/sleep";
    options.arguments = {"60"};
    return ChildProcess::launch(options, nullptr);
}

class SystemMaintenanceTest : public ::testing::Test {
protected:
    SystemMaintenanceTest() {
        paths.runDirectory = dir.file("run");
        paths.resolverDirectory = dir.file("resolver") + "/";
        paths.installedFiles = {dir.file("unit.service"), dir.file("bus.service"), dir.file("policy.conf"),
                                dir.file("daemon")};
        paths.timeMachinePreferencesDomain = dir.file("com.apple.TimeMachine");
        maintenance = std::make_unique<SystemMaintenance>(SystemMaintenance::Dependencies{
            started, std::make_shared<NetworkSystemOperations>(nullptr, interfaces, paths.resolverDirectory),
            [this](SystemTool tool, const std::vector<std::string>& arguments) {
                toolRuns.emplace_back(tool, arguments);
                return toolOutcome;
            },
            [this] { return storeBusy; }, paths});
    }

    void TearDown() override {
        for (auto& child : children) child->terminate();
    }

    pid_t startedProgram(const std::string& link = "") {
        children.push_back(sleeper());
        const pid_t pid = children.back()->pid();
        started.recordStart(pid, "/bin/sleep");
        if (!link.empty()) started.recordLink(pid, link);
        return pid;
    }

    const TempDir dir;
    LogCapture log;
    SystemMaintenance::Paths paths;
    StartedProcesses started{nullptr};
    std::shared_ptr<RecordingInterfaceControl> interfaces = std::make_shared<RecordingInterfaceControl>();
    std::vector<std::pair<SystemTool, std::vector<std::string>>> toolRuns;
    MaybeError toolOutcome;
    bool storeBusy = false;
    std::unique_ptr<SystemMaintenance> maintenance;
    std::vector<std::shared_ptr<ChildProcess>> children;
};

TEST_F(SystemMaintenanceTest, DisconnectSignalsOnlyStartedProgramsAndDeletesOnlyTheirLinks) {
    children.push_back(sleeper());
    const pid_t stranger = children.back()->pid();
    struct Case {
        const char* what;
        std::int64_t serviceType;
        std::optional<std::string> interfaceName;
        pid_t pid;
        std::int64_t code;  // 0: success
        std::string message;
        std::vector<std::string> destroyed;
        bool strangerSurvives = true;
    };
    const pid_t vpnc = startedProgram();
    const pid_t wireGuard = startedProgram("kmaint0");
    const pid_t otherWireGuard = startedProgram("kmaint1");
    const std::vector<Case> cases = {
        {"pid 0", 1, std::nullopt, 0, 64, "Invalid process identifier", {}},
        {"negative pid", 5, "kmaint0", -1, 64, "Invalid process identifier", {}},
        {"OpenVPN", 0, std::nullopt, vpnc, 64, "Invalid service type for disconnect command with OPENVPN_SERVICE", {}},
        {"type 3: nothing", 3, std::nullopt, stranger, 0, "", {}},
        {"type 7: nothing", 7, "kmaint0", stranger, 0, "", {}},
        {"a process the helper did not start", 2, std::nullopt, stranger, 65,
         "Could not terminate process with PID " + std::to_string(stranger), {}},
        {"WireGuard, a link the helper did not make", 5, "eth0", otherWireGuard, 68,
         "Could not delete tunnel interface eth0: the helper did not create it.", {}},
        {"VPNC", 1, "kmaint0", vpnc, 0, "", {}},
        {"WireGuard with its link", 5, "kmaint0", wireGuard, 0, "", {"kmaint0"}},
        {"WireGuard without a name", 5, "", otherWireGuard, 0, "", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        interfaces->destroyed.clear();
        const MaybeError error = maintenance->disconnectService(c.serviceType, c.interfaceName, 9999, c.pid);
        EXPECT_EQ(error ? error->code : 0, c.code);
        if (error) {
            EXPECT_EQ(errorMessage(error), c.message);
        }
        EXPECT_EQ(interfaces->destroyed, c.destroyed);
        EXPECT_TRUE(children.front()->isRunning());
    }
    EXPECT_TRUE(log.contains("ERROR: Could not terminate process with PID " + std::to_string(stranger)));
    EXPECT_TRUE(log.contains("Refused to signal process with PID " + std::to_string(stranger) +
                             ": the helper did not start it."));
    EXPECT_TRUE(log.contains("Refused to delete interface 'eth0': no program that the helper started made it."));
    // SIGINT went to the three started programs.
    for (std::size_t i = 1; i < children.size(); ++i) {
        EXPECT_TRUE(children[i]->waitForExit(10));
        EXPECT_TRUE(children[i]->terminatedBySignal());
    }
    EXPECT_FALSE(started.isStartedLink("kmaint0")) << "a deleted link is forgotten";
    // Gone by now, started or not: nothing to signal, no error.
    EXPECT_EQ(maintenance->disconnectService(1, std::nullopt, 0, vpnc), std::nullopt);
    children.front()->terminate();
    ASSERT_TRUE(children.front()->waitForExit(10));
    EXPECT_EQ(maintenance->disconnectService(2, std::nullopt, 0, stranger), std::nullopt);
}

TEST_F(SystemMaintenanceTest, CleanSystemRemovesWhatItsBitsName) {
    const std::string outside = dir.write("outside", "kept");
    auto makeRunDirectory = [&] {
        fs::create_directories(paths.runDirectory + "/network-transactions");
        fs::create_directories(paths.runDirectory + "/client/deep/er");
        std::ofstream(paths.runDirectory + "/network-transactions/t.plist") << "x";
        std::ofstream(paths.runDirectory + "/client/deep/er/file") << "x";
        fs::create_symlink(outside, paths.runDirectory + "/client/link");
        fs::create_directory_symlink(dir.path(), paths.runDirectory + "/folder-link");
    };
    fs::create_directories(paths.resolverDirectory);
    std::ofstream(paths.resolverDirectory + "generated") << "#@KORVO_GENERATED\nnameserver 10.0.0.1\n";
    std::ofstream(paths.resolverDirectory + "own") << "nameserver 10.0.0.2\n";
    for (const auto& file : {paths.installedFiles[0], paths.installedFiles[3]}) std::ofstream(file) << "x";

    // Bit 4 first, and without the run directory the request stops there.
    const MaybeError missing = maintenance->cleanSystem(6);
    ASSERT_TRUE(missing.has_value());
    EXPECT_EQ(missing->domain, CocoaErrorDomain);
    EXPECT_EQ(missing->code, 4);
    EXPECT_TRUE(fs::exists(paths.installedFiles[0]));

    makeRunDirectory();
    log.clear();
    ASSERT_EQ(maintenance->cleanSystem(4 | 16 | 2), std::nullopt);
    EXPECT_FALSE(fs::exists(paths.runDirectory));
    EXPECT_EQ(contents(outside), "kept") << "a link is removed, never followed";
    EXPECT_TRUE(fs::exists(dir.path()));
    EXPECT_FALSE(fs::exists(paths.resolverDirectory + "generated"));
    EXPECT_TRUE(fs::exists(paths.resolverDirectory + "own"));
    for (const auto& file : paths.installedFiles) EXPECT_FALSE(fs::exists(file)) << file;
    EXPECT_THAT(log.lines(), ElementsAre("Running cleanSystem in helper."));

    // Unknown bits remain and are logged; missing installed files are no error.
    ASSERT_EQ(maintenance->cleanSystem(2 | 1 | 64), std::nullopt);
    EXPECT_TRUE(log.contains("Could not perform all cleaning operations. Remaining clean mask: 65."));
    log.clear();
    ASSERT_EQ(maintenance->cleanSystem(0), std::nullopt);
    EXPECT_THAT(log.lines(), ElementsAre("Running cleanSystem in helper."));
}

TEST_F(SystemMaintenanceTest, CleanSystemKeepsTheStoreAreaWhileItHoldsSomethingToUndo) {
    fs::create_directories(paths.runDirectory + "/network-transactions");
    fs::create_directories(paths.runDirectory + "/dynamic-store");
    fs::create_directories(paths.runDirectory + "/client");
    std::ofstream(paths.runDirectory + "/network-transactions/t.plist") << "x";
    std::ofstream(paths.runDirectory + "/openvpn.log") << "x";
    storeBusy = true;
    ASSERT_EQ(maintenance->cleanSystem(4), std::nullopt);
    EXPECT_TRUE(fs::exists(paths.runDirectory + "/network-transactions/t.plist"));
    EXPECT_TRUE(fs::exists(paths.runDirectory + "/dynamic-store"));
    EXPECT_FALSE(fs::exists(paths.runDirectory + "/client"));
    EXPECT_FALSE(fs::exists(paths.runDirectory + "/openvpn.log"));
    EXPECT_FALSE(log.errors().size());
    storeBusy = false;
    ASSERT_EQ(maintenance->cleanSystem(4), std::nullopt);
    EXPECT_FALSE(fs::exists(paths.runDirectory));
}

TEST_F(SystemMaintenanceTest, ResolverFilesAreWrittenAsRootOnlyWhenGenerated) {
    const std::string resolver = paths.resolverDirectory;
    const std::string marked = "#@KORVO_GENERATED\nnameserver 10.1.1.1\n";
    const std::optional<CallerRights> nobody = CallerRights{65534, 65534, {65534}};
    // The resolver directory is made when missing.
    ASSERT_EQ(maintenance->writeConfig(nobody, marked, resolver + "corp.example"), std::nullopt);
    EXPECT_EQ(contents(resolver + "corp.example"), marked);
    ASSERT_EQ(maintenance->writeConfig(nobody, marked + "search corp\n", resolver + "corp.example"), std::nullopt);
    EXPECT_EQ(contents(resolver + "corp.example"), marked + "search corp\n");

    std::ofstream(resolver + "admin") << "nameserver 10.9.9.9\n";
    const std::string target = dir.write("target", "#@KORVO_GENERATED but not in the resolver directory");
    fs::create_symlink(target, resolver + "link");
    fs::create_directories(resolver + "folder");
    struct Case {
        const char* what;
        std::function<MaybeError()> act;
    };
    const std::vector<Case> refused = {
        {"new text without the marker", [&] { return maintenance->writeConfig(nobody, "nameserver 1.1.1.1\n", resolver + "new"); }},
        {"replacing the administrator's file", [&] { return maintenance->writeConfig(nobody, marked, resolver + "admin"); }},
        {"removing the administrator's file", [&] { return maintenance->deleteConfigAtPath(nobody, resolver + "admin"); }},
        {"writing through a link", [&] { return maintenance->writeConfig(nobody, marked, resolver + "link"); }},
        {"removing a link", [&] { return maintenance->deleteConfigAtPath(nobody, resolver + "link"); }},
        {"replacing a folder", [&] { return maintenance->writeConfig(nobody, marked, resolver + "folder"); }},
        // Deeper paths are no exception: the caller's own rights apply.
        {"a file in a subfolder", [&] { return maintenance->writeConfig(nobody, marked, resolver + "folder/x"); }},
        {"a path that leaves the folder", [&] { return maintenance->writeConfig(nobody, marked, resolver + "../escaped"); }},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.what);
        const MaybeError error = c.act();
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->code, 513);
    }
    EXPECT_EQ(contents(resolver + "admin"), "nameserver 10.9.9.9\n");
    EXPECT_TRUE(fs::is_symlink(resolver + "link"));
    EXPECT_EQ(contents(target), "#@KORVO_GENERATED but not in the resolver directory");
    EXPECT_FALSE(fs::exists(resolver + "new"));
    EXPECT_FALSE(fs::exists(resolver + "folder/x"));
    EXPECT_FALSE(fs::exists(dir.file("escaped")));

    ASSERT_EQ(maintenance->deleteConfigAtPath(nobody, resolver + "corp.example"), std::nullopt);
    EXPECT_FALSE(fs::exists(resolver + "corp.example"));
    EXPECT_EQ(maintenance->deleteConfigAtPath(nobody, resolver + "corp.example"), std::nullopt);
}

TEST_F(SystemMaintenanceTest, ConfigurationFilesNeedTheCallersRights) {
    const std::string path = dir.file("config.ovpn");
    const MaybeError unknown = maintenance->writeConfig(std::nullopt, "x", path);
    ASSERT_TRUE(unknown.has_value());
    EXPECT_EQ(unknown->code, 513);
    EXPECT_FALSE(fs::exists(path));
    const std::optional<CallerRights> root = CallerRights{0, 0, {0}};
    ASSERT_EQ(maintenance->writeConfig(root, std::nullopt, path), std::nullopt);
    EXPECT_EQ(contents(path), "");
    EXPECT_EQ(maintenance->deleteConfigAtPath(root, std::nullopt), std::nullopt);
    EXPECT_EQ(maintenance->deleteConfigAtPath(root, path), std::nullopt);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(log.contains("Running writeConfig in helper."));
    EXPECT_TRUE(log.contains("Running deleteConfig in helper."));
}

TEST_F(SystemMaintenanceTest, KnownHostsAndTimeMachineAnswerWithTheirCodes) {
    EXPECT_EQ(maintenance->cleanKnownHostsForRemoteHost("-f/etc/passwd"), std::nullopt);
    ASSERT_EQ(toolRuns.size(), 1u);
    EXPECT_EQ(toolRuns[0].first, SystemTool::SSHKeygen);
    EXPECT_THAT(toolRuns[0].second, ElementsAre("-R", "-f/etc/passwd"));

    struct Case {
        MaybeError runner;
        std::int64_t code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {errorWithKorvoErrorCode(68, std::string("Host not found")), 67,
         "Cannot clean known hosts file for remote host ssh.example"},
        {errorWithKorvoErrorCode(69, std::string("Cannot verify signature of executable at path /usr/bin/ssh-keygen")),
         69, "Cannot verify signature of executable at path /usr/bin/ssh-keygen"},
        {errorWithKorvoErrorCode(62, std::string("Cannot find executable at path /usr/bin/ssh-keygen")), 69,
         "Cannot verify signature of executable at path /usr/bin/ssh-keygen"},
    };
    for (const auto& c : cases) {
        toolOutcome = c.runner;
        const MaybeError error = maintenance->cleanKnownHostsForRemoteHost("ssh.example");
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->code, c.code);
        EXPECT_EQ(errorMessage(error), c.message);
    }
    toolRuns.clear();
    EXPECT_EQ(maintenance->cleanKnownHostsForRemoteHost(std::nullopt)->code, 67);
    EXPECT_THAT(toolRuns, IsEmpty());

    log.clear();
    for (const bool enabled : {true, false}) {
        const MaybeError error = maintenance->setTimeMachineEnabled(enabled);
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->code, 62);
        EXPECT_EQ(errorMessage(error), "Time Machine preference file file not found at " +
                                           paths.timeMachinePreferencesDomain + ".plist");
    }
    EXPECT_THAT(log.lines(), IsEmpty());
    std::ofstream(paths.timeMachinePreferencesDomain + ".plist") << "";
    EXPECT_EQ(maintenance->setTimeMachineEnabled(true)->code, 69);
}

}  // namespace
}  // namespace korvo
