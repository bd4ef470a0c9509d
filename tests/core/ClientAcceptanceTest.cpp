#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ClientAcceptance.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

namespace status = platform::codesign_status;
using ::testing::ElementsAre;

// A client that connected as root, with the process identifier pid.
platform::ServiceConnection asRoot(std::optional<pid_t> pid) { return {":1.7", pid, 0, {0}}; }

class ClientAcceptanceTest : public ::testing::Test {
protected:
    std::shared_ptr<test::FakeCodeSigning> signing = std::make_shared<test::FakeCodeSigning>();
    static constexpr gid_t kClientGroup = 4321;
    ClientAcceptance acceptance{signing, kClientGroup};
    test::LogCapture log;
};

// A failing step of the code check refuses, with its own log line.
TEST_F(ClientAcceptanceTest, AcceptsOnlyWhenEveryStepPasses) {
    EXPECT_TRUE(acceptance.shouldAcceptClient(asRoot(4242)));
    const struct {
        int test::FakeCodeSigning::*step;
        int status;
        std::string line;
    } failures[] = {
        {&test::FakeCodeSigning::guestStatus, status::kNoSuchCode, "Error: Unable to identify client: -67065"},
        {&test::FakeCodeSigning::requirementStatus, status::kRequirementInvalid,
         "Error: Unable to create signing requirements: -67052"},
        {&test::FakeCodeSigning::validityStatus, status::kRequirementFailed,
         "Error: Unable to create signing requirements: -67050"},
    };
    for (const auto& failure : failures) {
        *signing = test::FakeCodeSigning{};
        log.clear();
        (*signing).*failure.step = failure.status;
        EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(7))) << failure.line;
        EXPECT_THAT(log.lines(), ElementsAre(failure.line));
    }
}

// A client the bus could not name a process for is never looked up by some
// made-up identifier.
TEST_F(ClientAcceptanceTest, AnUnidentifiedClientIsRefusedWithoutALookUp) {
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(std::nullopt)));
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(0)));
    EXPECT_TRUE(signing->lookedUp.empty());
}

// Only root and callers that connected with the client group reach the code
// check; a user's other groups, or being the right program, do not count.
TEST_F(ClientAcceptanceTest, OnlyRootOrTheClientGroupAtConnectTimeReachTheCodeCheck) {
    EXPECT_TRUE(acceptance.shouldAcceptClient({":1.8", 31, 1000, {100, kClientGroup}}));
    EXPECT_THAT(signing->lookedUp, ElementsAre(31));

    signing->lookedUp.clear();
    EXPECT_FALSE(acceptance.shouldAcceptClient({":1.9", 32, 1000, {1000, 27, 100}}));
    EXPECT_FALSE(acceptance.shouldAcceptClient({":1.10", 33, std::nullopt, {kClientGroup + 1}}));
    EXPECT_TRUE(signing->lookedUp.empty());

    // Without the group on the system, only root is served.
    const ClientAcceptance rootOnly{signing, std::nullopt};
    EXPECT_FALSE(rootOnly.shouldAcceptClient({":1.11", 34, 1000, {kClientGroup}}));
    EXPECT_TRUE(rootOnly.shouldAcceptClient(asRoot(35)));
}

}  // namespace
}  // namespace korvo
