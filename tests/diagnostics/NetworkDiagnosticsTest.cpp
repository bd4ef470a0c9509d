// The diagnostics' own logic, with the log kept in memory, no shell (every
// capture is then a launch failure, which still writes a block with its
// trigger) and the periodic timer driven by a clock of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <cctype>

#include "diagnostics/CaptureRun.h"
#include "diagnostics/DynamicStoreText.h"
#include "diagnostics/NetworkDiagnostics.h"
#include "platform/DynamicStore.h"
#include "process/Executables.h"
#include "support/TestSupport.h"
#include "util/SerialQueue.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Timers that fire only when the test moves time on.
class ManualClock {
public:
    struct Timer {
        SerialQueue* queue;
        TimerSchedule schedule;
        std::function<void()> handler;
        std::chrono::nanoseconds next;
        std::atomic<bool> cancelled{false};
    };

    QueueTimerFactory factory() {
        return [this](SerialQueue& queue, const TimerSchedule& schedule, std::function<void()> handler) {
            class Handle final : public QueueTimer {
            public:
                explicit Handle(std::shared_ptr<Timer> timer) : timer_(std::move(timer)) {}
                ~Handle() override { cancel(); }
                void cancel() override { timer_->cancelled = true; }

            private:
                std::shared_ptr<Timer> timer_;
            };
            std::lock_guard lock(mutex_);
            auto timer = std::make_shared<Timer>();
            timer->queue = &queue;
            timer->schedule = schedule;
            timer->handler = std::move(handler);
            timer->next = now_ + schedule.start;
            timers_.push_back(timer);
            return std::make_unique<Handle>(timer);
        };
    }

    void advance(std::chrono::nanoseconds by) {
        std::lock_guard lock(mutex_);
        now_ += by;
        for (const auto& timer : timers_) {
            for (; !timer->cancelled && timer->next <= now_; timer->next += timer->schedule.interval) {
                timer->queue->async([timer] {
                    if (!timer->cancelled) timer->handler();
                });
            }
        }
    }

    std::size_t timersMade() const {
        std::lock_guard lock(mutex_);
        return timers_.size();
    }
    TimerSchedule lastSchedule() const {
        std::lock_guard lock(mutex_);
        return timers_.back()->schedule;
    }

private:
    mutable std::mutex mutex_;
    std::chrono::nanoseconds now_{0};
    std::vector<std::shared_ptr<Timer>> timers_;
};

class FakeStoreSession final : public platform::DynamicStoreSession {
public:
    explicit FakeStoreSession(std::map<std::string, Dictionary> keys) : keys_(std::move(keys)) {}
    std::optional<Dictionary> copyValue(const std::string& key) override {
        const auto it = keys_.find(key);
        return it == keys_.end() ? std::nullopt : std::optional<Dictionary>(it->second);
    }
    MaybeError setValue(const std::string&, const Dictionary&) override { return std::nullopt; }
    MaybeError removeValue(const std::string&) override { return std::nullopt; }

private:
    std::map<std::string, Dictionary> keys_;
};

class FakeStore final : public platform::DynamicStore {
public:
    std::optional<std::map<std::string, Dictionary>> keys;  // nullopt: no session opens
    std::unique_ptr<platform::DynamicStoreSession> openSession(std::string_view, std::string* failure) override {
        if (!keys) {
            if (failure) *failure = "refused";
            return nullptr;
        }
        return std::make_unique<FakeStoreSession>(*keys);
    }
};

const CallerRights kCaller{1000, 1000, {1000}};
const char* const kLaunchFailure =
    "Could not launch network diagnostics capture: Cannot verify signature of executable at path /bin/bash\n";

class NetworkDiagnosticsTest : public ::testing::Test {
protected:
    NetworkDiagnosticsServices services() {
        NetworkDiagnosticsServices s;
        s.makeTimer = clock.factory();
        s.openShell = [this] {
            ++shellOpens;
            return UniqueFd();
        };
        s.appendToLog = [this](const CallerRights& caller, const std::string& path, std::string_view bytes) {
            std::lock_guard lock(mutex);
            writers.push_back(caller.userIdentifier);
            paths.push_back(path);
            blocks.emplace_back(bytes);
            return MaybeError();
        };
        s.dynamicStore = store;
        return s;
    }

    void flush() { diagnostics->_networkDiagnosticsQueue().sync([] {}); }

    // The trigger of each block appended so far; every block is a header
    // and the launch failure.
    std::vector<std::string> triggers() {
        flush();
        std::lock_guard lock(mutex);
        std::vector<std::string> result;
        const std::string start = "\n==================== ", date = "2026-01-01 00:00:00 +0000", mark = " (trigger: ";
        const std::string end = std::string(") ====================\n") + kLaunchFailure;
        for (const auto& block : blocks) {
            const bool framed = block.size() >= start.size() + date.size() + mark.size() + end.size() &&
                                block.starts_with(start) && block.ends_with(end) &&
                                block.compare(start.size() + date.size(), mark.size(), mark) == 0;
            EXPECT_TRUE(framed) << block;
            if (!framed) continue;
            for (std::size_t i = 0; i < date.size(); ++i) {
                const char c = block[start.size() + i];
                EXPECT_EQ(std::isdigit(static_cast<unsigned char>(date[i])) != 0,
                          std::isdigit(static_cast<unsigned char>(c)) != 0)
                    << block;
            }
            const std::size_t from = start.size() + date.size() + mark.size();
            result.push_back(block.substr(from, block.size() - end.size() - from));
        }
        blocks.clear();
        return result;
    }

