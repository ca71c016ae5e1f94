#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "KestruneMCPKit/Shim/MCPCommandLine.h"
#include "KestruneMCPKit/Shim/MCPRequestQueue.h"

namespace {

TEST(MCPCommandLineTest, NoArgumentsMeansServeVersionPrintsAndTheRestIsUsage) {
    struct Case {
        std::vector<std::string> args;
        std::optional<int> status;
        std::vector<std::string> out;
        std::size_t errLines;
    };
    const Case cases[] = {
        {{}, std::nullopt, {}, 0},
        {{"--version"}, 0, {"kestrune-mcp 0.1.0"}, 0},
        {{"--bogus"}, 64, {}, 1},
        {{"--version", "extra"}, 0, {"kestrune-mcp 0.1.0"}, 0},
    };
    for (const auto& c : cases) {
        std::vector<std::string> out, err;
        auto status = mcpkit::MCPCommandLine::run(
            c.args, "/usr/bin/kestrune-mcp", [&](const std::string& s) { out.push_back(s); },
            [&](const std::string& s) { err.push_back(s); });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(err.size(), c.errLines);
    }
}

// Tasks that wait for each other finish only if the queue runs them at the
// same time; wait() returns only after all of them.
TEST(MCPRequestQueueTest, RunsBlockingTasksConcurrentlyAndWaitDrains) {
    std::mutex m;
    std::condition_variable cv;
    int started = 0;
    std::atomic<int> together{0};
    std::atomic<int> finished{0};
    mcpkit::MCPRequestQueue queue("test-queue", 8);
    for (int i = 0; i < 5; ++i) {
        queue.submit([&] {
            std::unique_lock lock(m);
            ++started;
            cv.notify_all();
            if (cv.wait_for(lock, std::chrono::seconds(10), [&] { return started >= 5; }))
                ++together;
            ++finished;
        });
    }
    queue.wait();
    EXPECT_EQ(finished.load(), 5);
    EXPECT_EQ(together.load(), 5);
}

TEST(MCPRequestQueueTest, MoreTasksThanWorkersAllRunAndAThrowingTaskIsContained) {
    std::atomic<int> done{0};
    {
        mcpkit::MCPRequestQueue queue("test-queue", 2);
        queue.submit([] { throw std::runtime_error("task failure"); });
        for (int i = 0; i < 50; ++i) queue.submit([&] { ++done; });
    }  // the destructor waits
    EXPECT_EQ(done.load(), 50);
}

}  // namespace
