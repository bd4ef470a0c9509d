// The configuration-file requests. The client names the path, so the file is
// written or removed with the client's own rights (CallerFiles): an accepted
// client reaches exactly the files it could reach itself. The resolver
// directory is the one exception (ResolverDirectoryFiles).
#include <cerrno>

#include "backends/ResolverDirectoryFiles.h"
#include "backends/SystemMaintenance.h"
#include "util/Log.h"

namespace korvo {
namespace {

// What a file the helper writes gets when the file system decides (umask).
constexpr mode_t kConfigurationFileMode = 0644;

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

std::optional<std::string> SystemMaintenance::resolverFileName(const std::string& path) const {
    const std::string directory = withoutTrailingSlashes(paths_.resolverDirectory) + "/";
    if (!path.starts_with(directory)) return std::nullopt;
    const std::string name = path.substr(directory.size());
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return std::nullopt;
    return name;
}

MaybeError SystemMaintenance::writeConfig(const std::optional<CallerRights>& caller,
                                          const std::optional<std::string>& config,
                                          const std::optional<std::string>& path) {
    logMessage(LOG_NOTICE, "Running writeConfig in helper.");
    if (!path) return fileSystemError(ENOENT, FileOperation::Write, "");
    const std::string text = config.value_or(std::string());
    if (const auto name = resolverFileName(*path)) {
        return writeGeneratedResolverFile(paths_.resolverDirectory, *name, text);
    }
    if (!caller) return fileSystemError(EACCES, FileOperation::Write, *path);
    return writeFileAsCaller(*caller, *path, text, kConfigurationFileMode);
}

MaybeError SystemMaintenance::deleteConfigAtPath(const std::optional<CallerRights>& caller,
                                                 const std::optional<std::string>& path) {
    logMessage(LOG_NOTICE, "Running deleteConfig in helper.");
    if (!path) return std::nullopt;  // nothing exists at no path
    if (const auto name = resolverFileName(*path)) return removeGeneratedResolverFile(paths_.resolverDirectory, *name);
    if (!caller) return fileSystemError(EACCES, FileOperation::Remove, *path);
    return removeFileAsCaller(*caller, *path);
}

}  // namespace korvo