    void enable(bool on = true) { diagnostics->setNetworkDiagnosticsCaptureEnabled(on, "/var/log/korvo.log", kCaller); }

    ManualClock clock;
    std::shared_ptr<FakeStore> store = std::make_shared<FakeStore>();
    std::mutex mutex;
    std::vector<uid_t> writers;
    std::vector<std::string> paths, blocks;
    std::atomic<int> shellOpens{0};
    std::unique_ptr<NetworkDiagnostics> diagnostics = std::make_unique<NetworkDiagnostics>(services());
};

TEST_F(NetworkDiagnosticsTest, ServiceTypesHaveTheirDisplayNames) {
    const std::vector<std::pair<std::int64_t, const char*>> cases = {
        {0, "OpenVPN"}, {1, "VPNC"},    {2, "SSH"},     {3, "Unknown"},
        {4, "OpenConnect"}, {5, "WireGuard"}, {6, "Unknown"}, {-1, "Unknown"},
    };
    for (const auto& [type, name] : cases) {
        EXPECT_EQ(NetworkDiagnostics::_serviceTypeDisplayNameForType(type), name) << type;
    }
}

TEST_F(NetworkDiagnosticsTest, EventsWriteOneBlockEachWithTheirTriggerAsTheCallerWhoNamedTheLog) {
    enable();
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(5, "office");
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(0, std::nullopt);
    diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(3, "");
    EXPECT_THAT(triggers(), ElementsAre("connection established (WireGuard, office)",
                                        "connection established (OpenVPN, unknown account)",
                                        "connection terminated (Unknown, )"));
    EXPECT_THAT(writers, ElementsAre(1000, 1000, 1000));
    EXPECT_THAT(paths, ElementsAre("/var/log/korvo.log", "/var/log/korvo.log", "/var/log/korvo.log"));
}

TEST_F(NetworkDiagnosticsTest, NothingIsCapturedWithoutALogPathOrAKnownCaller) {
    test::LogCapture log;
    for (const std::optional<std::string>& path : {std::optional<std::string>(), std::optional<std::string>("")}) {
        diagnostics->setNetworkDiagnosticsCaptureEnabled(true, path, kCaller);
        diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(5, "office");
        EXPECT_THAT(triggers(), IsEmpty());
    }
    EXPECT_EQ(shellOpens, 0);
    diagnostics->setNetworkDiagnosticsCaptureEnabled(true, "/var/log/korvo.log", std::nullopt);
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(5, "office");
    EXPECT_THAT(triggers(), IsEmpty());
    EXPECT_THAT(log.errors(), ElementsAre("Could not open network diagnostics log file at /var/log/korvo.log for writing."));
}

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

TEST_F(NetworkDiagnosticsTest, PeriodicCaptureEvery30SecondsUntilTheLastConnectionEnds) {
    enable();
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(1, "a");
    diagnostics->networkDiagnosticsConnectionEstablishedForServiceType(2, "b");
    EXPECT_THAT(triggers(), ElementsAre("connection established (VPNC, a)", "connection established (SSH, b)"));
    ASSERT_EQ(clock.timersMade(), 1u);
    EXPECT_EQ(clock.lastSchedule().start, 30s);
    EXPECT_EQ(clock.lastSchedule().interval, 30s);
    EXPECT_EQ(clock.lastSchedule().leeway, 5s);

    clock.advance(29s);
    EXPECT_THAT(triggers(), IsEmpty());
    clock.advance(1s);
    EXPECT_THAT(triggers(), ElementsAre("periodic (30s)"));
    clock.advance(60s);
    EXPECT_THAT(triggers(), ElementsAre("periodic (30s)", "periodic (30s)"));

    diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(1, "a");
    clock.advance(30s);
    EXPECT_THAT(triggers(), ElementsAre("connection terminated (VPNC, a)", "periodic (30s)"));
    diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(2, "b");
    clock.advance(90s);
    EXPECT_THAT(triggers(), ElementsAre("connection terminated (SSH, b)"));
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
    EXPECT_EQ(clock.timersMade(), 0u);
}

TEST_F(NetworkDiagnosticsTest, CapturesAreSkippedWhileAResetRuns) {
    test::LogCapture log;
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
    EXPECT_TRUE(log.contains("Skipping network diagnostics capture (trigger: connection established (OpenConnect, "
                             "corp)) because a network reset is in progress."));
    EXPECT_TRUE(log.contains(
        "Skipping network diagnostics capture (trigger: periodic) because a network reset is in progress."));

    diagnostics->endNetworkDiagnosticsSuppression();
    diagnostics->networkDiagnosticsConnectionTerminatedForServiceType(4, "corp");
    EXPECT_THAT(triggers(), ElementsAre("connection terminated (OpenConnect, corp)"));
}

