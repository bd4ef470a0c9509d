#include "platform/linux/dns/ResolvConfWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstring>

#include "util/Log.h"

namespace korvo::platform::dns {
namespace {

constexpr std::uint32_t kDirectoryEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_ONLYDIR;
constexpr std::uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MODIFY;
constexpr int kQuietMilliseconds = 200;

}  // namespace

ResolvConfWatch::ResolvConfWatch(std::string path, std::function<void()> changed)
    : path_(std::move(path)), changed_(std::move(changed)) {
    const auto slash = path_.rfind('/');
    directory_ = slash == 0 ? "/" : path_.substr(0, slash);
    name_ = path_.substr(slash + 1);
    inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    stop_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!inotify_ || !stop_ || ::inotify_add_watch(inotify_.get(), directory_.c_str(), kDirectoryEvents) < 0) {
        logMessage(LOG_ERR, "Error: Cannot watch '%s' for changes: %s", path_.c_str(), std::strerror(errno));
        inotify_.reset();
        return;
    }
    watchFile();
    thread_ = std::thread([this] { run(); });
}

ResolvConfWatch::~ResolvConfWatch() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        (void)!::write(stop_.get(), &one, sizeof one);
        thread_.join();
    }
}

void ResolvConfWatch::watchFile() {
    // The same inode gives the same watch; a replaced file a new one, and the
    // old one's watch ends by itself.
    fileWatch_ = ::inotify_add_watch(inotify_.get(), path_.c_str(), kFileEvents | IN_DONT_FOLLOW);
}

bool ResolvConfWatch::readEvents() {
    alignas(inotify_event) char buffer[4096];
    bool relevant = false;
    ssize_t n;
    while ((n = ::read(inotify_.get(), buffer, sizeof buffer)) > 0) {
        for (char* p = buffer; p < buffer + n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(p);
            const bool aboutFile =
                event->wd == fileWatch_ || (event->len > 0 && std::strcmp(event->name, name_.c_str()) == 0);
            if (aboutFile && (event->mask & IN_IGNORED) == 0) relevant = true;
            p += sizeof(inotify_event) + event->len;
        }
    }
    return relevant;
}

void ResolvConfWatch::run() {
    for (;;) {
        pollfd fds[2] = {{inotify_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if (!readEvents()) continue;
        // A writer may come back at once (a truncation, then the text):
        // act once the file has been quiet for a moment.
        while (::poll(fds, 2, kQuietMilliseconds) > 0 && fds[1].revents == 0) (void)readEvents();
        if (fds[1].revents != 0) return;
        watchFile();
        changed_();
    }
}

}  // namespace korvo::platform::dns
