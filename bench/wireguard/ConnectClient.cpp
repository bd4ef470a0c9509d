// A client of the helper that stays connected and times WireGuard connect
// requests: each line on standard input is a configuration path; each line
// on standard output is "NANOSECONDS PID" (PID -1 and the error's text when
// the helper refused). Signed as the client application; ./run drives it.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include "KorvoClient.h"

namespace {

std::string describe(const korvo::CallOutcome& outcome) {
    if (outcome.busError) return outcome.busError->name + ": " + outcome.busError->message;
    const auto error = outcome.reply.find("error");
    if (error == outcome.reply.end() || !error->second.asDictionary()) return "";
    return korvo::stringForKey(*error->second.asDictionary(), "description").value_or("error");
}

}  // namespace

int main() {
    korvo::KorvoClient client;
    std::string configPath;
    while (std::getline(std::cin, configPath)) {
        const auto start = std::chrono::steady_clock::now();
        const korvo::CallOutcome outcome =
            client.call("connectWireGuardWithConfig", {{"config", configPath}, {"comPort", 0}});
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count();
        const auto pid = outcome.reply.find("pid");
        const long long pidValue = pid == outcome.reply.end() ? -1 : pid->second.integerValue().value_or(-1);
        std::string problem = describe(outcome);
        for (char& c : problem) {
            if (c == '\n') c = ' ';
        }
        std::printf("%lld %lld%s%s\n", static_cast<long long>(elapsed), pidValue, problem.empty() ? "" : " ",
                    problem.c_str());
        std::fflush(stdout);
    }
    return 0;
}
