// The bus listener with a table of test operations, on a private bus: how it
// orders and overlaps requests, checks arguments, replies, and keeps and
// drops client state. The test process is the service and all its clients.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

#include "KorvoClient.h"
#include "platform/linux/bus/DbusListener.h"
#include "support/HelperFixture.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;

constexpr const char* kService = "com.tallowmar.korvo.utility";
constexpr const char* kInterface = "com.tallowmar.korvo.utility.KorvoHelperToolProtocol";
constexpr const char* kPath = "/com/tallowmar/korvo/utility";

std::vector<Operation> testOperations() {
    using T = ArgumentType;
    return {
        {"slow", {{"label", T::String}, {"index", T::Int64}, {"delayMs", T::Int64}}, ReplyShape::Result},
        {"echo",
         {{"text", T::String},
          {"count", T::Int64},
          {"pid", T::Int32},
          {"port", T::UInt64},
          {"flag", T::Boolean},
          {"names", T::StringArray}},
         ReplyShape::Result},
        {"note", {}, ReplyShape::None},
        {"silent", {}, ReplyShape::Error},
        {"twice", {}, ReplyShape::Error},
    };
}

struct Interval {
    std::string label;
    std::int64_t index;
    Clock::time_point start, end;
};

class TestDelegate : public platform::ServiceListenerDelegate {
public:
    bool shouldAcceptNewConnection(platform::ServiceListener&, const platform::ServiceConnection& c) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(decisionDelayMs.load()));
        std::lock_guard lock(mutex);
        ++acceptanceCalls[c.name];
        return c.processIdentifier == ::getpid() && c.userIdentifier == ::getuid();
    }

    const std::vector<Operation>& exportedOperations() override { return operations; }

    void performOperation(const platform::ServiceConnection&, const Operation& op, const Dictionary& args,
                          ReplySender reply) override {
        if (op.name == "slow") {
            Interval interval{*stringForKey(args, "label"), args.at("index").integerValue().value_or(0), Clock::now(), {}};
            std::this_thread::sleep_for(std::chrono::milliseconds(args.at("delayMs").integerValue().value_or(0)));
            interval.end = Clock::now();
            {
                std::lock_guard lock(mutex);
                intervals.push_back(interval);
            }
            reply({{"result", interval.label}});
        } else if (op.name == "echo") {
            {
                std::lock_guard lock(mutex);
                seen.push_back(args);
            }
            reply({{"result", stringForKey(args, "text").value_or("")}});
        } else if (op.name == "note") {
            ++notes;
            reply({});
        } else if (op.name == "twice") {
            reply({});
            reply({{"error", Dictionary{}}});
        }
        // "silent" drops its reply function without calling it.
    }

    void listenerDidFail(platform::ServiceListener&, const std::string&) override { ++failures; }

    std::size_t acceptanceCount(const std::string& name) {
        std::lock_guard lock(mutex);
        return acceptanceCalls[name];
    }

    const std::vector<Operation> operations = testOperations();
    std::mutex mutex;
    std::map<std::string, std::size_t> acceptanceCalls;
    std::vector<Interval> intervals;
    std::vector<Dictionary> seen;
    std::atomic<int> notes{0};
    std::atomic<int> failures{0};
    std::atomic<int> decisionDelayMs{0};
};

// A client that writes the a{sv} itself, to send D-Bus types that the value
// model would never produce.
class RawClient {
public:
    explicit RawClient(const std::string& address)
        : connection_(sdbus::createSessionBusConnectionWithAddress(address)),
          proxy_(sdbus::createProxy(*connection_, kService, kPath)) {}

    // The reply dictionary, or the bus error's name and message.
    std::pair<Dictionary, std::string> call(const std::string& method, const std::map<std::string, sdbus::Variant>& args) {
        try {
            auto message = proxy_->createMethodCall(kInterface, method);
            message << args;
            auto reply = proxy_->callMethod(message);
            std::map<std::string, sdbus::Variant> out;
            reply >> out;
            Dictionary d;
            for (auto& [k, v] : out) {
                if (v.containsValueOfType<std::string>()) d[k] = v.get<std::string>();
            }
            return {d, ""};
        } catch (const sdbus::Error& e) {
            return {{}, e.getName() + ": " + e.getMessage()};
        }
    }

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

class DbusListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(bus.start(), std::nullopt);
        startListener(platform::DbusListener::Limits{});
    }

    void startListener(platform::DbusListener::Limits limits) {
        listener.reset();
        listener = std::make_unique<platform::DbusListener>(kService, delegate, limits);
        ASSERT_EQ(listener->resume(), std::nullopt);
    }

    std::unique_ptr<KorvoClient> client() { return std::make_unique<KorvoClient>(bus.busAddress()); }

    void TearDown() override {
        listener.reset();
        EXPECT_EQ(delegate.failures, 0);
    }

    test::HelperFixture bus{[] {
        test::HelperFixture::Options options;
        options.startHelper = false;
        return options;
    }()};
    TestDelegate delegate;
    std::unique_ptr<platform::DbusListener> listener;
};

