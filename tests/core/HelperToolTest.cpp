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

// Says on standard error what the tool asks of it, so that death tests can
// see the order of events.
class FakeListener : public platform::ServiceListener {
public:
    explicit FakeListener(platform::ServiceListenerDelegate& d, bool failResume) : delegate(d), failResume_(failResume) {}
    MaybeError resume() override {
        std::fprintf(stderr, "listener resumed\n");
        if (failResume_) return errorWithKorvoErrorCode(55, "no bus here");
        return std::nullopt;
    }
    void invalidate() override { std::fprintf(stderr, "listener invalidated\n"); }

    platform::ServiceListenerDelegate& delegate;

private:
    bool failResume_;
};

class HelperToolTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    HelperServices servicesWithListener(bool failResume = false) {
        HelperServices services;
        services.codeSigning = std::make_shared<test::FakeCodeSigning>();
        services.makeListener = [this, failResume](std::string_view name, platform::ServiceListenerDelegate& d) {
            listenerName = std::string(name);
            auto listener = std::make_unique<FakeListener>(d, failResume);
            fakeListener = listener.get();
            return listener;
        };
        return services;
    }

    std::string listenerName;
    FakeListener* fakeListener = nullptr;
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
            KorvoHelperTool tool(servicesWithListener());
            tool.terminateWithReply([](const MaybeError& error) {
                std::fprintf(stderr, "replied %s\n", error ? "with error" : "nil");
            });
            std::fprintf(stderr, "still running\n");
        },
        ::testing::ExitedWithCode(0), ::testing::Truly(loggedThenReplied));
}

TEST_F(HelperToolTest, RunEndsTheProcessWhenTheListenerCannotStart) {
    EXPECT_EXIT(
        {
            openHelperLog(true);
            KorvoHelperTool tool(servicesWithListener(true));
            tool.run();
        },
        ::testing::ExitedWithCode(1), HasSubstr("no bus here"));
}

// The tool's listener delegate judges only connections of its own listener
// (acceptance and operations through the bus: HelperServiceTest).
TEST_F(HelperToolTest, ListenerDelegateRefusesAForeignListener) {
    KorvoHelperTool tool(servicesWithListener());
    ASSERT_NE(fakeListener, nullptr);
    EXPECT_EQ(listenerName, "com.tallowmar.korvo.utility");
    auto& delegate = fakeListener->delegate;
    EXPECT_TRUE(delegate.shouldAcceptNewConnection(*fakeListener, {":1.5", 99, 0, {0}}));
    FakeListener stranger(delegate, false);
    EXPECT_DEATH(
        {
            openHelperLog(true);
            delegate.shouldAcceptNewConnection(stranger, {":1.8", 99, 0, {0}});
        },
        "listener == self.listener");
}

}  // namespace
}  // namespace korvo
