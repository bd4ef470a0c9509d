// The settings that the client changes through the setter requests and that
// the programs the helper starts depend on: the client's bundle (where VPN
// programs and scripts are looked up), the working directory of started
// programs, and VPN debug logging. They last for the life of the process and
// are shared by all clients. Thread-safe.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "util/Bundle.h"

namespace korvo {

class HelperSettings {
public:
    // The working directory starts as the process's temporary directory.
    HelperSettings();

    void setKorvoBundlePath(const std::optional<std::string>& path);
    void setKorvoBundle(std::optional<Bundle> bundle);
    void setTmpDirPath(const std::optional<std::string>& path);
    void setVPNDebugLoggingEnabled(bool enabled);

    // Empty after the client has set nil.
    std::string tmpDirPath() const;
    std::optional<Bundle> korvoBundle() const;
    bool vpnDebugLoggingEnabled() const;

private:
    mutable std::mutex mutex_;
    std::optional<std::string> tmpDirPath_;
    std::optional<Bundle> korvoBundle_;
    bool vpnDebugLoggingEnabled_ = false;
};

}  // namespace korvo
