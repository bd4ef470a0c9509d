// The helper daemon: takes no arguments and reads no configuration; the
// client configures it through requests.
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include "KorvoVersion.h"
#include "core/HelperTool.h"
#include "daemon/Serving.h"
#include "util/Log.h"

int main() {
    // A client or com port that goes away mid-write must not end the helper;
    // started programs get the default disposition back.
    std::signal(SIGPIPE, SIG_IGN);
    korvo::openHelperLog(true);
    korvo::logMessage(LOG_NOTICE, "Korvo helper %s starting.", KORVO_VERSION);
    if (KORVO_TRUSTS_TEST_SIGNING_CA) {
        // Anyone with the build tree's keys can sign a client that this
        // build serves.
        korvo::logMessage(LOG_WARNING,
                          "This build trusts its own test signing CA, whose keys lie in its build tree: "
                          "it is not a release.");
    }
    korvo::KorvoHelperTool tool;
    const int status = korvo::serveRequests(tool);
    // Request work may still run on other threads; the process ends without
    // running static destructors that such work could still reach.
    std::fflush(nullptr);
    ::_exit(status);
}
