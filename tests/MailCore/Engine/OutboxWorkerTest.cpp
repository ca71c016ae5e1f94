// The outbox worker against a real store file and a scripted executor:
// completion, the retry schedule on a stepped clock, uncertain sends, launch
// recovery, ordering, side-by-side targets, two workers, draining and the
// undo window.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <set>
#include <thread>

#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using Kind = OutboxOperation::Kind;

struct OutboxWorkerTest : testing::OutboxFixture {
    std::string detailOf(const std::function<void()>& body) {
        try {
            body();
        } catch (const MailError& e) {
            return e.detail();
        }
        return "no error";
    }
};

TEST_F(OutboxWorkerTest, SuccessfulItemIsCompletedAndObserved) {
    auto worker = makeWorker(quietTuning());
    std::vector<OutboxEvent> events;
    worker->setObserver([&](OutboxEvent e, const OutboxItem&) { events.push_back(e); });
    auto item = flags(m1);
    EXPECT_TRUE(worker->runOnce());
    EXPECT_FALSE(worker->runOnce());
    EXPECT_FALSE(store->outboxItem(item.id));
    ASSERT_EQ(executor.calls().size(), 1u);
    EXPECT_EQ(executor.calls()[0].attemptCount, 1);
    EXPECT_EQ(executor.calls()[0].state, OutboxItemState::inFlight);
    EXPECT_EQ(events, (std::vector<OutboxEvent>{OutboxEvent::claimed, OutboxEvent::executed,
                                                OutboxEvent::finished}));
}

TEST_F(OutboxWorkerTest, CountedFailuresFollowTheScheduleUntilTheLimit) {
    auto worker = makeWorker(quietTuning());
    auto timeout = MailError::network(NetworkFailureKind::timeout, "read timed out");
    std::vector<OutboxResult> failures(8, OutboxResult::failed(timeout));
    executor.script(failures);
    auto id = flags(m1).id;
    const double expected[] = {5, 15, 45, 120, 300, 900, 1800};
    for (int attempt = 1; attempt <= 7; ++attempt) {
        SCOPED_TRACE(attempt);
        ASSERT_TRUE(worker->runOnce());
        auto row = item(id);
        EXPECT_EQ(row.state, OutboxItemState::queued);
        EXPECT_EQ(row.attemptCount, attempt);
        EXPECT_EQ(row.lastError, timeout);
        EXPECT_EQ(row.notBefore, at(fake.now() + expected[attempt - 1]));
        fake.advance(expected[attempt - 1] - 1);
        EXPECT_FALSE(worker->runOnce());  // one second early
        fake.advance(1);
    }
    ASSERT_TRUE(worker->runOnce());
    auto row = item(id);
    EXPECT_EQ(row.state, OutboxItemState::failed);
    EXPECT_EQ(row.attemptCount, 8);
    EXPECT_EQ(row.lastError, timeout);
    fake.advance(1e6);
    EXPECT_FALSE(worker->runOnce());
    EXPECT_EQ(executor.calls().size(), 8u);

    // The user's retry starts over.
    ASSERT_TRUE(store->retryFailed(id, at(fake.now())));
    ASSERT_TRUE(worker->runOnce());
    EXPECT_FALSE(store->outboxItem(id));
}

TEST_F(OutboxWorkerTest, UncountedFailuresNeverUseUpAttempts) {
    auto worker = makeWorker(quietTuning());
    executor.script(
        {OutboxResult::failed(MailError::offline()),
         OutboxResult::failed(MailError::rateLimited(std::nullopt)),
         OutboxResult::failed(MailError::rateLimited(10000)),
         OutboxResult::failed(MailError::network(NetworkFailureKind::connectionLost, "lost"), true),
         OutboxResult::uidUnknown()});
    auto id = flags(m1).id;
    const double waits[] = {30, 60, 3600, 5, 15};
    for (double wait : waits) {
        ASSERT_TRUE(worker->runOnce());
        auto row = item(id);
        EXPECT_EQ(row.attemptCount, 0);
        EXPECT_EQ(row.notBefore, at(fake.now() + wait));
        fake.advance(wait);
    }
    ASSERT_TRUE(worker->runOnce());
    EXPECT_FALSE(store->outboxItem(id));
}

