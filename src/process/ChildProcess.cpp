#include "process/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "process/ProcessWatcher.h"
#include "process/UniqueFd.h"

extern char** environ;

namespace korvo {

struct ChildProcess::State {
    pid_t pid = -1;
    mutable std::mutex mutex;
    std::condition_variable exitedCondition;
    // Open until the child has been reaped; signals go through it, so a
    // reused process identifier is never hit.
    UniqueFd pidfd;
    bool exited = false;
    int status = 0;
    bool bySignal = false;

    bool hasExitedLocked() const {
        if (exited) return true;
        if (!pidfd) return false;
        // Readable pidfd: the child has exited and only awaits its reaping.
        pollfd p{pidfd.get(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }

    // True once the child has exited; one that has exited but is not reaped
    // yet is waited for (the watcher reaps it at once), so that its status
    // is known to whoever learns that it ended.
    bool settle(std::unique_lock<std::mutex>& lock) {
        if (exited) return true;
        if (!hasExitedLocked()) return false;
        exitedCondition.wait(lock, [this] { return exited; });
        return true;
    }

    void recordExitLocked(int waitStatus, bool statusKnown) {
        exited = true;
        if (!statusKnown) {
            status = -1;
        } else if (WIFSIGNALED(waitStatus)) {
            bySignal = true;
            status = 128 + WTERMSIG(waitStatus);
        } else {
            status = WEXITSTATUS(waitStatus);
        }
    }
};

namespace {

// The children started here and not yet reaped, by process identifier. It
// is what lets the liveness probe and signal sending tell our own exited
// children from live ones; it is inherently one per process, like the
// children themselves.
class ChildRegistry {
public:
    static ChildRegistry& shared() {
        static ChildRegistry registry;
        return registry;
    }
    void add(const std::shared_ptr<ChildProcess::State>& state) {
        std::lock_guard lock(mutex_);
        children_[state->pid] = state;
    }
    void remove(pid_t pid) {
        std::lock_guard lock(mutex_);
        children_.erase(pid);
    }
    std::shared_ptr<ChildProcess::State> find(pid_t pid) {
        std::lock_guard lock(mutex_);
        const auto it = children_.find(pid);
        return it == children_.end() ? nullptr : it->second.lock();
    }

private:
    std::mutex mutex_;
    std::unordered_map<pid_t, std::weak_ptr<ChildProcess::State>> children_;
};

// Reaps the child if it has exited; true once it has been reaped (or its
// status was taken by someone else).
bool reapIfExited(ChildProcess::State& state) {
    std::lock_guard lock(state.mutex);
    if (state.exited) return true;
    int waitStatus = 0;
    pid_t r;
    do {
        r = ::waitpid(state.pid, &waitStatus, WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == 0) return false;
    // Forgotten before the exit is recorded: whoever sees the exit also
    // sees that the identifier is no longer ours.
    ChildRegistry::shared().remove(state.pid);
    state.recordExitLocked(waitStatus, r == state.pid);
    return true;
}

void announceExit(const std::shared_ptr<ChildProcess::State>& state) { state->exitedCondition.notify_all(); }

// Without a pidfd (descriptor limit reached) a thread of its own waits for
// this one child.
void reapOnOwnThread(const std::shared_ptr<ChildProcess::State>& state) {
    std::thread([state] {
        int waitStatus = 0;
        pid_t r;
        do {
            r = ::waitpid(state->pid, &waitStatus, 0);
        } while (r < 0 && errno == EINTR);
        {
            std::lock_guard lock(state->mutex);
            ChildRegistry::shared().remove(state->pid);
            state->recordExitLocked(waitStatus, r == state->pid);
        }
        announceExit(state);
    }).detach();
}

void watchForExit(const std::shared_ptr<ChildProcess::State>& state) {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, state->pid, 0));
    if (pidfd < 0) {
        reapOnOwnThread(state);
        return;
    }
    ::fcntl(pidfd, F_SETFD, FD_CLOEXEC);
    {
        std::lock_guard lock(state->mutex);
        state->pidfd.reset(pidfd);
    }
    const bool watched = ProcessWatcher::shared().watch(
        pidfd,
        [state] {
            if (!reapIfExited(*state)) return true;
            announceExit(state);
            return false;
        },
        [state] {
            std::lock_guard lock(state->mutex);
            state->pidfd.reset();
        });
    if (!watched) {
        {
            std::lock_guard lock(state->mutex);
            state->pidfd.reset();
        }
        reapOnOwnThread(state);
    }
}

// A standard descriptor given as 0, 1 or 2 could be overwritten by an
// earlier dup2 of the child's setup; such a one is first moved higher.
int movedAboveStandardStreams(int fd, std::vector<UniqueFd>& holder) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return fd;
    holder.emplace_back(moved);
    return moved;
}

std::vector<std::string> environmentEntries(const std::map<std::string, std::string>& environment) {
    std::vector<std::string> entries;
    entries.reserve(environment.size());
    for (const auto& [key, value] : environment) entries.push_back(key + "=" + value);
    return entries;
}

class SpawnSetup {
public:
    SpawnSetup() {
        fileActionsOk_ = ::posix_spawn_file_actions_init(&actions_) == 0;
        attributesOk_ = ::posix_spawnattr_init(&attributes_) == 0;
    }
    ~SpawnSetup() {
        if (fileActionsOk_) ::posix_spawn_file_actions_destroy(&actions_);
        if (attributesOk_) ::posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    // Returns 0 or an errno value.
    int prepare(const ChildProcess::Options& options, std::vector<UniqueFd>& moved) {
        if (!fileActionsOk_ || !attributesOk_) return ENOMEM;
        const int streams[3] = {movedAboveStandardStreams(options.standardInput, moved),
                                movedAboveStandardStreams(options.standardOutput, moved),
                                movedAboveStandardStreams(options.standardError, moved)};
        for (int target = 0; target < 3; ++target) {
            if (streams[target] < 0) continue;
            if (int e = ::posix_spawn_file_actions_adddup2(&actions_, streams[target], target)) return e;
        }
        // Whatever another thread opens without close-on-exec meanwhile is
        // still not handed down.
        if (int e = ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1)) return e;
        if (options.workingDirectory && !options.workingDirectory->empty()) {
            if (int e = ::posix_spawn_file_actions_addchdir_np(&actions_, options.workingDirectory->c_str())) {
                return e;
            }
        }
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        if (int e = ::posix_spawnattr_setsigdefault(&attributes_, &all)) return e;
        if (int e = ::posix_spawnattr_setsigmask(&attributes_, &none)) return e;
        return ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }

