// A serial queue: work submitted to it runs one item at a time, in order, on
// the threads of a worker pool. Different queues on one pool run
// concurrently, so a long item holds up only its own queue.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "util/WorkerPool.h"

namespace korvo {

class SerialQueue {
public:
    SerialQueue(std::string label, std::shared_ptr<WorkerPool> pool);
    // Waits for the work already queued, unless called from that work.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const;

    // Queues work and returns at once.
    void async(std::function<void()> work);
    // Queues work and waits until it has run. Work running on this queue must
    // not call it (it would wait for itself); it runs such work inline.
    void sync(const std::function<void()>& work);

    // Items queued and not yet finished, the running one included.
    std::size_t pendingCount() const;
    // True on a thread that is running an item of this queue.
    bool isCurrent() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace korvo
