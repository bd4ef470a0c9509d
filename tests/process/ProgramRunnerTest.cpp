// The runner with a code-signing service that answers what each test tells
// it.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "util/KorvoIdentity.h"
#include "process/ProgramRunner.h"
#include "process/StartedProcesses.h"
#include "util/HelperSettings.h"
#include "process/CapturedProcessOutput.h"
#include "process/ProcessProbe.h"
#include "util/UniqueFd.h"
#include "util/Log.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;
using platform::CodeSignState;

class ProgramRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        settings_.setTmpDirPath(dir_ + "/");
        tool_ = std::make_unique<ProgramRunner>(signing_, settings_, started_);
    }

    // A shell script in the test directory; it leaves a marker file when it
    // runs, so a test can tell whether it was ever started.
    std::string script(const std::string& name, const std::string& body) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << "#!/bin/sh\ntouch '" << marker(name) << "'\n" << body << "\n";
        ::chmod(path.c_str(), 0755);
        return path;
    }
    std::string marker(const std::string& name) const { return dir_ + "/" + name + ".ran"; }
    bool ran(const std::string& name) const { return std::filesystem::exists(marker(name)); }
    std::vector<std::string> errorLines() { return log_.errors(); }

    std::shared_ptr<test::FakeCodeSigning> signing_ = std::make_shared<test::FakeCodeSigning>();
    HelperSettings settings_;
    StartedProcesses started_{nullptr};
    std::unique_ptr<ProgramRunner> tool_;
    const test::TempDir tmp_;
    const std::string dir_ = tmp_.path();
    test::LogCapture log_;
};

const auto messageOf = test::errorMessage;

// Only a program that passes the check starts, and what was checked is what
// runs: a program renamed over the path during the check changes nothing,
// and a path that could lead to another file than the one checked is
// refused.
TEST_F(ProgramRunnerTest, TheCheckedFileIsTheOneThatRuns) {
    const std::string program = script("checked", "exit 0");
    const std::string other = script("swapped", "exit 0");
    signing_->duringCheck = [&] { std::filesystem::rename(other, program); };
    MaybeError error;
    EXPECT_GT(tool_->runServiceAtPath(program, std::nullopt, 0, true, &error), 0) << messageOf(error);
    EXPECT_TRUE(ran("checked"));
    EXPECT_FALSE(ran("swapped"));
    EXPECT_EQ(signing_->requirement, KorvoProgramRequirement);
    signing_->duringCheck = nullptr;

    // A refused signature; a link (the target is judged, the link would run
    // whatever it points to next); a FIFO (an open that would block); files
    // that someone but root could rewrite in place after the check.
    const std::string forged = script("forged", "exit 0");
    signing_->states[forged] = CodeSignState::InvalidSignature;
    const std::string target = script("target", "exit 0");
    std::filesystem::create_symlink(target, dir_ + "/link");
    ASSERT_EQ(::mkfifo((dir_ + "/fifo").c_str(), 0755), 0);
    const std::string groupWritable = script("groupwritable", "exit 0");
    ::chmod(groupWritable.c_str(), 0775);
    const std::string usersOwn = script("usersown", "exit 0");
    ASSERT_EQ(::chown(usersOwn.c_str(), 65534, 65534), 0);
    for (const std::string& path : {forged, dir_ + "/link", dir_ + "/fifo", groupWritable, usersOwn}) {
        EXPECT_EQ(tool_->runServiceAtPath(path, std::nullopt, 0, true, &error), -1) << path;
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, 69);
        EXPECT_EQ(messageOf(error), "Cannot verify signature of executable at path " + path);
        EXPECT_EQ(errorLines().back(), "Cannot verify signature of executable at path '" + path + "'.");
    }
    EXPECT_FALSE(ran("forged") || ran("target") || ran("groupwritable") || ran("usersown"));
}

// A com port nobody listens on is refused through the bus
// (ComPortProgramsServiceTest); here the port itself.
TEST_F(ProgramRunnerTest, ComPortSocket) {
    // A port number beyond 16 bits is refused, not truncated to another port.
    test::ComPortListener listener;
    EXPECT_EQ(tool_->openSocketOnPort(65536 + listener.port()), -1);
    UniqueFd socket(tool_->openSocketOnPort(listener.port()));
    EXPECT_TRUE(socket);
    EXPECT_TRUE(::fcntl(socket.get(), F_GETFD) & FD_CLOEXEC);
}

