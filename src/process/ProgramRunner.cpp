// The signature gate on the program's open file, the child started from
// that file, its standard streams (the client's com port or a pipe), the
// optional wait and the error made from a failing exit.
#include "process/ProgramRunner.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "process/CapturedProcessOutput.h"
#include "process/ChildProcess.h"
#include "process/PipeOutput.h"
#include "process/ProcessProbe.h"
#include "process/ProcessWatcher.h"
#include "process/StartedProcesses.h"
#include "util/UniqueFd.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/HelperSettings.h"
#include "util/KorvoIdentity.h"
#include "util/Log.h"
#include "util/Utf8.h"

extern char** environ;

namespace korvo {

namespace {


// What a waited-for child wrote, for the error of a failing exit: its tail.
constexpr std::size_t kOutputTailLimit = 1 << 20;

std::string pathText(const std::optional<std::string>& path) { return path ? *path : "(null)"; }

std::map<std::string, std::string> helperEnvironment() {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string_view::npos) continue;
        environment.emplace(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
    }
    return environment;
}

pid_t refuseMissingExecutable(const std::string& shownPath, MaybeError* error) {
    logMessage(LOG_ERR, "Cannot find executable at path '%s'.", shownPath.c_str());
    if (error) {
        *error = errorWithKorvoErrorCode(kRequiredFileMissingCode,
                                         formatString("Cannot find executable at path %s", shownPath.c_str()));
    }
    return -1;
}

// The reading end of a pipe that holds text and is closed for writing;
// invalid when the text does not fit the pipe.
UniqueFd pipeHolding(const std::string& text) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return UniqueFd();
    UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    if (text.size() > static_cast<std::size_t>(::fcntl(writeEnd.get(), F_GETPIPE_SZ)) ||
        ::write(writeEnd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return UniqueFd();
    }
    return readEnd;
}

// A refused or failed launch: its log line (when given) and its error.
pid_t failLaunch(MaybeError* error, std::int64_t code, std::string message, const char* logLine,
                 const std::string& path) {
    if (logLine) logMessage(LOG_ERR, logLine, path.c_str());
    if (error) *error = errorWithKorvoErrorCode(code, std::move(message));
    return -1;
}

// The child's standard streams: the com port for all three, or a pipe for
// output and error; a text, when given, as its whole standard input.
struct ChildStreams {
    UniqueFd outputRead, outputWrite, comSocket, input;

    // nullopt on success, else the error message.
    std::optional<std::string> open(ProgramRunner& runner, std::uint64_t comPort,
                                    const std::optional<std::string>& standardInputText) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return "";
        outputRead.reset(ends[0]);
        outputWrite.reset(ends[1]);
        if (comPort != 0) {
            comSocket.reset(runner.openSocketOnPort(comPort));
            if (!comSocket) return "Could not open the VPN process communication socket.";
        }
        // A secret that must not show in the arguments comes as a pipe that
        // holds it whole and then ends.
        if (standardInputText && !(input = pipeHolding(*standardInputText))) return "";
        return std::nullopt;
    }

    void assignTo(ChildProcess::Options& options) const {
        const int output = comSocket ? comSocket.get() : outputWrite.get();
        options.standardOutput = output;
        options.standardError = output;
        if (input) {
            options.standardInput = input.get();
        } else if (comSocket) {
            options.standardInput = comSocket.get();
        }
    }

    // The child has its own copies now; the helper keeps neither the com
    // socket (so the client sees the end when the child goes) nor the
    // pipe's writing end (so the pipe ends when the child does).
    void releaseChildEnds() {
        comSocket.reset();
        outputWrite.reset();
        input.reset();
    }
};

// Drains the child's output pipe, so that a child writing more than the pipe
// holds never stalls, whether anyone keeps its output or not. Returns the
// tail to read an error from, when one is wanted.
std::shared_ptr<PipeOutput> drainOutput(UniqueFd readEnd, bool keepTail,
                                        const std::shared_ptr<CSCapturedProcessOutput>& collector) {
    auto tail = keepTail ? std::make_shared<PipeOutput>(kOutputTailLimit, PipeOutput::Keep::Tail) : nullptr;
    const bool drained = ProcessWatcher::shared().watchOutput(
        std::move(readEnd),
        [collector, tail](std::span<const std::uint8_t> bytes) {
            if (collector) collector->appendData(bytes);
            if (tail) tail->append(bytes);
        },
        [tail] {
            if (tail) tail->end();
        });
    if (!drained && tail) tail->end();
    return tail;
}

