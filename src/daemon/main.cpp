// The helper daemon: takes no arguments and reads no configuration; the
// client configures it through requests.
#include <csignal>

#include "core/HelperTool.h"
#include "util/Log.h"

int main() {
    // A client or com port that goes away mid-write must not end the helper;
    // started programs get the default disposition back.
    std::signal(SIGPIPE, SIG_IGN);
    korvo::openHelperLog(true);
    korvo::KorvoHelperTool tool;
    tool.run();
    return 0;
}
