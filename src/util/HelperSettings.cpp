#include "util/HelperSettings.h"

#include <cstdlib>

namespace korvo {
namespace {

// The process's temporary directory with a trailing "/": $TMPDIR, else /tmp.
std::string processTemporaryDirectory() {
    const char* tmpdir = std::getenv("TMPDIR");
    std::string dir = (tmpdir != nullptr && *tmpdir == '/') ? tmpdir : "/tmp";
    if (dir.back() != '/') dir += '/';
    return dir;
}

}  // namespace

HelperSettings::HelperSettings() : tmpDirPath_(processTemporaryDirectory()) {}

void HelperSettings::setKorvoBundlePath(const std::optional<std::string>& path) {
    setKorvoBundle(path ? Bundle::bundleWithPath(*path) : std::nullopt);
}

void HelperSettings::setKorvoBundle(std::optional<Bundle> bundle) {
    std::lock_guard lock(mutex_);
    korvoBundle_ = std::move(bundle);
}

void HelperSettings::setTmpDirPath(const std::optional<std::string>& path) {
    std::lock_guard lock(mutex_);
    tmpDirPath_ = path;
}

void HelperSettings::setVPNDebugLoggingEnabled(bool enabled) {
    std::lock_guard lock(mutex_);
    vpnDebugLoggingEnabled_ = enabled;
}

std::string HelperSettings::tmpDirPath() const {
    std::lock_guard lock(mutex_);
    return tmpDirPath_.value_or(std::string());
}

std::optional<Bundle> HelperSettings::korvoBundle() const {
    std::lock_guard lock(mutex_);
    return korvoBundle_;
}

bool HelperSettings::vpnDebugLoggingEnabled() const {
    std::lock_guard lock(mutex_);
    return vpnDebugLoggingEnabled_;
}

}  // namespace korvo
