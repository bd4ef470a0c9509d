// What the helper starts, and how a program's file is opened for it: once,
// so that the open file is checked and the child is started from it
// (ChildProcess::Options::executableDescriptor). A path swapped after the
// check changes nothing.
#pragma once

#include <string>

#include "util/UniqueFd.h"

namespace korvo {

// The system programs that the helper starts itself, each at a fixed path.
// Only these may pass as unsigned system executables (root-owned, in
// folders only root can write); a path that a caller can influence never
// does, it must carry the vendor's signature.
enum class SystemTool {
    SSH,        // /usr/bin/ssh
    SSHKeygen,  // /usr/bin/ssh-keygen
    Bash,       // /bin/bash, the shell of the diagnostics capture script
#if defined(__APPLE__)
    Ifconfig,  // /sbin/ifconfig
    Route,     // /sbin/route
#endif
};

const char* systemToolPath(SystemTool tool);

// Opens the file at path for starting it: read-only, close-on-exec, without
// blocking, and not through a symbolic link in its last component. Only a
// regular file that nobody but root can write is opened: anyone else who
// may write it could change it in place between the check and the start,
// which no descriptor prevents. Invalid otherwise.
UniqueFd openProgramFile(const std::string& path);

}  // namespace korvo
