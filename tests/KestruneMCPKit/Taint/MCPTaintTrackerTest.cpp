#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "KestruneMCPKit/Taint/MCPTaintTracker.h"

namespace mcpkit {
namespace {

using namespace std::chrono_literals;

class MCPTaintTrackerTest : public ::testing::Test {
protected:
    mailcore::Date now = mailcore::dateFromSeconds(1'700'000'000);
    MCPTaintTracker tracker{[this] { return now; }};

    std::vector<MCPMailRead> mails(int n, const std::string& tag = "m") {
        std::vector<MCPMailRead> out;
        for (int i = 0; i < n; ++i) {
            out.push_back({tag + std::to_string(i), "alice@example.com", "Subject " + tag});
        }
        return out;
    }
};

TEST_F(MCPTaintTrackerTest, SessionKeysKeepOnlySafeCharacters) {
    EXPECT_EQ(MCPTaintTracker::key("claude", "ab/c d"), MCPTaintTracker::key("claude", "abcd"));
    EXPECT_EQ(MCPTaintTracker::key("claude", ""), MCPTaintTracker::key("claude", "default"));
    EXPECT_EQ(MCPTaintTracker::key("claude", "//"), MCPTaintTracker::key("claude", "default"));
    EXPECT_NE(MCPTaintTracker::key("claude", "A-1"), MCPTaintTracker::key("codex", "A-1"));
}

TEST_F(MCPTaintTrackerTest, ReadingMailMarksOnlyThatSessionAndKeepsTheLatestTwenty) {
    const auto a = MCPTaintTracker::key("h", "a"), b = MCPTaintTracker::key("h", "b");
    EXPECT_FALSE(tracker.snapshot(a).mailInfluenced);
    tracker.recordRead(a, {});  // an empty page carries no third-party text
    EXPECT_FALSE(tracker.snapshot(a).mailInfluenced);

    tracker.recordRead(a, mails(15, "x"));
    tracker.recordRead(a, mails(10, "y"));
    const auto snap = tracker.snapshot(a);
    EXPECT_TRUE(snap.mailInfluenced);
    EXPECT_EQ(snap.mailReadTotal, 25);
    ASSERT_EQ(snap.mailRead.size(), 20u);
    EXPECT_EQ(snap.mailRead.front().id, "x5");
    EXPECT_EQ(snap.mailRead.back().id, "y9");
    EXPECT_FALSE(tracker.snapshot(b).mailInfluenced);
    EXPECT_EQ(tracker.taintedSessionCount(), 1);
}

TEST_F(MCPTaintTrackerTest, IdleSessionsExpireAfterTwelveHours) {
    const auto k = MCPTaintTracker::key("h", "s");
    tracker.recordRead(k, mails(1));
    now += 43199s;
    EXPECT_TRUE(tracker.snapshot(k).mailInfluenced);
    tracker.recordRead(k, mails(1));  // activity renews the session
    now += 43199s;
    EXPECT_TRUE(tracker.snapshot(k).mailInfluenced);
    now += 1s;
    EXPECT_FALSE(tracker.snapshot(k).mailInfluenced);
    EXPECT_EQ(tracker.taintedSessionCount(), 0);
}

TEST_F(MCPTaintTrackerTest, KeepsAtMost256SessionsDroppingTheLeastRecentlyActive) {
    for (int i = 0; i < 256; ++i) {
        tracker.recordRead(MCPTaintTracker::key("h", "s" + std::to_string(i)), mails(1));
        now += 1s;
    }
    tracker.recordRead(MCPTaintTracker::key("h", "s0"), mails(1));  // s0 active again
    now += 1s;
    tracker.recordRead(MCPTaintTracker::key("h", "new"), mails(1));
    EXPECT_EQ(tracker.taintedSessionCount(), 256);
    EXPECT_TRUE(tracker.snapshot(MCPTaintTracker::key("h", "s0")).mailInfluenced);
    EXPECT_FALSE(tracker.snapshot(MCPTaintTracker::key("h", "s1")).mailInfluenced);
}

TEST_F(MCPTaintTrackerTest, LabelWritesConfirmFromTheThirdRecentWriteInATaintedSession) {
    const auto k = MCPTaintTracker::key("h", "s");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(tracker.labelWrite(k, true), LabelDecision::allow) << i;
        now += 190s;  // all three stay inside the ten-minute window
    }
    EXPECT_EQ(tracker.labelWrite(k, true), LabelDecision::confirm);
    now += 601s;  // the ten-minute window has passed
    EXPECT_EQ(tracker.labelWrite(k, true), LabelDecision::allow);
    // An untainted session is never asked to confirm.
    const auto clean = MCPTaintTracker::key("h", "clean");
    for (int i = 0; i < 10; ++i) EXPECT_EQ(tracker.labelWrite(clean, false), LabelDecision::allow);
}

TEST_F(MCPTaintTrackerTest, LabelWritesAreRefusedAtTheHourlyCapAndRefusalsAreNotCounted) {
    const auto k = MCPTaintTracker::key("h", "t");
    for (int i = 0; i < 30; ++i) {
        EXPECT_NE(tracker.labelWrite(k, true), LabelDecision::refuse) << i;
        now += 1s;
    }
    EXPECT_EQ(tracker.labelWrite(k, true), LabelDecision::refuse);
    EXPECT_EQ(tracker.labelWrite(k, true), LabelDecision::refuse);
    now += 3600s - 30s;  // the first write leaves the hour window
    EXPECT_NE(tracker.labelWrite(k, true), LabelDecision::refuse);

    const auto u = MCPTaintTracker::key("h", "u");
    for (int i = 0; i < 300; ++i) ASSERT_EQ(tracker.labelWrite(u, false), LabelDecision::allow);
    EXPECT_EQ(tracker.labelWrite(u, false), LabelDecision::refuse);
}

TEST_F(MCPTaintTrackerTest, ClearAndForgetDropSessions) {
    tracker.recordRead(MCPTaintTracker::key("a", "1"), mails(1));
    tracker.recordRead(MCPTaintTracker::key("a", "2"), mails(1));
    tracker.recordRead(MCPTaintTracker::key("b", "1"), mails(1));
    tracker.forget(MCPTaintTracker::key("a", "2"));
    EXPECT_EQ(tracker.taintedSessionCount(), 2);
    tracker.clear(std::string("a"));
    EXPECT_EQ(tracker.taintedSessionCount(), 1);
    EXPECT_TRUE(tracker.snapshot(MCPTaintTracker::key("b", "1")).mailInfluenced);
    tracker.clear(std::nullopt);
    EXPECT_EQ(tracker.taintedSessionCount(), 0);
}

TEST(MCPTaintTrackerConcurrencyTest, ConcurrentReadsAndWritesStayConsistent) {
    MCPTaintTracker tracker(mailcore::systemClock());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            const auto k = MCPTaintTracker::key("h", "s" + std::to_string(t % 2));
            for (int i = 0; i < 200; ++i) {
                tracker.recordRead(k, {{"id", "from", "subject"}});
                tracker.labelWrite(k, true);
                tracker.snapshot(k);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(tracker.snapshot(MCPTaintTracker::key("h", "s0")).mailReadTotal, 800);
    EXPECT_EQ(tracker.snapshot(MCPTaintTracker::key("h", "s1")).mailReadTotal, 800);
}

}  // namespace
}  // namespace mcpkit
