// A bounded pool of worker threads. Threads are started when work arrives
// and every thread is busy (up to the bound) and end after they have been idle
// for a while, so an idle process keeps no threads of the pool.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace korvo {

class WorkerPool {
public:
    explicit WorkerPool(std::size_t maximumThreads,
                        std::chrono::milliseconds idleTimeout = std::chrono::seconds(30));
    // Runs the work already submitted, then joins the threads. May run on a
    // pool thread (the last owner released by work): that thread then ends
    // on its own.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs work on a pool thread, in submission order as threads free up.
    void submit(std::function<void()> work);

    std::size_t maximumThreads() const;
    // Threads alive now (busy or idle).
    std::size_t threadCount() const;

private:
    struct Core;
    std::shared_ptr<Core> core_;
};

}  // namespace korvo
