#include "util/StoreArea.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr StoreDirectory kAllDirectories[] = {StoreDirectory::NetworkTransactions, StoreDirectory::DynamicStore,
                                              StoreDirectory::StartedProcesses, StoreDirectory::Connections};

KorvoError storeProblem(const std::string& path, const std::string& what) {
    return errorWithKorvoErrorCode(kHelperProblemCode, formatString("The helper's directory '%s' %s.", path.c_str(),
                                                                    what.c_str()));
}

bool isSafeStoreDirectory(const struct stat& st) {
    return S_ISDIR(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0700;
}

// Moves an unexpected entry out of the way without following it; its name
// keeps it visible for whoever looks into what happened.
bool moveAside(int directory, const char* name) {
    std::uint64_t nonce = 0;
    if (::getrandom(&nonce, sizeof nonce, 0) != sizeof nonce) return false;
    const std::string aside = formatString(".%s.refused-%016llx", name, static_cast<unsigned long long>(nonce));
    return ::renameat(directory, name, directory, aside.c_str()) == 0;
}

}  // namespace

std::string_view storeDirectoryName(StoreDirectory directory) {
    switch (directory) {
    case StoreDirectory::NetworkTransactions: return "network-transactions";
    case StoreDirectory::DynamicStore: return "dynamic-store";
    case StoreDirectory::StartedProcesses: return "started-processes";
    case StoreDirectory::Connections: return "connections";
    }
    return {};
}

StoreArea::StoreArea(std::string runDirectory, std::optional<gid_t> clientGroup)
    : runDirectory_(std::move(runDirectory)), clientGroup_(clientGroup) {}

std::string StoreArea::path(StoreDirectory directory) const {
    return appendPathComponent(runDirectory_, storeDirectoryName(directory));
}

MaybeError StoreArea::prepare() const {
    auto run = openRunDirectory();
    if (!run) return run.error();
    const gid_t group = clientGroup_.value_or(0);
    const mode_t mode = clientGroup_ ? 03770 : 0755;
    if (::fchown(run->get(), 0, group) != 0 || ::fchmod(run->get(), mode) != 0) {
        return storeProblem(runDirectory_, formatString("cannot be given its owner and mode: %s", std::strerror(errno)));
    }
    for (const StoreDirectory directory : kAllDirectories) {
        auto opened = openStoreDirectory(run->get(), directory);
        if (!opened) return opened.error();
    }
    return std::nullopt;
}

Result<UniqueFd> StoreArea::open(StoreDirectory directory) const {
    auto run = openRunDirectory();
    if (!run) return run.error();
    return openStoreDirectory(run->get(), directory);
}

Result<std::string> StoreArea::replaceSharedFile(std::string_view name, std::span<const std::uint8_t> bytes,
                                                mode_t mode) const {
    const std::string fileName(name);
    const std::string path = appendPathComponent(runDirectory_, fileName);
    if (fileName.empty() || fileName.find('/') != std::string::npos || fileName == "." || fileName == "..") {
        return fileSystemError(EINVAL, FileOperation::Write, path);
    }
    auto run = openRunDirectory();
    if (!run) return run.error();
    if (::unlinkat(run->get(), fileName.c_str(), 0) != 0 && errno != ENOENT &&
        !(errno == EISDIR && moveAside(run->get(), fileName.c_str()))) {
        return fileSystemError(errno, FileOperation::Write, path);
    }
    UniqueFd fd(::openat(run->get(), fileName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd || ::fchown(fd.get(), 0, clientGroup_.value_or(0)) != 0 || ::fchmod(fd.get(), mode) != 0) {
        return fileSystemError(errno, FileOperation::Write, path);
    }
    if (!writeAll(fd.get(), bytes)) return fileSystemError(errno, FileOperation::Write, path);
    return path;
}

Result<UniqueFd> StoreArea::openRunDirectory() const {
    if (auto error = createDirectory(runDirectory_, 0755)) return *error;
    UniqueFd run(::open(runDirectory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!run || ::fstat(run.get(), &st) != 0) {
        return storeProblem(runDirectory_, formatString("cannot be opened: %s", std::strerror(errno)));
    }
    // Only root can make a directory in /var/run; one that is not root's
    // was not made by the helper or the system.
    if (st.st_uid != 0) return storeProblem(runDirectory_, "is not owned by root");
    return run;
}

Result<UniqueFd> StoreArea::openStoreDirectory(int runDirectory, StoreDirectory directory) const {
    const std::string name(storeDirectoryName(directory));
    for (int attempt = 0; attempt < 2; ++attempt) {
        const bool made = ::mkdirat(runDirectory, name.c_str(), 0700) == 0;
        if (!made && errno != EEXIST) break;
        UniqueFd fd(::openat(runDirectory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        // A directory made in the setgid run directory takes its group and
        // the setgid bit: it becomes root's alone here.
        if (fd && made && (::fchown(fd.get(), 0, 0) != 0 || ::fchmod(fd.get(), 0700) != 0)) break;
        struct stat st {};
        if (fd && ::fstat(fd.get(), &st) == 0 && isSafeStoreDirectory(st)) return fd;
        logMessage(LOG_WARNING, "Warning: Moved aside '%s' in '%s': it is not the helper's own directory.",
                   name.c_str(), runDirectory_.c_str());
        if (!moveAside(runDirectory, name.c_str())) break;
    }
    return storeProblem(path(directory), formatString("cannot be made safely: %s", std::strerror(errno)));
}

}  // namespace korvo
