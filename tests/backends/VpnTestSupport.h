// What the end-to-end tests of the VPN programs share: shell commands, a
// peer network namespace joined by a veth pair, servers run in it, the
// client's com port, and checks on the processes left behind. Only for tests
// that run inside tests/support/isolated.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "process/ChildProcess.h"
#include "process/UniqueFd.h"
#include "util/Value.h"

namespace korvo::test {

struct CommandOutput {
    int status = -1;
    std::string output;  // standard output and standard error together
};
// Runs a command line with /bin/sh -c.
CommandOutput runCommand(const std::string& command);

// True inside the namespaces of tests/support/isolated.
bool runningIsolated();

// A fresh directory under /tmp, removed with everything in it at the end.
class TestDirectory {
public:
    TestDirectory();
    ~TestDirectory();
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file in the directory and returns its path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

// A network namespace joined to the test's own by a veth pair:
// hostAddress/24 on this side, peerAddress/24 on the other.
class PeerNamespace {
public:
    PeerNamespace(std::string name, std::string hostAddress, std::string peerAddress);
    ~PeerNamespace();
    PeerNamespace(const PeerNamespace&) = delete;
    PeerNamespace& operator=(const PeerNamespace&) = delete;

    bool ok() const { return ok_; }
    const std::string& name() const { return name_; }
    const std::string& peerAddress() const { return peerAddress_; }
    // A socket created inside the namespace (usable from any thread).
    UniqueFd socketInside(int type, int protocol = 0) const;

private:
    std::string name_, hostAddress_, peerAddress_;
    bool ok_ = false;
};

// A program run in a namespace with its output in a log file; terminated
// (then killed) and waited for at the end.
class BackgroundProgram {
public:
    BackgroundProgram(const std::string& netns, std::vector<std::string> argv, std::string logPath);
    ~BackgroundProgram();
    bool running() const { return child_ && child_->isRunning(); }
    std::string log() const;

private:
    std::shared_ptr<ChildProcess> child_;
    std::string logPath_;
};

// The client application's side of a com port: a listener on 127.0.0.1
// that accepts one connection and collects what arrives on it.
class ComPort {
public:
    ComPort();
    ~ComPort();
    std::uint64_t port() const { return port_; }
    // Waits until the collected text contains needle; false at the timeout.
    bool waitFor(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    bool connected() const;
    std::string text() const;

private:
    UniqueFd listener_;
    std::uint64_t port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_;
    bool connected_ = false;
    UniqueFd stop_;
    std::thread reader_;
};

// Children of parent that are zombies.
std::vector<pid_t> zombieChildrenOf(pid_t parent);
// Processes whose executable lies below the directory.
std::vector<pid_t> processesRunningFrom(const std::string& directory);
// The process's argument vector (argv[0] included); empty when it is gone.
std::vector<std::string> commandLineOf(pid_t pid);
// Waits until the process no longer exists.
bool waitUntilGone(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Reading a helper reply.
std::int64_t errorCodeOf(const Dictionary& reply);
std::string errorDomainOf(const Dictionary& reply);
// The specific message: the description after the code's own text.
std::string errorMessageOf(const Dictionary& reply);
std::int64_t pidOf(const Dictionary& reply);

}  // namespace korvo::test
