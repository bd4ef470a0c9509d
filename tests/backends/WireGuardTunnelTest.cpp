// The steps that act on a running tunnel program: the wait for its control
// socket (against real processes and files) and how an "Address" value
// becomes an interface address (against a recording interface service).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "backends/WireGuardTunnel.h"
#include "platform/TunnelInterfaceConfigurator.h"
#include "process/CapturedProcessOutput.h"
#include "process/ChildProcess.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string descriptionOf(const MaybeError& error) { return error ? error->localizedDescription().value_or("") : ""; }

// A child that has already exited and been reaped.
pid_t exitedProcess() {
    ChildProcess::Options options;
    options.executable = "/bin/true";
    int launchError = 0;
    auto child = ChildProcess::launch(options, &launchError);
    EXPECT_TRUE(child) << launchError;
    if (!child) return -1;
    child->waitUntilExit();
    return child->pid();
}

TEST(WireGuardControlSocketWaitTest, SucceedsOnceTheSocketAppears) {
    const test::TempDir dir;
    std::thread creator([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(350));
        std::ofstream(dir.path() + "/wgt0.sock").put('x');
    });
    const MaybeError error = wireGuardWaitForControlSocket("wgt0", dir.path(), getpid(), "WireGuard", nullptr);
    creator.join();
    EXPECT_EQ(error, std::nullopt) << descriptionOf(error);
}

TEST(WireGuardControlSocketWaitTest, ProgramThatEndedIsReportedWithItsOutput) {
    const test::TempDir dir;
    const pid_t pid = exitedProcess();
    CSCapturedProcessOutput output;
    const std::string text = "\nERROR: Failed to create TUN device: interface name too long\n";
    output.appendData({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});

    MaybeError error = wireGuardWaitForControlSocket("wgt1", dir.path(), pid, "AmneziaWG", &output);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, KorvoErrorDomain);
    EXPECT_EQ(error->code, 55);
    EXPECT_THAT(descriptionOf(error),
                EndsWith("AmneziaWG userspace backend terminated before its control socket became available. "
                         "Backend output: ERROR: Failed to create TUN device: interface name too long"));

    // A socket left behind by an earlier program does not count while this
    // one is dead; without output the message ends at its full stop.
    std::ofstream(dir.path() + "/wgt1.sock").put('x');
    error = wireGuardWaitForControlSocket("wgt1", dir.path(), pid, "WireGuard", nullptr);
    EXPECT_THAT(descriptionOf(error),
                EndsWith("WireGuard userspace backend terminated before its control socket became available."));
}

TEST(WireGuardControlSocketWaitTest, GivesUpWhenNoSocketAppears) {
    const test::TempDir dir;
    const MaybeError error = wireGuardWaitForControlSocket("wgt2", dir.path(), getpid(), "WireGuard", nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 55);
    EXPECT_THAT(descriptionOf(error), EndsWith("WireGuard userspace backend did not create its control socket at " +
                                               dir.path() + "/wgt2.sock."));
}

// Records what the backend asks of the interface.
class RecordingInterfaces final : public platform::TunnelInterfaceConfigurator {
public:
    MaybeError bringInterfaceUp(const std::string& name) override {
        calls.push_back("up " + name);
        return failure;
    }
    MaybeError addIPv4Address(const std::string& name, const std::string& local,
                              const std::string& destination, const std::string& netmask) override {
        calls.push_back("inet " + name + " " + local + " " + destination + " " + netmask);
        return failure;
    }
    MaybeError addIPv6Address(const std::string& name, const std::string& address,
                              long prefixLength) override {
        calls.push_back("inet6 " + name + " " + address + "/" + std::to_string(prefixLength));
        return failure;
    }
    std::vector<std::string> calls;
    MaybeError failure;
};

class WireGuardAddressTest : public ::testing::Test {
protected:
    std::vector<std::string> configure(const std::vector<std::string>& addresses) {
        interfaces->calls.clear();
        for (const auto& address : addresses) {
            const MaybeError error = wireGuardConfigureAddress(*interfaces, "utun7", address);
            EXPECT_EQ(error, std::nullopt) << address;
        }
        return interfaces->calls;
    }
    std::shared_ptr<RecordingInterfaces> interfaces = std::make_shared<RecordingInterfaces>();
};

// IPv4: a host address on the point-to-point link, whatever the prefix.
// IPv6: the prefix kept within range (none written: /32); the last piece is
// the prefix, its digits up to the first other character.
TEST_F(WireGuardAddressTest, EachFamilyGetsItsOwnAddressForm) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"10.0.0.2/24", "inet utun7 10.0.0.2 10.0.0.2 255.255.255.255"},
        {"10.0.0.3", "inet utun7 10.0.0.3 10.0.0.3 255.255.255.255"},
        {" 10.0.0.4 /0", "inet utun7 10.0.0.4 10.0.0.4 255.255.255.255"},
        {"10.0.0.5/99", "inet utun7 10.0.0.5 10.0.0.5 255.255.255.255"},
        {"fd00::2/64", "inet6 utun7 fd00::2/64"}, {"fd00::3", "inet6 utun7 fd00::3/32"},
        {"fd00::4/ 48", "inet6 utun7 fd00::4/48"}, {"fd00::5/0", "inet6 utun7 fd00::5/128"},
        {"fd00::6/129", "inet6 utun7 fd00::6/128"}, {"fd00::7/abc", "inet6 utun7 fd00::7/128"},
        {"fd00::8/-5", "inet6 utun7 fd00::8/128"}, {"fd00::9/a/112", "inet6 utun7 fd00::9/112"},
        {"fd00::a/56x", "inet6 utun7 fd00::a/56"},
    };
    for (const auto& [address, call] : cases) EXPECT_THAT(configure({address}), ElementsAre(call)) << address;
}

TEST_F(WireGuardAddressTest, EmptyHostsAreSkippedAndFailuresReturned) {
    EXPECT_THAT(configure({"", "/24", "  /64"}), IsEmpty());

    interfaces->failure = errorWithKorvoErrorCode(68, std::string("Could not add address"));
    const MaybeError error = wireGuardConfigureAddress(*interfaces, "utun7", "10.0.0.2/32");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 68);
    EXPECT_THAT(descriptionOf(error), HasSubstr("Could not add address"));
}

}  // namespace
}  // namespace korvo
