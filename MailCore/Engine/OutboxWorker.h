// OutboxWorker: carries an account's queued server operations out through an
// OutboxExecutor, in order per message and per draft, retrying after
// failures, and never sending a message twice unasked.
//
// How it works: a worker claims the next due item with a conditional update
// (so two workers, in this process or another, never run one item), hands
// it to the executor and records the outcome: completed (deleted), queued
// again for later, or failed for good (see OutboxRetryPolicy). A send whose
// outcome is uncertain is marked "the message may have been sent" while it
// is still claimed and is then verified, up to sentVerifyAttempts times
// sentVerifyDelay apart: found means done, not found means it may be sent
// again, and otherwise it fails with "sent state could not be verified".
// A send carrying that mark, for instance one recovered after a crash, is
// verified before it is ever attempted again.
//
// Thread-safety: every public operation may be called from any thread.
// `start` runs background threads that work on due items of every account;
// `runOnce` and `drainOutbox` work on the caller's thread. Time comes only
// from the injected clock, waits between verification checks from the
// injected sleeper.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Engine/EngineTuning.h"
#include "MailCore/Engine/OutboxExecutor.h"
#include "MailCore/Engine/OutboxRetryPolicy.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

// Waits the given number of seconds.
using Sleeper = std::function<void(double seconds)>;

// Stages of one item's run, reported to the observer (on the worker's
// thread, without any lock held).
enum class OutboxEvent {
    claimed,    // the item is in flight
    verifying,  // one verification of an uncertain send is about to run
    executed,   // the executor returned (or threw)
    finished,   // the outcome is recorded in the store
};
using OutboxObserver = std::function<void(OutboxEvent, const OutboxItem&)>;

struct LaunchRecovery {
    std::size_t requeued = 0;      // in-flight items queued again
    std::size_t heldSends = 0;     // of those, sends
    std::size_t keptAsDrafts = 0;  // held sends turned back into drafts
    // Sends still waiting for their release (inside their undo window) when
    // the previous run ended: kept as drafts, whatever heldSendsOnLaunch says.
    std::vector<OutboxSend> unreleased;
};

class OutboxWorker {
public:
    OutboxWorker(SQLiteMailStore& store, OutboxExecutor& executor, EngineTuning tuning = {},
                 Clock clock = systemClock(), Sleeper sleeper = {}, UnitRandom random = {});
    ~OutboxWorker();  // stops the background threads
    OutboxWorker(const OutboxWorker&) = delete;
    OutboxWorker& operator=(const OutboxWorker&) = delete;

    // Set before `start`.
    void setObserver(OutboxObserver observer);

    // Once at launch, before any work: items left in flight by the previous
    // run are queued again with the attempt counts they had after their
    // claim; interrupted sends are marked uncertain (so they are verified
    // before any new attempt) and, under heldSendsOnLaunch "keepAsDraft",
    // turned back into drafts. Sends never released (see enqueueSend) are
    // turned back into drafts and queued for saving as such: only a new yes
    // may send them. Then heldSendsSettled() is true.
    LaunchRecovery recoverAtLaunch();
    bool heldSendsSettled() const { return heldSendsSettled_; }

    // Background threads working on due items of every account, woken by a
    // kick or every `pollSeconds`. Items on different targets run side by
    // side. `stop` lets each thread finish the item it is running.
    void start(int threads = 2, double pollSeconds = 1.0);
    void stop();

    // Wakes the background threads without waiting.
    void kickOutbox(const AccountID& account);
    // Runs the account's due items on this thread and waits for those in
    // flight elsewhere (background threads, another worker on the same
    // database), for at most `maxWait` seconds. True when nothing of the
    // account is left due or in flight; items whose time has not come yet
    // do not count.
    bool drainOutbox(const AccountID& account, double maxWait);

    // Claims and runs one due item; false when none was due.
    bool runOnce(const std::optional<AccountID>& account = std::nullopt);
    // Runs due items until none is left; returns how many ran.
    std::size_t runDue(const std::optional<AccountID>& account = std::nullopt);

    // Queues a send held for the undo window: it is never due until
    // releaseSend, so a send whose window was cut short by a crash does not
    // go out at the next start (recoverAtLaunch keeps it as a draft).
    OutboxItem enqueueSend(const AccountID& account, const OutboxSend& send);
    // Makes a held send due now and wakes the workers.
    void releaseSend(const OutboxItemID& id);
    // The not-before date of a held send: far beyond any real one.
    static Date heldUntilReleased();
    // Takes back a queued send within `undoWindow` seconds of its queueing
    // and returns it (to be shown as a draft again). Fails with
    // storage(other, "undo-window-expired") once the window has passed or
    // the send has started, and storage(notFound, "send was not queued")
    // for anything else.
    OutboxSend cancelSend(const OutboxItemID& id, double undoWindow);

    const EngineTuning& tuning() const { return policy_.tuning(); }

private:
    void process(OutboxItem item);
    SentState verify(const OutboxItem& item);
    void apply(const OutboxItem& item, const OutboxDecision& decision);
    void notify(OutboxEvent event, const OutboxItem& item);
    void loop(double pollSeconds);
    // Turns the send `item` back into its draft (the draft's source kept).
    DraftRecord keepSendAsDraft(const OutboxItem& item);

    SQLiteMailStore& store_;
    OutboxExecutor& executor_;
    OutboxRetryPolicy policy_;
    Clock clock_;
    Sleeper sleeper_;
    OutboxObserver observer_;
    std::atomic<bool> heldSendsSettled_{false};

    std::mutex lock_;
    std::condition_variable wake_;      // kicks and stop
    std::condition_variable idle_;      // an item finished
    bool stopping_ = false;             // guarded by lock_
    std::uint64_t kicks_ = 0;           // guarded by lock_
    std::map<AccountID, int> running_;  // guarded by lock_
    std::vector<std::thread> threads_;  // guarded by lock_
};

}  // namespace mailcore
