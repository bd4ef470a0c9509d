// Diagnostics through the real bus: the client switches capture on, reports
// connections established and terminated, and the helper's capture script
// runs for real. tests/support/isolated gives the test a network namespace
// with only loopback, so the script's pings, queries and fetches fail at
// once and reach nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/HelperFixture.h"
#include "support/TestSupport.h"
#if KORVO_HAVE_TEST_BUNDLE
#include "TestBundle.h"
#endif

namespace korvo {
namespace {

using test::occurrences;

using namespace std::chrono_literals;
using test::HelperFixture;
using ::testing::HasSubstr;
using ::testing::Not;

const std::vector<std::string> kSections = {
    "--- Processes",
    "--- WireGuard state",
    "--- utun interfaces",
    "--- IPv4 route decisions",
    "--- IPv6 route decisions",
    "--- IPv4 routes",
    "--- IPv6 routes",
    "--- DNS",
    "--- Dynamic Store DNS/IPv4 keys",
    "--- DNS resolution tests",
    "--- DNS scope/reachability check",
    "--- DNS A/AAAA record-type check (IPv4 vs IPv6 nameserver behavior)",
    "--- MTU",
    "--- Reachability",
    "--- Fragmentation diagnostics",
    "--- HTTP payload tests (small vs. large response, checks for fragmentation-related stalls)",
};
constexpr const char* kNoWg = "wg helper binary is not available or not executable at ''";

std::string trigger(const std::string& text) { return " (trigger: " + text + ") ====================\n"; }

// The block of the capture with this trigger, up to the next header.
std::string blockOf(const std::string& log, const std::string& triggerText) {
    const auto start = log.find(trigger(triggerText));
    if (start == std::string::npos) return std::string();
    const auto end = log.find("\n==================== ", start + 1);
    return log.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

void expectSectionsInOrder(const std::string& block) {
    std::size_t at = 0;
    for (const auto& heading : kSections) {
        const auto found = block.find("\n" + heading + "\n", at);
        ASSERT_NE(found, std::string::npos) << heading << " missing or out of order in\n" << block;
        at = found + 1;
    }
}

class DiagnosticsServiceTest : public ::testing::Test {
protected:
    void startHelper(const std::string& helperPath = std::string(), bool korvoGroup = false) {
        HelperFixture::Options options;
        options.helperPath = helperPath;
        options.korvoGroup = korvoGroup;
        helper = std::make_unique<HelperFixture>(options);
        ASSERT_EQ(helper->start(), std::nullopt);
    }
    void setCapture(bool enabled) {
        EXPECT_TRUE(helper->call("setNetworkDiagnosticsCaptureEnabled", {{"enabled", enabled}, {"logFilePath", log}})
                        .empty());
    }
    void report(const char* event, std::int64_t serviceType, const std::string& account) {
        const std::string operation = std::string("networkDiagnosticsConnection") + event + "ForServiceType";
        EXPECT_TRUE(helper->call(operation, {{"serviceType", serviceType}, {"accountDescription", account}}).empty());
    }
    bool logHolds(const std::string& needle, std::size_t count = 1, std::chrono::milliseconds timeout = 30s) {
        return test::eventually([&] { return occurrences(test::fileText(log), needle) >= count; }, timeout);
    }

    test::TempDir dir;
    const std::string log = dir.file("diagnostics.log");
    std::unique_ptr<HelperFixture> helper;
};

TEST_F(DiagnosticsServiceTest, EstablishedAndTerminatedConnectionsEachAppendACapture) {
    startHelper();
    // Enabling captures nothing by itself.
    setCapture(true);
    report("Established", 5, "office");
    ASSERT_TRUE(logHolds(trigger("connection established (WireGuard, office)"))) << helper->helperLog();
    report("Terminated", 5, "office");
    // Each block is appended in one write: with its header comes all of it.
    ASSERT_TRUE(logHolds(trigger("connection terminated (WireGuard, office)"))) << helper->helperLog();

    const std::string text = test::fileText(log);
    EXPECT_EQ(text.rfind("\n==================== ", 0), 0u) << "a block starts with a line feed and the header";
    for (const char* event : {"established", "terminated"}) {
        SCOPED_TRACE(event);
        const std::string block = blockOf(text, std::string("connection ") + event + " (WireGuard, office)");
        expectSectionsInOrder(block);
        EXPECT_THAT(block, HasSubstr(kNoWg));
        // Nothing leaves the namespace: every probe fails at once.
        EXPECT_THAT(block, HasSubstr("ping ipv4 internet: ping: connect: Network is unreachable"));
        EXPECT_THAT(block, HasSubstr("internet: payload=1472B (total ~1500B) FAILED"));
        EXPECT_THAT(block, Not(HasSubstr("timed out and was terminated")));
    }
    EXPECT_EQ(occurrences(text, "(trigger: "), 2u);
}

TEST_F(DiagnosticsServiceTest, NoPeriodicCaptureFollowsOnceCaptureIsSwitchedOff) {
    startHelper(KORVO_SHORT_PERIOD_HELPER);
    setCapture(true);
    report("Established", 0, "home");
    ASSERT_TRUE(logHolds(trigger("periodic (30s)"), 2)) << helper->helperLog();

    setCapture(false);
    // A capture under way when capture was switched off may still finish.
    const std::size_t periodic = occurrences(test::fileText(log), trigger("periodic (30s)"));
    EXPECT_FALSE(logHolds(trigger("periodic (30s)"), periodic + 2, 3s)) << test::fileText(log);

    // Terminations while capture was off are ignored; once it is on again,
    // one is captured and starts no periodic capture.
    setCapture(true);
    report("Terminated", 0, "home");
    ASSERT_TRUE(logHolds(trigger("connection terminated (OpenVPN, home)"))) << helper->helperLog();
    const std::size_t afterTermination = occurrences(test::fileText(log), trigger("periodic (30s)"));
    EXPECT_FALSE(logHolds(trigger("periodic (30s)"), afterTermination + 1, 1500ms)) << test::fileText(log);
    EXPECT_LE(afterTermination, periodic + 1);
}

// The log is written as the client that named it: the installed client run
// by user nobody reaches its own files, and neither a file of root's nor
// one behind a symbolic link, though the helper runs as root.
TEST_F(DiagnosticsServiceTest, TheLogIsWrittenWithTheRightsOfTheClientThatNamedIt) {
    startHelper(std::string(), true);
    const std::string client =
        HelperFixture::installProgram(HelperFixture::signedCallerPath(), "/run/korvo-clients/korvo",
                                      helper->korvoGroupId(), 02755);
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(::chown(dir.path().c_str(), kNobody, 0), 0);
    const std::string rootsFile = dir.write("roots.log", "root's\n");
    ASSERT_EQ(::chmod(rootsFile.c_str(), 0666 & ~0022), 0);
    ASSERT_EQ(::symlink(rootsFile.c_str(), dir.file("link.log").c_str()), 0);

    struct Case {
        std::string what, path;
        bool written;
    };
    const std::vector<Case> cases = {
        {"a file of its own", dir.file("own.log"), true},
        {"a file of root's", rootsFile, false},
        {"a link to a file of root's", dir.file("link.log"), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto set = helper->runClientAsNobody({client, "call", helper->busAddress(),
                                                    "setNetworkDiagnosticsCaptureEnabled", "enabled:b=true",
                                                    "logFilePath=" + c.path});
        ASSERT_EQ(set.exitStatus, 0) << set.standardOutput << set.standardError;
        report("Established", 2, c.what);
        if (c.written) {
            ASSERT_TRUE(test::eventually([&] { return test::fileText(c.path).find(trigger("connection established (SSH, " + c.what + ")")) != std::string::npos; }, 30s))
                << helper->helperLog();
            struct stat status {};
            ASSERT_EQ(::stat(c.path.c_str(), &status), 0);
            EXPECT_EQ(status.st_uid, kNobody);
        } else {
            EXPECT_TRUE(helper->waitForLog("Could not open network diagnostics log file at " + c.path + " for writing.",
                                           30s))
                << helper->helperLog();
        }
    }
    EXPECT_EQ(test::fileText(rootsFile), "root's\n");
}

#if KORVO_HAVE_TEST_BUNDLE
// The bundle's wg runs as a checked copy in the helper's store area; the
// bundle's own file is never run.
TEST_F(DiagnosticsServiceTest, TheBundlesWgRunsAsACheckedCopy) {
    startHelper();
    for (const auto& [bundle, runs] : std::vector<std::pair<std::string, bool>>{
             {KORVO_TEST_BUNDLE_PATH, true}, {KORVO_TEST_BUNDLE_UNSIGNED_PATH, false}}) {
        SCOPED_TRACE(bundle);
        EXPECT_TRUE(helper->call("setKorvoBundlePath", {{"path", bundle}}).empty());
        setCapture(true);
        report("Established", 5, bundle);
        ASSERT_TRUE(logHolds(trigger("connection established (WireGuard, " + bundle + ")"))) << helper->helperLog();
        const std::string block = blockOf(test::fileText(log), "connection established (WireGuard, " + bundle + ")");
        const std::string wgState = block.substr(block.find("--- WireGuard state\n"));
        const std::string wgLines = wgState.substr(0, wgState.find("\n--- utun interfaces"));
        if (runs) {
            EXPECT_THAT(wgLines, Not(HasSubstr("not available"))) << wgLines;
        } else {
            EXPECT_THAT(wgLines, HasSubstr(kNoWg));
            EXPECT_TRUE(helper->waitForLog("Cannot verify signature of executable at path '" + bundle +
                                           "/Contents/MacOS/wg'."));
        }
        report("Terminated", 5, bundle);
    }
}
#endif

}  // namespace
}  // namespace korvo
