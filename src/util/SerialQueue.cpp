#include "util/SerialQueue.h"

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>

namespace korvo {
namespace {

// Items run per turn on a pool thread before the queue yields it, so that a
// queue flooded with work cannot keep a thread from other queues for ever.
constexpr std::size_t kItemsPerTurn = 16;

thread_local const void* currentQueue = nullptr;

}  // namespace

struct SerialQueue::State : std::enable_shared_from_this<State> {
    State(std::string l, std::shared_ptr<WorkerPool> p) : label(std::move(l)), pool(std::move(p)) {}

    const std::string label;
    const std::shared_ptr<WorkerPool> pool;

    mutable std::mutex mutex;
    std::condition_variable drained;
    std::deque<std::function<void()>> items;
    bool scheduled = false;  // a turn is submitted to the pool or running

    void schedule() { pool->submit([self = shared_from_this()] { self->runTurn(); }); }

    void runTurn() {
        const void* const previous = currentQueue;
        currentQueue = this;
        for (std::size_t n = 0; n < kItemsPerTurn; ++n) {
            std::function<void()> item;
            {
                std::lock_guard lock(mutex);
                if (items.empty()) break;
                item = std::move(items.front());
            }
            item();
            item = nullptr;
            std::lock_guard lock(mutex);
            items.pop_front();
        }
        currentQueue = previous;
        std::unique_lock lock(mutex);
        if (items.empty()) {
            scheduled = false;
            drained.notify_all();
            return;
        }
        lock.unlock();
        schedule();
    }
};

SerialQueue::SerialQueue(std::string label, std::shared_ptr<WorkerPool> pool)
    : state_(std::make_shared<State>(std::move(label), std::move(pool))) {}

SerialQueue::~SerialQueue() {
    if (isCurrent()) return;
    std::unique_lock lock(state_->mutex);
    state_->drained.wait(lock, [this] { return !state_->scheduled; });
}

const std::string& SerialQueue::label() const { return state_->label; }

void SerialQueue::async(std::function<void()> work) {
    std::unique_lock lock(state_->mutex);
    // The running item stays at the front until it is done.
    state_->items.push_back(std::move(work));
    if (state_->scheduled) return;
    state_->scheduled = true;
    lock.unlock();
    state_->schedule();
}

void SerialQueue::sync(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&work, &done] {
        work();
        done.set_value();
    });
    finished.wait();
}

std::size_t SerialQueue::pendingCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->items.size();
}

bool SerialQueue::isCurrent() const { return currentQueue == state_.get(); }

}  // namespace korvo
