#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "util/SerialQueue.h"
#include "util/WorkerPool.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;

// Items of one queue in order, one at a time, while another queue's run
// beside them: DbusListenerTest, with a queue per client.

TEST(SerialQueueTest, SyncFromItsOwnItemRunsInlineAndDestructorWaits) {
    auto pool = std::make_shared<WorkerPool>(2);
    std::atomic<bool> nestedRan{false};
    std::atomic<bool> lastRan{false};
    {
        SerialQueue queue("test.nested", pool);
        queue.sync([&] {
            EXPECT_TRUE(queue.isCurrent());
            queue.sync([&] { nestedRan = true; });
        });
        queue.async([&] {
            std::this_thread::sleep_for(50ms);
            lastRan = true;
        });
        EXPECT_FALSE(queue.isCurrent());
    }
    EXPECT_TRUE(nestedRan);
    EXPECT_TRUE(lastRan);
}

// The pool never runs more threads than its bound, starts a thread for work
// that arrives while every thread is busy, and lets idle threads go.
TEST(WorkerPoolTest, BoundsItsThreadsAndRetiresIdleOnes) {
    WorkerPool pool(3, 100ms);
    std::mutex mutex;
    std::condition_variable changed;
    int concurrent = 0;
    int peak = 0;
    std::atomic<int> done{0};
    for (int i = 0; i < 12; ++i) {
        pool.submit([&] {
            {
                std::lock_guard lock(mutex);
                peak = std::max(peak, ++concurrent);
            }
            std::this_thread::sleep_for(30ms);
            {
                std::lock_guard lock(mutex);
                --concurrent;
            }
            ++done;
            changed.notify_all();
        });
    }
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, 5s, [&] { return done == 12; }));
    }
    EXPECT_EQ(peak, 3);
    EXPECT_LE(pool.threadCount(), 3u);

    EXPECT_TRUE(test::eventually([&] { return pool.threadCount() == 0; })) << pool.threadCount();

    // Work submitted after the threads retired still runs.
    std::promise<void> ran;
    pool.submit([&] { ran.set_value(); });
    EXPECT_EQ(ran.get_future().wait_for(2s), std::future_status::ready);
}

// Dropping the last owner of a pool from work running on it must neither
// deadlock nor crash.
TEST(WorkerPoolTest, CanBeReleasedFromItsOwnThread) {
    auto pool = std::make_shared<WorkerPool>(2);
    std::promise<void> done;
    auto* raw = pool.get();
    raw->submit([pool = std::move(pool), &done]() mutable {
        pool.reset();
        done.set_value();
    });
    EXPECT_EQ(done.get_future().wait_for(2s), std::future_status::ready);
}

}  // namespace
}  // namespace korvo
