#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "process/StartedProcesses.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

pid_t startSleeper() {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

// Only a process the helper started, and still the same one, is ever
// signalled; a restarted helper still knows it; pid 1 or a stranger never.
TEST(StartedProcessesTest, SignalsOnlyTheProcessesItStartedAcrossARestart) {
    const test::TempDir dir;
    auto store = std::make_shared<StoreArea>(dir.file("run"), std::nullopt);
    ASSERT_EQ(store->prepare(), std::nullopt);

    const pid_t ours = startSleeper();
    const pid_t stranger = startSleeper();
    ASSERT_GT(ours, 0);
    ASSERT_GT(stranger, 0);
    {
        StartedProcesses table(store);
        table.recordStart(ours, "/bin/sleep");
        table.recordLink(ours, "utun7");
    }
    StartedProcesses restarted(store);
    EXPECT_TRUE(restarted.isStarted(ours));
    EXPECT_TRUE(restarted.isStartedLink("utun7"));
    EXPECT_FALSE(restarted.isStartedLink("tun0"));
    EXPECT_EQ(restarted.signal(1, SIGINT), StartedProcesses::SignalOutcome::NotStarted);
    EXPECT_EQ(restarted.signal(stranger, SIGTERM), StartedProcesses::SignalOutcome::NotStarted);

    EXPECT_EQ(restarted.signal(ours, SIGTERM), StartedProcesses::SignalOutcome::Sent);
    int status = 0;
    ASSERT_EQ(::waitpid(ours, &status, 0), ours);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(restarted.isStarted(ours));
    EXPECT_EQ(restarted.signal(ours, SIGTERM), StartedProcesses::SignalOutcome::Gone);
    restarted.forgetExited();
    EXPECT_FALSE(restarted.isStartedLink("utun7"));

    ::kill(stranger, SIGKILL);
    ::waitpid(stranger, &status, 0);
}

// An owner is signalled only while it runs the executable its record names
// (compared with links resolved), and only when the helper started it.
TEST(StartedProcessesTest, SignalsAnOwnerOnlyWhileItRunsTheExpectedExecutable) {
    StartedProcesses table(nullptr);
    const pid_t ours = startSleeper();
    const pid_t stranger = startSleeper();
    ASSERT_TRUE(test::eventually([&] { return std::filesystem::read_symlink("/proc/" + std::to_string(ours) + "/exe")
                                                   .filename() == "sleep"; }));
    ASSERT_TRUE(test::eventually([&] { return std::filesystem::read_symlink("/proc/" + std::to_string(stranger) +
                                                                            "/exe").filename() == "sleep"; }));
    table.recordStart(ours, "/bin/sleep");
    const std::string sleepPath = std::filesystem::canonical("/bin/sleep");
    using Outcome = StartedProcesses::OwnerOutcome;
    std::string actual;
    EXPECT_EQ(table.signalExecutable(ours, SIGTERM, "/usr/bin/ssh", &actual), Outcome::OtherExecutable);
    EXPECT_EQ(actual, sleepPath);
    EXPECT_EQ(table.signalExecutable(stranger, SIGTERM, "/bin/sleep", &actual), Outcome::NotStarted);
    EXPECT_EQ(table.signalExecutable(ours, SIGTERM, "/bin/sleep", &actual), Outcome::Sent);
    int status = 0;
    ASSERT_EQ(::waitpid(ours, &status, 0), ours);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(table.signalExecutable(ours, SIGTERM, "/bin/sleep", &actual), Outcome::Gone);

    ::kill(stranger, SIGKILL);
    ::waitpid(stranger, &status, 0);
}

}  // namespace
}  // namespace korvo
