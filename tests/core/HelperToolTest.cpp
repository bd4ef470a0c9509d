#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/HelperTool.h"
#include "platform/ServiceListener.h"
#include "support/TestSupport.h"
#include "util/Log.h"

namespace korvo {
namespace {

// A listener that cannot start (serving through the real bus:
// tests/integration/HelperServiceTest.cpp).
class FailingListener : public platform::ServiceListener {
public:
    MaybeError resume() override { return errorWithKorvoErrorCode(55, "no bus here"); }
    void invalidate() override {}
};

TEST(HelperToolTest, RunEndsTheProcessWhenTheListenerCannotStart) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            openHelperLog(true);
            HelperServices services;
            services.codeSigning = std::make_shared<test::FakeCodeSigning>();
            services.makeListener = [](std::string_view, platform::ServiceListenerDelegate&) {
                return std::make_unique<FailingListener>();
            };
            KorvoHelperTool tool(services);
            tool.run();
        },
        ::testing::ExitedWithCode(1), ::testing::HasSubstr("no bus here"));
}

}  // namespace
}  // namespace korvo
