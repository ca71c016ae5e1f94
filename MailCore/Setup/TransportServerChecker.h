// TransportServerChecker: the ServerChecker over the engine's byte streams.
// It speaks just enough IMAP (greeting, STARTTLS, AUTHENTICATE PLAIN or
// XOAUTH2, LOGOUT) and SMTP (greeting, EHLO, STARTTLS, AUTH PLAIN or
// XOAUTH2, QUIT) to prove that the account can sign in. Nothing it sends or
// receives is logged. Each check uses its own connection; safe to use from
// one thread at a time.
#pragma once

#include "MailCore/Setup/AccountCheck.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class TransportServerChecker final : public ServerChecker {
public:
    // `ehloName`: the name given in EHLO.
    explicit TransportServerChecker(ConnectionTimeouts timeouts = {10, 20, 0, 20, 20},
                                    std::string ehloName = "localhost");

    void checkIMAP(const AccountRecord& account, const LoginSecret& login) override;
    void checkSMTP(const AccountRecord& account, const LoginSecret& login) override;

private:
    ConnectionTimeouts timeouts_;
    std::string ehloName_;
};

// The SASL initial responses (base64): PLAIN "\0login\0password", XOAUTH2
// "user=login\x01auth=Bearer token\x01\x01".
std::string saslResponse(const LoginSecret& login);

}  // namespace mailcore
