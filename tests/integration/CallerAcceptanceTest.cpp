// Who may call the real helper through the real bus: the client application
// as installed (signed, root:korvo 2755) run by an ordinary user, and root
// running signed code. Everything else is refused and its request does not
// run; the request used is terminateWithReply, so a request that ran shows as
// a helper that has gone. Each case runs under the installed bus policy
// (the bus refuses whom it can) and under an open one (the helper alone
// decides).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/HelperFixture.h"

namespace korvo {
namespace {

using test::HelperFixture;
using BusPolicy = HelperFixture::Options::BusPolicy;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kCredentialRefusal = "Error: Client ";
constexpr const char* kSigningRefusal = "Error: Unable to create signing requirements: ";
constexpr const char* kTerminated = "Terminating helper utility on Korvo request.";
constexpr const char* kAccessDenied = "error org.freedesktop.DBus.Error.AccessDenied: ";
// /run is the namespace's own (tests/support/isolated): root-owned folders,
// as an installed client's would be.
const std::string kPrograms = "/run/korvo-clients/";
const std::string kMarkers = "/run/korvo-markers";

class CallerAcceptanceTest : public ::testing::TestWithParam<BusPolicy> {
protected:
    void SetUp() override {
        ASSERT_EQ(helper.start(), std::nullopt);
        const gid_t korvo = helper.korvoGroupId();
        installed = HelperFixture::installProgram(HelperFixture::signedCallerPath(), kPrograms + "korvo", korvo, 02755);
        withoutGroup = HelperFixture::installProgram(HelperFixture::signedCallerPath(), kPrograms + "korvo-nogroup", 0, 0755);
        unsignedWithGroup =
            HelperFixture::installProgram(HelperFixture::unsignedCallerPath(), kPrograms + "korvo-unsigned", korvo, 02755);
        connector = HelperFixture::installProgram(HelperFixture::unsignedCallerPath(), kPrograms + "connector", 0, 0755);
        payload = HelperFixture::installProgram(HelperFixture::payloadLibraryPath(), kPrograms + "payload.so", 0, 0644);
        std::filesystem::create_directories(kMarkers);
        std::filesystem::permissions(kMarkers, std::filesystem::perms(01777));
    }

    std::vector<std::string> terminate(const std::string& program) {
        return {program, "call", helper.busAddress(), "terminateWithReply"};
    }

    HelperFixture helper{[] {
        HelperFixture::Options options;
        options.busPolicy = GetParam();
        options.korvoGroup = true;
        return options;
    }()};
    std::string installed, withoutGroup, unsignedWithGroup, connector, payload;
};

// The payload runs in a program without the group (so it is a working
// payload) but not in the setgid client, which the helper serves.
TEST_P(CallerAcceptanceTest, ServesTheInstalledClientAndItRunsNoPreloadedPayload) {
    const std::map<std::string, std::string> preload = {{"LD_PRELOAD", payload}, {"KORVO_PAYLOAD_MARKERS", kMarkers}};
    helper.runClientAsNobody({withoutGroup, "wait"}, preload);
    EXPECT_TRUE(std::filesystem::exists(kMarkers + "/korvo-nogroup"));

    const auto run = helper.runClientAsNobody(terminate(installed), preload);
    EXPECT_THAT(run.standardOutput, StartsWith("reply\n")) << run.standardError << helper.helperLog();
    EXPECT_EQ(helper.waitForHelperExit(), 0);
    EXPECT_TRUE(helper.waitForLog(kTerminated));
    EXPECT_FALSE(std::filesystem::exists(kMarkers + "/korvo"));
}

TEST_P(CallerAcceptanceTest, RefusesCallersWithoutTheGroupOrTheSignature) {
    struct Case {
        const char* what;
        std::vector<std::string> argv;
        bool asNobody;
        // The helper's log line for the refusal; nullptr: the bus refuses.
        const char* installedPolicy;
        const char* openPolicy;
    };
    const std::vector<Case> cases = {
        {"signed, without the group", terminate(withoutGroup), true, nullptr, kCredentialRefusal},
        {"unsigned, with the group", terminate(unsignedWithGroup), true, kSigningRefusal, kSigningRefusal},
        // The connection was made without the group; the process the bus
        // names for it then becomes the installed client, while another
        // process sends on the same socket.
        {"connected, then executed the client", {connector, "share", helper.busAddress(), installed, "terminateWithReply"},
         true, nullptr, kCredentialRefusal},
        {"root, unsigned", terminate(unsignedWithGroup), false, kSigningRefusal, kSigningRefusal},
    };
    std::map<std::string, std::size_t> logged;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto run = c.asNobody ? helper.runClientAsNobody(c.argv) : helper.runClient(c.argv);
        EXPECT_THAT(run.standardOutput, StartsWith(kAccessDenied)) << run.standardError << helper.helperLog();
        if (const char* line = GetParam() == BusPolicy::Installed ? c.installedPolicy : c.openPolicy) {
            EXPECT_TRUE(helper.waitForLog(line, std::chrono::seconds(10), ++logged[line])) << helper.helperLog();
        } else {
            EXPECT_THAT(run.standardOutput, HasSubstr("Rejected send message"));
        }
        ASSERT_EQ(helper.waitForHelperExit(std::chrono::milliseconds(0)), std::nullopt) << helper.helperLog();
    }
    EXPECT_EQ(helper.helperLog().find(kTerminated), std::string::npos);
    // Root running signed code: this test process.
    EXPECT_TRUE(helper.call("setVPNDebugLoggingEnabled", {{"enabled", false}}).empty()) << helper.helperLog();
}

INSTANTIATE_TEST_SUITE_P(BusPolicies, CallerAcceptanceTest, ::testing::Values(BusPolicy::Installed, BusPolicy::Open),
                         [](const auto& info) { return info.param == BusPolicy::Installed ? "Installed" : "Open"; });

}  // namespace
}  // namespace korvo
