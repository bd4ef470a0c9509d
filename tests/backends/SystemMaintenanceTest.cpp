// Disconnect on its own, with real processes and a recording stand-in for
// interface control: a WireGuard program deletes its own link when it ends,
// so only here can the test see that the helper deletes exactly the links
// its programs made. Every request through the bus, with the real helper:
// tests/integration/SystemMaintenanceServiceTest.cpp.
#include "backends/SystemMaintenance.h"

#include <gtest/gtest.h>

#include "network/NetworkSystemOperations.h"
#include "process/ChildProcess.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::errorMessage;
using test::LogCapture;

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

std::shared_ptr<ChildProcess> sleeper() {
    ChildProcess::Options options;
    options.executable = "/bin/sleep";
    options.arguments = {"60"};
    return ChildProcess::launch(options, nullptr);
}

class SystemMaintenanceTest : public ::testing::Test {
protected:
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

    LogCapture log;
    StartedProcesses started{nullptr};
    std::shared_ptr<RecordingInterfaceControl> interfaces = std::make_shared<RecordingInterfaceControl>();
    SystemMaintenance maintenance{{started, std::make_shared<NetworkSystemOperations>(nullptr, interfaces),
                                   nullptr, nullptr, {}}};
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
        const MaybeError error = maintenance.disconnectService(c.serviceType, c.interfaceName, 9999, c.pid);
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
    EXPECT_EQ(maintenance.disconnectService(1, std::nullopt, 0, vpnc), std::nullopt);
    children.front()->terminate();
    ASSERT_TRUE(children.front()->waitForExit(10));
    EXPECT_EQ(maintenance.disconnectService(2, std::nullopt, 0, stranger), std::nullopt);
}

}  // namespace
}  // namespace korvo
