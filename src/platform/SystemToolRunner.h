// How platform code that drives one of the helper's fixed system tools
// (macOS: /sbin/route, /sbin/ifconfig) runs it: through the helper's process
// runner, which the daemon hands down. The tool is named by its path; the
// call waits for it and returns the runner's error of a failing run.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "util/Error.h"

namespace korvo::platform {

using SystemToolRunner =
    std::function<MaybeError(const std::string& toolPath, const std::vector<std::string>& arguments)>;

}  // namespace korvo::platform
