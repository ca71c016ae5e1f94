#include "kestrune_app/Host/ServerSending.h"

#include <mutex>

#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Engine/IMAPSentMailbox.h"
#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Setup/AccountCredentials.h"
#include "MailCore/Transport/SocketTLSTransport.h"

namespace kestrune {

using namespace mailcore;

namespace {

// The accounts' records and the credentials they sign in with; the
// credential store is opened on first use.
class AccountLogins {
public:
    AccountLogins(std::shared_ptr<SQLiteMailStore> store,
                  std::function<std::unique_ptr<CredentialStore>()> open)
        : store_(std::move(store)), directory_(*store_), open_(std::move(open)) {}

    std::optional<AccountRecord> serverAccount(const AccountID& id) {
        auto account = AccountDirectory(*store_).find(id);
        if (!account || !account->isServerAccount()) return std::nullopt;
        return account;
    }
    AccountRecord require(const AccountID& id) {
        auto account = serverAccount(id);
        if (!account)
            throw MailError::storage(StorageFailureKind::notFound,
                                     std::string(OutboxText::accountNotFound));
        return *account;
    }
    LoginSecret login(const AccountRecord& account) { return credentials().loginSecret(account); }
    void refused(const AccountRecord& account, const std::string& secret) {
        credentials().loginRefused(account, secret);
    }

private:
    AccountCredentials& credentials() {
        std::lock_guard guard(lock_);
        if (!credentials_) {
            secrets_ = open_();
            credentials_ =
                std::make_unique<AccountCredentials>(directory_, *secrets_, systemClock());
        }
        return *credentials_;
    }

    std::shared_ptr<SQLiteMailStore> store_;
    AccountDirectory directory_;
    std::function<std::unique_ptr<CredentialStore>()> open_;
    std::mutex lock_;
    std::unique_ptr<CredentialStore> secrets_;         // guarded by lock_ until set
    std::unique_ptr<AccountCredentials> credentials_;  // guarded by lock_ until set
};

std::shared_ptr<ConnectionFactory> connections(std::vector<Certificate> anchors) {
    return std::make_shared<NetConnectionFactory>(
        std::make_shared<SocketByteStreamFactory>(std::move(anchors)));
}

}  // namespace

SendServices serverSendServices(std::shared_ptr<SQLiteMailStore> store,
                                std::function<std::unique_ptr<CredentialStore>()> openCredentials,
                                ConnectionTimeouts timeouts) {
    auto logins = std::make_shared<AccountLogins>(std::move(store), std::move(openCredentials));
    SendServices services;
    services.account = [logins](const AccountID& id) -> std::optional<SubmissionAccount> {
        const auto account = logins->serverAccount(id);
        if (!account) return std::nullopt;
        const LoginSecret login = logins->login(*account);
        SubmissionAccount out;
        out.endpoint = *account->smtp;
        out.credentials = {login.loginName, login.secret, login.method == AuthMethod::oauth,
                           std::nullopt};
        out.providerFilesSent = account->serverFilesSentMail;
        out.extraAnchors = extraAnchors(*account);
        return out;
    };
    services.smtp = [timeouts](const SubmissionAccount& account) {
        return connections(account.extraAnchors)
            ->makeSMTPSession(account.endpoint, ProtocolLimits{}, timeouts);
    };
    services.sent = [logins, timeouts](const AccountID& id) {
        const AccountRecord account = logins->require(id);
        const LoginSecret login = logins->login(account);
        return makeIMAPSentMailbox(
            connections(extraAnchors(account)), *account.imap,
            {login.loginName, login.secret, login.method == AuthMethod::oauth}, ProtocolLimits{},
            timeouts);
    };
    services.signInRefused = [logins](const AccountID& id, const std::string& secret) {
        if (const auto account = logins->serverAccount(id)) logins->refused(*account, secret);
    };
    return services;
}

}  // namespace kestrune
