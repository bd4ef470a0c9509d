#include "platform/linux/dns/ResolvConfFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/linux/dns/ResolvConfText.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"
#include "util/PropertyList.h"
#include "util/UniqueFd.h"

namespace korvo::platform::dns {
namespace {

constexpr const char* kOriginalName = "resolv.conf.original";
constexpr const char* kStateName = "resolv-conf.plist";

std::string_view textOf(const Data& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Who a symbolic resolv.conf belongs to, by where it points.
std::string linkOwner(const std::string& target) {
    if (target.find("/systemd/resolve/") != std::string::npos) return "systemd-resolved";
    if (target.find("resolvconf") != std::string::npos) return "resolvconf";
    if (target.find("NetworkManager") != std::string::npos) return "NetworkManager";
    return "another program";
}

std::string linkTarget(const std::string& path) {
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer - 1);
    return n < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(n));
}

MaybeError writeInPlace(const std::string& path, const std::string& text) {
    const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd || !writeAll(fd.get(), bytesOf(text)) || ::ftruncate(fd.get(), static_cast<off_t>(text.size())) != 0 ||
        ::fsync(fd.get()) != 0) {
        return fileSystemError(errno, FileOperation::Write, path);
    }
    return std::nullopt;
}

}  // namespace

static bool isMountPoint(const std::string& path) {
    struct statx stx {};
    return ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &stx) == 0 &&
           (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 && (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

MaybeError replaceResolverFile(const std::string& path, const std::string& text) {
    struct stat st {};
    const bool exists = ::lstat(path.c_str(), &st) == 0;
    if (exists && !S_ISREG(st.st_mode)) return fileSystemError(EINVAL, FileOperation::Write, path);
    // A mount point cannot be renamed over: the file is shared with whoever
    // mounted it, so its contents change in place.
    if (exists && isMountPoint(path)) return writeInPlace(path, text);
    std::string temporary = path + ".korvo-XXXXXX";
    const UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd) return fileSystemError(errno, FileOperation::Write, path);
    const bool written = writeAll(fd.get(), bytesOf(text)) &&
                         (!exists || ::fchown(fd.get(), st.st_uid, st.st_gid) == 0) &&
                         ::fchmod(fd.get(), exists ? (st.st_mode & 07777) : 0644) == 0 && ::fsync(fd.get()) == 0;
    if (written && ::rename(temporary.c_str(), path.c_str()) == 0) return std::nullopt;
    const int error = errno;
    ::unlink(temporary.c_str());
    if (written && error == EBUSY) return writeInPlace(path, text);
    return fileSystemError(error, FileOperation::Write, path);
}

bool resolvConfLeadsToResolved(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return false;
    if (S_ISLNK(st.st_mode)) return linkOwner(linkTarget(path)) == "systemd-resolved";
    const auto bytes = readFile(path);
    if (!bytes) return false;
    const auto servers = parseResolvConf(textOf(*bytes)).nameServers;
    return !servers.empty() && std::all_of(servers.begin(), servers.end(), [](const std::string& server) {
        return server == "127.0.0.53" || server == "127.0.0.54";
    });
}

ResolvConfFile::ResolvConfFile(ResolvConfPaths paths) : paths_(std::move(paths)) {}

std::string ResolvConfFile::originalPath() const { return appendPathComponent(paths_.stateDirectory, kOriginalName); }
std::string ResolvConfFile::statePath() const { return appendPathComponent(paths_.stateDirectory, kStateName); }

bool ResolvConfFile::managing() const { return loadState().has_value(); }

std::optional<std::string> ResolvConfFile::written() const {
    const auto state = loadState();
    if (!state || state->written.empty()) return std::nullopt;
    return state->written.back();
}

Result<std::optional<std::string>> ResolvConfFile::readCurrent() const {
    struct stat st {};
    if (::lstat(paths_.resolvConf.c_str(), &st) != 0) {
        if (errno == ENOENT) return std::optional<std::string>();
        return fileSystemError(errno, FileOperation::Read, paths_.resolvConf);
    }
    if (S_ISLNK(st.st_mode)) {
        const std::string target = linkTarget(paths_.resolvConf);
        logMessage(LOG_ERR, "Error: Not writing the VPN's DNS settings into '%s': it is a link to '%s', which %s manages.",
                   paths_.resolvConf.c_str(), target.c_str(), linkOwner(target).c_str());
        return errorWithKorvoErrorCode(kGeneralErrorCode,
                                       formatString("'%s' is managed by %s.", paths_.resolvConf.c_str(),
                                                    linkOwner(target).c_str()));
    }
    const auto bytes = readFile(paths_.resolvConf);
    if (!bytes) return bytes.error();
    return std::optional<std::string>(std::string(textOf(*bytes)));
}

std::optional<ResolvConfFile::State> ResolvConfFile::loadState() const {
    const auto bytes = readFile(statePath());
    if (!bytes) return std::nullopt;
    const auto value = readPropertyList(textOf(*bytes));
    const Dictionary* d = value ? value->asDictionary() : nullptr;
    if (!d) return std::nullopt;
    State state;
    if (auto it = d->find("hadOriginal"); it != d->end()) state.hadOriginal = it->second.boolValue().value_or(false);
    if (auto it = d->find("written"); it != d->end() && it->second.asArray()) {
        for (const auto& item : *it->second.asArray()) {
            if (const auto* data = item.asData()) state.written.emplace_back(textOf(*data));
        }
    }
    return state;
}

MaybeError ResolvConfFile::saveState(const State& state) const {
    Array written;
    for (const auto& text : state.written) written.emplace_back(Data(text.begin(), text.end()));
    const Dictionary d{{"hadOriginal", state.hadOriginal ? 1 : 0}, {"written", written}};
    return writeFileAtomically(statePath(), writeXMLPropertyList(d), 0600);
}

MaybeError ResolvConfFile::saveOriginal(const std::optional<std::string>& original, State& state) const {
    if (auto error = createDirectory(paths_.stateDirectory, 0700)) return error;
    if (auto error = setPosixPermissions(paths_.stateDirectory, 0700)) return error;
    state.hadOriginal = original.has_value();
    if (original) {
        if (auto error = writeFileAtomically(originalPath(), bytesOf(*original), 0600)) return error;
    } else {
        (void)removeFile(originalPath());
    }
    return saveState(state);
}

std::optional<std::string> ResolvConfFile::loadOriginal() const {
    const auto bytes = readFile(originalPath());
    if (!bytes) return std::nullopt;
    return std::string(textOf(*bytes));
}

void ResolvConfFile::dropState() const {
    (void)removeFile(statePath());
    (void)removeFile(originalPath());
}

MaybeError ResolvConfFile::apply(const DnsPlan& plan) {
    if (plan.empty()) return restoreOriginal();
    auto current = readCurrent();
    if (!current) return current.error();
    auto state = loadState();
    if (!state) {
        state = State{};
        if (auto error = saveOriginal(*current, *state)) return error;
    } else if (std::find(state->written.begin(), state->written.end(), current->value_or("")) ==
               state->written.end()) {
        logMessage(LOG_WARNING,
                   "Warning: '%s' was rewritten by another program while the VPN's DNS is in force; keeping its new "
                   "contents to put back later and writing the VPN's settings again.",
                   paths_.resolvConf.c_str());
        if (auto error = saveOriginal(*current, *state)) return error;
    }
    const auto original = state->hadOriginal ? loadOriginal() : std::optional<std::string>();
    if (state->hadOriginal && !original) {
        return errorWithKorvoErrorCode(kGeneralErrorCode, "The saved resolv.conf could not be read.");
    }
    const std::string text = composeResolvConf(original.value_or(""), plan);
    if (*current == text) return std::nullopt;
    // Both the file there now and the new one count as the helper's until
    // the write is done: a crash in between must not look like a rewrite.
    state->written = {current->value_or(""), text};
    if (auto error = saveState(*state)) return error;
    if (auto error = replaceResolverFile(paths_.resolvConf, text)) return error;
    state->written = {text};
    return saveState(*state);
}

MaybeError ResolvConfFile::restoreOriginal() {
    const auto state = loadState();
    if (!state) return std::nullopt;
    struct stat st {};
    const bool isLink = ::lstat(paths_.resolvConf.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    const auto bytes = isLink ? Result<Data>(fileSystemError(ELOOP, FileOperation::Read, paths_.resolvConf))
                              : readFile(paths_.resolvConf);
    const std::optional<std::string> current =
        bytes ? std::optional<std::string>(std::string(textOf(*bytes))) : std::nullopt;
    const bool ours = current && std::find(state->written.begin(), state->written.end(), *current) !=
                                     state->written.end();
    if (!ours) {
        logMessage(LOG_NOTICE,
                   "'%s' was rewritten by another program while the VPN's DNS was in force; leaving that file and "
                   "dropping the saved original.",
                   paths_.resolvConf.c_str());
        dropState();
        return std::nullopt;
    }
    if (!state->hadOriginal) {
        if (auto error = removeFile(paths_.resolvConf)) return error;
    } else {
        const auto original = loadOriginal();
        if (!original) return errorWithKorvoErrorCode(kGeneralErrorCode, "The saved resolv.conf could not be read.");
        if (auto error = replaceResolverFile(paths_.resolvConf, *original)) return error;
    }
    logMessage(LOG_NOTICE, "Put back the machine's own '%s'.", paths_.resolvConf.c_str());
    dropState();
    return std::nullopt;
}

}  // namespace korvo::platform::dns