TEST_F(OutboxWorkerTest, PermanentFailureFailsAtOnceAndUnblocksTheMessage) {
    auto worker = makeWorker(quietTuning());
    auto gone = MailError::protocolViolation(ProtocolIssueKind::commandRejected,
                                             "message no longer on the server");
    executor.script({OutboxResult::failed(gone)});
    auto first = flags(m1);
    auto move = store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(fake.now()));
    EXPECT_EQ(worker->runDue(), 2u);
    EXPECT_EQ(item(first.id).state, OutboxItemState::failed);
    EXPECT_EQ(item(first.id).lastError, gone);
    EXPECT_FALSE(store->outboxItem(move.id));
    auto calls = executor.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].operation.kind(), Kind::move);
}

TEST_F(OutboxWorkerTest, LaterItemWaitsForARetryingEarlierOneOnTheSameMessage) {
    auto worker = makeWorker(quietTuning());
    executor.script({OutboxResult::failed(MailError::offline())});
    auto first = flags(m1);
    fake.advance(1);
    auto move =
        store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(fake.now()), at(0));
    auto other = flags(m2);
    EXPECT_EQ(worker->runDue(), 2u);  // the flags (fails) and the other message
    EXPECT_TRUE(store->outboxItem(move.id));
    fake.advance(30);
    EXPECT_EQ(worker->runDue(), 2u);
    auto calls = executor.calls();
    std::vector<std::string> order;
    for (const auto& c : calls) order.push_back(c.id.value);
    EXPECT_EQ(order, (std::vector<std::string>{first.id.value, other.id.value, first.id.value,
                                               move.id.value}));
}

TEST_F(OutboxWorkerTest, UncertainSendIsVerifiedAndNeverSentTwice) {
    struct Case {
        const char* name;
        std::vector<SentState> answers;
        bool completed;
        std::size_t verifications;
    } cases[] = {
        {"found at the second look", {SentState::unknown, SentState::sent}, true, 2},
        {"never found out", {}, false, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testing::ScriptedExecutor local;
        OutboxWorker worker(*store, local, quietTuning(), fake.clock(), fake.sleeper(),
                            [] { return 0.5; });
        local.script({OutboxResult::uncertain()});
        local.scriptVerify(c.answers);
        auto id = send(c.name).id;
        ASSERT_TRUE(worker.runOnce());
        EXPECT_EQ(local.verifications(), c.verifications);
        if (c.completed) {
            EXPECT_FALSE(store->outboxItem(id));
        } else {
            auto row = item(id);
            EXPECT_EQ(row.state, OutboxItemState::failed);
            EXPECT_EQ(row.lastError->detail(), "sent state could not be verified");
            fake.advance(1e5);
            EXPECT_FALSE(worker.runOnce());
        }
        EXPECT_EQ(local.calls().size(), 1u);
    }
    // Verification waits sentVerifyDelay before each look.
    for (double w : fake.waits()) EXPECT_EQ(w, 1);
    EXPECT_EQ(fake.waits().size(), 5u);
}

TEST_F(OutboxWorkerTest, UncertainSendNotFoundIsRetriedAfterAnotherLook) {
    auto worker = makeWorker(quietTuning());
    std::vector<std::string> progress;
    executor.onExecute = [&](const OutboxItem& item) {
        progress.push_back(item.lastError ? item.lastError->detail() : "");
    };
    executor.script({OutboxResult::failed(
        MailError::network(NetworkFailureKind::outcomeUnknown, "no reply after DATA"))});
    executor.scriptVerify({SentState::notSent, SentState::notSent});
    auto id = send("retry").id;
    ASSERT_TRUE(worker->runOnce());
    auto row = item(id);
    EXPECT_EQ(row.state, OutboxItemState::queued);
    EXPECT_EQ(row.attemptCount, 1);
    EXPECT_EQ(row.lastError->detail(), "the message may have been sent");
    fake.advance(5);
    ASSERT_TRUE(worker->runOnce());
    EXPECT_FALSE(store->outboxItem(id));
    EXPECT_EQ(executor.verifications(),
              2u);  // once after the first attempt, once before the second
    EXPECT_EQ(progress, (std::vector<std::string>{"", "the message may have been sent"}));
}

TEST_F(OutboxWorkerTest, LaunchRecoveryRequeuesInFlightItemsAndVerifiesHeldSends) {
    auto f = flags(m1);
    auto s = send("held", "d1");
    fake.advance(1);  // verified second
    auto sentAlready = send("gone out");
    for (const auto& id : {f.id, s.id, sentAlready.id}) ASSERT_TRUE(store->markInFlight(id));
    store.reset();  // the previous run ends here
    store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file("mail.db")));

    auto worker = makeWorker(quietTuning());
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
    auto tuning = quietTuning();
    tuning.heldSendsOnLaunch = HeldSendLaunchPolicy::keepAsDraft;
    auto worker = makeWorker(tuning);
    auto report = worker->recoverAtLaunch();
    EXPECT_EQ(report.keptAsDrafts, 2u);
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