TEST_F(DbusListenerTest, OneClientsRequestsRunInOrderWhileAnotherClientsOverlapThem) {
    auto a = client();
    auto b = client();
    for (int i = 0; i < 3; ++i) {
        a->call("slow", {{"label", "A"}, {"index", i}, {"delayMs", 200}}, 5s, false);
    }
    std::thread other([&] {
        std::this_thread::sleep_for(50ms);
        const auto outcome = b->call("slow", {{"label", "B"}, {"index", 0}, {"delayMs", 200}});
        EXPECT_EQ(outcome.reply.at("result"), Value("B"));
    });
    EXPECT_FALSE(a->call("slow", {{"label", "A"}, {"index", 3}, {"delayMs", 0}}).busError);
    other.join();

    std::lock_guard lock(delegate.mutex);
    std::vector<Interval> aRuns, bRuns;
    for (const auto& i : delegate.intervals) (i.label == "A" ? aRuns : bRuns).push_back(i);
    ASSERT_EQ(aRuns.size(), 4u);
    ASSERT_EQ(bRuns.size(), 1u);
    for (std::size_t i = 0; i < aRuns.size(); ++i) {
        EXPECT_EQ(aRuns[i].index, static_cast<std::int64_t>(i));
        if (i > 0) {
            EXPECT_LE(aRuns[i - 1].end, aRuns[i].start);
        }
    }
    EXPECT_LT(bRuns[0].start, aRuns[1].end);
    EXPECT_GT(bRuns[0].end, aRuns[0].start);
}

