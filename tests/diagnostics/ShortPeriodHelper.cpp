// The helper daemon as installed, except that its periodic diagnostics
// capture comes every 300 ms rather than every 30 s: the timer's journey
// through the bus then takes a second, not minutes.
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "core/HelperTool.h"
#include "daemon/Serving.h"
#include "util/Log.h"

int main() {
    using namespace std::chrono_literals;
    std::signal(SIGPIPE, SIG_IGN);
    korvo::openHelperLog(true);
    korvo::HelperServices services = korvo::HelperServices::production();
    services.networkDiagnosticsPeriodicSchedule = {300ms, 300ms, 0ms};
    korvo::KorvoHelperTool tool(std::move(services));
    std::fflush(nullptr);
    ::_exit(korvo::serveRequests(tool));
}
