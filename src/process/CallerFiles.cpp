#include "process/CallerFiles.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "process/CloneChild.h"
#include "util/UniqueFd.h"

namespace korvo {

namespace {

enum class CallerOperation { Write, Append, Remove };

// Which step of the child failed: the error a client sees depends on it.
enum class ChildStep : std::int32_t { Done, TakeIdentity, CreateDirectory, Act };

struct ChildReport {
    ChildStep step = ChildStep::Done;
    std::int32_t error = 0;
};

// Everything the child needs, prepared by the parent: the child only makes
// system calls on it.
struct CallerPlan {
    CallerOperation operation = CallerOperation::Write;
    uid_t userIdentifier = 0;
    gid_t groupIdentifier = 0;
    const gid_t* groups = nullptr;
    std::size_t groupCount = 0;
    const char* path = nullptr;
    char* folder = nullptr;  // writable: the child walks it to create missing folders
    const char* name = nullptr;
    const char* temporaryName = nullptr;
    const char* bytes = nullptr;
    std::size_t size = 0;
    mode_t mode = 0;
    int reportDescriptor = -1;
};

[[noreturn]] KORVO_CHILD_CODE void childReports(const CallerPlan& plan, ChildStep step, int error) {
    const ChildReport report{step, error};
    ::syscall(SYS_write, plan.reportDescriptor, &report, sizeof report);
    ::syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

KORVO_CHILD_CODE long childCall(long result) { return result < 0 ? -errno : result; }

// The caller's groups and user, in that order (setgroups needs root). The
// real and saved user stay root: the caller may then not signal or trace
// this child, which shares the helper's memory and holds up one of its
// threads. The effective and file-system user are the caller's, which drops
// every effective capability, so each file access is checked as the caller's.
KORVO_CHILD_CODE long takeCallerIdentity(const CallerPlan& plan) {
    long r = childCall(::syscall(SYS_setgroups, plan.groupCount, plan.groups));
    if (r < 0) return r;
    r = childCall(::syscall(SYS_setresgid, plan.groupIdentifier, plan.groupIdentifier, plan.groupIdentifier));
    if (r < 0) return r;
    return childCall(::syscall(SYS_setresuid, -1, plan.userIdentifier, -1));
}

KORVO_CHILD_CODE long writeEverything(int fd, const char* bytes, std::size_t size) {
    while (size > 0) {
        const long written = ::syscall(SYS_write, fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return -errno;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

// mkdir -p of the folder, walking its own buffer.
KORVO_CHILD_CODE long createFolders(char* folder) {
    for (char* p = folder + 1;; ++p) {
        if (*p != '/' && *p != '\0') continue;
        const char kept = *p;
        *p = '\0';
        const long r = ::syscall(SYS_mkdirat, AT_FDCWD, folder, 0755);
        const int error = errno;
        *p = kept;
        if (r < 0 && error != EEXIST) return -error;
        if (kept == '\0') return 0;
    }
}

[[noreturn]] KORVO_CHILD_CODE void childWrites(const CallerPlan& plan) {
    constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    long folder = ::syscall(SYS_openat, AT_FDCWD, plan.folder, kFolderFlags);
    if (folder < 0 && errno == ENOENT) {
        if (const long r = createFolders(plan.folder); r < 0) childReports(plan, ChildStep::CreateDirectory, static_cast<int>(-r));
        folder = ::syscall(SYS_openat, AT_FDCWD, plan.folder, kFolderFlags);
    }
    if (folder < 0) childReports(plan, ChildStep::Act, errno);
    const long file = ::syscall(SYS_openat, folder, plan.temporaryName,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, plan.mode);
    if (file < 0) childReports(plan, ChildStep::Act, errno);
    long r = writeEverything(static_cast<int>(file), plan.bytes, plan.size);
    if (r == 0) r = childCall(::syscall(SYS_fsync, file));
    // The rename puts the new file in place of whatever entry had the name,
    // a symbolic link included, which is replaced and never followed.
    if (r == 0) r = childCall(::syscall(SYS_renameat, folder, plan.temporaryName, folder, plan.name));
    if (r < 0) {
        ::syscall(SYS_unlinkat, folder, plan.temporaryName, 0);
        childReports(plan, ChildStep::Act, static_cast<int>(-r));
    }
    childReports(plan, ChildStep::Done, 0);
}

[[noreturn]] KORVO_CHILD_CODE void childAppends(const CallerPlan& plan) {
    const long file = ::syscall(SYS_openat, AT_FDCWD, plan.path,
                                O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                plan.mode);
    if (file < 0) childReports(plan, ChildStep::Act, errno);
    struct stat status {};
    if (::syscall(SYS_fstat, file, &status) < 0) childReports(plan, ChildStep::Act, errno);
    // A FIFO or a device would block the child or feed something else.
    if (!S_ISREG(status.st_mode)) childReports(plan, ChildStep::Act, EINVAL);
    const long r = writeEverything(static_cast<int>(file), plan.bytes, plan.size);
    childReports(plan, r < 0 ? ChildStep::Act : ChildStep::Done, static_cast<int>(-r));
}

[[noreturn]] KORVO_CHILD_CODE void childRemoves(const CallerPlan& plan) {
    // unlink removes a symbolic link itself, never what it points to.
    if (::syscall(SYS_unlinkat, AT_FDCWD, plan.path, 0) < 0 && errno != ENOENT) {
        childReports(plan, ChildStep::Act, errno);
    }
    childReports(plan, ChildStep::Done, 0);
}

KORVO_CHILD_CODE int callerChildMain(void* argument) {
    const CallerPlan& plan = *static_cast<const CallerPlan*>(argument);
    if (const long r = takeCallerIdentity(plan); r < 0) childReports(plan, ChildStep::TakeIdentity, static_cast<int>(-r));
    switch (plan.operation) {
    case CallerOperation::Write: childWrites(plan);
    case CallerOperation::Append: childAppends(plan);
    case CallerOperation::Remove: childRemoves(plan);
    }
    childReports(plan, ChildStep::Act, EINVAL);
}

FileOperation fileOperation(CallerOperation operation) {
    return operation == CallerOperation::Remove ? FileOperation::Remove : FileOperation::Write;
}

// An absolute path without NUL bytes, within PATH_MAX; errno otherwise.
int checkPath(const std::string& path) {
    if (path.empty() || path.front() != '/') return EINVAL;
    if (path.find('\0') != std::string::npos) return EINVAL;
    if (path.size() >= PATH_MAX) return ENAMETOOLONG;
    return 0;
}

std::string temporaryFileName() {
    std::uint64_t random = 0;
    if (::getrandom(&random, sizeof random, 0) != sizeof random) {
        random = static_cast<std::uint64_t>(::getpid()) ^ reinterpret_cast<std::uintptr_t>(&random);
    }
    char name[32];
    std::snprintf(name, sizeof name, ".korvo-write-%016llx", static_cast<unsigned long long>(random));
    return name;
}

MaybeError runAsCaller(const CallerRights& caller, CallerPlan& plan, const std::string& path) {
    const FileOperation operation = fileOperation(plan.operation);
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) < 0) return fileSystemError(errno, operation, path);
    UniqueFd readEnd(descriptors[0]);
    UniqueFd writeEnd(descriptors[1]);

    plan.userIdentifier = caller.userIdentifier;
    plan.groupIdentifier = caller.groupIdentifier;
    plan.groups = caller.groupIdentifiers.data();
    plan.groupCount = caller.groupIdentifiers.size();
    plan.reportDescriptor = writeEnd.get();

    const pid_t pid = cloneSharingMemory(callerChildMain, &plan, nullptr);
    if (pid < 0) return fileSystemError(errno, operation, path);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    writeEnd.reset();
    ChildReport report;
    const ssize_t got = ::read(readEnd.get(), &report, sizeof report);
    // No report: the child was ended before it could tell (only root can
    // signal it).
    if (got != static_cast<ssize_t>(sizeof report)) return fileSystemError(ECHILD, operation, path);
    switch (report.step) {
    case ChildStep::Done: return std::nullopt;
    case ChildStep::CreateDirectory: return fileSystemError(report.error, FileOperation::CreateDirectory, path);
    case ChildStep::TakeIdentity:
    case ChildStep::Act: break;
    }
    return fileSystemError(report.error, operation, path);
}

MaybeError checkRequest(const CallerRights& caller, const std::string& path, std::size_t size,
                        CallerOperation operation) {
    if (const int error = checkPath(path)) return fileSystemError(error, fileOperation(operation), path);
    if (size > kMaximumCallerFileSize) return fileSystemError(EFBIG, fileOperation(operation), path);
    if (caller.groupIdentifiers.size() > static_cast<std::size_t>(NGROUPS_MAX)) {
        return fileSystemError(EINVAL, fileOperation(operation), path);
    }
    return std::nullopt;
}

}  // namespace

std::optional<CallerRights> callerRightsOf(const platform::ServiceConnection& connection) {
    if (!connection.userIdentifier || connection.groupIdentifiers.empty()) return std::nullopt;
    return CallerRights{*connection.userIdentifier, connection.groupIdentifiers.front(),
                        connection.groupIdentifiers};
}

MaybeError writeFileAsCaller(const CallerRights& caller, const std::string& path, std::string_view bytes,
                             mode_t mode) {
    if (auto error = checkRequest(caller, path, bytes.size(), CallerOperation::Write)) return error;
    const std::size_t slash = path.find_last_of('/');
    const std::string name = path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") return fileSystemError(EISDIR, FileOperation::Write, path);
    std::string folder = slash == 0 ? std::string("/") : path.substr(0, slash);
    const std::string temporaryName = temporaryFileName();

    CallerPlan plan;
    plan.operation = CallerOperation::Write;
    plan.path = path.c_str();
    plan.folder = folder.data();
    plan.name = name.c_str();
    plan.temporaryName = temporaryName.c_str();
    plan.bytes = bytes.data();
    plan.size = bytes.size();
    plan.mode = mode;
    return runAsCaller(caller, plan, path);
}

MaybeError appendFileAsCaller(const CallerRights& caller, const std::string& path, std::string_view bytes,
                              mode_t mode) {
    if (auto error = checkRequest(caller, path, bytes.size(), CallerOperation::Append)) return error;
    CallerPlan plan;
    plan.operation = CallerOperation::Append;
    plan.path = path.c_str();
    plan.bytes = bytes.data();
    plan.size = bytes.size();
    plan.mode = mode;
    return runAsCaller(caller, plan, path);
}

MaybeError removeFileAsCaller(const CallerRights& caller, const std::string& path) {
    if (auto error = checkRequest(caller, path, 0, CallerOperation::Remove)) return error;
    CallerPlan plan;
    plan.operation = CallerOperation::Remove;
    plan.path = path.c_str();
    return runAsCaller(caller, plan, path);
}

}  // namespace korvo
