// A child process started with posix_spawn. Every child is reaped as soon as
// it exits, whether or not anyone waits for it, so an exited child is never
// seen as alive and no zombie is left behind.
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
        std::string executable;
        std::vector<std::string> arguments;  // argv[1...]; argv[0] is the executable path
        std::optional<std::string> workingDirectory;
        // The complete environment of the child; nullopt inherits the helper's.
        std::optional<std::map<std::string, std::string>> environment;
        // Descriptors for the child's standard streams; -1 inherits the helper's.
        // The child inherits no other descriptor of the helper.
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
    // The exit status once the child has exited.
    std::optional<int> terminationStatus() const;
    // True when a signal ended the child.
    bool terminatedBySignal() const;

    struct State;

private:
    explicit ChildProcess(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

}  // namespace korvo