// A waited child that failed: its output as the error's message, when it
// wrote any in UTF-8.
pid_t failedExit(const std::string& path, const std::shared_ptr<PipeOutput>& tail, MaybeError* error) {
    const std::string output = tail ? tail->takeWhenEnded(std::chrono::seconds(2)) : std::string();
    if (output.empty()) {
        *error = errorWithKorvoErrorCode(kLaunchingCode,
                                         formatString("Cannot successfully run executable at path %s", path.c_str()));
    } else {
        // Output that is not UTF-8 has no text form: the error then carries
        // the code's description alone.
        *error = errorWithKorvoErrorCode(kLaunchingCode,
                                         isValidUTF8(output) ? std::optional<std::string>(output) : std::nullopt);
    }
    return -1;
}

// The launch shared by the runner's two entries, once the program's file is
// open and checked (executable invalid: the check failed).
pid_t runChecked(ProgramRunner& runner, const std::string& path, UniqueFd executable,
                 const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort, bool waitUntilExit,
                 const std::optional<Environment>& additionalEnvironment,
                 std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error,
                 const std::optional<std::string>& standardInputText) {
    constexpr const char* kCouldNotExecute = "Executable '%s' could not be executed successfully.";
    if (!executable) {
        return failLaunch(error, kInvalidSignatureCode,
                          formatString("Cannot verify signature of executable at path %s", path.c_str()),
                          "Cannot verify signature of executable at path '%s'.", path);
    }

    ChildProcess::Options options;
    options.executable = path;
    options.executableDescriptor = executable.get();
    options.workingDirectory = runner.settings().tmpDirPath();
    if (additionalEnvironment && !additionalEnvironment->empty()) {
        auto environment = helperEnvironment();
        for (const auto& [key, value] : *additionalEnvironment) environment[key] = value;
        options.environment = std::move(environment);
    }
    if (arguments) options.arguments = *arguments;

    ChildStreams streams;
    if (const auto problem = streams.open(runner, comPort, standardInputText)) {
        if (!problem->empty()) return failLaunch(error, kLaunchingCode, *problem, nullptr, path);
        return failLaunch(error, kLaunchingCode, formatString("Cannot find executable at path %s", path.c_str()),
                          kCouldNotExecute, path);
    }
    streams.assignTo(options);

    std::shared_ptr<CSCapturedProcessOutput> collector;
    if (capturedOutput && comPort == 0) {
        collector = std::make_shared<CSCapturedProcessOutput>();
        *capturedOutput = collector;
    }

    int launchError = 0;
    const auto child = ChildProcess::launch(options, &launchError);
    streams.releaseChildEnds();
    executable.reset();
    if (!child) {
        return failLaunch(error, kLaunchingCode, formatString("Cannot find executable at path %s", path.c_str()),
                          kCouldNotExecute, path);
    }
    std::shared_ptr<PipeOutput> tail;
    if (comPort == 0) tail = drainOutput(std::move(streams.outputRead), waitUntilExit && error, collector);

    if (!waitUntilExit) {
        runner.startedProcesses().recordStart(child->pid(), path);
        return child->pid();
    }
    if (child->waitUntilExit() == 0) return child->pid();
    logMessage(LOG_ERR, kCouldNotExecute, path.c_str());
    return error ? failedExit(path, tail, error) : child->pid();
}

}  // namespace

ProgramRunner::ProgramRunner(std::shared_ptr<platform::CodeSigning> codeSigning, const HelperSettings& settings,
                             StartedProcesses& startedProcesses)
    : codeSigning_(std::move(codeSigning)), settings_(settings), startedProcesses_(startedProcesses) {}

