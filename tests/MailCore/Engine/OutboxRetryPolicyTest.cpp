// The retry decisions after a failed outbox attempt: the schedule and its
// jitter, counted and uncounted failures, permanent ones, the attempt limit
// and the send window.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;

EngineTuning noJitter() {
    EngineTuning t;
    t.applyJitter = false;
    return t;
}

OutboxItem claimed(OutboxOperation::Kind kind, std::int64_t attempts, double createdAt = 0) {
    OutboxItem item;
    item.id = OutboxItemID("i");
    item.accountID = AccountID("a");
    OutboxMessageRef ref{MessageID(1), FolderID(1), IMAPUID(1), {}};
    item.operation = kind == OutboxOperation::Kind::send
                         ? OutboxOperation::send({testing::outgoing("x"), {}, true})
                         : OutboxOperation::setFlags(ref, FlagChange{1, 0, {}, {}});
    item.state = OutboxItemState::inFlight;
    item.createdAt = at(createdAt);
    item.attemptCount = attempts;
    return item;
}

TEST(OutboxRetryPolicyTest, DelayGrowsWithCountedAttemptsAndStaysAtTheLastEntry) {
    OutboxRetryPolicy policy(noJitter(), [] { return 0.0; });
    std::pair<std::int64_t, double> table[] = {{0, 5},    {1, 5},    {2, 15},  {3, 45},
                                               {4, 120},  {5, 300},  {6, 900}, {7, 1800},
                                               {8, 1800}, {50, 1800}};
    for (auto [attempts, delay] : table) {
        EXPECT_EQ(policy.retryDelay(attempts), delay) << attempts;
    }
}

TEST(OutboxRetryPolicyTest, JitterStaysWithinTwentyPercent) {
    double r = 0;
    OutboxRetryPolicy policy(EngineTuning{}, [&] { return r; });
    r = 0.0;
    EXPECT_DOUBLE_EQ(policy.retryDelay(3), 36);
    r = 0.5;
    EXPECT_DOUBLE_EQ(policy.retryDelay(3), 45);
    r = 0.999999;
    EXPECT_NEAR(policy.retryDelay(3), 54, 1e-3);
    OutboxRetryPolicy real(EngineTuning{}, {});
    for (int i = 0; i < 200; ++i) {
        double d = real.retryDelay(1);
        ASSERT_GE(d, 4.0);
        ASSERT_LT(d, 6.0);
    }
}

