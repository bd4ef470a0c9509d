#include "backends/ConnectionDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/FileSystem.h"
#include "util/Format.h"

namespace korvo {
namespace {

constexpr std::size_t kLongestDirectoryName = 64;

KorvoError connectionProblem(const std::string& path, const char* what) {
    return errorWithKorvoErrorCode(kHelperProblemCode, formatString("The connection directory '%s' %s: %s",
                                                                    path.c_str(), what, std::strerror(errno)));
}

std::string directoryNameFor(std::string_view connectionName) {
    std::string name;
    for (const char c : connectionName.substr(0, kLongestDirectoryName)) {
        const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                          c == '_' || c == '-';
        name += kept ? c : '_';
    }
    if (name.empty() || name.front() == '.') name.insert(name.begin(), '_');
    return name;
}

// Removes the directory entry `name` under parent and everything beneath
// it. Only used inside the store area, which nobody but root can write.
bool removeTree(int parent, const char* name) {
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return ::unlinkat(parent, name, 0) == 0 || errno == ENOENT;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(fd), ::closedir);
    if (!dir) {
        ::close(fd);
        return false;
    }
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view entryName(entry->d_name);
        if (entryName == "." || entryName == "..") continue;
        if (!removeTree(::dirfd(dir.get()), entry->d_name)) return false;
    }
    return ::unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

}  // namespace

Result<ConnectionDirectory> ConnectionDirectory::create(const StoreArea& store, std::string_view connectionName) {
    auto connections = store.open(StoreDirectory::Connections);
    if (!connections) return connections.error();
    const std::string name = directoryNameFor(connectionName);
    const std::string path = appendPathComponent(store.path(StoreDirectory::Connections), name);
    if (!removeTree(connections->get(), name.c_str())) return connectionProblem(path, "cannot be cleared");
    if (::mkdirat(connections->get(), name.c_str(), 0700) != 0) return connectionProblem(path, "cannot be made");
    UniqueFd fd(::openat(connections->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return connectionProblem(path, "cannot be opened");
    return ConnectionDirectory(std::move(fd), path);
}

std::string ConnectionDirectory::pathOf(std::string_view fileName) const {
    return appendPathComponent(path_, fileName);
}

Result<std::string> ConnectionDirectory::writeFile(std::string_view fileName, std::span<const std::uint8_t> bytes,
                                                   mode_t mode) const {
    const std::string name(fileName);
    UniqueFd fd(::openat(fd_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd || ::fchmod(fd.get(), mode) != 0) return fileSystemError(errno, FileOperation::Write, pathOf(name));
    if (!writeAll(fd.get(), bytes)) return fileSystemError(errno, FileOperation::Write, pathOf(name));
    return pathOf(name);
}

Result<std::string> ConnectionDirectory::copyProgram(const std::string& source, std::string_view fileName, mode_t mode,
                                                     const ProgramCheck& check) const {
    const auto refused = [&] {
        return errorWithKorvoErrorCode(kInvalidSignatureCode,
                                       formatString("Cannot verify signature of executable at path %s", source.c_str()));
    };
    // Links are followed: the check is made on the copy, and the rules about
    // where a file lies look at the file that was opened.
    UniqueFd in(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st {};
    if (!in) return fileSystemError(errno, FileOperation::Read, source);
    if (::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<std::uint64_t>(st.st_size) > kMaximumCopiedProgramSize) {
        return refused();
    }
    char resolved[PATH_MAX];
    const ssize_t length =
        ::readlink(formatString("/proc/self/fd/%d", in.get()).c_str(), resolved, sizeof resolved - 1);
    if (length <= 0) return refused();
    resolved[length] = '\0';

    const std::string name(fileName);
    UniqueFd out(::openat(fd_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0700));
    if (!out) return fileSystemError(errno, FileOperation::Write, pathOf(name));
    std::size_t copied = 0;
    for (char buffer[65536];;) {
        const ssize_t n = ::read(in.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fileSystemError(errno, FileOperation::Read, source);
        if (n == 0) break;
        copied += static_cast<std::size_t>(n);
        if (copied > kMaximumCopiedProgramSize ||
            !writeAll(out.get(), std::span(reinterpret_cast<const std::uint8_t*>(buffer), static_cast<std::size_t>(n)))) {
            ::unlinkat(fd_.get(), name.c_str(), 0);
            return refused();
        }
    }
    if (!check(out.get(), in.get(), resolved) || ::fchmod(out.get(), mode) != 0) {
        ::unlinkat(fd_.get(), name.c_str(), 0);
        return refused();
    }
    return pathOf(name);
}

}  // namespace korvo
