// The outbox worker against a real store file and a scripted executor:
// completion, the retry schedule on a stepped clock, uncertain sends, launch
// recovery, side-by-side targets, two workers, draining and the undo window.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <set>
#include <thread>

#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using testing::errorDetail;
using Kind = OutboxOperation::Kind;
using OutboxWorkerTest = testing::OutboxFixture;

// Polls `done` every 5 ms for up to `seconds`.
bool eventually(const std::function<bool()>& done, double seconds = 5) {
    for (int i = 0; i < seconds * 200 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

TEST_F(OutboxWorkerTest, SuccessfulItemIsCompletedAndObserved) {
    auto worker = makeWorker();
    std::vector<OutboxEvent> events;
    worker->setObserver([&](OutboxEvent e, const OutboxItem&) { events.push_back(e); });
    auto id = flags(m1).id;
    EXPECT_TRUE(worker->runOnce());
    EXPECT_FALSE(worker->runOnce());
    EXPECT_FALSE(store->outboxItem(id));
    ASSERT_EQ(executor.calls().size(), 1u);
    EXPECT_EQ(executor.calls()[0].attemptCount, 1);
    EXPECT_EQ(executor.calls()[0].state, OutboxItemState::inFlight);
    EXPECT_EQ(events, (std::vector<OutboxEvent>{OutboxEvent::claimed, OutboxEvent::executed,
                                                OutboxEvent::finished}));
}

// One item through a run of failures, each with the item's state after it
// ("state attempts due-in error"): uncounted ones wait their fixed time and
// leave the attempt count alone, counted ones follow the schedule until the
// eighth fails the item for good. None is run a second early.
TEST_F(OutboxWorkerTest, FailuresFollowTheScheduleUntilTheAttemptLimit) {
    const auto timeout =
        OutboxResult::failed(MailError::network(NetworkFailureKind::timeout, "read timed out"));
    const auto lost = MailError::network(NetworkFailureKind::connectionLost, "lost");
    const std::string timedOut = " network(timeout): read timed out";
    const std::pair<OutboxResult, std::string> steps[] = {
        {OutboxResult::failed(MailError::cancelled()), "queued 0 0 -"},  // put back untouched
        {OutboxResult::failed(MailError::offline()), "queued 0 30 offline"},
        {OutboxResult::failed(MailError::rateLimited(std::nullopt)), "queued 0 60 rateLimited"},
        {OutboxResult::failed(MailError::rateLimited(10000)),  // capped
         "queued 0 3600 rateLimited(retryAfter: 10000)"},
        {OutboxResult::uidUnknown(),
         "queued 0 15 protocolViolation(missingRequiredData): message uid not yet known"},
        {timeout, "queued 1 5" + timedOut},
        {timeout, "queued 2 15" + timedOut},
        // Lost before anything was sent: the wait the item had before.
        {OutboxResult::failed(lost, true), "queued 2 15 network(connectionLost): lost"},
        {timeout, "queued 3 45" + timedOut},
        {timeout, "queued 4 120" + timedOut},
        {timeout, "queued 5 300" + timedOut},
        {timeout, "queued 6 900" + timedOut},
        {timeout, "queued 7 1800" + timedOut},
        {OutboxResult::failed(MailError::offline()), "queued 7 30 offline"},
        {timeout, "failed 8 0" + timedOut},
    };
    auto worker = makeWorker();
    for (const auto& step : steps) executor.script({step.first});
    auto id = flags(m1).id;
    for (const auto& [result, expected] : steps) {
        ASSERT_TRUE(worker->runOnce());
        EXPECT_EQ(summary(id, fake.now()), expected);
        double wait = secondsSince1970(item(id).notBefore) - fake.now();
        if (wait < 1) continue;
        fake.advance(wait - 1);
        EXPECT_FALSE(worker->runOnce()) << expected;
        fake.advance(1);
    }
    fake.advance(1e6);
    EXPECT_FALSE(worker->runOnce());
    EXPECT_EQ(executor.calls().size(), std::size(steps));
    // The user's retry starts over.
    ASSERT_TRUE(store->retryFailed(id, at(fake.now())));
    ASSERT_TRUE(worker->runOnce());
    EXPECT_EQ(summary(id), "gone");
}

TEST_F(OutboxWorkerTest, ExecutorExceptionsBecomeFailures) {
    auto worker = makeWorker();
    executor.onExecute = [](const OutboxItem& item) {
        if (item.operation.kind() == Kind::setFlags) throw MailError::offline();
        throw std::runtime_error("boom");
    };
    auto f = flags(m1);
    auto m = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2)), at(fake.now()));
    EXPECT_EQ(worker->runDue(), 2u);
    EXPECT_EQ(summary(f.id, fake.now()), "queued 0 30 offline");
    EXPECT_EQ(summary(m.id, fake.now()), "failed 1 0 protocolViolation(unexpectedResponse): boom");
}

