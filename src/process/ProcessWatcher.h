// The helper's one watcher thread for child processes: it waits on the
// descriptors the runner hands it (each child's pidfd, the read ends of output
// pipes) with epoll, and runs their handlers as soon as they become readable.
// Children are reaped there the moment they exit, and output pipes are
// drained there, so no child ever blocks on a full pipe.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "util/UniqueFd.h"

namespace korvo {

class ProcessWatcher {
public:
    // Called on the watcher thread while fd is readable or hung up; return
    // false to stop watching. The descriptor is then taken out of the watch
    // set before onRemoved runs, so onRemoved may close it.
    using ReadyHandler = std::function<bool()>;
    using RemovedHandler = std::function<void()>;
    using DataHandler = std::function<void(std::span<const std::uint8_t>)>;
    using EndHandler = std::function<void()>;

    // The process-wide watcher, started on first use.
    static ProcessWatcher& shared();

    ~ProcessWatcher();
    ProcessWatcher(const ProcessWatcher&) = delete;
    ProcessWatcher& operator=(const ProcessWatcher&) = delete;

    // Watches fd until onReady returns false. False when the descriptor
    // could not be added (the handlers are then never called).
    bool watch(int fd, ReadyHandler onReady, RemovedHandler onRemoved);

    // Drains the read end of a pipe: every chunk read goes to onData; at end
    // of file (or a read error) onEnd runs once and the descriptor is closed.
    bool watchOutput(UniqueFd readEnd, DataHandler onData, EndHandler onEnd);

private:
    ProcessWatcher();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace korvo
