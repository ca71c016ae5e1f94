// SessionServerChecker: the ServerChecker that signs in with the engine's own
// IMAP and SMTP clients, made by the production connection factory over
// streams that trust the account's extra anchors: what works here is what
// the engine will do when it syncs and sends. Each check uses its own
// connection and leaves (LOGOUT, QUIT). Nothing it sends or receives is
// logged. Safe to use from one thread at a time.
#pragma once

#include <string>

#include "MailCore/Setup/AccountCheck.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class SessionServerChecker final : public ServerChecker {
public:
    // `ehloName`: the name given in EHLO.
    explicit SessionServerChecker(ConnectionTimeouts timeouts = {10, 20, 0, 20, 20},
                                  std::string ehloName = "localhost");

    void checkIMAP(const AccountRecord& account, const LoginSecret& login) override;
    void checkSMTP(const AccountRecord& account, const LoginSecret& login) override;

private:
    ConnectionTimeouts timeouts_;
    std::string ehloName_;
};

}  // namespace mailcore
