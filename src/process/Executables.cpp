#include "process/Executables.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace korvo {

const char* systemToolPath(SystemTool tool) {
    switch (tool) {
    case SystemTool::SSH: return "/usr/bin/ssh";
    case SystemTool::SSHKeygen: return "/usr/bin/ssh-keygen";
    case SystemTool::Bash: return "/bin/bash";
#if defined(__APPLE__)
    case SystemTool::Ifconfig: return "/sbin/ifconfig";
    case SystemTool::Route: return "/sbin/route";
#endif
    }
    return "";
}

UniqueFd openProgramFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return UniqueFd();
    }
    return fd;
}

}  // namespace korvo