// A send whose outcome is uncertain is looked for on the server, a second
// apart, before anything else happens to it; it is sent again only when it
// was not found, and after one more look.
TEST_F(OutboxWorkerTest, UncertainSendIsVerifiedAndNeverSentTwice) {
    const std::string uncertain = " network(outcomeUnknown): ";
    struct Case {
        OutboxResult result;
        std::vector<SentState> answers;
        std::size_t verifications, executions;
        std::string afterFirstRun, atEnd;
        bool verifyThrows = false;
    } cases[] = {
        // Found at the second look.
        {OutboxResult::uncertain(), {SentState::unknown, SentState::sent}, 2, 1, "gone", "gone"},
        // Never found out (every look fails with an error).
        {OutboxResult::uncertain(),
         {},
         3,
         1,
         "failed 1 0" + uncertain + "sent state could not be verified",
         "failed 1 0" + uncertain + "sent state could not be verified",
         true},
        // Not sent: due 5 s after the look (a second in), sent after another look.
        {OutboxResult::failed(MailError::network(NetworkFailureKind::outcomeUnknown, "no reply")),
         {SentState::notSent, SentState::notSent},
         2,
         2,
         "queued 1 6" + uncertain + "the message may have been sent",
         "gone"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.afterFirstRun);
        testing::ScriptedExecutor local;
        OutboxWorker worker(*store, local, testing::quietTuning(), fake.clock(), fake.sleeper(),
                            [] { return 0.5; });
        local.script({c.result});
        local.scriptVerify(c.answers);
        local.verifyThrows = c.verifyThrows;
        const double created = fake.now();
        auto id = send("s").id;
        ASSERT_TRUE(worker.runOnce());
        EXPECT_EQ(summary(id, created), c.afterFirstRun);
        for (fake.advance(10); worker.runOnce();) fake.advance(10);
        EXPECT_EQ(summary(id, created), c.atEnd);
        EXPECT_EQ(local.verifications(), c.verifications);
        ASSERT_EQ(local.calls().size(), c.executions);
        EXPECT_TRUE(c.executions == 1 || isMayHaveBeenSent(local.calls()[1].lastError));
    }
    EXPECT_EQ(fake.waits(), std::vector<double>(7, 1.0));  // sentVerifyDelay before each look
}

TEST_F(OutboxWorkerTest, LaunchRecoveryRequeuesInFlightItemsAndVerifiesHeldSends) {
    auto f = flags(m1);
    auto s = send("held", "d1");
    fake.advance(1);  // verified second
    auto sentAlready = send("gone out");
    for (const auto& id : {f.id, s.id, sentAlready.id}) ASSERT_TRUE(store->markInFlight(id));
    reopen();  // the previous run ends here

    auto worker = makeWorker();
    EXPECT_FALSE(worker->heldSendsSettled());
    auto report = worker->recoverAtLaunch();
    EXPECT_TRUE(worker->heldSendsSettled());
    EXPECT_EQ(report.requeued, 3u);
    EXPECT_EQ(report.heldSends, 2u);
    EXPECT_EQ(report.keptAsDrafts, 0u);
    EXPECT_EQ(item(f.id).attemptCount, 1);
    EXPECT_EQ(item(s.id).attemptCount, 1);

    executor.scriptVerify({SentState::notSent, SentState::sent});
    EXPECT_EQ(worker->runDue(), 3u);
    EXPECT_TRUE(store->outboxItems(std::nullopt).empty());
    std::multiset<std::string> executed;
    for (const auto& c : executor.calls()) executed.insert(c.id.value);
    // The one found on the server is not sent again; the other is sent once.
    EXPECT_EQ(executed, (std::multiset<std::string>{f.id.value, s.id.value}));
    EXPECT_EQ(executor.verifications(), 2u);
}

