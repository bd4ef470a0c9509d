// The real queue timer: it fires repeatedly on its queue, and once cancelled
// no run of its handler starts, not even one it had already queued.
#include <gtest/gtest.h>

#include <atomic>

#include "support/TestSupport.h"
#include "util/QueueTimer.h"
#include "util/SerialQueue.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;

TEST(QueueTimerTest, FiresOnItsQueueUntilCancelled) {
    SerialQueue queue("timer-test", std::make_shared<WorkerPool>(1));
    std::atomic<int> runs{0};
    std::atomic<bool> onQueue{true};
    auto timer = startQueueTimer(queue, {1ms, 1ms, 0ms}, [&] {
        if (!queue.isCurrent()) onQueue = false;
        ++runs;
    });
    EXPECT_TRUE(test::eventually([&] { return runs >= 3; }));
    EXPECT_TRUE(onQueue);

    // Held queue: the fires that come meanwhile are queued behind the gate.
    std::atomic<bool> holding{false}, open{false};
    queue.async([&] {
        holding = true;
        while (!open) std::this_thread::yield();
    });
    ASSERT_TRUE(test::eventually([&] { return holding.load(); }));
    const int before = runs;
    std::this_thread::sleep_for(5ms);
    timer->cancel();
    open = true;
    queue.sync([] {});
    EXPECT_EQ(runs, before);
}

}  // namespace
}  // namespace korvo
