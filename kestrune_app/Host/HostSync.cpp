#include "kestrune_app/Host/HostSync.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Credentials/KeyringCredentialStores.h"
#include "MailCore/Engine/AccountSync.h"
#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Setup/AccountCheck.h"
#include "MailCore/Setup/AccountCredentials.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "kestrune_app/Host/HostAccounts.h"

namespace kestrune {

using namespace mailcore;
namespace fs = std::filesystem;

namespace {

struct Failure : HostError {
    explicit Failure(std::string detail) : HostError(Kind::failed, std::move(detail)) {}
};
struct SyncUsageError : HostError {
    explicit SyncUsageError(std::string detail) : HostError(Kind::usage, std::move(detail)) {}
};

using Seconds = std::chrono::duration<double>;
using SteadyClock = std::chrono::steady_clock;

// Seconds between repeated syncs without --once.
constexpr double repeatInterval = 60;

// A signed-in session for the account, an OAuth token refreshed once after
// a refusal.
std::unique_ptr<IMAPSession> signIn(const AccountRecord& account, AccountCredentials& credentials) {
    NetConnectionFactory factory(std::make_shared<SocketByteStreamFactory>(extraAnchors(account)));
    const auto attempt = [&](const LoginSecret& login) {
        auto session = factory.makeIMAPSession(*account.imap, standardProtocolLimits(),
                                               ConnectionTimeouts{20, 60, 25 * 60, 60, 300});
        session->connect();
        session->authenticate({login.loginName, login.secret, login.method == AuthMethod::oauth});
        return session;
    };
    const LoginSecret login = credentials.loginSecret(account);
    try {
        return attempt(login);
    } catch (const MailError& e) {
        if (login.method != AuthMethod::oauth || e.errorCase() != MailError::Case::auth) throw;
        credentials.loginRefused(account, login.secret);
        return attempt(credentials.loginSecret(account));
    }
}

// Each folder's pass as a count of its own on the display.
class FolderProgressView {
public:
    FolderProgressView(ProgressDisplay& display, std::string account)
        : display_(display), account_(std::move(account)) {}

