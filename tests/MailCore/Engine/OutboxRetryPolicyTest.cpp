// The retry decisions after a failed outbox attempt that the worker tests
// do not reach: jitter, the failures that count or fail for good, and the
// send window; and the tuning's JSON form.
#include <gtest/gtest.h>

#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using K = OutboxDecision::Kind;

OutboxItem claimed(OutboxOperation::Kind kind, std::int64_t attempts) {
    OutboxItem item;
    item.id = OutboxItemID("i");
    item.accountID = AccountID("a");
    OutboxMessageRef ref{MessageID(1), FolderID(1), IMAPUID(1), {}};
    item.operation = kind == OutboxOperation::Kind::send
                         ? OutboxOperation::send({testing::outgoing("x"), {}, true})
                         : OutboxOperation::setFlags(ref, FlagChange{1, 0, {}, {}});
    item.state = OutboxItemState::inFlight;
    item.createdAt = at(0);
    item.attemptCount = attempts;
    return item;
}

TEST(OutboxRetryPolicyTest, DelayStaysAtTheLastEntryWithinTwentyPercentJitter) {
    OutboxRetryPolicy flat(testing::quietTuning(), [] { return 0.0; });
    EXPECT_EQ(flat.retryDelay(0), 5);
    EXPECT_EQ(flat.retryDelay(50), 1800);
    double r = 0;
    OutboxRetryPolicy policy(EngineTuning{}, [&] { return r; });
    const std::pair<double, double> jitter[] = {{0.0, 36}, {0.5, 45}, {0.999999, 54}};
    for (auto [random, delay] : jitter) {
        r = random;
        EXPECT_NEAR(policy.retryDelay(3), delay, 1e-3) << random;
    }
    OutboxRetryPolicy real(EngineTuning{}, {});
    for (int i = 0; i < 200; ++i) {
        double d = real.retryDelay(1);
        ASSERT_GE(d, 4.0);
        ASSERT_LT(d, 6.0);
    }
}

TEST(OutboxRetryPolicyTest, FailuresAreClassified) {
    OutboxRetryPolicy policy(testing::quietTuning(), [] { return 0.0; });
    using P = ProtocolIssueKind;
    struct Case {
        MailError error;
        K kind;  // retries count and wait 15 s after the second attempt
    } cases[] = {
        {MailError::protocolViolation(P::serverClosed, "bye"), K::retry},
        {MailError::auth(AuthFailureKind::temporaryFailure, "try later"), K::retry},
        {MailError::auth(AuthFailureKind::reauthorizationRequired, "re-authorization required"),
         K::fail},
        {MailError::protocolViolation(P::commandRejected, "message no longer on the server"),
         K::fail},
        {MailError::protocolViolation(P::commandRejected, "destination folder missing"), K::fail},
        {MailError::tls(TLSFailureKind::certificateExpired, "expired"), K::fail},
        {MailError::storage(StorageFailureKind::diskFull, "full"), K::fail},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error.what());
        auto d =
            policy.onFailure(claimed(OutboxOperation::Kind::setFlags, 2), c.error, false, at(1000));
        EXPECT_EQ(d.kind, c.kind);
        EXPECT_EQ(d.error, c.error);
        EXPECT_TRUE(d.counts);
        if (c.kind == K::retry) {
            EXPECT_EQ(d.notBefore, at(1015));
        }
    }
}

TEST(OutboxRetryPolicyTest, SendsAreNotRetriedAfterTheSendWindow) {
    OutboxRetryPolicy policy(testing::quietTuning(), [] { return 0.0; });
    auto send = claimed(OutboxOperation::Kind::send, 1);
    EXPECT_EQ(policy.onFailure(send, MailError::offline(), false, at(86399)).kind, K::retry);
    auto late = policy.onFailure(send, MailError::offline(), false, at(86400));
    EXPECT_EQ(late.kind, K::fail);
    EXPECT_FALSE(late.counts);
    EXPECT_EQ(late.error, MailError::offline());
    // Other operations have no window.
    auto flags = claimed(OutboxOperation::Kind::setFlags, 1);
    EXPECT_EQ(policy.onFailure(flags, MailError::offline(), false, at(1e7)).kind, K::retry);
}

TEST(EngineTuningTest, DefaultsAndJsonCoding) {
    EXPECT_EQ(encodeJson(EngineTuning{}.toJson()),
              "{\"outboxRetryDelays\":[5.0,15.0,45.0,120.0,300.0,900.0,1800.0],"
              "\"maxOperationAttempts\":8,\"sendRetryWindow\":86400.0,\"rateLimitDefault\":60.0,"
              "\"rateLimitCap\":3600.0,\"offlineRetry\":30.0,\"unknownUIDRetry\":15.0,"
              "\"applyJitter\":true,\"sentVerifyDelay\":1.0,\"sentVerifyAttempts\":3,"
              "\"outboxSyncWait\":15.0,\"heldSendsOnLaunch\":\"send\"}");
    auto back = EngineTuning::fromJson(
        parseJson("{\"heldSendsOnLaunch\":\"keepAsDraft\",\"outboxRetryDelays\":[1,2]}"));
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