pid_t ProgramRunner::runServiceAtPath(const std::optional<std::string>& path,
                                        const std::optional<std::vector<std::string>>& arguments,
                                        std::uint64_t comPort, bool waitUntilExit,
                                        const std::optional<Environment>& additionalEnvironment,
                                        std::shared_ptr<CSCapturedProcessOutput>* capturedOutput,
                                        MaybeError* error, const std::optional<std::string>& standardInputText) {
    if (!path || !fileExists(*path)) return refuseMissingExecutable(pathText(path), error);
    return runChecked(*this, *path, openExecutableForLaunch(*path), arguments, comPort, waitUntilExit,
                      additionalEnvironment, capturedOutput, error, standardInputText);
}

pid_t ProgramRunner::runSystemTool(SystemTool tool, const std::optional<std::vector<std::string>>& arguments,
                                     std::uint64_t comPort, bool waitUntilExit,
                                     const std::optional<Environment>& additionalEnvironment,
                                     std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error) {
    const std::string path = systemToolPath(tool);
    if (!fileExists(path)) return refuseMissingExecutable(path, error);
    return runChecked(*this, path, openSystemToolForLaunch(tool), arguments, comPort, waitUntilExit,
                      additionalEnvironment, capturedOutput, error, std::nullopt);
}

UniqueFd ProgramRunner::openExecutableForLaunch(const std::string& path) {
    if (!codeSigning_) return UniqueFd();
    UniqueFd executable = openProgramFile(path);
    if (!executable || codeSigning_->checkExecutable(executable.get(), KorvoProgramRequirement) !=
                           platform::codesign_status::kSuccess) {
        return UniqueFd();
    }
    return executable;
}

UniqueFd ProgramRunner::openSystemToolForLaunch(SystemTool tool) {
    if (!codeSigning_) return UniqueFd();
    UniqueFd executable = openProgramFile(systemToolPath(tool));
    if (!executable || codeSigning_->codeSignStateForSystemExecutable(executable.get()) !=
                           platform::CodeSignState::Valid) {
        return UniqueFd();
    }
    return executable;
}

pid_t ProgramRunner::runServiceAtPath(const std::optional<std::string>& path,
                                        const std::optional<std::vector<std::string>>& arguments,
                                        std::uint64_t comPort, bool waitUntilExit,
                                        const std::optional<Environment>& additionalEnvironment,
                                        MaybeError* error) {
    return runServiceAtPath(path, arguments, comPort, waitUntilExit, additionalEnvironment, nullptr, error);
}

pid_t ProgramRunner::runServiceAtPath(const std::optional<std::string>& path,
                                        const std::optional<std::vector<std::string>>& arguments,
                                        std::uint64_t comPort, bool waitUntilExit, MaybeError* error) {
    return runServiceAtPath(path, arguments, comPort, waitUntilExit, std::nullopt, nullptr, error);
}

int ProgramRunner::openSocketOnPort(std::uint64_t port) {
    // A port number that does not fit 16 bits names no port; it is refused
    // rather than truncated to some other one.
    if (port > 0xffff) return -1;
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return -1;
    // Linux has no SO_NOSIGPIPE. The helper never writes to this socket
    // itself (the child does, with default signal dispositions), so no
    // SIGPIPE can reach the helper through it.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd.release();
    if (errno != EINTR) return -1;
    // Interrupted: the connection goes on by itself; wait for its outcome.
    pollfd p{fd.get(), POLLOUT, 0};
    int ready;
    do {
        ready = ::poll(&p, 1, -1);
    } while (ready < 0 && errno == EINTR);
    int socketError = 0;
    socklen_t length = sizeof socketError;
    if (ready != 1 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &socketError, &length) != 0 || socketError != 0) {
        return -1;
    }
    return fd.release();
}

bool ProgramRunner::killProcessWithID(pid_t pid, int signal) {
    if (!processExists(pid)) return true;
    if (const auto delivered = ChildProcess::signalChild(pid, signal)) return *delivered;
    return ::kill(pid, signal) == 0;
}

platform::CodeSignState ProgramRunner::codeSignStateForExecutable(const std::string& path) {
    if (!codeSigning_) return platform::CodeSignState::CouldNotCheck;
    return codeSigning_->codeSignStateForExecutable(path);
}

}  // namespace korvo
