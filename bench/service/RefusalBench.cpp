// What refusing a caller costs the helper. The bus lets everyone call it, so
// that the helper's own check is what refuses; it runs on a private bus inside
// tests/support/isolated (see ./run) and prints:
//   - memory: a refused caller (user nobody, unsigned, without the group
//     "korvo") sends 64 requests of 16 MiB each before it reads any answer;
//     the helper's VmRSS and VmHWM before and after. Goal: under 64 MiB.
//   - time: request to AccessDenied for callers that have the group, so that
//     the code-signing check runs and refuses them: a small unsigned program,
//     and the same program extended (sparse) to 4 GiB. Median over several
//     callers, each a new connection. Goal: under 10 ms for the large one.
// The callers are copies of BenchCaller.cpp.
#include <algorithm>
#include <filesystem>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/HelperFixture.h"

namespace {

using korvo::test::HelperFixture;

constexpr int kFloodRequests = 64;
constexpr long kFloodBytes = 16L << 20;
constexpr off_t kLargeExecutable = off_t{4} << 30;
constexpr int kCallers = 15;
constexpr const char* kSigningRefusal = "Error: Unable to create signing requirements: ";

// VmRSS and VmHWM of a process, in MiB.
std::pair<double, double> residentMemory(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    double rss = -1, hwm = -1;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) rss = std::stod(line.substr(6)) / 1024;
        if (line.rfind("VmHWM:", 0) == 0) hwm = std::stod(line.substr(6)) / 1024;
    }
    return {rss, hwm};
}

void printMemory(const char* when, pid_t pid) {
    const auto [rss, hwm] = residentMemory(pid);
    std::printf("helper %-7s VmRSS %7.1f MiB  VmHWM %7.1f MiB\n", when, rss, hwm);
}

// Median time from request to AccessDenied in milliseconds, as the callers
// measured it; -1 when a caller was not refused.
double medianRefusal(const HelperFixture& helper, const std::string& program) {
    std::vector<double> times;
    for (int i = 0; i < kCallers; ++i) {
        const auto run = helper.runClientAsNobody({program, "call", helper.busAddress(), "setTmpDirPath", "path=/tmp/"});
        const auto at = run.standardOutput.find("\nmicroseconds ");
        if (run.standardOutput.rfind("error org.freedesktop.DBus.Error.AccessDenied", 0) != 0 || at == std::string::npos) {
            std::fprintf(stderr, "%s was not refused: %s%s\n", program.c_str(), run.standardOutput.c_str(),
                         run.standardError.c_str());
            return -1;
        }
        times.push_back(std::stod(run.standardOutput.substr(at + 14)) / 1000);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

}  // namespace

int main() {
    HelperFixture::Options options;
    options.busPolicy = HelperFixture::Options::BusPolicy::Open;
    options.korvoGroup = true;
    HelperFixture helper(options);
    if (auto problem = helper.start()) {
        std::fprintf(stderr, "cannot start the helper (run inside tests/support/isolated): %s\n", problem->c_str());
        return 1;
    }
    const std::string folder = "/run/korvo-bench/";  // the namespace's own /run
    const gid_t korvo = helper.korvoGroupId();
    const auto withoutGroup = HelperFixture::installProgram(KORVO_BENCH_CALLER_PATH, folder + "plain", 0, 0755);
    const auto small = HelperFixture::installProgram(KORVO_BENCH_CALLER_PATH, folder + "small", korvo, 02755);
    const auto large =
        HelperFixture::installProgram(KORVO_BENCH_CALLER_PATH, folder + "large", korvo, 02755, kLargeExecutable);

    std::printf("A refused caller sends %d requests of %ld MiB before reading any answer (goal: helper under 64 MiB)\n",
                kFloodRequests, kFloodBytes >> 20);
    printMemory("before:", helper.helperPid());
    const auto flood = helper.runClientAsNobody(
        {withoutGroup, "flood", helper.busAddress(), "setTmpDirPath", "path", std::to_string(kFloodRequests),
         std::to_string(kFloodBytes)},
        {}, std::chrono::minutes(5));
    printMemory("after:", helper.helperPid());
    std::printf("answers:\n%s%s", flood.standardOutput.c_str(), flood.standardError.c_str());

    std::printf("\nRequest to AccessDenied, code-signing refusal, median of %d callers (goal: under 10 ms)\n", kCallers);
    const double smallTime = medianRefusal(helper, small);
    const double largeTime = medianRefusal(helper, large);
    const std::string smallName =
        "small unsigned program (" + std::to_string(std::filesystem::file_size(small) >> 10) + " KiB):";
    std::printf("%-40s %8.3f ms\n", smallName.c_str(), smallTime);
    std::printf("%-40s %8.3f ms\n", "the same, extended (sparse) to 4 GiB:", largeTime);
    std::printf("%-40s %8.2f\n", "ratio large / small:", largeTime / smallTime);
    // Were they refused where they should be?
    helper.waitForLog(kSigningRefusal, std::chrono::seconds(2), 2 * kCallers);
    const std::string log = helper.helperLog();
    const auto count = [&log](const std::string& text) {
        std::size_t n = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    };
    std::printf("helper log: %zu code-signing refusals, %zu credential refusals\n", count(kSigningRefusal),
                count("Error: Client "));
    if (helper.waitForHelperExit(std::chrono::milliseconds(0))) std::printf("the helper has exited:\n%s", log.c_str());
    return 0;
}
