// AccountCredentials: what an account presents to its servers — its
// password, or an OAuth access token kept fresh from the refresh token in
// the credential store. The engine asks it before every IMAP or SMTP login
// and tells it when a server refused the token.
//
// Access tokens live in memory only. A token is refreshed when less than
// a minute of its life is left, and once more after a server refused it; a
// refresh the provider refuses marks the account "re-authorization
// required" in the account directory.
//
// Thread-safety: all state is guarded by lock_, which is not held during a
// refresh's HTTPS exchange (two threads may refresh at once; the later
// result wins).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Accounts/CredentialStore.h"
#include "MailCore/Setup/OAuthFlow.h"

namespace mailcore {

// What one login presents: the login name with a password, or with an
// access token (SASL XOAUTH2 / OAUTHBEARER).
struct LoginSecret {
    AuthMethod method = AuthMethod::password;
    std::string loginName;
    std::string secret;
};

class AccountCredentials {
public:
    // `httpOptions` bound the refresh exchanges (tests name a local token
    // endpoint's trust anchors there).
    AccountCredentials(AccountDirectory& accounts, CredentialStore& store, Clock clock,
                       OAuthHTTPOptions httpOptions = {});

    // Throws MailError::auth(invalidCredentials, "no password is stored for
    // the account") or auth(reauthorizationRequired, "re-authorization
    // required") when nothing usable is stored, the refresh's errors
    // otherwise.
    LoginSecret loginSecret(const AccountRecord& account);

    // A server refused `secret`: the next loginSecret refreshes an OAuth
    // token once; a second refusal of a fresh token is for the caller to
    // report.
    void loginRefused(const AccountRecord& account, const std::string& secret);

    // Tokens of a new sign-in: the refresh token goes to the store, the
    // access token into memory; the account's state becomes ok.
    void signedIn(const AccountRecord& account, const OAuthTokens& tokens);

private:
    struct Cached {
        std::string accessToken;
        Date expiresAt{};
    };
    std::string freshAccessToken(const AccountRecord& account);

    AccountDirectory& accounts_;
    CredentialStore& store_;
    Clock clock_;
    OAuthHTTPOptions httpOptions_;
    std::mutex lock_;
    std::map<std::string, Cached> cache_;  // guarded by lock_
};

}  // namespace mailcore