    void operator()(const FolderProgress& p) {
        if (p.folder != folder_ || p.done < lastDone_) {
            folder_ = p.folder;
            display_.start();
        }
        lastDone_ = p.done;
        display_.report(account_, p.folder, p.done, p.total);
    }

private:
    ProgressDisplay& display_;
    std::string account_;
    std::string folder_;
    std::int64_t lastDone_ = 0;
};

// One sync of every chosen account; false when one of them failed.
bool syncOnce(SQLiteMailStore& store, const std::vector<AccountRecord>& accounts,
              AccountCredentials& credentials, const SyncCommandIO& io) {
    bool allOK = true;
    for (const auto& account : accounts) {
        const auto started = SteadyClock::now();
        try {
            auto session = signIn(account, credentials);
            FolderProgressView view(io.progress, account.address);
            const auto report = AccountSync(store, account.id, {}, std::ref(view)).run(*session);
            session->logout();
            io.progress.clear();
            char elapsed[32];
            std::snprintf(elapsed, sizeof elapsed, "%.1f s",
                          Seconds(SteadyClock::now() - started).count());
            io.out(account.address + ": " + groupedNumber(report.added) + " messages added, " +
                   groupedNumber(report.flagUpdates) + " flag changes, " +
                   groupedNumber(report.removed) + " removed, " + std::to_string(report.folders) +
                   " folders (" + elapsed + ").");
        } catch (const MailError& e) {
            io.progress.clear();
            allOK = false;
            io.out(account.address + ": " + explainFailure(e, ServerRole::imap, *account.imap));
        }
    }
    return allOK;
}

}  // namespace

int runSyncCommand(std::vector<std::string> args, const HostPaths& paths, const SyncCommandIO& io) {
    bool once = false;
    std::optional<std::string> address;
    for (const auto& a : args) {
        if (a == "--once")
            once = true;
        else if (a.starts_with("--"))
            throw SyncUsageError("unknown option " + a);
        else if (address)
            throw SyncUsageError("unexpected argument " + a);
        else
            address = a;
    }
    if (!fs::exists(paths.store))
        throw Failure("There is no mail account yet; add one with: kestrune accounts add EMAIL");
    mcpkit::MCPPaths::preparePrivateDirectory(paths.root);
    SQLiteMailStore store(StoreLocation::file(paths.store.string()));
    AccountDirectory directory(store);
    std::vector<AccountRecord> accounts;
    for (auto& a : directory.all())
        if (a.imap && (!address || a.address == *address || a.id.value == *address))
            accounts.push_back(std::move(a));
    if (accounts.empty())
        throw Failure(address ? "There is no server account " + *address +
                                    "; add it with: kestrune accounts add " + *address
                              : "There is no server account to sync; add one with: kestrune "
                                "accounts add EMAIL");
    auto choice = chooseCredentialStore(paths.root / "credentials.json");
    AccountCredentials credentials(directory, *choice.store, systemClock());
    const auto stopped = [&] { return io.stop && io.stop->load(); };
    while (true) {
        const bool ok = syncOnce(store, accounts, credentials, io);
        if (once) return ok ? 0 : 1;
        for (int i = 0; i < static_cast<int>(repeatInterval * 10) && !stopped(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (stopped()) return ok ? 0 : 1;
    }
}

IMAPOutboxExecutor::SessionMaker serverIMAPSessions(std::shared_ptr<SQLiteMailStore> store,
                                                    HostPaths paths) {
    struct Logins {
        std::shared_ptr<SQLiteMailStore> store;
        HostPaths paths;
        std::unique_ptr<AccountDirectory> directory;
        std::mutex lock;
        std::unique_ptr<CredentialStore> secrets;         // guarded by lock until set
        std::unique_ptr<AccountCredentials> credentials;  // guarded by lock until set
    };
    auto logins = std::make_shared<Logins>();
    logins->store = store;
    logins->paths = std::move(paths);
    logins->directory = std::make_unique<AccountDirectory>(*store);
    return [logins](const AccountID& id) -> std::unique_ptr<IMAPSession> {
        const auto account = logins->directory->find(id);
        if (!account || !account->imap) return nullptr;
        {
            std::lock_guard guard(logins->lock);
            if (!logins->credentials) {
                logins->secrets = openCredentialStore(logins->paths);
                logins->credentials = std::make_unique<AccountCredentials>(
                    *logins->directory, *logins->secrets, systemClock());
            }
        }
        return signIn(*account, *logins->credentials);
    };
}

ServeSync::ServeSync(std::shared_ptr<SQLiteMailStore> store, HostPaths paths, Print out,
                     std::function<void()> newMail)
    : store_(std::move(store)),
      paths_(std::move(paths)),
      out_(std::move(out)),
      newMail_(std::move(newMail)) {}

ServeSync::~ServeSync() { stop(); }

void ServeSync::start() {
    directory_ = std::make_unique<AccountDirectory>(*store_);
    std::vector<AccountRecord> accounts;
    for (auto& a : directory_->all())
        if (a.imap) accounts.push_back(std::move(a));
    if (accounts.empty()) return;
    try {
        secrets_ = openCredentialStore(paths_);
    } catch (const std::exception& e) {
        out_(std::string("The mail accounts cannot be synced: their credentials cannot be read (") +
             e.what() + ").");
        return;
    }
    credentials_ = std::make_unique<AccountCredentials>(*directory_, *secrets_, systemClock());
    for (const auto& account : accounts) {
        AccountRuntime::Callbacks callbacks;
        callbacks.newMail = [this](const std::vector<MessageID>&) {
            if (newMail_) newMail_();
        };
        callbacks.status = [this, address = account.address](const AccountStatus& status) {
            show(address, status);
        };
        auto runtime = std::make_unique<AccountRuntime>(
            *store_, account.id,
            [this, account] {
                // The record as it is now (its sign-in state may have changed).
                const auto current = directory_->find(account.id);
                return signIn(current ? *current : account, *credentials_);
            },
            std::move(callbacks));
        runtime->start();
        runtimes_.push_back(std::move(runtime));
    }
}

void ServeSync::stop() {
    for (auto& runtime : runtimes_) runtime->stop();
    runtimes_.clear();
}

void ServeSync::show(const std::string& account, const AccountStatus& status) {
    std::string line = account + ": " + std::string(describe(status.state));
    if (status.state == AccountSyncState::syncing && !status.progress.folder.empty())
        line = account + ": syncing " + status.progress.folder;
    if (!status.detail.empty()) line += " (" + status.detail + ")";
    {
        std::lock_guard guard(lock_);
        if (shown_[account] == line) return;
        shown_[account] = line;
    }
    out_(line);
}

}  // namespace kestrune
