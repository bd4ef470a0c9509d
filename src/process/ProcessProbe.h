// Small process helpers shared by the backends and the network operations:
// the liveness probe, the bounded wait for a child, and error messages that
// carry the tail of a backend's output.
#pragma once

#include <sys/types.h>

#include <string>

namespace korvo {

class ChildProcess;
class CSCapturedProcessOutput;

// True when a process with this identifier exists (signal 0 succeeds or is
// refused with EPERM). A child of the helper that has exited is gone even
// before it is reaped; 0 and negative identifiers (process groups, every
// process) never name one existing process.
bool processExists(pid_t pid);

// message, followed by " Backend output: TEXT" when output holds non-empty
// text; message unchanged otherwise (also when output is null).
std::string messageWithBackendOutput(const std::string& message, const CSCapturedProcessOutput* output);

// Waits for task to end; when it is still running after timeoutSeconds it is
// terminated. True when the task ended by itself, false when it was
// terminated at the time-out.
bool waitForTaskExitWithTimeout(ChildProcess& task, double timeoutSeconds);

}  // namespace korvo