TEST_F(OutboxWorkerTest, UndoWindowCancelsOnlyAQueuedSendInTime) {
    auto worker = makeWorker(quietTuning());
    OutboxSend payload{testing::outgoing("undo me"), DraftID("d"), true};
    auto a = worker->enqueueSend(account, payload, 10);
    EXPECT_EQ(a.notBefore, at(fake.now() + 10));
    EXPECT_FALSE(worker->runOnce());  // not due inside the window
    fake.advance(9);
    EXPECT_EQ(worker->cancelSend(a.id, 10), payload);
    EXPECT_FALSE(store->outboxItem(a.id));

    auto b = worker->enqueueSend(account, payload, 10);
    fake.advance(10.5);
    EXPECT_EQ(detailOf([&] { worker->cancelSend(b.id, 10); }), "undo-window-expired");
    auto c = worker->enqueueSend(account, payload, 10);
    ASSERT_TRUE(store->markInFlight(c.id));
    EXPECT_EQ(detailOf([&] { worker->cancelSend(c.id, 100); }), "undo-window-expired");
    EXPECT_EQ(detailOf([&] { worker->cancelSend(a.id, 10); }), "send was not queued");
    auto f = flags(m1);
    EXPECT_EQ(detailOf([&] { worker->cancelSend(f.id, 10); }), "send was not queued");
    EXPECT_TRUE(store->outboxItem(b.id));
    EXPECT_TRUE(store->outboxItem(c.id));
}

TEST_F(OutboxWorkerTest, CancelledWorkIsPutBackUntouched) {
    auto worker = makeWorker(quietTuning());
    executor.script({OutboxResult::failed(MailError::cancelled())});
    auto id = flags(m1).id;
    ASSERT_TRUE(worker->runOnce());
    auto row = item(id);
    EXPECT_EQ(row.state, OutboxItemState::queued);
    EXPECT_EQ(row.attemptCount, 0);
    EXPECT_FALSE(row.lastError);
}

TEST_F(OutboxWorkerTest, ExecutorExceptionsBecomeFailures) {
    auto worker = makeWorker(quietTuning());
    executor.onExecute = [](const OutboxItem& item) {
        if (item.operation.kind() == Kind::setFlags) throw MailError::offline();
        throw std::runtime_error("boom");
    };
    auto f = flags(m1);
    auto m = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2)), at(fake.now()));
    EXPECT_EQ(worker->runDue(), 2u);
    EXPECT_EQ(item(f.id).lastError, MailError::offline());
    EXPECT_EQ(item(f.id).state, OutboxItemState::queued);
    EXPECT_EQ(item(m.id).state, OutboxItemState::failed);
    EXPECT_EQ(item(m.id).lastError->detail(), "boom");
}

