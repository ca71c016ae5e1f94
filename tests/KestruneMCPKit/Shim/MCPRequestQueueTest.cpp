#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "KestruneMCPKit/Shim/MCPRequestQueue.h"

namespace {

// Tasks that wait for each other finish only if the queue runs them at the
// same time; a throwing task is contained; more tasks than workers all run;
// wait() and the destructor return only after all of them.
TEST(MCPRequestQueueTest, RunsBlockingTasksConcurrentlyContainsThrowsAndDrains) {
    std::mutex m;
    std::condition_variable cv;
    int started = 0;
    std::atomic<int> together{0}, done{0};
    {
        mcpkit::MCPRequestQueue queue("test-queue", 5);
        queue.submit([] { throw std::runtime_error("task failure"); });
        for (int i = 0; i < 5; ++i) {
            queue.submit([&] {
                std::unique_lock lock(m);
                ++started;
                cv.notify_all();
                if (cv.wait_for(lock, std::chrono::seconds(10), [&] { return started >= 5; }))
                    ++together;
            });
        }
        queue.wait();
        EXPECT_EQ(together.load(), 5);
        for (int i = 0; i < 50; ++i) queue.submit([&] { ++done; });
    }
    EXPECT_EQ(done.load(), 50);
}

}  // namespace
