#include "process/ProcessWatcher.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "util/Log.h"

namespace korvo {

namespace {

struct Watch {
    int fd;
    ProcessWatcher::ReadyHandler onReady;
    ProcessWatcher::RemovedHandler onRemoved;
};

// Token 0 is the wake-up descriptor used to stop the thread.
constexpr std::uint64_t kStopToken = 0;

}  // namespace

struct ProcessWatcher::Impl {
    UniqueFd epoll{::epoll_create1(EPOLL_CLOEXEC)};
    UniqueFd stopEvent{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::mutex mutex;
    std::map<std::uint64_t, std::shared_ptr<Watch>> watches;
    std::uint64_t nextToken = 1;
    std::thread thread;

    void run() {
        std::array<epoll_event, 32> events{};
        for (;;) {
            const int count = ::epoll_wait(epoll.get(), events.data(), static_cast<int>(events.size()), -1);
            if (count < 0) {
                if (errno == EINTR) continue;
                logMessage(LOG_ERR, "Process watcher stopped: epoll_wait failed with errno %d.", errno);
                return;
            }
            for (int i = 0; i < count; ++i) {
                const std::uint64_t token = events[static_cast<std::size_t>(i)].data.u64;
                if (token == kStopToken) return;
                dispatch(token);
            }
        }
    }

    void dispatch(std::uint64_t token) {
        std::shared_ptr<Watch> w;
        {
            std::lock_guard lock(mutex);
            const auto it = watches.find(token);
            if (it == watches.end()) return;
            w = it->second;
        }
        if (w->onReady()) return;
        ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, w->fd, nullptr);
        {
            std::lock_guard lock(mutex);
            watches.erase(token);
        }
        if (w->onRemoved) w->onRemoved();
    }
};

ProcessWatcher& ProcessWatcher::shared() {
    static ProcessWatcher watcher;
    return watcher;
}

ProcessWatcher::ProcessWatcher() : impl_(std::make_unique<Impl>()) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kStopToken;
    ::epoll_ctl(impl_->epoll.get(), EPOLL_CTL_ADD, impl_->stopEvent.get(), &ev);
    impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

ProcessWatcher::~ProcessWatcher() {
    const std::uint64_t one = 1;
    if (!impl_->thread.joinable()) return;
    if (::write(impl_->stopEvent.get(), &one, sizeof one) == sizeof one) {
        impl_->thread.join();
    } else {
        // The thread could not be told to stop and still uses its state:
        // leave both to the end of the process.
        impl_->thread.detach();
        static_cast<void>(impl_.release());
    }
}

bool ProcessWatcher::watch(int fd, ReadyHandler onReady, RemovedHandler onRemoved) {
    auto w = std::make_shared<Watch>(Watch{fd, std::move(onReady), std::move(onRemoved)});
    std::lock_guard lock(impl_->mutex);
    const std::uint64_t token = impl_->nextToken++;
    impl_->watches.emplace(token, w);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = token;
    if (::epoll_ctl(impl_->epoll.get(), EPOLL_CTL_ADD, fd, &ev) != 0) {
        impl_->watches.erase(token);
        return false;
    }
    return true;
}

bool ProcessWatcher::watchOutput(UniqueFd readEnd, DataHandler onData, EndHandler onEnd) {
    const int fd = readEnd.get();
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
    auto owned = std::make_shared<UniqueFd>(std::move(readEnd));
    const bool added = watch(
        fd,
        [fd, onData = std::move(onData), onEnd]() {
            std::array<std::uint8_t, 65536> buffer;
            const ssize_t n = ::read(fd, buffer.data(), buffer.size());
            if (n > 0) {
                onData(std::span<const std::uint8_t>(buffer.data(), static_cast<std::size_t>(n)));
                return true;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
            onEnd();
            return false;
        },
        [owned] { owned->reset(); });
    if (!added) {
        // Keep the caller's descriptor closed either way; nothing will read it.
        owned->reset();
    }
    return added;
}

}  // namespace korvo
