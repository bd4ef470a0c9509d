// The real helper on a private bus: who it serves, what a refusal looks like
// in its log, and how it ends.
#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KorvoClient.h"
#include "support/HelperFixture.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::occurrences;

using test::HelperFixture;
using ::testing::HasSubstr;

constexpr const char* kRequirementError = "Error: Unable to create signing requirements: ";
constexpr const char* kIdentifyError = "Error: Unable to identify client: ";

class HelperServiceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(helper.start(), std::nullopt); }

    // The helper still answers its signed client.
    void expectStillServing() {
        const auto reply = helper.call("setVPNDebugLoggingEnabled", {{"enabled", false}});
        EXPECT_TRUE(reply.empty()) << helper.helperLog();
        EXPECT_EQ(helper.waitForHelperExit(std::chrono::milliseconds(0)), std::nullopt);
    }

    HelperFixture helper;
};

TEST_F(HelperServiceTest, ServesTheSignedTestProcessAndSignedKorvoctl) {
    EXPECT_TRUE(helper.call("setTmpDirPath", {{"path", "/tmp/"}}).empty()) << helper.helperLog();

    const auto run = helper.runClient({HelperFixture::korvoctlPath(), "setKorvoBundlePath", "path=/nonexistent"});
    EXPECT_EQ(run.exitStatus, 0) << run.standardError << helper.helperLog();
    EXPECT_EQ(run.standardError, "");
    EXPECT_EQ(helper.helperLog().find("Error:"), std::string::npos) << helper.helperLog();
}

// Each client is judged on its own code. A refused client gets AccessDenied
// for every request, its requests change nothing (terminateWithReply from it
// leaves the helper running), and the refusal is logged once per client.
TEST_F(HelperServiceTest, RefusesClientsWhoseSignatureDoesNotSatisfyTheRequirement) {
    const std::vector<std::pair<std::string, std::string>> clients = {
        {"unsigned", KORVOCTL_UNSIGNED},
        {"another team", KORVOCTL_OTHER_TEAM},
        {"another identifier", KORVOCTL_OTHER_IDENTIFIER},
        {"a chain to another CA", KORVOCTL_OTHER_CA},
        {"modified after signing", KORVOCTL_MODIFIED},
    };
    std::size_t refusals = 0;
    for (const auto& [what, path] : clients) {
        SCOPED_TRACE(what);
        const auto run = helper.runClient({path, "terminateWithReply"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_THAT(run.standardError, HasSubstr("org.freedesktop.DBus.Error.AccessDenied"));
        ++refusals;
        ASSERT_TRUE(helper.waitForLog(kRequirementError, std::chrono::seconds(10), refusals)) << helper.helperLog();
        EXPECT_EQ(occurrences(helper.helperLog(), kRequirementError), refusals) << helper.helperLog();
        expectStillServing();
    }
}

// The request arrives while the helper is stopped; by the time it looks at
// the client, the client has exited. Its terminateWithReply must not run.
TEST_F(HelperServiceTest, RefusesAClientThatExitedBeforeTheCheck) {
    ASSERT_EQ(::kill(helper.helperPid(), SIGSTOP), 0);
    const auto run =
        helper.runClient({HelperFixture::korvoctlPath(), "--no-reply", "terminateWithReply"});
    ::kill(helper.helperPid(), SIGCONT);
    ASSERT_EQ(run.exitStatus, 0) << run.standardError;

    ASSERT_TRUE(helper.waitForLog(kIdentifyError)) << helper.helperLog();
    expectStillServing();
    EXPECT_EQ(helper.helperLog().find("Terminating helper utility"), std::string::npos);
}

TEST_F(HelperServiceTest, TerminateWithReplyRepliesThenExitsWithStatusZero) {
    const auto reply = helper.call("terminateWithReply");
    EXPECT_TRUE(reply.empty()) << helper.helperLog();  // no error, no bus error
    EXPECT_EQ(helper.waitForHelperExit(), 0);
    EXPECT_TRUE(helper.waitForLog("Terminating helper utility on Korvo request.")) << helper.helperLog();
}

}  // namespace
}  // namespace korvo
