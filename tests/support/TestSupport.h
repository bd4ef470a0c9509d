// What the tests share outside the private bus (HelperFixture.h): temporary
// folders, shell commands, the client's com port, a stand-in for code
// signing, captured log lines, and, only inside tests/support/isolated, peer
// network namespaces, bind mounts and checks on the processes left behind.
// Every test executable links it (korvo_add_test).
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "util/Error.h"
#include "platform/CodeSigning.h"
#include "process/ChildProcess.h"
#include "util/UniqueFd.h"
#include "util/Value.h"

namespace korvo::test {

// The whole content of a file; empty when it cannot be read.
std::string fileText(const std::string& path);
// How many times needle occurs in text (overlapping ones counted).
std::size_t occurrences(const std::string& text, const std::string& needle);
// An array of strings, as requests carry them.
Array strings(const std::vector<std::string>& items);

// Ends a child (signal, then SIGKILL after 5 seconds) and waits for it.
void endChild(const std::shared_ptr<ChildProcess>& child, int signal = SIGTERM);

struct ShellResult {
    int exitStatus = -1;
    std::string output;  // standard output and standard error together
};
// Runs a command line with /bin/sh -c and collects its output.
ShellResult shell(const std::string& command);

// True inside the namespaces of tests/support/isolated; nothing that needs
// it may touch the machine's own network or files otherwise.
bool runningIsolated();

// A fresh folder under base (never $TMPDIR: tests do not depend on the
// caller's environment), removed with everything in it at the end.
class TempDir {
public:
    explicit TempDir(const std::string& base = "/tmp", mode_t mode = 0700);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file in the folder and returns its path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

// The client application's side of a com port: a listener on 127.0.0.1
// that accepts one connection and collects what arrives on it.
class ComPortListener {
public:
    ComPortListener();
    ~ComPortListener();
    std::uint16_t port() const { return port_; }
    // Whether the connection came, waiting up to timeout for it.
    bool connected(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));
    // Sends text to the connected program.
    bool send(const std::string& text);
    // Waits until the collected text contains needle; false at the timeout.
    bool waitFor(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Waits until the program closed its end (every copy of it).
    bool waitForEnd(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    std::string text() const;

private:
    UniqueFd listener_, connection_, stop_;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_;
    bool connected_ = false, ended_ = false;
    std::thread reader_;
};

// A code-signing service that answers what a test tells it. Executables are
// judged by the path they were opened under (Valid unless listed);
// duringCheck runs while a program is checked, as a swap would. Clients:
// each step answers with its status, and the process identifiers looked up
// are recorded.
class FakeCodeSigning : public platform::CodeSigning {
public:
    std::map<std::string, platform::CodeSignState> states;
    std::function<void()> duringCheck;
    std::string requirement;  // the last requirement text checked or made
    int guestStatus = 0, requirementStatus = 0, validityStatus = 0;
    std::vector<pid_t> lookedUp;

    platform::CodeSignState codeSignStateForExecutable(const std::string& path) override;
    int checkExecutable(int fd, std::string_view requirementText) override;
    platform::CodeSignState codeSignStateForSystemExecutable(int fd) override;
    int copyGuestWithPid(pid_t pid, std::unique_ptr<platform::GuestCode>& guest) override;
    int createRequirement(std::string_view text, std::unique_ptr<platform::CodeRequirement>& requirement) override;
    int checkValidity(const platform::GuestCode& guest, const platform::CodeRequirement& requirement) override;
};

// The helper's log lines written while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    // The lines at LOG_ERR, without the priority.
    std::vector<std::string> errors() const;
    bool contains(const std::string& line) const;
    void clear();

private:
    std::vector<std::string> linesAt(std::optional<int> priority) const;
    mutable std::mutex mutex_;
    std::vector<std::pair<int, std::string>> lines_;
};

// The message part of a helper error's description (after the code's text
// and the blank line); the whole description for any other error.
std::string errorMessage(const MaybeError& error);

// A network namespace joined to the test's own by a veth pair:
// hostAddress/24 on this side, peerAddress/24 on the other. Removed with
// the object. Only inside tests/support/isolated.
inline constexpr const char* kPeerAddress = "192.168.77.2";
struct KeyPair {
    std::string privateKey;
    std::string publicKey;
};
KeyPair generateKeyPair();

class BackgroundProgram;
class PeerNamespace {
public:
    explicit PeerNamespace(std::string name = "korvo-peer", std::string hostAddress = "192.168.77.1",
                           std::string peerAddress = kPeerAddress);
    ~PeerNamespace();
    PeerNamespace(const PeerNamespace&) = delete;
    PeerNamespace& operator=(const PeerNamespace&) = delete;

