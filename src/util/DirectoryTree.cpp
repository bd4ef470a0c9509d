#include "util/DirectoryTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "util/FileSystem.h"
#include "util/UniqueFd.h"

namespace korvo {
namespace {

// Deeper than any folder the helper or its programs make; a client could
// otherwise nest folders until the walk runs out of descriptors.
constexpr int kMaximumDepth = 64;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

KorvoError removalError(int error, const std::string& path) {
    return fileSystemError(error, FileOperation::Remove, path);
}

// The names in the open directory, read in full before anything is removed.
Result<std::vector<std::string>> entryNames(int directory, const std::string& path) {
    const int listingFd = ::fcntl(directory, F_DUPFD_CLOEXEC, 0);
    if (listingFd < 0) return fileSystemError(errno, FileOperation::ListDirectory, path);
    DIR* listing = ::fdopendir(listingFd);
    if (!listing) {
        const int error = errno;
        ::close(listingFd);
        return fileSystemError(error, FileOperation::ListDirectory, path);
    }
    ::rewinddir(listing);
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    const int error = errno;
    ::closedir(listing);
    if (error != 0) return fileSystemError(error, FileOperation::ListDirectory, path);
    return names;
}

// Empties the open directory, keeping the entries in kept (when given).
// *keptAny tells whether one of them was there.
MaybeError removeEntries(int directory, const std::string& path, int depth, const std::set<std::string>* kept,
                         bool* keptAny) {
    if (depth > kMaximumDepth) return removalError(ELOOP, path);
    auto names = entryNames(directory, path);
    if (!names) return names.error();
    for (const std::string& name : *names) {
        const std::string entryPath = appendPathComponent(path, name);
        if (kept && kept->count(name) != 0) {
            *keptAny = true;
            continue;
        }
        if (::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT) continue;
        if (errno != EISDIR) return removalError(errno, entryPath);
        const UniqueFd child(::openat(directory, name.c_str(), kDirectoryFlags));
        if (!child) {
            if (errno == ENOENT) continue;
            return removalError(errno, entryPath);
        }
        bool unused = false;
        if (auto error = removeEntries(child.get(), entryPath, depth + 1, nullptr, &unused)) return error;
        if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            return removalError(errno, entryPath);
        }
    }
    return std::nullopt;
}

}  // namespace

MaybeError removeDirectoryTree(const std::string& path, const std::set<std::string>& keptEntries) {
    const UniqueFd top(::open(path.c_str(), kDirectoryFlags));
    if (!top) {
        // Not a directory (a file, a link): removed as the entry it is.
        if (errno == ENOTDIR || errno == ELOOP) return removeFile(path);
        return removalError(errno, path);
    }
    bool keptAny = false;
    if (auto error = removeEntries(top.get(), path, 0, &keptEntries, &keptAny)) return error;
    if (keptAny) return std::nullopt;
    if (::rmdir(path.c_str()) != 0) return removalError(errno, path);
    return std::nullopt;
}

}  // namespace korvo
