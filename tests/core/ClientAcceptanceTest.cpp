#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ClientAcceptance.h"
#include "util/Log.h"

namespace korvo {
namespace {

namespace status = platform::codesign_status;
using ::testing::ElementsAre;

// A client that connected as root, with the process identifier pid.
platform::ServiceConnection asRoot(std::optional<pid_t> pid) { return {":1.7", pid, 0, {0}}; }

struct FakeGuest : platform::GuestCode {
    explicit FakeGuest(pid_t p) : p_(p) {}
    pid_t pid() const override { return p_; }
    pid_t p_;
};

struct FakeRequirement : platform::CodeRequirement {
    std::string text;
};

// Answers each step with a preset status and records the steps in order.
class FakeCodeSigning : public platform::CodeSigning {
public:
    int guestStatus = status::kSuccess;
    int requirementStatus = status::kSuccess;
    int validityStatus = status::kSuccess;
    std::vector<std::string> steps;
    std::string requirementText;

    platform::CodeSignState codeSignStateForExecutable(const std::string&) override {
        return platform::CodeSignState::Valid;
    }
    int checkExecutable(int, std::string_view) override { return status::kSuccess; }
    platform::CodeSignState codeSignStateForSystemExecutable(int) override { return platform::CodeSignState::Valid; }
    int copyGuestWithPid(pid_t pid, std::unique_ptr<platform::GuestCode>& guest) override {
        steps.push_back("guest " + std::to_string(pid));
        if (guestStatus == status::kSuccess) guest = std::make_unique<FakeGuest>(pid);
        return guestStatus;
    }
    int createRequirement(std::string_view text, std::unique_ptr<platform::CodeRequirement>& requirement) override {
        steps.push_back("requirement");
        requirementText = std::string(text);
        if (requirementStatus == status::kSuccess) requirement = std::make_unique<FakeRequirement>();
        return requirementStatus;
    }
    int checkValidity(const platform::GuestCode& guest, const platform::CodeRequirement&) override {
        steps.push_back("check " + std::to_string(guest.pid()));
        return validityStatus;
    }
};

class ClientAcceptanceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setLogSink([this](int priority, std::string_view line) {
            lines.push_back(std::to_string(priority) + " " + std::string(line));
        });
    }
    void TearDown() override { setLogSink(nullptr); }

    std::shared_ptr<FakeCodeSigning> signing = std::make_shared<FakeCodeSigning>();
    static constexpr gid_t kClientGroup = 4321;
    ClientAcceptance acceptance{signing, kClientGroup};
    std::vector<std::string> lines;
    const std::string err = std::to_string(LOG_ERR) + " ";
};

TEST_F(ClientAcceptanceTest, AcceptsAfterTheThreeStepsInOrderWithTheClientRequirement) {
    EXPECT_TRUE(acceptance.shouldAcceptClient(asRoot(4242)));
    EXPECT_THAT(signing->steps, ElementsAre("guest 4242", "requirement", "check 4242"));
    EXPECT_EQ(signing->requirementText,
              "anchor apple generic and identifier \"com.tallowmar.Korvo\" and certificate leaf[subject.OU] = "
              "Q4XW82KTJN");
    EXPECT_TRUE(lines.empty());
}

// Each failing step stops the check there and logs its own line; a failed
// validity check is reported with the requirement line.
TEST_F(ClientAcceptanceTest, EachFailingStepRefusesWithItsLogLine) {
    signing->guestStatus = status::kNoSuchCode;
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(7)));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to identify client: -67065"));

    *signing = FakeCodeSigning{};
    lines.clear();
    signing->requirementStatus = status::kRequirementInvalid;
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(7)));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7", "requirement"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to create signing requirements: -67052"));

    *signing = FakeCodeSigning{};
    lines.clear();
    signing->validityStatus = status::kRequirementFailed;
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(7)));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7", "requirement", "check 7"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to create signing requirements: -67050"));
}

// A client the bus could not name a process for is never looked up by some
// made-up identifier.
TEST_F(ClientAcceptanceTest, AnUnidentifiedClientIsRefusedWithoutALookUp) {
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(std::nullopt)));
    EXPECT_FALSE(acceptance.shouldAcceptClient(asRoot(0)));
    EXPECT_TRUE(signing->steps.empty());
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to identify client: -67065",
                                   err + "Error: Unable to identify client: -67065"));
}

// Only root and callers that connected with the client group reach the code
// check; a user's other groups, or being the right program, do not count.
TEST_F(ClientAcceptanceTest, OnlyRootOrTheClientGroupAtConnectTimeReachTheCodeCheck) {
    EXPECT_TRUE(acceptance.shouldAcceptClient({":1.8", 31, 1000, {100, kClientGroup}}));
    EXPECT_THAT(signing->steps, ElementsAre("guest 31", "requirement", "check 31"));

    signing->steps.clear();
    EXPECT_FALSE(acceptance.shouldAcceptClient({":1.9", 32, 1000, {1000, 27, 100}}));
    EXPECT_FALSE(acceptance.shouldAcceptClient({":1.10", 33, std::nullopt, {kClientGroup + 1}}));
    EXPECT_TRUE(signing->steps.empty());
    EXPECT_THAT(lines, ElementsAre(err + "Error: Client :1.9 (pid 32, uid 1000) connected neither as root nor "
                                         "with the group 'korvo'.",
                                   err + "Error: Client :1.10 (pid 33, uid -1) connected neither as root nor "
                                         "with the group 'korvo'."));

    // Without the group on the system, only root is served.
    const ClientAcceptance rootOnly{signing, std::nullopt};
    EXPECT_FALSE(rootOnly.shouldAcceptClient({":1.11", 34, 1000, {kClientGroup}}));
    EXPECT_TRUE(rootOnly.shouldAcceptClient(asRoot(35)));
}

}  // namespace
}  // namespace korvo