TEST_F(OutboxWorkerTest, DifferentTargetsRunSideBySide) {
    auto worker = makeWorker(quietTuning());
    std::mutex lock;
    std::condition_variable cv;
    bool release = false;
    std::atomic<int> secondDone{0};
    auto blocked = flags(m1);
    auto free = flags(m2);
    executor.onExecute = [&](const OutboxItem& item) {
        if (item.id == blocked.id) {
            std::unique_lock<std::mutex> l(lock);
            cv.wait_for(l, std::chrono::seconds(10), [&] { return release; });
        } else {
            secondDone = 1;
        }
    };
    worker->start(2, 0.01);
    // The item on the other message finishes while the first is still held.
    for (int i = 0; i < 1000 && secondDone == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(secondDone, 1);
    EXPECT_TRUE(store->outboxItem(blocked.id));
    EXPECT_FALSE(worker->drainOutbox(account, 0.05));  // still running
    {
        std::lock_guard<std::mutex> l(lock);
        release = true;
    }
    cv.notify_all();
    EXPECT_TRUE(worker->drainOutbox(account, 10));
    EXPECT_TRUE(store->outboxItems(account).empty());
    worker->stop();
    (void)free;
}

TEST_F(OutboxWorkerTest, DrainRunsOnlyTheAccountsDueItems) {
    store->saveAccount(AccountID("other"), Json::object(), at(1));
    auto worker = makeWorker(quietTuning());
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

TEST_F(OutboxWorkerTest, KickWakesTheBackgroundWorker) {
    auto worker = makeWorker(quietTuning());
    worker->start(1, 30);  // would otherwise sleep half a minute
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto id = flags(m1).id;
    worker->kickOutbox(account);
    for (int i = 0; i < 400 && store->outboxItem(id); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(store->outboxItem(id));
    worker->stop();
}

TEST_F(OutboxWorkerTest, TwoWorkersOnTwoConnectionsNeverRunOneItem) {
    // Forty items on seven targets: moves on two messages and sends from
    // five drafts.
    std::vector<OutboxItemID> ids;
    for (int i = 0; i < 40; ++i) {
        if (i % 2 == 0) {
            ids.push_back(store
                              ->enqueue(account,
                                        OutboxOperation::move(ref(i % 4 ? m1 : m2), archive),
                                        at(fake.now() + i))
                              .id);
        } else {
            ids.push_back(send("s" + std::to_string(i), "d" + std::to_string(i % 5)).id);
        }
    }
    SQLiteMailStore second(StoreLocation::file(dir.file("mail.db")));
    testing::ScriptedExecutor otherExecutor;
    std::mutex lock;
    std::map<std::string, int> runs;
    std::map<std::string, std::vector<std::string>> orderPerTarget;
    auto record = [&](const OutboxItem& item) {
        std::lock_guard<std::mutex> l(lock);
        ++runs[item.id.value];
        std::string target = item.operation.targetMessageID()
                                 ? "m" + std::to_string(item.operation.targetMessageID()->value)
                                 : "d" + item.operation.draftID()->value;
        orderPerTarget[target].push_back(item.id.value);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    // Neither worker gets past the executor (for up to two seconds) until
    // the other has reached it too, so that both take part.
    std::atomic<bool> startedA{false}, startedB{false};
    auto meet = [](std::atomic<bool>& mine, std::atomic<bool>& theirs) {
        mine = true;
        for (int i = 0; i < 400 && !theirs; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    };
    executor.onExecute = [&](const OutboxItem& item) {
        meet(startedA, startedB);
        record(item);
    };
    otherExecutor.onExecute = [&](const OutboxItem& item) {
        meet(startedB, startedA);
        record(item);
    };
    fake.advance(100);
    auto a = makeWorker(quietTuning());
    OutboxWorker b(second, otherExecutor, quietTuning(), fake.clock(), fake.sleeper(),
                   [] { return 0.5; });
    a->start(2, 0.01);
    b.start(2, 0.01);
    bool drainedA = a->drainOutbox(account, 20);
    bool drainedB = b.drainOutbox(account, 20);
    a->stop();
    b.stop();
    EXPECT_TRUE(drainedA && drainedB);
    EXPECT_TRUE(store->outboxItems(std::nullopt).empty());
    EXPECT_EQ(runs.size(), ids.size());
    for (const auto& [id, count] : runs) EXPECT_EQ(count, 1) << id;
    EXPECT_GT(executor.calls().size(), 0u);
    EXPECT_GT(otherExecutor.calls().size(), 0u);
    // Per target, in creation order.
    std::map<std::string, std::vector<std::string>> expected;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        std::string target = i % 2 == 0 ? "m" + std::to_string((i % 4 ? m1 : m2).value)
                                        : "dd" + std::to_string(i % 5);
        expected[target].push_back(ids[i].value);
    }
    EXPECT_EQ(orderPerTarget, expected);
}

}  // namespace
}  // namespace mailcore