    const posix_spawn_file_actions_t* actions() const { return &actions_; }
    const posix_spawnattr_t* attributes() const { return &attributes_; }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    bool fileActionsOk_ = false;
    bool attributesOk_ = false;
};

}  // namespace

std::shared_ptr<ChildProcess> ChildProcess::launch(const Options& options, int* error) {
    auto fail = [error](int e) -> std::shared_ptr<ChildProcess> {
        if (error) *error = e;
        return nullptr;
    };
    // The registry must outlive the watcher thread that reports to it, so it
    // is created first (and destroyed last).
    static_cast<void>(ChildRegistry::shared());
    static_cast<void>(ProcessWatcher::shared());

    std::vector<UniqueFd> moved;
    SpawnSetup setup;
    if (int e = setup.prepare(options, moved)) return fail(e);

    std::vector<std::string> args;
    args.reserve(options.arguments.size() + 1);
    args.push_back(options.executable);
    args.insert(args.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envEntries;
    std::vector<char*> envp;
    char** envPointer = environ;
    if (options.environment) {
        envEntries = environmentEntries(*options.environment);
        for (auto& e : envEntries) envp.push_back(e.data());
        envp.push_back(nullptr);
        envPointer = envp.data();
    }

    pid_t pid = -1;
    const int spawnError =
        ::posix_spawn(&pid, options.executable.c_str(), setup.actions(), setup.attributes(), argv.data(), envPointer);
    if (spawnError != 0) return fail(spawnError);

    auto state = std::make_shared<State>();
    state->pid = pid;
    ChildRegistry::shared().add(state);
    watchForExit(state);
    if (error) *error = 0;
    return std::shared_ptr<ChildProcess>(new ChildProcess(std::move(state)));
}

ChildProcess::ChildProcess(std::shared_ptr<State> state) : state_(std::move(state)) {}

// The watcher keeps the state until the child is reaped; nothing to do here.
ChildProcess::~ChildProcess() = default;

pid_t ChildProcess::pid() const { return state_->pid; }

bool ChildProcess::isRunning() const {
    std::unique_lock lock(state_->mutex);
    return !state_->settle(lock);
}

int ChildProcess::waitUntilExit() {
    std::unique_lock lock(state_->mutex);
    state_->exitedCondition.wait(lock, [this] { return state_->exited; });
    return state_->status;
}

bool ChildProcess::waitForExit(double timeoutSeconds) {
    std::unique_lock lock(state_->mutex);
    if (state_->exited) return true;
    if (!(timeoutSeconds > 0)) return state_->settle(lock);
    // Beyond a few years the wait is as good as unlimited, and the clock
    // arithmetic must not overflow.
    constexpr double kUnlimited = 1.0e8;
    if (timeoutSeconds >= kUnlimited) {
        state_->exitedCondition.wait(lock, [this] { return state_->exited; });
        return true;
    }
    const auto timeout = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(timeoutSeconds));
    return state_->exitedCondition.wait_for(lock, timeout, [this] { return state_->exited; });
}

void ChildProcess::terminate() { sendSignal(SIGTERM); }

bool ChildProcess::sendSignal(int signal) {
    std::lock_guard lock(state_->mutex);
    if (state_->exited) return true;
    if (state_->pidfd) {
        return ::syscall(SYS_pidfd_send_signal, state_->pidfd.get(), signal, nullptr, 0) == 0 || errno == ESRCH;
    }
    // Not reaped yet (the reaping thread holds no pidfd), so the identifier
    // is still this child's.
    return ::kill(state_->pid, signal) == 0 || errno == ESRCH;
}

std::optional<int> ChildProcess::terminationStatus() const {
    std::unique_lock lock(state_->mutex);
    if (!state_->settle(lock)) return std::nullopt;
    return state_->status;
}

bool ChildProcess::terminatedBySignal() const {
    std::unique_lock lock(state_->mutex);
    return state_->settle(lock) && state_->bySignal;
}

std::optional<bool> ChildProcess::isRunningChild(pid_t pid) {
    const auto state = ChildRegistry::shared().find(pid);
    if (!state) return std::nullopt;
    std::unique_lock lock(state->mutex);
    return !state->settle(lock);
}

std::optional<bool> ChildProcess::signalChild(pid_t pid, int signal) {
    const auto state = ChildRegistry::shared().find(pid);
    if (!state) return std::nullopt;
    return ChildProcess(state).sendSignal(signal);
}

}  // namespace korvo
