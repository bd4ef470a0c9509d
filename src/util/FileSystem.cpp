#include "util/FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "util/Format.h"
#include "util/UniqueFd.h"
#include "util/Utf8.h"

namespace korvo {

bool fileExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {

KorvoError readRefusal(int posixErrno, const std::string& path, std::string_view why) {
    KorvoError error = fileSystemError(posixErrno, FileOperation::Read, path);
    const auto slash = path.find_last_of('/');
    const std::string name = slash == std::string::npos || slash + 1 == path.size() ? path : path.substr(slash + 1);
    (*error.userInfo)[std::string(LocalizedDescriptionKey)] =
        formatString("The file \"%s\" couldn't be opened because %s.", name.c_str(), std::string(why).c_str());
    return error;
}

}  // namespace

Result<Data> readFile(const std::string& path) {
    // Non-blocking, so that opening a FIFO without a writer returns at once;
    // no controlling terminal from a terminal device.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return fileSystemError(errno, FileOperation::Read, path);
    const UniqueFd closer(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0) return fileSystemError(errno, FileOperation::Read, path);
    if (S_ISDIR(st.st_mode)) return fileSystemError(EISDIR, FileOperation::Read, path);
    if (!S_ISREG(st.st_mode)) return readRefusal(EINVAL, path, "it is not a regular file");
    if (static_cast<std::uint64_t>(st.st_size) > kMaximumReadFileSize) {
        return readRefusal(EFBIG, path, "it is too large");
    }
    Data out;
    std::uint8_t buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fileSystemError(errno, FileOperation::Read, path);
        }
        if (n == 0) break;
        // A file that grows while it is read is held to the same bound.
        if (out.size() + static_cast<std::size_t>(n) > kMaximumReadFileSize) {
            return readRefusal(EFBIG, path, "it is too large");
        }
        out.insert(out.end(), buf, buf + n);
    }
    return out;
}

Result<std::string> readUTF8File(const std::string& path) {
    auto bytes = readFile(path);
    if (!bytes) return bytes.error();
    std::string text(bytes->begin(), bytes->end());
    if (!isValidUTF8(text)) {
        KorvoError error = fileSystemError(EILSEQ, FileOperation::Read, path);
        error.code = 261;  // NSFileReadInapplicableStringEncodingError
        (*error.userInfo)[std::string(LocalizedDescriptionKey)] =
            std::string("The file couldn't be opened because the text encoding of its contents can't be determined.");
        return error;
    }
    return text;
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {
            errno = EIO;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

MaybeError writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode) {
    std::string tmpl = path + ".XXXXXX";
    const int fd = ::mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0) return fileSystemError(errno, FileOperation::Write, path);
    const UniqueFd closer(fd);
    if (!writeAll(fd, bytes)) {
        const int err = errno;
        ::unlink(tmpl.c_str());
        return fileSystemError(err, FileOperation::Write, path);
    }
    if (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0 || ::rename(tmpl.c_str(), path.c_str()) != 0) {
        const int err = errno;
        ::unlink(tmpl.c_str());
        return fileSystemError(err, FileOperation::Write, path);
    }
    return std::nullopt;
}

MaybeError writeFileAtomically(const std::string& path, std::string_view text, mode_t mode) {
    return writeFileAtomically(path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), mode);
}

MaybeError removeFile(const std::string& path) {
    if (::unlink(path.c_str()) == 0) return std::nullopt;
    if (errno == EISDIR || errno == EPERM) {
        if (::rmdir(path.c_str()) == 0) return std::nullopt;
    }
    return fileSystemError(errno, FileOperation::Remove, path);
}

MaybeError setPosixPermissions(const std::string& path, mode_t mode) {
    // chmod would follow a link in the last component: a client's name
    // planted as a link to a root-only file would open that file up.
    const int fd = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return fileSystemError(errno, FileOperation::SetAttributes, path);
    const UniqueFd closer(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0) return fileSystemError(errno, FileOperation::SetAttributes, path);
    if (S_ISLNK(st.st_mode)) return fileSystemError(ELOOP, FileOperation::SetAttributes, path);
    if (::fchmodat(AT_FDCWD, formatString("/proc/self/fd/%d", fd).c_str(), mode, 0) == 0) return std::nullopt;
    return fileSystemError(errno, FileOperation::SetAttributes, path);
}

MaybeError createDirectory(const std::string& path, mode_t mode) {
    if (path.empty()) return fileSystemError(ENOENT, FileOperation::CreateDirectory, path);
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/') continue;
        const std::string prefix = path.substr(0, pos);
        if (::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST)
            return fileSystemError(errno, FileOperation::CreateDirectory, path);
    }
    if (!isDirectory(path)) return fileSystemError(ENOTDIR, FileOperation::CreateDirectory, path);
    return std::nullopt;
}

Result<std::vector<std::string>> directoryEntries(const std::string& path) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) return fileSystemError(errno, FileOperation::ListDirectory, path);
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") names.emplace_back(name);
    }
    if (errno != 0) return fileSystemError(errno, FileOperation::ListDirectory, path);
    return names;
}

std::string lastPathComponentWithoutExtension(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (auto slash = path.find_last_of('/'); slash != std::string_view::npos) path.remove_prefix(slash + 1);
    if (auto dot = path.find_last_of('.'); dot != std::string_view::npos && dot > 0) path = path.substr(0, dot);
    return std::string(path);
}

std::string appendPathComponent(std::string_view directory, std::string_view name) {
    std::string out(directory);
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    while (!name.empty() && name.front() == '/') name.remove_prefix(1);
    if (out.empty()) return std::string(name);
    if (out != "/") out += '/';
    out += name;
    return out;
}

}  // namespace korvo