TEST(OutboxRetryPolicyTest, FailuresAreClassified) {
    using K = OutboxDecision::Kind;
    OutboxRetryPolicy policy(noJitter(), [] { return 0.0; });
    const double now = 1000;
    struct Case {
        const char* name;
        MailError error;
        bool beforeSending;
        K kind;
        bool counts;
        double wait;  // after now, for retries
    } cases[] = {
        {"offline", MailError::offline(), false, K::retry, false, 30},
        {"rate limit without a time", MailError::rateLimited(std::nullopt), false, K::retry, false,
         60},
        {"rate limit with a time", MailError::rateLimited(120), false, K::retry, false, 120},
        {"rate limit beyond the cap", MailError::rateLimited(90000), false, K::retry, false, 3600},
        {"lost before sending", MailError::network(NetworkFailureKind::connectionLost, "x"), true,
         K::retry, false, 5},
        {"timeout", MailError::network(NetworkFailureKind::timeout, "read timed out"), false,
         K::retry, true, 15},
        {"server closed", MailError::protocolViolation(ProtocolIssueKind::serverClosed, "bye"),
         false, K::retry, true, 15},
        {"temporary auth", MailError::auth(AuthFailureKind::temporaryFailure, "try later"), false,
         K::retry, true, 15},
        {"re-authorization",
         MailError::auth(AuthFailureKind::reauthorizationRequired, "re-authorization required"),
         false, K::fail, true, 0},
        {"message gone",
         MailError::protocolViolation(ProtocolIssueKind::commandRejected,
                                      "message no longer on the server"),
         false, K::fail, true, 0},
        {"destination missing",
         MailError::protocolViolation(ProtocolIssueKind::commandRejected,
                                      "destination folder missing"),
         false, K::fail, true, 0},
        {"certificate", MailError::tls(TLSFailureKind::certificateExpired, "expired"), false,
         K::fail, true, 0},
        {"storage", MailError::storage(StorageFailureKind::diskFull, "full"), false, K::fail, true,
         0},
        {"cancelled", MailError::cancelled(), false, K::release, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto d = policy.onFailure(claimed(OutboxOperation::Kind::setFlags, 2), c.error,
                                  c.beforeSending, at(now));
        EXPECT_EQ(d.kind, c.kind);
        EXPECT_EQ(d.error, c.error);
        if (c.kind == K::retry) {
            EXPECT_EQ(d.counts, c.counts);
            EXPECT_EQ(d.notBefore, at(now + c.wait));
        }
        if (c.kind == K::release) {
            EXPECT_EQ(d.notBefore, at(now));
        }
    }
    auto uid = policy.onUnknownUID(claimed(OutboxOperation::Kind::setFlags, 1), at(now));
    EXPECT_EQ(uid.kind, K::retry);
    EXPECT_FALSE(uid.counts);
    EXPECT_EQ(uid.notBefore, at(now + 15));
}

TEST(OutboxRetryPolicyTest, CountedFailuresStopAtTheAttemptLimit) {
    OutboxRetryPolicy policy(noJitter(), [] { return 0.0; });
    auto timeout = MailError::network(NetworkFailureKind::timeout, "t");
    EXPECT_EQ(
        policy.onFailure(claimed(OutboxOperation::Kind::setFlags, 7), timeout, false, at(0)).kind,
        OutboxDecision::Kind::retry);
    auto last =
        policy.onFailure(claimed(OutboxOperation::Kind::setFlags, 8), timeout, false, at(0));
    EXPECT_EQ(last.kind, OutboxDecision::Kind::fail);
    EXPECT_TRUE(last.counts);
    // Uncounted failures never reach the limit.
    EXPECT_EQ(policy
                  .onFailure(claimed(OutboxOperation::Kind::setFlags, 8), MailError::offline(),
                             false, at(0))
                  .kind,
              OutboxDecision::Kind::retry);
}

TEST(OutboxRetryPolicyTest, SendsAreNotRetriedAfterTheSendWindow) {
    OutboxRetryPolicy policy(noJitter(), [] { return 0.0; });
    auto send = claimed(OutboxOperation::Kind::send, 1, 0);
    EXPECT_EQ(policy.onFailure(send, MailError::offline(), false, at(86399)).kind,
              OutboxDecision::Kind::retry);
    auto late = policy.onFailure(send, MailError::offline(), false, at(86400));
    EXPECT_EQ(late.kind, OutboxDecision::Kind::fail);
    EXPECT_FALSE(late.counts);
    EXPECT_EQ(late.error, MailError::offline());
    // Other operations have no window.
    EXPECT_EQ(policy
                  .onFailure(claimed(OutboxOperation::Kind::setFlags, 1), MailError::offline(),
                             false, at(1e7))
                  .kind,
              OutboxDecision::Kind::retry);
}

TEST(EngineTuningTest, DefaultsAndJsonCoding) {
    EngineTuning t;
    Json json = t.toJson();
    EXPECT_EQ(encodeJson(json),
              "{\"outboxRetryDelays\":[5.0,15.0,45.0,120.0,300.0,900.0,1800.0],"
              "\"maxOperationAttempts\":8,\"sendRetryWindow\":86400.0,\"rateLimitDefault\":60.0,"
              "\"rateLimitCap\":3600.0,\"offlineRetry\":30.0,\"unknownUIDRetry\":15.0,"
              "\"applyJitter\":true,\"sentVerifyDelay\":1.0,\"sentVerifyAttempts\":3,"
              "\"outboxSyncWait\":15.0,\"heldSendsOnLaunch\":\"send\"}");
    auto back =
        EngineTuning::fromJson(parseJson("{\"heldSendsOnLaunch\":\"keepAsDraft\","
                                         "\"outboxRetryDelays\":[1,2]}"));
    EXPECT_EQ(back.heldSendsOnLaunch, HeldSendLaunchPolicy::keepAsDraft);
    EXPECT_EQ(back.outboxRetryDelays, (std::vector<double>{1, 2}));
    EXPECT_EQ(back.maxOperationAttempts, 8);
    for (const char* bad : {"[]", "{\"heldSendsOnLaunch\":\"later\"}", "{\"outboxRetryDelays\":[]}",
                            "{\"maxOperationAttempts\":0}", "{\"offlineRetry\":-1}"}) {
        EXPECT_THROW(EngineTuning::fromJson(parseJson(bad)), MailError) << bad;
    }
}

}  // namespace
}  // namespace mailcore