TEST_F(OutboxWorkerTest, HeldSendsKeptAsDraftsUnderThatPolicy) {
    store->saveDraft(DraftRecord{DraftID("d1"), account, testing::outgoing("old"), m2, at(1)});
    auto s = send("held", "d1");
    auto fresh = send("no draft");
    auto queuedOnly = send("still queued");
    ASSERT_TRUE(store->markInFlight(s.id));
    ASSERT_TRUE(store->markInFlight(fresh.id));
    auto tuning = testing::quietTuning();
    tuning.heldSendsOnLaunch = HeldSendLaunchPolicy::keepAsDraft;
    auto worker = makeWorker(tuning);
    EXPECT_EQ(worker->recoverAtLaunch().keptAsDrafts, 2u);
    EXPECT_TRUE(worker->heldSendsSettled());
    auto d = store->draft(DraftID("d1"));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->message.subject, "held");
    EXPECT_EQ(d->sourceMessageID, m2);
    EXPECT_EQ(store->drafts(account).size(), 2u);
    auto left = store->outboxItems(account);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].item.id, queuedOnly.id);
    EXPECT_EQ(worker->runDue(), 1u);
    EXPECT_EQ(executor.verifications(), 0u);
}

TEST_F(OutboxWorkerTest, UndoWindowCancelsOnlyAHeldSendInTime) {
    auto worker = makeWorker();
    OutboxSend payload{testing::outgoing("undo me"), DraftID("d"), true};
    auto a = worker->enqueueSend(account, payload);
    fake.advance(3600);
    EXPECT_FALSE(worker->runOnce());  // held: never due before its release
    EXPECT_EQ(worker->cancelSend(a.id, 3601), payload);
    EXPECT_FALSE(store->outboxItem(a.id));

    auto b = worker->enqueueSend(account, payload);
    fake.advance(10.5);
    auto c = worker->enqueueSend(account, payload);
    worker->releaseSend(c.id);
    ASSERT_TRUE(store->markInFlight(c.id));
    auto f = flags(m1);
    const std::pair<OutboxItemID, std::string> refusals[] = {
        {b.id, "undo-window-expired"},   // too late
        {c.id, "undo-window-expired"},   // already started
        {a.id, "send was not queued"},   // already cancelled
        {f.id, "send was not queued"}};  // not a send
    for (const auto& r : refusals) {
        EXPECT_EQ(errorDetail([&] { worker->cancelSend(r.first, 10); }), r.second) << r.second;
    }
    EXPECT_TRUE(store->outboxItem(b.id));
    EXPECT_TRUE(store->outboxItem(c.id));
}

