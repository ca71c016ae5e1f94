// AccountRuntime: keeps one account's store in step with its server for as
// long as it runs. On its own thread it signs in (through the session maker
// it was given), syncs the account (the newest mail of every folder first,
// then older mail), and then waits in IDLE on the inbox: whatever the
// server announces there (new mail, expunges, flag changes) is synced at
// once, and every `fullSyncInterval` seconds all folders are checked again.
// A lost connection or a failed sign-in is retried after a growing pause
// (1 s doubling up to `maxBackoff`); the account is reported offline (or as
// needing a sign-in after an authentication refusal) meanwhile.
//
// Thread-safety: start() and stop() from one owner thread; the callbacks run
// on the runtime's thread and must not call back into it.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "MailCore/Engine/AccountSync.h"

namespace mailcore {

enum class AccountSyncState { connecting, syncing, idle, offline, needsSignIn };
// "connecting", "syncing", "idle", "offline", "needs sign-in".
std::string_view describe(AccountSyncState state);

struct AccountStatus {
    AccountSyncState state = AccountSyncState::connecting;
    FolderProgress progress;  // while syncing
    std::string detail;       // why offline or signed out
};

struct RuntimeTiming {
    double fullSyncInterval = 300;
    double maxBackoff = 60;
};

class AccountRuntime {
public:
    // A connected, signed-in session; throws MailError.
    using SessionMaker = std::function<std::unique_ptr<IMAPSession>()>;
    struct Callbacks {
        std::function<void(const std::vector<MessageID>&)> newMail;
        std::function<void(const AccountStatus&)> status;
    };

    AccountRuntime(SQLiteMailStore& store, AccountID account, SessionMaker makeSession,
                   Callbacks callbacks, SyncTuning tuning = {}, RuntimeTiming timing = {});
    ~AccountRuntime();  // stops
    AccountRuntime(const AccountRuntime&) = delete;
    AccountRuntime& operator=(const AccountRuntime&) = delete;

    void start();
    // Ends IDLE and the current batch, and waits for the thread.
    void stop();

private:
    void run(std::stop_token stop);
    void serve(IMAPSession& session, std::stop_token stop);
    void report(AccountSyncState state, std::string detail = {});
    // Waits up to `seconds` or until stopped; false when stopped.
    bool pause(double seconds, std::stop_token stop);

    SQLiteMailStore& store_;
    AccountID account_;
    SessionMaker makeSession_;
    Callbacks callbacks_;
    SyncTuning tuning_;
    RuntimeTiming timing_;
    std::mutex lock_;
    std::condition_variable_any wake_;
    std::jthread thread_;
};

}  // namespace mailcore
