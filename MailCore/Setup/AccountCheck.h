// Checking an account against its servers: ServerChecker connects to the
// IMAP and the SMTP server (TLS as the account says, with its extra trust
// anchors) and logs in; `checkAccount` runs both and reports each step;
// `explainFailure` turns an engine error into a sentence a person can act on.
#pragma once

#include <functional>
#include <string>

#include "MailCore/Accounts/AccountRecord.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Setup/AccountCredentials.h"

namespace mailcore {

class ServerChecker {
public:
    virtual ~ServerChecker() = default;
    // Each connects, secures the connection, logs in with `login` and
    // leaves. Throws MailError: network, tls (startTLSUnavailable when the
    // server offers no STARTTLS), auth(invalidCredentials, ...) for refused
    // credentials, protocolViolation for a server that does not speak the
    // protocol.
    virtual void checkIMAP(const AccountRecord& account, const LoginSecret& login) = 0;
    virtual void checkSMTP(const AccountRecord& account, const LoginSecret& login) = 0;
};

enum class ServerRole { imap, smtp };

// One sentence for the person: what went wrong with which server and what
// to do, e.g. "The IMAP server imap.example.com:993 refused the user name or
// password: check them (some providers want an app password)."
std::string explainFailure(const MailError& error, ServerRole role, const ServerEndpoint& endpoint,
                           const std::string& passwordNote = "");

struct CheckReport {
    bool imapOK = false;
    bool smtpOK = false;
    bool ok() const { return imapOK && smtpOK; }
};

// Checks the IMAP server, then the SMTP server, calling `say` with one line
// per step ("Connecting to the IMAP server imap.example.com:993 (SSL/TLS)...",
// "IMAP: signed in.", or the failure's sentence). An OAuth token refused by a
// server is refreshed once and tried again.
CheckReport checkAccount(const AccountRecord& account, AccountCredentials& credentials,
                         ServerChecker& checker, const std::function<void(const std::string&)>& say,
                         const std::string& passwordNote = "");

}  // namespace mailcore
