#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "core/HelperTool.h"
#include "util/Protocol.h"
#include "platform/ServiceListener.h"
#include "support/TestSupport.h"
#include "util/Log.h"

namespace korvo {
namespace {

using ::testing::HasSubstr;

// A listener that serves nothing.
class FakeListener : public platform::ServiceListener {
public:
    explicit FakeListener(platform::ServiceListenerDelegate& d) : delegate(d) {}
    MaybeError resume() override { return std::nullopt; }
    void invalidate() override {}

    platform::ServiceListenerDelegate& delegate;
};

class HelperToolTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    static HelperServices services() {
        HelperServices services;
        services.codeSigning = std::make_shared<test::FakeCodeSigning>();
        return services;
    }
};

// The order on standard error: the log line, then the reply, then exit 0.
bool loggedThenReplied(const std::string& output) {
    const auto logged = output.find("Terminating helper utility on Korvo request.");
    const auto replied = output.find("replied");
    return logged != std::string::npos && replied != std::string::npos && logged < replied;
}

TEST_F(HelperToolTest, TerminateBeforeRunRepliesAndExitsAtOnce) {
    EXPECT_EXIT(
        {
            openHelperLog(true);
            KorvoHelperTool tool(services());
            tool.terminateWithReply([](const MaybeError& error) {
                std::fprintf(stderr, "replied %s\n", error ? "with error" : "nil");
            });
            std::fprintf(stderr, "still running\n");
        },
        ::testing::ExitedWithCode(0), ::testing::Truly(loggedThenReplied));
}

// Once a listener is attached, run serves until termination (status 0) or
// until the listener fails (status 1); the caller then stops the listener.
TEST_F(HelperToolTest, RunReturnsTheStatusOfHowServingEnded) {
    KorvoHelperTool terminated(services());
    FakeListener first(terminated.listenerDelegate());
    terminated.attachListener(first);
    bool replied = false;
    terminated.terminateWithReply([&](const MaybeError& error) { replied = !error; });
    EXPECT_TRUE(replied);
    EXPECT_EQ(terminated.run(), EXIT_SUCCESS);

    KorvoHelperTool failed(services());
    FakeListener second(failed.listenerDelegate());
    failed.attachListener(second);
    failed.listenerDelegate().listenerDidFail(second, "bus gone");
    EXPECT_EQ(failed.run(), EXIT_FAILURE);
}

// The tool's listener delegate judges only connections of its own listener
// (acceptance and operations through the bus: HelperServiceTest).
TEST_F(HelperToolTest, ListenerDelegateRefusesAForeignListener) {
    KorvoHelperTool tool(services());
    FakeListener own(tool.listenerDelegate());
    tool.attachListener(own);
    auto& delegate = tool.listenerDelegate();
    EXPECT_TRUE(delegate.shouldAcceptNewConnection(own, {":1.5", 99, 0, {0}}));
    FakeListener stranger(delegate);
    EXPECT_DEATH(
        {
            openHelperLog(true);
            delegate.shouldAcceptNewConnection(stranger, {":1.8", 99, 0, {0}});
        },
        "listener == self.listener");
}

}  // namespace
}  // namespace korvo
