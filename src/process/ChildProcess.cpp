#include "process/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "process/CloneChild.h"
#include "process/ProcessWatcher.h"
#include "util/UniqueFd.h"

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

// pidfd: the one clone made (close-on-exec, as every pidfd), or none.
void watchForExit(const std::shared_ptr<ChildProcess::State>& state, UniqueFd pidfdFromClone) {
    const int pidfd = pidfdFromClone ? pidfdFromClone.release() : static_cast<int>(::syscall(SYS_pidfd_open, state->pid, 0));
    if (pidfd < 0) {
        reapOnOwnThread(state);
        return;
    }
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

// A descriptor given as 0, 1 or 2 could be overwritten by an earlier dup of
// the child's setup; such a one is first moved higher.
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

bool isScript(int fd) {
    char magic[2];
    return ::pread(fd, magic, sizeof magic, 0) == 2 && magic[0] == '#' && magic[1] == '!';
}

// Everything the child does between clone and exec, prepared by the parent.
struct ExecPlan {
    int streams[3] = {-1, -1, -1};
    int executable = -1;              // started from this descriptor, or by path
    bool keepExecutableOpen = false;  // a script, read by its interpreter
    const char* path = nullptr;
    const char* workingDirectory = nullptr;  // nullptr: the helper's
    char* const* argv = nullptr;
    char* const* envp = nullptr;
    std::atomic<int> error{0};  // set by a child that could not exec
};

static_assert(std::atomic<int>::is_always_lock_free);

[[noreturn]] KORVO_CHILD_CODE void childFails(ExecPlan& plan) {
    plan.error.store(errno != 0 ? errno : ECHILD, std::memory_order_relaxed);
    ::syscall(SYS_exit_group, 127);
    __builtin_unreachable();
}

// The child runs in the helper's memory on a stack of its own while the
// launching thread waits for its exec (CLONE_VM | CLONE_VFORK). So it makes
// system calls only: nothing that allocates, locks, touches the C library's
// state or runs through a sanitizer's interceptors.
KORVO_CHILD_CODE int childMain(void* argument) {
    ExecPlan& plan = *static_cast<ExecPlan*>(argument);
    // Every signal to its default action first (zeroes are SIG_DFL, no
    // flags, no mask in every layout of the kernel's sigaction): no handler
    // of the helper may run in the helper's memory from here. Signals stay
    // blocked, as the parent blocked them, until just before the exec.
    const std::uint64_t defaultAction[8] = {};
    for (long signal = 1; signal < _NSIG; ++signal) {
        ::syscall(SYS_rt_sigaction, signal, defaultAction, nullptr, kKernelSignalSetSize);
    }
    for (int target = 0; target < 3; ++target) {
        if (plan.streams[target] >= 0 && ::syscall(SYS_dup3, plan.streams[target], target, 0) < 0) childFails(plan);
    }
    // The program's file becomes descriptor 3, the only one above the
    // standard streams that is left; close-on-exec unless a script's
    // interpreter must read it.
    int firstClosed = STDERR_FILENO + 1;
    if (plan.executable >= 0) {
        const int executableFlags = plan.keepExecutableOpen ? 0 : O_CLOEXEC;
        if (plan.executable != 3) {
            if (::syscall(SYS_dup3, plan.executable, 3, executableFlags) < 0) childFails(plan);
        } else if (::syscall(SYS_fcntl, 3, F_SETFD, plan.keepExecutableOpen ? 0 : FD_CLOEXEC) < 0) {
            childFails(plan);
        }
        firstClosed = 4;
    }
    // Whatever another thread opened without close-on-exec is not handed down.
    if (::syscall(SYS_close_range, firstClosed, ~0U, 0) < 0) childFails(plan);
    if (plan.workingDirectory && ::syscall(SYS_chdir, plan.workingDirectory) < 0) childFails(plan);
    const std::uint64_t noSignals[2] = {};
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, noSignals, nullptr, kKernelSignalSetSize);
    if (plan.executable >= 0) {
        ::syscall(SYS_execveat, 3, "", plan.argv, plan.envp, AT_EMPTY_PATH);
    } else {
        ::syscall(SYS_execve, plan.path, plan.argv, plan.envp);
    }
    childFails(plan);
}

}  // namespace

// posix_spawn cannot start a program from a descriptor, so the child is made
// the way it makes its own: clone sharing the helper's memory, the parent
// suspended until the exec, every signal blocked around it.
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
    ExecPlan plan;
    plan.streams[0] = movedAboveStandardStreams(options.standardInput, moved);
    plan.streams[1] = movedAboveStandardStreams(options.standardOutput, moved);
    plan.streams[2] = movedAboveStandardStreams(options.standardError, moved);
    if (options.executableDescriptor >= 0) {
        plan.executable = movedAboveStandardStreams(options.executableDescriptor, moved);
        plan.keepExecutableOpen = isScript(plan.executable);
    }
    plan.path = options.executable.c_str();
    if (options.workingDirectory && !options.workingDirectory->empty()) {
        plan.workingDirectory = options.workingDirectory->c_str();
    }

    std::vector<std::string> args;
    args.reserve(options.arguments.size() + 1);
    args.push_back(options.executable);
    args.insert(args.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    plan.argv = argv.data();

    std::vector<std::string> envEntries;
    std::vector<char*> envp;
    plan.envp = environ;
    if (options.environment) {
        envEntries = environmentEntries(*options.environment);
        for (auto& e : envEntries) envp.push_back(e.data());
        envp.push_back(nullptr);
        plan.envp = envp.data();
    }

    int pidfd = -1;
    const pid_t pid = cloneSharingMemory(childMain, &plan, &pidfd);
    const int cloneError = errno;
    if (pid < 0) return fail(cloneError);
    if (const int execError = plan.error.load(std::memory_order_relaxed)) {
        ::close(pidfd);
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return fail(execError);
    }

    auto state = std::make_shared<State>();
    state->pid = pid;
    ChildRegistry::shared().add(state);
    watchForExit(state, UniqueFd(pidfd));
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