// The environment additions reach the program on top of the helper's; a
// secret arrives on standard input, never in the arguments.
TEST_F(ProgramRunnerTest, ArgumentsEnvironmentAndStandardInput) {
    ::setenv("KORVO_RUNNER_KEEP", "kept", 1);
    const std::string path = script("env", "pwd > out; printf '%s|' \"$@\" >> out; echo >> out; "
                                           "echo \"$KORVO_RUNNER_KEEP $KORVO_RUNNER_NEW\" >> out; cat >> out");
    MaybeError error;
    ASSERT_GT(tool_->runServiceAtPath(path, std::vector<std::string>{"a b", "", "--x"}, 0, true,
                                      Environment{{"KORVO_RUNNER_NEW", "added"}}, nullptr, &error, "s3cret\n"),
              0);
    ::unsetenv("KORVO_RUNNER_KEEP");
    EXPECT_EQ(test::fileText(dir_ + "/out"), dir_ + "\na b||--x|\nkept added\ns3cret\n");
}

TEST_F(ProgramRunnerTest, ComPortCarriesAllThreeStreamsAndEndsWithTheChild) {
    test::ComPortListener listener;
    const std::string path = script("talker", "read line; echo \"got $line\"; echo oops >&2");
    std::shared_ptr<CSCapturedProcessOutput> captured;
    MaybeError error;
    const pid_t pid = tool_->runServiceAtPath(path, std::nullopt, listener.port(), false, std::nullopt, &captured,
                                              &error);
    ASSERT_GT(pid, 0) << messageOf(error);
    EXPECT_EQ(captured, nullptr);  // nothing is captured from a com port
    ASSERT_TRUE(listener.send("hello\n"));
    // End of file arrives when the child ends: the helper keeps no copy.
    EXPECT_TRUE(listener.waitForEnd());
    EXPECT_EQ(listener.text(), "got hello\noops\n");
}

TEST_F(ProgramRunnerTest, CapturedOutputKeepsTheTailAndNeverStallsTheChild) {
    // 32 MB with nobody waiting: the child still finishes (what is kept of
    // the output: CapturedProcessOutputTest).
    const std::string flood = script("flood", "head -c 32000000 /dev/zero | tr '\\0' 'z'");
    std::shared_ptr<CSCapturedProcessOutput> captured;
    MaybeError error;
    const pid_t pid = tool_->runServiceAtPath(flood, std::nullopt, 0, false, std::nullopt, &captured, &error);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(test::eventually([&] { return !processExists(pid); }, 20s));
    EXPECT_TRUE(test::eventually([&] { return captured->capturedText() == std::string(4096, 'z'); }));

    // A waited child that fails after a flood: the wait returns and the
    // error holds the output's end.
    const std::string failing = script("failflood", "head -c 8000000 /dev/zero | tr '\\0' 'y'; echo; echo last words; exit 9");
    EXPECT_EQ(tool_->runServiceAtPath(failing, std::nullopt, 0, true, &error), -1);
    const std::string message = messageOf(error);
    EXPECT_EQ(message.substr(message.size() - 11), "last words\n");
}

TEST_F(ProgramRunnerTest, KillProcessWithID) {
    const std::string path = script("sleeper", "exec sleep 30");
    MaybeError error;
    const pid_t pid = tool_->runServiceAtPath(path, std::nullopt, 0, false, &error);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(tool_->killProcessWithID(pid, SIGTERM));
    EXPECT_TRUE(test::eventually([&] { return !processExists(pid); }));
    // Gone already: success without sending anything.
    EXPECT_TRUE(tool_->killProcessWithID(pid, SIGTERM));
    // Identifiers that name groups or every process are never signalled
    // (this test process would not survive otherwise).
    EXPECT_TRUE(tool_->killProcessWithID(0, SIGTERM));
    EXPECT_TRUE(tool_->killProcessWithID(-1, SIGTERM));
}

}  // namespace
}  // namespace korvo
