#include "process/ProcessProbe.h"

#include <signal.h>

#include <cerrno>
#include <cstdio>

#include "process/CapturedProcessOutput.h"
#include "process/ChildProcess.h"

namespace korvo {

bool processExists(pid_t pid) {
    // 0 and negative identifiers name process groups or every process;
    // none of them is one process that could exist.
    if (pid <= 0) return false;
    // Our own children are judged by their pidfd: one that has exited but
    // is not reaped yet would otherwise still answer signal 0.
    if (const auto running = ChildProcess::isRunningChild(pid)) return *running;
    if (::kill(pid, 0) == 0) return true;
    if (errno == EPERM) return true;
    if (errno == ESRCH) return false;
    // The general log, not syslog: this is a programming error, not an event.
    std::fprintf(stderr, "FATAL: Unknown error type while using kill(pid, 0)!\n");
    return false;
}

std::string messageWithBackendOutput(const std::string& message, const CSCapturedProcessOutput* output) {
    if (!output) return message;
    const auto text = output->capturedText();
    if (!text || text->empty()) return message;
    return message + " Backend output: " + *text;
}

bool waitForTaskExitWithTimeout(ChildProcess& task, double timeoutSeconds) {
    if (!task.isRunning()) return true;
    if (task.waitForExit(timeoutSeconds)) return true;
    task.terminate();
    // A child that ignores SIGTERM must not hold the caller forever.
    constexpr double kTerminationGraceSeconds = 5.0;
    if (!task.waitForExit(kTerminationGraceSeconds)) {
        task.sendSignal(SIGKILL);
        task.waitUntilExit();
    }
    return false;
}

}  // namespace korvo
