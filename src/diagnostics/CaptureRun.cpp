#include "diagnostics/CaptureRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "process/CallerFiles.h"
#include "process/ChildProcess.h"
#include "process/PipeOutput.h"
#include "process/ProcessProbe.h"
#include "process/ProcessWatcher.h"

namespace korvo {
namespace {

constexpr const char* kShellPath = "/bin/bash";
// A capture writes some tens of kilobytes; a runaway one is cut where its
// block, header included, still fits one append to the client's log.
constexpr std::size_t kOutputLimit = kMaximumCallerFileSize - 4096;
// How long the pipe may stay open once the script has ended: a program it
// started in the background can hold it, and every program it runs has a
// limit of its own well below this.
constexpr auto kPipeGraceAfterExit = std::chrono::seconds(10);
constexpr auto kPipeGraceAfterTimeout = std::chrono::seconds(2);

std::string errnoText(int error) { return std::strerror(error); }

}  // namespace

CaptureRun runCaptureScript(UniqueFd shell, const std::string& script, const std::string& name,
                            const std::vector<std::string>& arguments,
                            const std::map<std::string, std::string>& environment, double timeoutSeconds) {
    CaptureRun run;
    if (!shell) {
        run.launchFailure = std::string("Cannot verify signature of executable at path ") + kShellPath;
        return run;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        run.launchFailure = errnoText(errno);
        return run;
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));

    ChildProcess::Options options;
    options.executable = kShellPath;
    options.executableDescriptor = shell.get();
    options.arguments = {"-c", script, name};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.workingDirectory = "/";
    options.environment = environment;
    options.standardInput = nothing.get();
    options.standardOutput = writeEnd.get();
    options.standardError = writeEnd.get();

    int launchError = 0;
    const auto child = ChildProcess::launch(options, &launchError);
    writeEnd.reset();
    if (!child) {
        run.launchFailure = errnoText(launchError);
        return run;
    }
    // The watcher drains the pipe while this thread waits for the exit, so
    // a script that writes more than the pipe holds never stalls.
    auto text = std::make_shared<PipeOutput>(kOutputLimit, PipeOutput::Keep::Head);
    if (!ProcessWatcher::shared().watchOutput(
            std::move(readEnd), [text](std::span<const std::uint8_t> bytes) { text->append(bytes); },
            [text] { text->end(); })) {
        text->end();
    }
    run.timedOut = !waitForTaskExitWithTimeout(*child, timeoutSeconds);
    run.output = text->takeWhenEnded(run.timedOut ? kPipeGraceAfterTimeout : kPipeGraceAfterExit);
    return run;
}

}  // namespace korvo
