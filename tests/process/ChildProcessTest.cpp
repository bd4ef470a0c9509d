#include "process/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "process/ProcessProbe.h"
#include "util/UniqueFd.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;

// Runs a child with its standard output on a pipe and returns what it wrote.
std::string outputOf(ChildProcess::Options options, int* status = nullptr) {
    int fds[2];
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);
    options.standardOutput = writeEnd.get();
    int error = 0;
    auto child = ChildProcess::launch(options, &error);
    writeEnd.reset();
    EXPECT_TRUE(child) << "errno " << error;
    std::string out;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(readEnd.get(), buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<std::size_t>(n));
    const int s = child ? child->waitUntilExit() : -1;
    if (status) *status = s;
    return out;
}

ChildProcess::Options shell(const std::string& script) {
    ChildProcess::Options options;
    options.executable = "/bin/sh";
    options.arguments = {"-c", script};
    return options;
}

TEST(ChildProcessTest, StartsInTheGivenDirectoryWithExactlyTheGivenEnvironment) {
    const test::TempDir tmp;
    const std::string dir = tmp.path();

    ChildProcess::Options options;
    options.executable = "/bin/pwd";
    options.workingDirectory = dir;
    EXPECT_EQ(outputOf(options), dir + "\n");

    ChildProcess::Options env;
    env.executable = "/usr/bin/env";
    env.environment = std::map<std::string, std::string>{{"A", "1"}, {"B", "two words"}};
    EXPECT_EQ(outputOf(env), "A=1\nB=two words\n");
}

TEST(ChildProcessTest, InheritsNoDescriptorAndNoSignalSettingsOfTheHelper) {
    // A descriptor the helper opened without close-on-exec, an ignored and a
    // blocked signal: none of them may reach the child.
    UniqueFd leaky(::open("/dev/null", O_RDONLY));
    ASSERT_TRUE(leaky);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &ignore, &previous), 0);
    sigset_t block;
    sigset_t previousMask;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR2);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &block, &previousMask), 0);

    const std::string fds = outputOf(shell("ls /proc/self/fd"));
    ChildProcess::Options status;
    status.executable = "/bin/cat";
    status.arguments = {"/proc/self/status"};
    const std::string report = outputOf(status);

    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::sigaction(SIGUSR1, &previous, nullptr);

    // ls itself opens /proc/self/fd as 3.
    EXPECT_EQ(fds, "0\n1\n2\n3\n");
    // The C library keeps two real-time signals of its own (32 and 33)
    // ignored; every standard signal must be at its default.
    const auto maskOf = [&report](const std::string& field) {
        const auto at = report.find(field + ":\t");
        return at == std::string::npos ? ~0ull : std::stoull(report.substr(at + field.size() + 2, 16), nullptr, 16);
    };
    EXPECT_EQ(maskOf("SigIgn") & 0x7fffffffull, 0u) << report;
    EXPECT_EQ(maskOf("SigBlk"), 0u) << report;
}

// Started from an open file, the child runs that file whatever its path
// holds by then, and the descriptor is not handed down (ls itself opens
// /proc/self/fd as 3).
TEST(ChildProcessTest, StartsTheOpenFileAndHandsItNotDown) {
    const test::TempDir dir;
    const std::string path = dir.file("ls");
    std::filesystem::copy_file("/bin/ls", path);
    UniqueFd executable(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(executable);
    std::filesystem::remove(path);
    std::ofstream(path) << "#!/bin/sh\necho replaced\n";
    ::chmod(path.c_str(), 0755);

    ChildProcess::Options options;
    options.executable = path;
    options.executableDescriptor = executable.get();
    options.arguments = {"/proc/self/fd"};
    EXPECT_EQ(outputOf(options), "0\n1\n2\n3\n");
}

TEST(ChildProcessTest, ChildrenNobodyWaitsForAreReapedAndNeverSeenAlive) {
    std::vector<pid_t> pids;
    for (int i = 0; i < 100; ++i) {
        int error = 0;
        auto child = ChildProcess::launch(shell("exit 0"), &error);
        ASSERT_TRUE(child);
        pids.push_back(child->pid());
    }  // every ChildProcess object is gone already
    EXPECT_TRUE(test::eventually([&] {
        for (pid_t pid : pids) {
            if (processExists(pid)) return false;
        }
        return true;
    }, 5s));
    EXPECT_TRUE(test::eventually([] { return test::zombieChildrenOf(::getpid()).empty(); }, 5s));
}

TEST(ChildProcessTest, BoundedWaitEndsChildrenThatRunTooLongEvenWhenTheyIgnoreSignals) {
    int error = 0;
    auto quick = ChildProcess::launch(shell("exit 3"), &error);
    ASSERT_TRUE(quick);
    EXPECT_TRUE(waitForTaskExitWithTimeout(*quick, 10.0));
    EXPECT_EQ(quick->terminationStatus(), 3);

    auto slow = ChildProcess::launch(shell("exec sleep 30"), &error);
    ASSERT_TRUE(slow);
    EXPECT_FALSE(waitForTaskExitWithTimeout(*slow, 0.2));
    EXPECT_EQ(slow->terminationStatus(), 128 + SIGTERM);

    // exec keeps the trap's ignored SIGTERM: only the escalation ends it.
    auto stubborn = ChildProcess::launch(shell("trap '' TERM; exec sleep 60"), &error);
    ASSERT_TRUE(stubborn);
    EXPECT_FALSE(waitForTaskExitWithTimeout(*stubborn, 0.1));
    EXPECT_EQ(stubborn->terminationStatus(), 128 + SIGKILL);
    EXPECT_FALSE(processExists(stubborn->pid()));
}

TEST(ChildProcessTest, SignalsReachOnlyLiveChildrenOfOurs) {
    int error = 0;
    auto child = ChildProcess::launch(shell("exec sleep 30"), &error);
    ASSERT_TRUE(child);
    EXPECT_EQ(ChildProcess::signalChild(child->pid(), SIGINT), true);
    EXPECT_EQ(child->waitUntilExit(), 128 + SIGINT);
    // Reaped: no longer known as ours, and signalling it again is harmless.
    EXPECT_EQ(ChildProcess::signalChild(child->pid(), SIGINT), std::nullopt);
    EXPECT_TRUE(child->sendSignal(SIGINT));
    EXPECT_EQ(ChildProcess::signalChild(::getpid(), 0), std::nullopt);
}

}  // namespace
}  // namespace korvo