// Every request is answered exactly once: an operation without a reply
// answers an empty dictionary when asked, one that forgets to reply gets an
// error, and a second reply is dropped.
TEST_F(DbusListenerTest, EveryRequestIsAnsweredExactlyOnce) {
    auto c = client();
    for (const char* operation : {"note", "twice"}) {
        const auto outcome = c->call(operation, {});
        EXPECT_FALSE(outcome.busError) << operation;
        EXPECT_TRUE(outcome.reply.empty()) << operation;
    }
    const auto forgotten = c->call("silent", {}, 5s);
    ASSERT_TRUE(forgotten.busError);
    EXPECT_EQ(forgotten.busError->name, "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(c->call("echo", {{"text", "after"}}).reply.at("result"), Value("after"));
}

TEST_F(DbusListenerTest, ChecksArgumentTypesAndNamesTheKey) {
    RawClient raw(bus.busAddress());
    // Any integer type will do for an integer argument, as long as it fits.
    for (const auto& value : {sdbus::Variant(std::uint8_t{7}), sdbus::Variant(std::int16_t{7}),
                              sdbus::Variant(std::uint16_t{7}), sdbus::Variant(std::int32_t{7}),
                              sdbus::Variant(std::uint32_t{7}), sdbus::Variant(std::int64_t{7}),
                              sdbus::Variant(std::uint64_t{7})}) {
        const auto [reply, error] = raw.call("echo", {{"count", value}, {"port", value}, {"pid", value}});
        EXPECT_EQ(error, "") << value.peekValueType();
    }
    {
        std::lock_guard lock(delegate.mutex);
        ASSERT_FALSE(delegate.seen.empty());
        EXPECT_EQ(delegate.seen.back().at("count"), Value(7));
    }

    const std::vector<std::pair<std::string, sdbus::Variant>> bad = {
        {"pid", sdbus::Variant(std::uint32_t{3000000000u})},
        {"port", sdbus::Variant(std::int64_t{-1})},
        {"count", sdbus::Variant(std::uint64_t{1} << 63)},
        {"count", sdbus::Variant(2.5)},
        {"flag", sdbus::Variant(std::int32_t{1})},
        {"text", sdbus::Variant(std::vector<std::string>{"x"})},
        {"names", sdbus::Variant(std::vector<std::int32_t>{1})},
    };
    for (const auto& [key, value] : bad) {
        const auto [reply, error] = raw.call("echo", {{key, value}});
        EXPECT_THAT(error, HasSubstr("org.freedesktop.DBus.Error.InvalidArgs")) << key;
        EXPECT_THAT(error, HasSubstr("'" + key + "'"));
    }

    // Keys the operation does not declare are ignored, even unusable ones,
    // and never reach it.
    const std::size_t before = delegate.seen.size();
    auto [reply, error] = raw.call("echo", {{"text", sdbus::Variant(std::string("kept"))},
                                            {"extra", sdbus::Variant(std::uint64_t{1} << 63)},
                                            {"more", sdbus::Variant(std::map<std::int32_t, std::string>{{1, "x"}})}});
    EXPECT_EQ(error, "");
    EXPECT_EQ(reply["result"], Value("kept"));
    {
        std::lock_guard lock(delegate.mutex);
        ASSERT_EQ(delegate.seen.size(), before + 1);
        EXPECT_EQ(delegate.seen.back(), (Dictionary{{"text", "kept"}}));
    }

    // Large values travel whole; a reply too large for the bus is refused
    // rather than sent, which would cost the listener its connection.
    // (A client being judged may not send this much; this one is accepted.)
    auto c = client();
    EXPECT_FALSE(c->call("note", {}).busError);
    std::string text(4 << 20, 'k');
    auto outcome = c->call("echo", {{"text", text}, {"names", Array(1000, Value("n"))}}, 30s);
    ASSERT_FALSE(outcome.busError) << outcome.busError->message;
    EXPECT_EQ(outcome.reply.at("result").asString()->size(), text.size());

    text.resize(16 << 20, 'k');
    outcome = c->call("echo", {{"text", text}}, 30s);
    ASSERT_TRUE(outcome.busError);
    EXPECT_EQ(outcome.busError->name, "org.freedesktop.DBus.Error.LimitsExceeded");
    {
        std::lock_guard lock(delegate.mutex);
        EXPECT_EQ(delegate.seen.back().at("text").asString()->size(), text.size());
    }
    EXPECT_FALSE(c->call("note", {}).busError);
}

// A client is judged once, on its first request (a refused client's
// AccessDenied, each time and logged once, through the real helper:
// HelperServiceTest). Leaving the bus drops the client's state, even
// mid-request (the request finishes, its reply goes nowhere), and a new
// connection is judged anew.
TEST_F(DbusListenerTest, JudgesEachClientOnceAndForgetsItWhenItLeaves) {
    auto accepted = client();
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(accepted->call("note", {}).busError);
    EXPECT_EQ(delegate.acceptanceCount(*accepted->uniqueName()), 1u);
    EXPECT_EQ(listener->clientCount(), 1u);

    ASSERT_TRUE(accepted->call("slow", {{"label", "L"}, {"index", 0}, {"delayMs", 300}}, 50ms).busError);
    accepted.reset();

    auto again = client();
    EXPECT_EQ(again->call("echo", {{"text", "still here"}}).reply.at("result"), Value("still here"));
    EXPECT_EQ(delegate.acceptanceCount(*again->uniqueName()), 1u);
    EXPECT_TRUE(test::eventually([&] {
        std::lock_guard lock(delegate.mutex);
        return delegate.intervals.size() == 1;
    }, 5s));
    again.reset();
    EXPECT_TRUE(test::eventually([&] { return listener->clientCount() == 0; }, 5s));
}

// Backlogs are bounded: while a client is judged only a few small requests
// of it are held, and once accepted a flooding client's excess is refused
// with LimitsExceeded while another client is answered all the while.
TEST_F(DbusListenerTest, BacklogsAreBoundedAndAFloodDelaysNobodyElse) {
    startListener({8, 64});
    delegate.decisionDelayMs = 300;
    const std::string large(5 << 20, 'x');
    auto flood = client();
    auto other = client();
    for (int i = 0; i < 10; ++i) flood->call("note", {}, 5s, false);
    auto outcome = flood->call("echo", {{"text", large}});
    ASSERT_TRUE(outcome.busError);
    EXPECT_EQ(outcome.busError->name, "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_TRUE(test::eventually([&] { return delegate.notes == 4; }, 5s));
    EXPECT_EQ(flood->call("echo", {{"text", large}}).reply.at("result").asString()->size(), large.size());
    ASSERT_FALSE(other->call("note", {}).busError);
    delegate.decisionDelayMs = 0;

    const int before = delegate.notes;
    flood->call("slow", {{"label", "F"}, {"index", 0}, {"delayMs", 500}}, 5s, false);
    for (int i = 0; i < 500; ++i) flood->call("note", {}, 5s, false);
    const auto overflow = flood->call("note", {});
    ASSERT_TRUE(overflow.busError);
    EXPECT_EQ(overflow.busError->name, "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_FALSE(other->call("echo", {{"text", "quick"}}).busError);
    EXPECT_TRUE(test::eventually([&] { return !flood->call("note", {}).busError; }, 5s));
    EXPECT_GE(delegate.notes - before, 60);
    EXPECT_LE(delegate.notes - before, 66);
}

}  // namespace
}  // namespace korvo