TEST_F(NetworkDiagnosticsTest, TheCurrentNetworkStateComesFromTheGlobalStoreKeys) {
    const Dictionary ipv4 = {{"Router", "192.0.2.1"}, {"PrimaryInterface", "utun3"}};
    struct Case {
        const char* what;
        std::optional<std::map<std::string, Dictionary>> keys;
        std::vector<std::string> expected;  // router, DNS server, primary interface
    };
    const std::vector<Case> cases = {
        {"no session", std::nullopt, {"r", "d", "p"}},
        {"both keys",
         std::map<std::string, Dictionary>{{"State:/Network/Global/IPv4", ipv4},
                                           {"State:/Network/Global/DNS",
                                            {{"ServerAddresses", Array{"198.51.100.53", "198.51.100.54"}}}}},
         {"192.0.2.1", "198.51.100.53", "utun3"}},
        {"values of other types, a list that starts with a number",
         std::map<std::string, Dictionary>{{"State:/Network/Global/IPv4", {{"Router", 7}, {"PrimaryInterface", true}}},
                                           {"State:/Network/Global/DNS", {{"ServerAddresses", Array{5, "x"}}}}},
         {"r", "d", "p"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        store->keys = c.keys;
        std::string router = "r", dns = "d", primary = "p";
        diagnostics->_currentActiveRouterAddress(&router, &dns, &primary);
        EXPECT_EQ((std::vector<std::string>{router, dns, primary}), c.expected);
    }
}

TEST(NetworkDiagnosticsTextTest, HeaderScriptArgumentsAndStoreKeys) {
    EXPECT_EQ(networkDiagnosticsHeader(std::chrono::system_clock::from_time_t(1794710640), "periodic"),
              "\n==================== 2026-11-15 02:44:00 +0000 (trigger: periodic) ====================\n");
    for (const auto& [primary, tunnel] : std::vector<std::pair<std::string, std::string>>{
             {"utun3", "utun3"}, {"en0", ""}, {"", ""}, {"eth0utun", ""}, {"utun3 -f", ""}, {"utun-with-a-long-name", ""}}) {
        EXPECT_EQ(captureScriptArguments("/wg", "", "", primary)[3], tunnel) << primary;
    }
    EXPECT_THAT(captureScriptArguments("/wg", "192.0.2.1", "2001:db8::53", "en0"),
                ElementsAre("/wg", "192.0.2.1", "2001:db8::53", ""));
    EXPECT_THAT(captureScriptArguments("", "-i0.001", "192.0.2.1; reboot", "utun3"), ElementsAre("", "", "", "utun3"));
    EXPECT_THAT(networkDiagnosticsStoreKeys(""), ElementsAre("State:/Network/Global/IPv4", "State:/Network/Global/DNS"));
    EXPECT_EQ(networkDiagnosticsStoreKeys("utun3").size(), 8u);
    EXPECT_EQ(networkDiagnosticsStoreKeys("utun3").back(), "State:/Network/Service/wireguard-utun3/DNS");

    FakeStoreSession session({{"State:/Network/Global/DNS",
                               {{"ServerAddresses", Array{"198.51.100.53"}}, {"SearchDomains", Array{}}}}});
    EXPECT_EQ(dynamicStoreKeysText(session, {"State:/Network/Global/IPv4", "State:/Network/Global/DNS"}),
              "### State:/Network/Global/IPv4\n"
              "  No such key\n"
              "### State:/Network/Global/DNS\n"
              "<dictionary> {\n"
              "  SearchDomains : <array> {\n"
              "  }\n"
              "  ServerAddresses : <array> {\n"
              "    0 : 198.51.100.53\n"
              "  }\n"
              "}\n");
}

// The shell for real, with scripts of the test's own: both streams in one
// pipe, the arguments after the script's name, and a script past its limit
// ended.
TEST(CaptureRunTest, RunsTheScriptWithItsArgumentsAndEndsItAtItsLimit) {
    const auto run = runCaptureScript(openProgramFile("/bin/bash"), "echo \"$0 $1 $2\"; echo err >&2; echo \"$KEYS\"",
                                      "networkDiagnostics", {"a b", "c"}, {{"KEYS", "k"}}, 30.0);
    EXPECT_EQ(run.launchFailure, std::nullopt);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.output, "networkDiagnostics a b c\nerr\nk\n");

    const auto late = runCaptureScript(openProgramFile("/bin/bash"), "echo started; exec sleep 60", "n", {}, {}, 0.2);
    EXPECT_TRUE(late.timedOut);
    EXPECT_EQ(late.output, "started\n");

    EXPECT_EQ(runCaptureScript(UniqueFd(), "true", "n", {}, {}, 1.0).launchFailure,
              "Cannot verify signature of executable at path /bin/bash");
}

}  // namespace
}  // namespace korvo