    bool ok() const { return problem_.empty(); }
    // What failed when the namespace could not be made.
    const std::string& problem() const { return problem_; }
    const std::string& name() const { return name_; }
    const std::string& peerAddress() const { return peerAddress_; }
    // A socket created inside the namespace (usable from any thread).
    UniqueFd socketInside(int type, int protocol = 0) const;
    ShellResult exec(const std::string& command) const;
    // wireguard-go as interfaceName, listening on listenPort, accepting the
    // helper's key from 10.77.0.2/32, with a route back to it. Empty on
    // success, else what failed.
    std::string startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                               const std::string& helperPublicKey, const std::string& workDirectory);

private:
    std::string name_, hostAddress_, peerAddress_, problem_;
    std::unique_ptr<BackgroundProgram> wireGuard_;
};

// A program run in a network namespace (netns empty: in the test's own) with
// its output in a log file (and the environment when given, else the
// test's); terminated (then killed) and waited for at the end.
class BackgroundProgram {
public:
    BackgroundProgram(const std::string& netns, std::vector<std::string> argv, std::string logPath,
                      std::optional<std::map<std::string, std::string>> environment = std::nullopt);
    ~BackgroundProgram();
    bool running() const { return child_ && child_->isRunning(); }
    pid_t pid() const { return child_ ? child_->pid() : -1; }
    std::string log() const;

private:
    std::shared_ptr<ChildProcess> child_;
    std::string logPath_;
};

// dnsmasq in the peer's namespace, listening on listenAddress, answering
// host with hostAddress and denying every other name of domain (it refuses
// names outside it: it has no upstream). Runs until the object goes.
std::unique_ptr<BackgroundProgram> startDnsServer(const PeerNamespace& peer, const std::string& listenAddress,
                                                  const std::string& host, const std::string& hostAddress,
                                                  const std::string& domain, const std::string& logPath);
// The user's view of a name: the address that getent gives, "" when the
// name does not resolve.
std::string lookUpHost(const std::string& name);

// source mounted over target (a directory target is created first), in this
// mount namespace only, until the object goes.
class BindMount {
public:
    BindMount(const std::string& source, const std::string& target);
    ~BindMount();
    BindMount(const BindMount&) = delete;
    BindMount& operator=(const BindMount&) = delete;
    bool ok() const { return mounted_; }

private:
    std::string target_;
    bool mounted_ = false;
};

// A writable layer over the folder target, in this mount namespace only:
// what is created, changed or removed beneath target while the object lives
// goes to a temporary folder and vanishes with it; the folder itself never
// changes. For tests of files under /etc or the install prefix. Only inside
// tests/support/isolated.
class OverlayMount {
public:
    explicit OverlayMount(const std::string& target);
    ~OverlayMount();
    OverlayMount(const OverlayMount&) = delete;
    OverlayMount& operator=(const OverlayMount&) = delete;
    bool ok() const { return mounted_; }

private:
    std::string target_;
    std::unique_ptr<TempDir> layers_;
    bool mounted_ = false;
};

// Children of parent that are zombies; all zombies.
std::vector<pid_t> zombieChildrenOf(pid_t parent);
std::vector<pid_t> zombieProcesses();
// Processes whose executable lies below the directory; whose command name is name.
std::vector<pid_t> processesRunningFrom(const std::string& directory);
std::vector<pid_t> processesNamed(const std::string& name);
// The process's argument vector (argv[0] included); empty when it is gone.
std::vector<std::string> commandLineOf(pid_t pid);
// Waits until the process no longer exists.
bool waitUntilGone(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Polls until the condition holds; false when it still does not after timeout.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

// Reading a helper reply.
std::int64_t errorCodeOf(const Dictionary& reply);
std::string errorDomainOf(const Dictionary& reply);
// The specific message: the description after the code's own text.
std::string errorMessageOf(const Dictionary& reply);
std::int64_t pidOf(const Dictionary& reply);

}  // namespace korvo::test