// Background threads sleeping a long poll are woken by a kick; an item on
// another message finishes while the first is still held.
TEST_F(OutboxWorkerTest, KickedThreadsRunDifferentTargetsSideBySide) {
    auto worker = makeWorker();
    std::mutex lock;
    std::condition_variable cv;
    bool release = false;
    std::atomic<bool> secondDone{false};
    OutboxItemID blocked;
    executor.onExecute = [&](const OutboxItem& item) {
        if (item.id != blocked) {
            secondDone = true;
            return;
        }
        std::unique_lock<std::mutex> l(lock);
        cv.wait_for(l, std::chrono::seconds(10), [&] { return release; });
    };
    worker->start(2, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    blocked = flags(m1).id;
    flags(m2);
    worker->kickOutbox(account);
    EXPECT_TRUE(eventually([&] { return secondDone.load(); }));
    EXPECT_TRUE(store->outboxItem(blocked));
    EXPECT_FALSE(worker->drainOutbox(account, 0.05));  // still running
    {
        std::lock_guard<std::mutex> l(lock);
        release = true;
    }
    cv.notify_all();
    EXPECT_TRUE(worker->drainOutbox(account, 10));
    EXPECT_TRUE(store->outboxItems(account).empty());
    worker->stop();
}

TEST_F(OutboxWorkerTest, DrainRunsOnlyTheAccountsDueItems) {
    store->saveAccount(AccountID("other"), Json::object(), at(1));
    auto worker = makeWorker();
    auto mine = flags(m1);
    auto later = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2)), at(fake.now()),
                                at(fake.now() + 60));
    auto theirs =
        store->enqueue(AccountID("other"),
                       OutboxOperation::send({testing::outgoing("x"), {}, true}), at(fake.now()));
    EXPECT_TRUE(worker->drainOutbox(account, 5));
    EXPECT_FALSE(store->outboxItem(mine.id));
    EXPECT_TRUE(store->outboxItem(later.id));
    EXPECT_TRUE(store->outboxItem(theirs.id));
}

TEST_F(OutboxWorkerTest, TwoWorkersOnTwoConnectionsNeverRunOneItem) {
    // Forty items on seven targets: moves on two messages and sends from
    // five drafts.
    std::map<std::string, std::vector<std::string>> expected;
    for (int i = 0; i < 40; ++i) {
        MessageID target = i % 4 ? m1 : m2;
        std::string draft = "d" + std::to_string(i % 5);
        auto item =
            i % 2 == 0
                ? store->enqueue(account, OutboxOperation::move(ref(target), archive), at(1000 + i))
                : send("s" + std::to_string(i), draft);
        expected[i % 2 == 0 ? "m" + std::to_string(target.value) : draft].push_back(item.id.value);
    }
    SQLiteMailStore second(StoreLocation::file(dir.file("mail.db")));
    testing::ScriptedExecutor otherExecutor;
    std::mutex lock;
    std::map<std::string, int> runs;
    std::map<std::string, std::vector<std::string>> orderPerTarget;
    // Neither worker gets past the executor (for up to two seconds) until
    // the other has reached it too, so that both take part.
    std::atomic<bool> startedA{false}, startedB{false};
    auto record = [&](const OutboxItem& item, std::atomic<bool>& mine, std::atomic<bool>& theirs) {
        mine = true;
        eventually([&] { return theirs.load(); }, 2);
        std::lock_guard<std::mutex> l(lock);
        ++runs[item.id.value];
        std::string target = item.operation.targetMessageID()
                                 ? "m" + std::to_string(item.operation.targetMessageID()->value)
                                 : item.operation.draftID()->value;
        orderPerTarget[target].push_back(item.id.value);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    executor.onExecute = [&](const OutboxItem& item) { record(item, startedA, startedB); };
    otherExecutor.onExecute = [&](const OutboxItem& item) { record(item, startedB, startedA); };
    fake.advance(100);
    auto a = makeWorker();
    OutboxWorker b(second, otherExecutor, testing::quietTuning(), fake.clock(), fake.sleeper(),
                   [] { return 0.5; });
    a->start(2, 0.01);
    b.start(2, 0.01);
    bool drainedA = a->drainOutbox(account, 20);
    bool drainedB = b.drainOutbox(account, 20);
    a->stop();
    b.stop();
    EXPECT_TRUE(drainedA && drainedB);
    EXPECT_TRUE(store->outboxItems(std::nullopt).empty());
    EXPECT_EQ(runs.size(), 40u);
    for (const auto& [id, count] : runs) EXPECT_EQ(count, 1) << id;
    EXPECT_GT(executor.calls().size(), 0u);
    EXPECT_GT(otherExecutor.calls().size(), 0u);
    EXPECT_EQ(orderPerTarget, expected);  // per target, in creation order
}

}  // namespace
}  // namespace mailcore
