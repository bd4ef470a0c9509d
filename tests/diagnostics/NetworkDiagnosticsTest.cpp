// The diagnostics' own rules, with the log kept in memory, no shell (every
// capture is then a launch failure, which still writes a block with its
// trigger) and timers that never fire: when the periodic capture runs, and
// that no capture runs while a reset is under way. The captures themselves
// go through the bus (tests/diagnostics/DiagnosticsServiceTest.cpp).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>

#include "diagnostics/CaptureRun.h"
#include "diagnostics/NetworkDiagnostics.h"
#include "process/Executables.h"
#include "util/SerialQueue.h"

namespace korvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class NeverFires final : public QueueTimer {
public:
    void cancel() override {}
};

const CallerRights kCaller{1000, 1000, {1000}};
const char* const kLaunchFailure =
    "Could not launch network diagnostics capture: Cannot verify signature of executable at path /bin/bash\n";

class NetworkDiagnosticsTest : public ::testing::Test {
protected:
    NetworkDiagnosticsServices services() {
        NetworkDiagnosticsServices s;
        s.makeTimer = [this](SerialQueue&, const TimerSchedule&, std::function<void()>) {
            ++timersMade;
            return std::make_unique<NeverFires>();
        };
        s.openShell = [this] {
            ++shellOpens;
            return UniqueFd();
        };
        s.appendToLog = [this](const CallerRights&, const std::string&, std::string_view bytes) {
            std::lock_guard lock(mutex);
            blocks.emplace_back(bytes);
            return MaybeError();
        };
        return s;
    }

    void flush() { diagnostics->_networkDiagnosticsQueue().sync([] {}); }

    // The trigger of each block appended so far.
    std::vector<std::string> triggers() {
        flush();
        std::lock_guard lock(mutex);
        std::vector<std::string> result;
        const std::string mark = " (trigger: ", end = std::string(") ====================\n") + kLaunchFailure;
        for (const auto& block : blocks) {
            const auto from = block.find(mark);
            EXPECT_TRUE(from != std::string::npos && block.ends_with(end)) << block;
            if (from == std::string::npos || !block.ends_with(end)) continue;
            result.push_back(block.substr(from + mark.size(), block.size() - end.size() - from - mark.size()));
        }
        blocks.clear();
        return result;
    }

    void enable(bool on = true) { diagnostics->setNetworkDiagnosticsCaptureEnabled(on, "/var/log/korvo.log", kCaller); }

    std::atomic<int> timersMade{0};
    std::mutex mutex;
    std::vector<std::string> blocks;
    std::atomic<int> shellOpens{0};
    std::unique_ptr<NetworkDiagnostics> diagnostics = std::make_unique<NetworkDiagnostics>(services());
};

// Each case: a sequence of events, each run to its end on the queue, then
// the connection count and whether the periodic capture runs.
TEST_F(NetworkDiagnosticsTest, PeriodicCaptureRunsWhileAConnectionIsUpAndCaptureIsOn) {
    struct Case {
        const char* events;  // E established, T terminated, D disable, N enable, S a reset's stop
        std::int64_t count;
        bool running;
    };
    const std::vector<Case> cases = {
        {"NE", 1, true},      {"NEE", 2, true},   {"NEET", 1, true},  {"NEETT", 0, false},
        {"NT", 0, false},     {"NED", 1, false},  {"NEDN", 1, false}, {"NEDT", 1, false},
        {"NEDNT", 0, false},  {"DE", 0, false},   {"NES", 1, false},  {"NESE", 2, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.events);
        diagnostics = std::make_unique<NetworkDiagnostics>(services());
        for (const char* event = c.events; *event; ++event) {
            switch (*event) {
                case 'E': diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(5, "a"); break;
                case 'T': diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(5, "a"); break;
                case 'D': enable(false); break;
                case 'N': enable(); break;
                case 'S': diagnostics->stopPeriodicCaptureIfNeeded(); break;
            }
            flush();
        }
        EXPECT_EQ(diagnostics->networkDiagnosticsActiveConnectionCount(), c.count);
        EXPECT_EQ(diagnostics->hasPeriodicTimer(), c.running);
    }
}

TEST_F(NetworkDiagnosticsTest, SwitchingCaptureOffStopsThePeriodicCaptureEvenBeforeItsStartHasRun) {
    // The queue is held, so the established event's capture and start are
    // still waiting when capture is switched off.
    std::promise<void> release;
    diagnostics->_networkDiagnosticsQueue().async([gate = release.get_future().share()] { gate.wait(); });
    enable();
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(5, "office");
    enable(false);
    release.set_value();
    EXPECT_THAT(triggers(), ElementsAre("connection established (WireGuard, office)"));
    EXPECT_EQ(timersMade, 0);
}

TEST_F(NetworkDiagnosticsTest, CapturesAreSkippedWhileAResetRuns) {
    enable();
    diagnostics->endNetworkDiagnosticsSuppression();  // unmatched: the count stays at 0
    EXPECT_FALSE(diagnostics->_networkDiagnosticsSuppressed());
    diagnostics->beginNetworkDiagnosticsSuppression();
    diagnostics->beginNetworkDiagnosticsSuppression();
    diagnostics->endNetworkDiagnosticsSuppression();
    EXPECT_TRUE(diagnostics->_networkDiagnosticsSuppressed());

    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(4, "corp");
    diagnostics->_networkDiagnosticsQueue([this] { diagnostics->_networkDiagnosticsCaptureOnceWithTrigger(std::nullopt); });
    EXPECT_THAT(triggers(), IsEmpty());
    EXPECT_EQ(shellOpens, 0);

    diagnostics->endNetworkDiagnosticsSuppression();
    diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(4, "corp");
    EXPECT_THAT(triggers(), ElementsAre("connection terminated (OpenConnect, corp)"));
}

// What the client sends never becomes an option or a second argument of the
// capture script's commands: only an address is passed on, only a tunnel name
// as the tunnel interface.
TEST(NetworkDiagnosticsTextTest, OnlyAddressesAndTunnelNamesReachTheScript) {
    for (const auto& [primary, tunnel] : std::vector<std::pair<std::string, std::string>>{
             {"utun3", "utun3"}, {"en0", ""}, {"", ""}, {"eth0utun", ""}, {"utun3 -f", ""}, {"utun-with-a-long-name", ""}}) {
        EXPECT_EQ(captureScriptArguments("/wg", "", "", primary)[3], tunnel) << primary;
    }
    EXPECT_THAT(captureScriptArguments("/wg", "192.0.2.1", "2001:db8::53", "en0"),
                ElementsAre("/wg", "192.0.2.1", "2001:db8::53", ""));
    EXPECT_THAT(captureScriptArguments("", "-i0.001", "192.0.2.1; reboot", "utun3"), ElementsAre("", "", "", "utun3"));
}

// A script that hangs is ended at its limit with what it wrote so far.
TEST(CaptureRunTest, AScriptPastItsLimitIsEnded) {
    const auto late = runCaptureScript(openProgramFile("/bin/bash"), "echo started; exec sleep 60", "n", {}, {}, 0.2);
    EXPECT_TRUE(late.timedOut);
    EXPECT_EQ(late.output, "started\n");

    EXPECT_EQ(runCaptureScript(UniqueFd(), "true", "n", {}, {}, 1.0).launchFailure,
              "Cannot verify signature of executable at path /bin/bash");
}

}  // namespace
}  // namespace korvo
