// `kestrune sync [EMAIL] [--once]`: the accounts' server mail brought into
// the store in the foreground. With --once every folder is synced once and
// the command ends; without it the sync repeats until the stop flag is set.
//
// Progress (account, folder, messages done of total, rate, time left) goes
// to the caller's ProgressDisplay, a new count for every folder.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MailCore/Accounts/CredentialStore.h"
#include "MailCore/Engine/AccountRuntime.h"
#include "MailCore/Engine/IMAPOutboxExecutor.h"
#include "MailCore/Setup/AccountCredentials.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/ProgressDisplay.h"

namespace kestrune {

struct SyncCommandIO {
    std::function<void(const std::string&)> out;  // whole lines
    ProgressDisplay& progress;
    const std::atomic<bool>* stop = nullptr;
};

// Runs `sync` with the arguments after the command word. Returns the exit
// status (1 when an account could not be synced); throws HostError usage
// for a mistake on the command line, failed when there is nothing to sync.
int runSyncCommand(std::vector<std::string> args, const HostPaths& paths, const SyncCommandIO& io);

// Signed-in IMAP sessions for the store's server accounts, nothing for the
// others (the outbox's IMAP executor uses them). The credential store is
// opened at the first sign-in. Thread-safe.
mailcore::IMAPOutboxExecutor::SessionMaker serverIMAPSessions(
    std::shared_ptr<mailcore::SQLiteMailStore> store, HostPaths paths);

// The sync of every server account while `serve` runs: one AccountRuntime
// each (sign-in, sync, IDLE on the inbox, reconnection), one status line per
// account whenever its state changes ("ada@example.org: idle",
// "ada@example.org: syncing INBOX 250 of 20,000", "...: offline (...)",
// "...: needs sign-in"), and `newMail` called after mail arrived. Accounts
// excluded from agents are synced too. The credential store is opened only
// when there is a server account.
class ServeSync {
public:
    using Print = std::function<void(const std::string&)>;

    ServeSync(std::shared_ptr<mailcore::SQLiteMailStore> store, HostPaths paths, Print out,
              std::function<void()> newMail);
    ~ServeSync();
    ServeSync(const ServeSync&) = delete;
    ServeSync& operator=(const ServeSync&) = delete;

    void start();
    void stop();

private:
    void show(const std::string& account, const mailcore::AccountStatus& status);

    std::shared_ptr<mailcore::SQLiteMailStore> store_;
    HostPaths paths_;
    Print out_;
    std::function<void()> newMail_;
    std::unique_ptr<mailcore::AccountDirectory> directory_;
    std::unique_ptr<mailcore::CredentialStore> secrets_;
    std::unique_ptr<mailcore::AccountCredentials> credentials_;
    std::vector<std::unique_ptr<mailcore::AccountRuntime>> runtimes_;
    std::mutex lock_;
    std::map<std::string, std::string> shown_;  // guarded by lock_: the last line per account
};

}  // namespace kestrune
