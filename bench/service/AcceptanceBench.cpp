// What a new client costs the helper, and what the helper costs when idle.
// This program is itself a signed client of about 5 MB; it runs the real
// helper on a private bus (inside tests/support/isolated, see ./run) and
// measures:
//   - the first request of a new client (the helper asks the bus for the
//     client's credentials and checks the signature of its executable)
//     against a request of a client already accepted;
//   - the two parts on their own: GetConnectionCredentials, and the
//     signature check of this executable against the client requirement;
//   - the helper's resident memory when idle, after start and after serving.
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include <sdbus-c++/sdbus-c++.h>

#include "KorvoClient.h"
#include "core/ClientAcceptance.h"
#include "platform/CodeSigning.h"
#include "support/HelperFixture.h"

namespace {

// Makes this executable about as large as the client application's.
constexpr std::size_t kPaddingSize = 4 << 20;
const std::array<unsigned char, kPaddingSize> kPadding = {1};

korvo::test::HelperFixture* helper = nullptr;

const korvo::Dictionary kRequest = {{"enabled", false}};

void NewClientFirstRequest(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto client = std::make_unique<korvo::KorvoClient>(helper->busAddress());
        client->uniqueName();  // connected before the clock runs
        state.ResumeTiming();
        const auto outcome = client->call("setVPNDebugLoggingEnabled", kRequest);
        state.PauseTiming();
        if (outcome.busError) state.SkipWithError(outcome.busError->message.c_str());
        client.reset();
        state.ResumeTiming();
    }
}

void AcceptedClientRequest(benchmark::State& state) {
    korvo::KorvoClient client(helper->busAddress());
    client.call("setVPNDebugLoggingEnabled", kRequest);
    for (auto _ : state) {
        const auto outcome = client.call("setVPNDebugLoggingEnabled", kRequest);
        if (outcome.busError) state.SkipWithError(outcome.busError->message.c_str());
    }
}

void GetConnectionCredentials(benchmark::State& state) {
    auto connection = sdbus::createSessionBusConnectionWithAddress(helper->busAddress());
    auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    const std::string self = connection->getUniqueName();
    for (auto _ : state) {
        std::map<std::string, sdbus::Variant> credentials;
        daemon->callMethod("GetConnectionCredentials").onInterface("org.freedesktop.DBus").withArguments(self).storeResultsTo(credentials);
        benchmark::DoNotOptimize(credentials);
    }
}

void SignatureCheckOfThisClient(benchmark::State& state) {
    const korvo::ClientAcceptance acceptance(korvo::platform::makeSystemCodeSigning(), std::nullopt);
    for (auto _ : state) {
        if (!acceptance.shouldAcceptClient({":1.1", ::getpid(), 0, {0}})) {
            state.SkipWithError("this benchmark is not signed as the client");
        }
    }
}

BENCHMARK(NewClientFirstRequest)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(AcceptedClientRequest)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(GetConnectionCredentials)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(SignatureCheckOfThisClient)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// VmRSS of a process, in kB.
long residentKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    korvo::test::HelperFixture fixture;
    if (auto problem = fixture.start()) {
        std::fprintf(stderr, "cannot start the helper (run inside tests/support/isolated): %s\n", problem->c_str());
        return 1;
    }
    helper = &fixture;

    struct stat self {};
    ::stat("/proc/self/exe", &self);
    std::printf("client executable: %.1f MB (signature checked in full for every new client)\n",
                static_cast<double>(self.st_size) / 1e6);
    benchmark::DoNotOptimize(kPadding[static_cast<std::size_t>(self.st_size) % kPaddingSize]);

    // Idle: started, no client yet.
    ::usleep(300 * 1000);
    const long idleAtStart = residentKilobytes(fixture.helperPid());

    benchmark::RunSpecifiedBenchmarks();

    // Idle again after serving; worker threads left over are counted.
    ::usleep(300 * 1000);
    const long idleAfterWork = residentKilobytes(fixture.helperPid());
    std::printf("helper resident memory, idle after start: %.1f MiB\n", static_cast<double>(idleAtStart) / 1024);
    std::printf("helper resident memory, idle after the runs above: %.1f MiB\n",
                static_cast<double>(idleAfterWork) / 1024);
    fixture.stop();
    benchmark::Shutdown();
    return 0;
}
