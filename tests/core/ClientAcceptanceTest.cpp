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
    ClientAcceptance acceptance{signing};
    std::vector<std::string> lines;
    const std::string err = std::to_string(LOG_ERR) + " ";
};

TEST_F(ClientAcceptanceTest, AcceptsAfterTheThreeStepsInOrderWithTheClientRequirement) {
    EXPECT_TRUE(acceptance.shouldAcceptClient(4242));
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
    EXPECT_FALSE(acceptance.shouldAcceptClient(7));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to identify client: -67065"));

    *signing = FakeCodeSigning{};
    lines.clear();
    signing->requirementStatus = status::kRequirementInvalid;
    EXPECT_FALSE(acceptance.shouldAcceptClient(7));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7", "requirement"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to create signing requirements: -67052"));

    *signing = FakeCodeSigning{};
    lines.clear();
    signing->validityStatus = status::kRequirementFailed;
    EXPECT_FALSE(acceptance.shouldAcceptClient(7));
    EXPECT_THAT(signing->steps, ElementsAre("guest 7", "requirement", "check 7"));
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to create signing requirements: -67050"));
}

// A client the bus could not name a process for is never looked up by some
// made-up identifier.
TEST_F(ClientAcceptanceTest, AnUnidentifiedClientIsRefusedWithoutALookUp) {
    EXPECT_FALSE(acceptance.shouldAcceptClient(std::nullopt));
    EXPECT_FALSE(acceptance.shouldAcceptClient(0));
    EXPECT_TRUE(signing->steps.empty());
    EXPECT_THAT(lines, ElementsAre(err + "Error: Unable to identify client: -67065",
                                   err + "Error: Unable to identify client: -67065"));
}

}  // namespace
}  // namespace korvo
