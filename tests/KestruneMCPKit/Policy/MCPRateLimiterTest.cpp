#include <gtest/gtest.h>

#include <thread>

#include "KestruneMCPKit/Policy/MCPRateLimiter.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit {
namespace {

using namespace testfiles;
using namespace std::chrono_literals;

TEST(MCPRateLimiterTest, SixtyFirstCallInsideTheMinuteIsRefusedUntilTheFirstAges) {
    FakeClock clock;
    MCPRateLimiter limiter(clock.clock());
    // 60 calls spread over the first 59 seconds.
    for (int i = 0; i < 60; ++i) {
        EXPECT_TRUE(limiter.allow("claude", 60)) << i;
        if (i < 59) clock.advance(1s);
    }
    EXPECT_FALSE(limiter.allow("claude", 60));  // t = 59 s
    clock.advance(999ms);
    EXPECT_FALSE(limiter.allow("claude", 60));  // t = 59.999 s
    clock.advance(1ms);
    EXPECT_TRUE(limiter.allow("claude", 60));   // t = 60 s: the first call has aged out
    EXPECT_FALSE(limiter.allow("claude", 60));  // the second (t = 1 s) has not
    clock.advance(1s);
    EXPECT_TRUE(limiter.allow("claude", 60));
}

TEST(MCPRateLimiterTest, RefusedCallsAreNotCountedKeysAreIndependentAndZeroRefusesAll) {
    FakeClock clock;
    MCPRateLimiter limiter(clock.clock());
    EXPECT_TRUE(limiter.allow("k", 2));
    EXPECT_TRUE(limiter.allow("k", 2));
    for (int i = 0; i < 100; ++i) {
        clock.advance(500ms);
        EXPECT_FALSE(limiter.allow("k", 2));  // up to t = 50 s
    }
    EXPECT_TRUE(limiter.allow("other", 2));
    clock.advance(10s);  // t = 60 s after the two counted calls
    EXPECT_TRUE(limiter.allow("k", 2));
    EXPECT_TRUE(limiter.allow("k", 2));
    EXPECT_FALSE(limiter.allow("k", 2));
    EXPECT_FALSE(limiter.allow("zero", 0));
    EXPECT_FALSE(limiter.allow("negative", -1));
}

TEST(MCPRateLimiterTest, ConcurrentCallersNeverExceedTheLimit) {
    FakeClock clock;
    MCPRateLimiter limiter(clock.clock());
    std::atomic<int> allowed{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 8; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < 50; ++i) allowed += limiter.allow("shared", 60) ? 1 : 0;
        });
    }
    for (auto& w : workers) w.join();
    EXPECT_EQ(allowed.load(), 60);
}

}  // namespace
}  // namespace mcpkit
