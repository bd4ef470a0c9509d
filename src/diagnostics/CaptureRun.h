// One run of the capture script: /bin/bash -c SCRIPT with its arguments,
// standard output and standard error in one pipe, ended when it takes longer
// than its limit.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "util/UniqueFd.h"

namespace korvo {

struct CaptureRun {
    // nullopt when the script started; else why it could not.
    std::optional<std::string> launchFailure;
    bool timedOut = false;
    // What it wrote, both streams interleaved as produced.
    std::string output;
};

// Runs script with the shell (an open, checked /bin/bash) as
// "bash -c SCRIPT NAME ARGUMENTS...", with the given environment and
// nothing else, in "/". Blocks until the script has ended and its output
// has been read.
CaptureRun runCaptureScript(UniqueFd shell, const std::string& script, const std::string& name,
                            const std::vector<std::string>& arguments,
                            const std::map<std::string, std::string>& environment, double timeoutSeconds);

}  // namespace korvo
