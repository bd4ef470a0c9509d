// Notices when another program writes /etc/resolv.conf (a DHCP client, a
// network manager) while the tunnel's DNS is in force, so that the tunnel's
// settings can be written again. Watches the file's directory (a file
// replaced by rename) and the file itself (a bind-mounted file written in
// place), both through inotify, on a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "util/UniqueFd.h"

namespace korvo::platform::dns {

class ResolvConfWatch {
public:
    // changed runs on the watch's thread once the file, after a write or a
    // replacement (the helper's own included), has been quiet for a moment.
    ResolvConfWatch(std::string path, std::function<void()> changed);
    ~ResolvConfWatch();
    ResolvConfWatch(const ResolvConfWatch&) = delete;
    ResolvConfWatch& operator=(const ResolvConfWatch&) = delete;

    bool ok() const { return inotify_.valid(); }
    // Watches the file now at the path (one mounted over it since, say).
    void watchFile();

private:
    // Reads what is queued; true when an event concerned the file.
    bool readEvents();
    void run();

    std::string path_, directory_, name_;
    std::function<void()> changed_;
    UniqueFd inotify_, stop_;
    std::atomic<int> fileWatch_{-1};
    std::thread thread_;
};

}  // namespace korvo::platform::dns
