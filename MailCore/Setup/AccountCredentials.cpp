#include "MailCore/Setup/AccountCredentials.h"

#include "MailCore/Common/MailError.h"

namespace mailcore {

AccountCredentials::AccountCredentials(AccountDirectory& accounts, CredentialStore& store,
                                       Clock clock, OAuthHTTPOptions httpOptions)
    : accounts_(accounts),
      store_(store),
      clock_(std::move(clock)),
      httpOptions_(std::move(httpOptions)) {}

LoginSecret AccountCredentials::loginSecret(const AccountRecord& account) {
    LoginSecret login;
    login.method = account.authMethod;
    login.loginName = account.loginName.empty() ? account.address : account.loginName;
    if (account.authMethod == AuthMethod::password) {
        auto password = store_.secret(account.id.value, CredentialKind::password);
        if (!password)
            throw MailError::auth(AuthFailureKind::invalidCredentials,
                                  "no password is stored for the account");
        login.secret = std::move(*password);
        return login;
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto it = cache_.find(account.id.value);
        if (it != cache_.end() && it->second.expiresAt - clock_() > std::chrono::seconds(60)) {
            login.secret = it->second.accessToken;
            return login;
        }
    }
    login.secret = freshAccessToken(account);
    return login;
}

std::string AccountCredentials::freshAccessToken(const AccountRecord& account) {
    const auto reauthorize = [&](const std::string& why) {
        accounts_.setAuthState(account.id, AccountAuthState::reauthorizationRequired, why);
        return MailError::auth(AuthFailureKind::reauthorizationRequired,
                               "re-authorization required");
    };
    if (account.authState == AccountAuthState::reauthorizationRequired)
        throw MailError::auth(AuthFailureKind::reauthorizationRequired,
                              "re-authorization required");
    const auto refreshToken = store_.secret(account.id.value, CredentialKind::oauthRefreshToken);
    if (!refreshToken || !account.oauth) throw reauthorize("no sign-in is stored");
    OAuthTokens tokens;
    try {
        tokens = refreshAccessToken(*account.oauth, *refreshToken, clock_(), httpOptions_);
    } catch (const MailError& e) {
        if (e.errorCase() == MailError::Case::auth &&
            e.authKind() != AuthFailureKind::temporaryFailure)
            throw reauthorize("the provider refused to renew the sign-in");
        throw;
    }
    if (tokens.refreshToken && *tokens.refreshToken != *refreshToken)
        store_.setSecret(account.id.value, CredentialKind::oauthRefreshToken, *tokens.refreshToken);
    std::lock_guard<std::mutex> guard(lock_);
    cache_[account.id.value] = Cached{tokens.accessToken, tokens.expiresAt};
    return tokens.accessToken;
}

void AccountCredentials::loginRefused(const AccountRecord& account, const std::string& secret) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto it = cache_.find(account.id.value);
    if (it != cache_.end() && it->second.accessToken == secret) cache_.erase(it);
}

void AccountCredentials::signedIn(const AccountRecord& account, const OAuthTokens& tokens) {
    if (tokens.refreshToken)
        store_.setSecret(account.id.value, CredentialKind::oauthRefreshToken, *tokens.refreshToken);
    {
        std::lock_guard<std::mutex> guard(lock_);
        cache_[account.id.value] = Cached{tokens.accessToken, tokens.expiresAt};
    }
    if (accounts_.find(account.id)) accounts_.setAuthState(account.id, AccountAuthState::ok);
}

}  // namespace mailcore
