#include "util/QueueTimer.h"

#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "util/SerialQueue.h"

namespace korvo {
namespace {

// What the timer thread and the queued runs share; a run queued just before
// a cancel may outlive the timer object.
struct TimerState {
    std::function<void()> handler;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> runQueued{false};
    std::mutex mutex;
    std::condition_variable wake;
};

class ThreadQueueTimer final : public QueueTimer {
public:
    ThreadQueueTimer(SerialQueue& queue, const TimerSchedule& schedule, std::function<void()> handler)
        : state_(std::make_shared<TimerState>()) {
        state_->handler = std::move(handler);
        thread_ = std::thread([this, &queue, schedule] { fireUntilCancelled(queue, schedule); });
    }

    ~ThreadQueueTimer() override { cancel(); }

    void cancel() override {
        {
            std::lock_guard lock(state_->mutex);
            state_->cancelled = true;
        }
        state_->wake.notify_all();
        if (thread_.joinable()) thread_.join();
    }

private:
    void fireUntilCancelled(SerialQueue& queue, const TimerSchedule& schedule) {
        // The kernel may delay this thread's timed waits by up to the slack.
        ::prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(std::max<std::int64_t>(schedule.leeway.count(), 1)));
        const auto interval = std::max(schedule.interval, std::chrono::nanoseconds(1));
        auto deadline = std::chrono::steady_clock::now() + schedule.start;
        std::unique_lock lock(state_->mutex);
        while (!state_->cancelled) {
            if (state_->wake.wait_until(lock, deadline, [this] { return state_->cancelled.load(); })) break;
            queueRun(queue);
            // Fires missed while the machine slept or the thread lagged are
            // not made up: the next one is the next future multiple.
            const auto now = std::chrono::steady_clock::now();
            do {
                deadline += interval;
            } while (deadline <= now);
        }
    }

    void queueRun(SerialQueue& queue) {
        if (state_->runQueued.exchange(true)) return;
        queue.async([state = state_] {
            state->runQueued = false;
            if (!state->cancelled) state->handler();
        });
    }

    std::shared_ptr<TimerState> state_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<QueueTimer> startQueueTimer(SerialQueue& queue, const TimerSchedule& schedule,
                                            std::function<void()> handler) {
    return std::make_unique<ThreadQueueTimer>(queue, schedule, std::move(handler));
}

}  // namespace korvo
