#include "util/WorkerPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace korvo {

// Shared by the pool and its threads, so that a thread may outlive the pool
// object when the pool is destroyed from that very thread.
struct WorkerPool::Core {
    Core(std::size_t max, std::chrono::milliseconds idle) : maximumThreads(std::max<std::size_t>(1, max)), idleTimeout(idle) {}

    const std::size_t maximumThreads;
    const std::chrono::milliseconds idleTimeout;

    std::mutex mutex;
    std::condition_variable workAvailable;
    std::deque<std::function<void()>> work;
    std::vector<std::thread> threads;
    std::vector<std::thread::id> finished;  // left their loop, not yet joined
    std::size_t liveThreads = 0;
    std::size_t idleThreads = 0;
    bool stopping = false;

    // Joins threads that have ended after being idle. Called with mutex held;
    // those threads no longer need it.
    void reapFinishedThreads() {
        for (const auto id : finished) {
            auto it = std::find_if(threads.begin(), threads.end(), [id](const std::thread& t) { return t.get_id() == id; });
            if (it == threads.end()) continue;
            it->join();
            threads.erase(it);
        }
        finished.clear();
    }

    static void workerLoop(const std::shared_ptr<Core>& core) {
        std::unique_lock lock(core->mutex);
        for (;;) {
            if (!core->work.empty()) {
                auto item = std::move(core->work.front());
                core->work.pop_front();
                lock.unlock();
                item();
                item = nullptr;  // release what the work captured outside the lock
                lock.lock();
                continue;
            }
            if (core->stopping) break;
            ++core->idleThreads;
            const bool woken = core->workAvailable.wait_for(lock, core->idleTimeout,
                                                            [&] { return !core->work.empty() || core->stopping; });
            --core->idleThreads;
            if (!woken) break;  // idle too long
        }
        --core->liveThreads;
        if (!core->stopping) core->finished.push_back(std::this_thread::get_id());
    }
};

WorkerPool::WorkerPool(std::size_t maximumThreads, std::chrono::milliseconds idleTimeout)
    : core_(std::make_shared<Core>(maximumThreads, idleTimeout)) {}

WorkerPool::~WorkerPool() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(core_->mutex);
        core_->stopping = true;
        core_->workAvailable.notify_all();
        threads.swap(core_->threads);
        core_->finished.clear();
    }
    for (auto& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else if (thread.joinable()) {
            thread.join();
        }
    }
}

void WorkerPool::submit(std::function<void()> work) {
    std::lock_guard lock(core_->mutex);
    core_->reapFinishedThreads();
    core_->work.push_back(std::move(work));
    // Idle threads that have not yet picked up earlier work count as busy.
    if (core_->work.size() <= core_->idleThreads) {
        core_->workAvailable.notify_one();
        return;
    }
    if (core_->liveThreads < core_->maximumThreads && !core_->stopping) {
        ++core_->liveThreads;
        core_->threads.emplace_back([core = core_] { Core::workerLoop(core); });
    }
    // Otherwise a busy thread takes the work when it is done with its own.
}

std::size_t WorkerPool::maximumThreads() const { return core_->maximumThreads; }

std::size_t WorkerPool::threadCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->liveThreads;
}

}  // namespace korvo
