#include "MailCore/Engine/AccountRuntime.h"

#include <algorithm>
#include <chrono>

namespace mailcore {
namespace {

using SteadyClock = std::chrono::steady_clock;

std::chrono::steady_clock::duration seconds(double s) {
    return std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(s));
}

// Whether an untagged response during IDLE says the inbox changed.
bool announcesChange(const IMAPResponse& response) {
    if (response.as<IMAPFetchData>() || response.as<IMAPVanishedData>()) return true;
    if (const auto* count = response.as<IMAPMessageCountData>())
        return count->kind != IMAPMessageCountData::Kind::recent;
    return false;
}

}  // namespace

std::string_view describe(AccountSyncState state) {
    switch (state) {
        case AccountSyncState::connecting:
            return "connecting";
        case AccountSyncState::syncing:
            return "syncing";
        case AccountSyncState::idle:
            return "idle";
        case AccountSyncState::offline:
            return "offline";
        case AccountSyncState::needsSignIn:
            return "needs sign-in";
    }
    return "offline";
}

AccountRuntime::AccountRuntime(SQLiteMailStore& store, AccountID account, SessionMaker makeSession,
                               Callbacks callbacks, SyncTuning tuning, RuntimeTiming timing)
    : store_(store),
      account_(std::move(account)),
      makeSession_(std::move(makeSession)),
      callbacks_(std::move(callbacks)),
      tuning_(tuning),
      timing_(timing) {}

AccountRuntime::~AccountRuntime() { stop(); }

void AccountRuntime::start() {
    if (thread_.joinable()) return;
    thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
}

void AccountRuntime::stop() {
    if (!thread_.joinable()) return;
    thread_.request_stop();
    thread_.join();
}

void AccountRuntime::report(AccountSyncState state, std::string detail) {
    if (callbacks_.status) callbacks_.status({state, {}, std::move(detail)});
}

bool AccountRuntime::pause(double s, std::stop_token stop) {
    std::unique_lock<std::mutex> guard(lock_);
    wake_.wait_for(guard, stop, seconds(s), [] { return false; });
    return !stop.stop_requested();
}

void AccountRuntime::run(std::stop_token stop) {
    double backoff = 1;
    while (!stop.stop_requested()) {
        std::unique_ptr<IMAPSession> session;
        try {
            report(AccountSyncState::connecting);
            session = makeSession_();
            backoff = 1;
            serve(*session, stop);
        } catch (const MailError& e) {
            const bool signIn = e.errorCase() == MailError::Case::auth;
            report(signIn ? AccountSyncState::needsSignIn : AccountSyncState::offline, e.detail());
            if (session) session->logout();
            if (!pause(signIn ? timing_.maxBackoff : backoff, stop)) break;
            backoff = std::min(backoff * 2, timing_.maxBackoff);
            continue;
        }
        if (session) session->logout();
    }
}

void AccountRuntime::serve(IMAPSession& session, std::stop_token stop) {
    const auto progress = [this](const FolderProgress& p) {
        if (callbacks_.status) callbacks_.status({AccountSyncState::syncing, p, {}});
    };
    const auto deliver = [this](const std::vector<MessageID>& ids) {
        if (!ids.empty() && callbacks_.newMail) callbacks_.newMail(ids);
    };
    AccountSync sync(store_, account_, tuning_, progress);
    const auto fullSync = [&] {
        report(AccountSyncState::syncing);
        deliver(sync.run(session, SyncDepth::full, stop).newMessages);
    };
    fullSync();
    auto nextFull = SteadyClock::now() + seconds(timing_.fullSyncInterval);
    FolderSync inboxSync(store_, session, tuning_, progress);
    while (!stop.stop_requested()) {
        std::optional<FolderRecord> inbox;
        for (auto& f : store_.folders(account_))
            if (f.role == FolderRole::inbox) inbox = std::move(f);
        if (inbox) {
            // Selects the inbox (for IDLE) and takes in what changed there.
            deliver(inboxSync.sync(*inbox, SyncDepth::full, stop).newMessages);
            report(AccountSyncState::idle);
            std::stop_source idleStop;
            std::stop_callback forward(stop, [&] { idleStop.request_stop(); });
            std::jthread timer([&, deadline = nextFull](std::stop_token timerStop) {
                std::unique_lock<std::mutex> guard(lock_);
                wake_.wait_until(guard, timerStop, deadline, [] { return false; });
                idleStop.request_stop();
            });
            session.idle([](const IMAPResponse& r) { return !announcesChange(r); },
                         idleStop.get_token());
            timer.request_stop();
        } else if (!pause(std::max(1.0, timing_.fullSyncInterval), stop)) {
            return;
        }
        if (!stop.stop_requested() && SteadyClock::now() >= nextFull) {
            fullSync();
            nextFull = SteadyClock::now() + seconds(timing_.fullSyncInterval);
        }
    }
}

}  // namespace mailcore
