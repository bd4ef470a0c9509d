// A repeating timer whose handler runs on a serial queue, in the manner of a
// dispatch timer source: the first fire after `start`, then one every
// `interval`; a fire may come up to `leeway` late, so that the system can
// batch wake-ups. Fires that come while the handler is still waiting on the
// queue merge into that one run.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace korvo {

class SerialQueue;

struct TimerSchedule {
    std::chrono::nanoseconds start;
    std::chrono::nanoseconds interval;
    std::chrono::nanoseconds leeway;
};

class QueueTimer {
public:
    virtual ~QueueTimer() = default;
    // After cancel returns no run of the handler starts (one already under
    // way finishes). Destruction cancels. Any thread may
    // call it, the handler included.
    virtual void cancel() = 0;
};

// Makes and starts a timer; tests put in one driven by a clock of their own.
using QueueTimerFactory = std::function<std::unique_ptr<QueueTimer>(
    SerialQueue& queue, const TimerSchedule& schedule, std::function<void()> handler)>;

// The real timer: a thread of its own sleeps until each fire, with the
// leeway as its timer slack, and queues the handler. The queue must outlive
// the timer.
std::unique_ptr<QueueTimer> startQueueTimer(SerialQueue& queue, const TimerSchedule& schedule,
                                            std::function<void()> handler);

}  // namespace korvo
