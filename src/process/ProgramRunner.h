// The helper's process runner: every program the helper starts goes through
// it. A program from the client's bundle is opened once, must be root's and
// signed by the vendor, and is started from that open file; one of the
// helper's own system tools must be a system executable. The child's
// standard streams are the client's com port or a pipe; the runner waits for
// it or records it in the table of started processes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/CodeSigning.h"
#include "process/Executables.h"
#include "util/Error.h"
#include "util/UniqueFd.h"

namespace korvo {

class CSCapturedProcessOutput;
class HelperSettings;
class StartedProcesses;

using Environment = std::map<std::string, std::string>;

class ProgramRunner {
public:
    // Started programs run in settings' working directory; those not waited
    // for are recorded in startedProcesses. Without codeSigning nothing is
    // started.
    ProgramRunner(std::shared_ptr<platform::CodeSigning> codeSigning, const HelperSettings& settings,
                  StartedProcesses& startedProcesses);

    // Starts the executable at path after checking its signature; returns the
    // child's process identifier, or -1 with *error set (when error is given).
    // The file is opened once (openExecutableForLaunch) and the child started
    // from that descriptor. standardInputText, when given, is the child's
    // whole standard input (instead of the com port's).
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, const std::optional<Environment>& additionalEnvironment,
                           std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error,
                           const std::optional<std::string>& standardInputText = std::nullopt);
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, const std::optional<Environment>& additionalEnvironment,
                           MaybeError* error);
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, MaybeError* error);
    // The same for one of the helper's own system tools.
    pid_t runSystemTool(SystemTool tool, const std::optional<std::vector<std::string>>& arguments,
                        std::uint64_t comPort, bool waitUntilExit,
                        const std::optional<Environment>& additionalEnvironment,
                        std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error);
    // The program at path opened for starting it (openProgramFile) when that
    // open file satisfies KorvoProgramRequirement; invalid otherwise. Start
    // it from this descriptor (ChildProcess::Options::executableDescriptor).
    UniqueFd openExecutableForLaunch(const std::string& path);
    // The same for a system tool, which may also be an unsigned system
    // executable.
    UniqueFd openSystemToolForLaunch(SystemTool tool);
    // A connected TCP socket to the client's com port on this host (the
    // caller owns the descriptor), or -1.
    int openSocketOnPort(std::uint64_t port);
    bool killProcessWithID(pid_t pid, int signal);
    platform::CodeSignState codeSignStateForExecutable(const std::string& path);

    const HelperSettings& settings() const { return settings_; }
    StartedProcesses& startedProcesses() { return startedProcesses_; }

private:
    std::shared_ptr<platform::CodeSigning> codeSigning_;
    const HelperSettings& settings_;
    StartedProcesses& startedProcesses_;
};

}  // namespace korvo
