// Launch-and-wait of a small program through the helper's child processes
// and its runner against posix_spawn plus waitpid directly, in the same run;
// and the share of the signature check in launching a 1 MB signed program.
// The runner starts only programs signed by the vendor: it runs signed
// copies.
#include <spawn.h>
#include <sys/wait.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

#include "process/ProgramRunner.h"
#include "process/StartedProcesses.h"
#include "util/HelperSettings.h"
#include "platform/CodeSigning.h"
#include "process/ChildProcess.h"
#include "process/Executables.h"

extern char** environ;

namespace {

constexpr const char* kSystemProgram = "/bin/true";
constexpr const char* kSignedProgram = KORVO_BENCH_SIGNED_PROGRAM;
constexpr const char* kSignedSmallProgram = KORVO_BENCH_SIGNED_SMALL_PROGRAM;  // a signed copy of /bin/true

korvo::ProgramRunner& tool() {
    static korvo::HelperSettings settings;
    static korvo::StartedProcesses started(nullptr);
    static korvo::ProgramRunner instance(korvo::platform::makeSystemCodeSigning(), settings, started);
    return instance;
}

void spawnAndWait(benchmark::State& state, const char* program) {
    char* argv[] = {const_cast<char*>(program), nullptr};
    for (auto _ : state) {
        pid_t pid = -1;
        if (posix_spawn(&pid, program, nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            return;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        benchmark::DoNotOptimize(status);
    }
}

void runnerLaunchAndWait(benchmark::State& state, const char* program) {
    for (auto _ : state) {
        korvo::MaybeError error;
        const pid_t pid = tool().runServiceAtPath(std::string(program), std::nullopt, 0, true, &error);
        if (pid < 0) {
            state.SkipWithError(error ? error->displayText().c_str() : "runner failed");
            return;
        }
    }
}

// The launch alone, as the runner does it (the file opened, the child
// started from it), without the signature check.
void childLaunchAndWait(benchmark::State& state, const char* program) {
    for (auto _ : state) {
        const korvo::UniqueFd executable = korvo::openProgramFile(program);
        korvo::ChildProcess::Options options;
        options.executable = program;
        options.executableDescriptor = executable.get();
        int error = 0;
        const auto child = korvo::ChildProcess::launch(options, &error);
        if (!child) {
            state.SkipWithError("launch failed");
            return;
        }
        benchmark::DoNotOptimize(child->waitUntilExit());
    }
}

void BM_PosixSpawnWaitpid_System(benchmark::State& state) { spawnAndWait(state, kSystemProgram); }
void BM_ChildProcess_System(benchmark::State& state) { childLaunchAndWait(state, kSystemProgram); }
void BM_PosixSpawnWaitpid_SignedSmall(benchmark::State& state) { spawnAndWait(state, kSignedSmallProgram); }
void BM_Runner_SignedSmall(benchmark::State& state) { runnerLaunchAndWait(state, kSignedSmallProgram); }
void BM_PosixSpawnWaitpid_Signed1MB(benchmark::State& state) { spawnAndWait(state, kSignedProgram); }
void BM_Runner_Signed1MB(benchmark::State& state) { runnerLaunchAndWait(state, kSignedProgram); }
void BM_SignatureCheck_Signed1MB(benchmark::State& state) {
    for (auto _ : state) {
        const auto check = tool().codeSignStateForExecutable(kSignedProgram);
        if (check != korvo::platform::CodeSignState::Valid) {
            state.SkipWithError("the signed program does not verify");
            return;
        }
    }
}

BENCHMARK(BM_PosixSpawnWaitpid_System)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ChildProcess_System)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_PosixSpawnWaitpid_SignedSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Runner_SignedSmall)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_PosixSpawnWaitpid_Signed1MB)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Runner_Signed1MB)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_SignatureCheck_Signed1MB)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Prints as usual and keeps each benchmark's mean real time per iteration.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    RecordingReporter() : ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                microseconds[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> microseconds;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto& t = reporter.microseconds;
    const auto at = [&t](const char* name) {
        const auto it = t.find(name);
        return it == t.end() ? 0.0 : it->second;
    };
    const double direct = at("BM_PosixSpawnWaitpid_System");
    const double child = at("BM_ChildProcess_System");
    if (direct > 0 && child > 0) {
        std::printf("\nchild process / posix_spawn+waitpid, %s: %.2f (target <= 1.30)\n", kSystemProgram, child / direct);
    }
    const double smallDirect = at("BM_PosixSpawnWaitpid_SignedSmall");
    const double smallRunner = at("BM_Runner_SignedSmall");
    if (smallDirect > 0 && smallRunner > 0) {
        std::printf("runner / posix_spawn+waitpid, signed copy of %s: %.2f\n", kSystemProgram,
                    smallRunner / smallDirect);
    }
    const double signedDirect = at("BM_PosixSpawnWaitpid_Signed1MB");
    const double signedRunner = at("BM_Runner_Signed1MB");
    const double check = at("BM_SignatureCheck_Signed1MB");
    if (signedRunner > 0 && check > 0) {
        std::printf("runner / posix_spawn+waitpid, 1 MB signed program: %.2f\n", signedRunner / signedDirect);
        std::printf("signature check of the 1 MB signed program: %.0f us of a %.0f us launch (%.0f%%)\n", check,
                    signedRunner, 100.0 * check / signedRunner);
    }
    benchmark::Shutdown();
    return 0;
}
