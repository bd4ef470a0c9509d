// A child process of the helper. Every child is reaped as soon as it exits,
// whether or not anyone waits for it, so an exited child is never seen as
// alive and no zombie is left behind.
//
// Children start in the requested working directory with default signal
// dispositions and an empty signal mask, and inherit no descriptor of the
// helper except the standard streams they are given. A child can be started
// from an open file, so that the file the helper checked is the one that
// runs, whatever happens to its path meanwhile.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

class ChildProcess {
public:
    struct Options {
        // The program's path; with executableDescriptor only its argv[0].
        std::string executable;
        // An open regular file to start (execveat with AT_EMPTY_PATH); -1:
        // the file at executable. The caller keeps ownership. A script
        // ("#!") started this way keeps it as descriptor 3, which its
        // interpreter reads as /dev/fd/3 (and as its $0).
        int executableDescriptor = -1;
        std::vector<std::string> arguments;  // argv[1...]; argv[0] is the executable path
        std::optional<std::string> workingDirectory;
        // The complete environment of the child; nullopt inherits the helper's.
        std::optional<std::map<std::string, std::string>> environment;
        // Descriptors for the child's standard streams; -1 inherits the helper's.
        // The child inherits no other descriptor of the helper. The caller
        // keeps ownership: they may be closed as soon as launch returns.
        int standardInput = -1;
        int standardOutput = -1;
        int standardError = -1;
    };

    // Starts the child; on failure returns nullptr and sets *error to errno.
    static std::shared_ptr<ChildProcess> launch(const Options& options, int* error);

    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const;
    bool isRunning() const;
    // Blocks until the child has exited and returns its exit status (the
    // WEXITSTATUS, or 128 + signal number when a signal ended it).
    int waitUntilExit();
    // Waits at most timeoutSeconds; true when the child has exited.
    bool waitForExit(double timeoutSeconds);
    // Sends SIGTERM if the child is still running.
    void terminate();
    // Sends the signal if the child has not yet exited; true when it was
    // delivered or the child has already exited.
    bool sendSignal(int signal);
    // The exit status once the child has exited.
    std::optional<int> terminationStatus() const;
    // True when a signal ended the child.
    bool terminatedBySignal() const;

    // For a process identifier of a child started here that has not yet been
    // reaped: whether it is still running (an exited child awaiting its
    // reaping counts as not running). nullopt for any other identifier.
    static std::optional<bool> isRunningChild(pid_t pid);
    // Signals a child started here through its pidfd, so that a reused
    // identifier can never be hit. nullopt when pid is not such a child.
    static std::optional<bool> signalChild(pid_t pid, int signal);

    struct State;

private:
    explicit ChildProcess(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

}  // namespace korvo
