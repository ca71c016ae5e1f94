// OAuth 2.0 sign-in for mail accounts: the authorization code grant with
// PKCE (S256), a loopback redirect on 127.0.0.1, and the token endpoint's
// code exchange and refresh over HTTPS.
//
// LoopbackReceiver listens on 127.0.0.1 on a port the system picks, accepts
// exactly one redirect whose `state` matches, answers the browser with a
// page saying the window can be closed, and stops listening. It is used from
// one thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "MailCore/Accounts/AccountRecord.h"
#include "MailCore/Common/Clock.h"

namespace mailcore {

// A PKCE verifier (43 characters of base64url over 32 random bytes), its S256
// challenge, and a random `state` (22 characters).
struct PKCEPair {
    std::string verifier;
    std::string challenge;
    std::string state;

    static PKCEPair generate();
    static std::string challengeFor(const std::string& verifier);
};

// The URL the browser opens.
std::string authorizationURL(const OAuthSettings& settings, const std::string& redirectURI,
                             const PKCEPair& pkce, const std::string& loginHint);

class LoopbackReceiver {
public:
    // Binds 127.0.0.1:0. Throws MailError::network(other, ...) when it cannot.
    LoopbackReceiver();
    ~LoopbackReceiver();
    LoopbackReceiver(const LoopbackReceiver&) = delete;
    LoopbackReceiver& operator=(const LoopbackReceiver&) = delete;

    // "http://127.0.0.1:<port>/callback".
    std::string redirectURI() const;

    // Waits for the redirect carrying `state`; returns its `code`. Requests
    // for other paths or with another state get an error page and the wait
    // goes on. Throws MailError::auth(invalidCredentials, "sign-in was
    // declined: <error>") when the provider redirects with an error, and
    // MailError::network(timeout, "no sign-in within the time allowed") when
    // nothing comes within `timeout`. Listening stops once it returns.
    std::string waitForCode(const std::string& state, std::chrono::seconds timeout);

private:
    int listener_ = -1;
    int port_ = 0;
};

struct OAuthTokens {
    std::string accessToken;
    std::optional<std::string> refreshToken;  // absent when the provider sent none
    Date expiresAt{};
};

struct OAuthHTTPOptions {
    std::optional<std::string> caFile;  // tests: a local token endpoint's anchors
    double timeout = 15;
};

// POSTs the code with its verifier. Throws MailError::auth(invalidCredentials,
// "sign-in was refused: <error>") for an error answer, the HTTPS client's
// errors for a failed exchange, protocolViolation(malformedResponse, ...)
// for an answer without an access token.
OAuthTokens exchangeCode(const OAuthSettings& settings, const std::string& code,
                         const std::string& redirectURI, const std::string& verifier, Date now,
                         const OAuthHTTPOptions& options = {});

// A new access token from the refresh token (and a new refresh token when
// the provider rotates it). An "invalid_grant" answer (the token revoked or
// expired) throws MailError::auth(reauthorizationRequired, "re-authorization
// required"); other failures as exchangeCode.
OAuthTokens refreshAccessToken(const OAuthSettings& settings, const std::string& refreshToken,
                               Date now, const OAuthHTTPOptions& options = {});

// Reads a token endpoint's JSON answer (the part tests and fuzzing reach).
OAuthTokens parseTokenResponse(long status, const std::string& body, Date now);

}  // namespace mailcore
