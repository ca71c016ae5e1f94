#include "MailCore/Engine/OutboxWorker.h"

#include <pthread.h>

#include <chrono>

#include "MailCore/Common/Random.h"

namespace mailcore {
namespace {

void realSleep(double seconds) {
    if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

bool isSend(const OutboxItem& item) { return item.operation.kind() == OutboxOperation::Kind::send; }

}  // namespace

OutboxWorker::OutboxWorker(SQLiteMailStore& store, OutboxExecutor& executor, EngineTuning tuning,
                           Clock clock, Sleeper sleeper, UnitRandom random)
    : store_(store),
      executor_(executor),
      policy_(std::move(tuning), std::move(random)),
      clock_(clock ? std::move(clock) : systemClock()),
      sleeper_(sleeper ? std::move(sleeper) : Sleeper(realSleep)) {}

OutboxWorker::~OutboxWorker() { stop(); }

void OutboxWorker::setObserver(OutboxObserver observer) { observer_ = std::move(observer); }

void OutboxWorker::notify(OutboxEvent event, const OutboxItem& item) {
    if (observer_) observer_(event, item);
}

DraftRecord OutboxWorker::keepSendAsDraft(const OutboxItem& item) {
    const OutboxSend& send = item.operation.sendPayload();
    DraftRecord draft;
    draft.id = send.draftID.value_or(DraftID(makeUUID()));
    draft.accountID = item.accountID;
    draft.message = send.message;
    if (auto existing = store_.draft(draft.id)) draft.sourceMessageID = existing->sourceMessageID;
    draft.updatedAt = clock_();
    store_.convertSendToDraft(item.id, draft);
    return draft;
}

LaunchRecovery OutboxWorker::recoverAtLaunch() {
    LaunchRecovery report;
    auto rows = store_.recoverInFlight();
    report.requeued = rows.size();
    for (const auto& row : rows) {
        const OutboxItem& item = row.item;
        if (!isSend(item)) continue;
        ++report.heldSends;
        if (tuning().heldSendsOnLaunch != HeldSendLaunchPolicy::keepAsDraft) continue;
        keepSendAsDraft(item);
        ++report.keptAsDrafts;
    }
    for (const auto& row : store_.outboxItems(std::nullopt)) {
        const OutboxItem& item = row.item;
        if (!isSend(item) || item.state != OutboxItemState::queued ||
            item.notBefore < heldUntilReleased())
            continue;
        const DraftRecord draft = keepSendAsDraft(item);
        store_.enqueue(item.accountID, OutboxOperation::saveDraft(draft.id, draft.message),
                       clock_());
        report.unreleased.push_back(item.operation.sendPayload());
    }
    heldSendsSettled_ = true;
    return report;
}

bool OutboxWorker::runOnce(const std::optional<AccountID>& account) {
    auto row = store_.claimNextDue(clock_(), account);
    if (!row) return false;
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++running_[row->item.accountID];
    }
    struct Done {
        OutboxWorker& worker;
        AccountID account;
        ~Done() {
            {
                std::lock_guard<std::mutex> guard(worker.lock_);
                if (--worker.running_[account] == 0) worker.running_.erase(account);
            }
            worker.idle_.notify_all();
        }
    } done{*this, row->item.accountID};
    notify(OutboxEvent::claimed, row->item);
    process(std::move(row->item));
    return true;
}

std::size_t OutboxWorker::runDue(const std::optional<AccountID>& account) {
    std::size_t count = 0;
    while (runOnce(account)) ++count;
    return count;
}

SentState OutboxWorker::verify(const OutboxItem& item) {
    for (int attempt = 0; attempt < tuning().sentVerifyAttempts; ++attempt) {
        sleeper_(tuning().sentVerifyDelay);
        notify(OutboxEvent::verifying, item);
        SentState state = SentState::unknown;
        try {
            state = executor_.verifySent(item);
        } catch (const std::exception&) {  // MailError included
            state = SentState::unknown;
        }
        if (state != SentState::unknown) return state;
    }
    return SentState::unknown;
}

void OutboxWorker::apply(const OutboxItem& item, const OutboxDecision& d) {
    switch (d.kind) {
        case OutboxDecision::Kind::retry:
            store_.retryLater(item.id, d.notBefore, d.error, d.counts);
            break;
        case OutboxDecision::Kind::fail:
            store_.failPermanently(item.id, d.error, d.counts);
            break;
        case OutboxDecision::Kind::release:
            store_.release(item.id, d.notBefore);
            break;
    }
}

void OutboxWorker::process(OutboxItem item) {
    // A send that may already be on the server is looked for before it is
    // ever attempted again.
    if (isSend(item) && isMayHaveBeenSent(item.lastError)) {
        SentState state = verify(item);
        if (state == SentState::sent) {
            store_.complete(item.id);
            notify(OutboxEvent::finished, item);
            return;
        }
        if (state == SentState::unknown) {
            store_.failPermanently(item.id, sentNotVerifiedError(), true);
            notify(OutboxEvent::finished, item);
            return;
        }
    }

    OutboxResult result;
    try {
        result = executor_.execute(item);
    } catch (const MailError& error) {
        result = OutboxResult::failed(error);
    } catch (const std::exception& error) {
        result = OutboxResult::failed(
            MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse, error.what()));
    }
    notify(OutboxEvent::executed, item);
    if (result.kind == OutboxResult::Kind::failed && !result.error) {
        result.error = MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                                    "failed without an error");
    }
    // An unknown network outcome of a send is an uncertain send.
    if (isSend(item) && result.kind == OutboxResult::Kind::failed &&
        result.error->errorCase() == MailError::Case::network &&
        result.error->networkKind() == NetworkFailureKind::outcomeUnknown) {
        result = OutboxResult::uncertain();
    }
    Date now = clock_();
    switch (result.kind) {
        case OutboxResult::Kind::done:
            store_.complete(item.id);
            break;
        case OutboxResult::Kind::uidUnknown:
            apply(item, policy_.onUnknownUID(item, now));
            break;
        case OutboxResult::Kind::failed:
            apply(item, policy_.onFailure(item, *result.error, result.beforeSending, now));
            break;
        case OutboxResult::Kind::uncertain: {
            if (!isSend(item)) {
                // Only a send can be uncertain; anything else is retried.
                apply(item, policy_.onFailure(item, mayHaveBeenSentError(), false, now));
                break;
            }
            store_.recordProgress(item.id, mayHaveBeenSentError());
            item.lastError = mayHaveBeenSentError();
            SentState state = verify(item);
            if (state == SentState::sent) {
                store_.complete(item.id);
            } else if (state == SentState::unknown) {
                store_.failPermanently(item.id, sentNotVerifiedError(), true);
            } else {
                // Not on the server: it may be sent again. The mark stays, so
                // the next attempt looks once more before sending.
                apply(item, policy_.onFailure(item, mayHaveBeenSentError(), false, clock_()));
            }
            break;
        }
    }
    notify(OutboxEvent::finished, item);
}

