// A library that a test preloads into a program (LD_PRELOAD): as soon as it
// is loaded it creates, in the folder named by KORVO_PAYLOAD_MARKERS, a file
// named after the program's executable, standing for code of the caller's
// choosing running inside that program.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

__attribute__((constructor)) static void leaveMarker() {
    const char* folder = std::getenv("KORVO_PAYLOAD_MARKERS");
    char executable[4096];
    const ssize_t length = ::readlink("/proc/self/exe", executable, sizeof executable - 1);
    if (folder == nullptr || length <= 0) return;
    const std::string path(executable, static_cast<std::size_t>(length));
    const std::string marker = std::string(folder) + "/" + path.substr(path.rfind('/') + 1);
    const int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
}