void OutboxWorker::start(int threads, double pollSeconds) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!threads_.empty()) return;
    stopping_ = false;
    for (int i = 0; i < std::max(1, threads); ++i) {
        threads_.emplace_back([this, pollSeconds] {
            pthread_setname_np(pthread_self(), "mailcore.outbox");
            loop(pollSeconds);
        });
    }
}

void OutboxWorker::stop() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
        threads.swap(threads_);
    }
    wake_.notify_all();
    for (auto& t : threads) t.join();
}

void OutboxWorker::loop(double pollSeconds) {
    while (true) {
        std::uint64_t seen;
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (stopping_) return;
            seen = kicks_;
        }
        bool ran = false;
        try {
            ran = runOnce(std::nullopt);
        } catch (const std::exception&) {
            // The store refused (busy past its timeout, closed) or failed
            // otherwise: try again after the poll interval rather than end
            // the thread.
            ran = false;
        }
        if (ran) continue;
        std::unique_lock<std::mutex> lock(lock_);
        wake_.wait_for(lock, std::chrono::duration<double>(pollSeconds),
                       [&] { return stopping_ || kicks_ != seen; });
    }
}

void OutboxWorker::kickOutbox(const AccountID&) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++kicks_;
    }
    wake_.notify_all();
}

bool OutboxWorker::drainOutbox(const AccountID& account, double maxWait) {
    using Steady = std::chrono::steady_clock;
    auto deadline = Steady::now() + std::chrono::duration_cast<Steady::duration>(
                                        std::chrono::duration<double>(std::max(0.0, maxWait)));
    kickOutbox(account);
    while (true) {
        bool ran = Steady::now() < deadline && runOnce(account);
        if (ran) continue;
        // Items in flight elsewhere (another thread, another worker on the
        // same database) hold back their successors: wait for them too.
        bool busy = false;
        for (const auto& row : store_.outboxItems(account)) {
            busy = busy || row.item.state == OutboxItemState::inFlight;
        }
        std::unique_lock<std::mutex> lock(lock_);
        busy = busy || running_.count(account) != 0;
        if (!busy) {
            lock.unlock();
            if (store_.dueItems(clock_(), account, 1).empty()) return true;
            if (Steady::now() >= deadline) return false;
            continue;
        }
        if (Steady::now() >= deadline) return false;
        idle_.wait_until(lock, std::min(deadline, Steady::now() + std::chrono::milliseconds(20)));
    }
}

Date OutboxWorker::heldUntilReleased() {
    return dateFromSeconds(7258118400.0);  // 2200-01-01
}

OutboxItem OutboxWorker::enqueueSend(const AccountID& account, const OutboxSend& send) {
    return store_.enqueue(account, OutboxOperation::send(send), clock_(), heldUntilReleased());
}

void OutboxWorker::releaseSend(const OutboxItemID& id) {
    auto row = store_.outboxItem(id);
    if (!row) return;
    store_.reschedule(id, clock_());
    kickOutbox(row->item.accountID);
}

OutboxSend OutboxWorker::cancelSend(const OutboxItemID& id, double undoWindow) {
    auto notQueued = [] {
        return MailError::storage(StorageFailureKind::notFound,
                                  std::string(OutboxText::sendNotQueued));
    };
    auto expired = [] {
        return MailError::storage(StorageFailureKind::other,
                                  std::string(OutboxText::undoWindowExpired));
    };
    auto row = store_.outboxItem(id);
    if (!row || !isSend(row->item) || row->item.state == OutboxItemState::failed) throw notQueued();
    if (row->item.state == OutboxItemState::inFlight ||
        clock_() > addSeconds(row->item.createdAt, undoWindow)) {
        throw expired();
    }
    try {
        store_.cancel(id);
    } catch (const MailError& error) {
        if (error.detail() == OutboxText::itemInFlight) throw expired();
        throw notQueued();
    }
    return row->item.operation.sendPayload();
}

}  // namespace mailcore
