// SendExecutor: the outbox executor for sends through an account's SMTP
// submission server. Other operations go to the executor it wraps.
//
// A send: the message is built (attachments included, Bcc left out of the
// headers and put in the envelope), submitted through a new SMTP session,
// and then filed in the account's Sent folder unless the account's provider
// files submitted mail by itself. How far it got is kept in the
// SubmissionJournal, so that nothing is ever sent twice:
//   - a failure before the end of the message was written is an ordinary
//     failure (a 4xx or a lost connection is retried, a 5xx is permanent
//     with the server's text; failures while connecting or signing in do
//     not count against the item, as nothing was sent);
//   - a connection lost or timed out after the end of the message, before
//     the reply, is an uncertain send: verifySent then looks for the
//     Message-ID in Sent; without a copy there, and with a provider that
//     does not file sent mail, it cannot tell (unknown), so the item fails
//     with "sent state could not be verified" rather than being resent;
//   - a message the server accepted is never submitted again: a later
//     attempt (after a crash, or after filing in Sent failed) only files it.
// On success the draft the message came from is deleted.
//
// Thread-safe: items on different targets may run on several threads; each
// attempt uses its own sessions.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "MailCore/Common/Clock.h"
#include "MailCore/Engine/OutboxExecutor.h"
#include "MailCore/Engine/SentMailbox.h"
#include "MailCore/Engine/SubmissionJournal.h"
#include "MailCore/SMTP/SMTPSession.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Transport/Certificate.h"

namespace mailcore {

// How an account submits mail.
struct SubmissionAccount {
    ServerEndpoint endpoint;
    SMTPCredentials credentials;
    // The provider stores what is submitted in Sent by itself (no APPEND).
    bool providerFilesSent = false;
    // Trusted beside the platform's anchors for the account's servers.
    std::vector<Certificate> extraAnchors;
};

struct SendServices {
    // The account's submission settings; none when it has no SMTP server.
    std::function<std::optional<SubmissionAccount>(const AccountID&)> account;
    // A new, not yet connected, session to the account's server.
    std::function<std::unique_ptr<SMTPSession>(const SubmissionAccount&)> smtp;
    // The account's Sent folder on its server.
    std::function<std::unique_ptr<SentMailbox>(const AccountID&)> sent;
    // The server refused `secret` (an OAuth access token): when set, it is
    // told so, the account is asked again and the sign-in tried once more.
    std::function<void(const AccountID&, const std::string& secret)> signInRefused;
};

class SendExecutor final : public OutboxExecutor {
public:
    // `others` carries out every item that is not a send through SMTP
    // (other operations, and sends of accounts without an SMTP server).
    SendExecutor(SQLiteMailStore& store, SendServices services, OutboxExecutor& others,
                 Clock clock = systemClock());

    OutboxResult execute(const OutboxItem& item) override;
    SentState verifySent(const OutboxItem& item) override;

    // Called with each item right before the end of its message is written
    // (tests stop the process there).
    void setBeforeEnd(std::function<void(const OutboxItem&)> hook) { beforeEnd_ = std::move(hook); }

private:
    OutboxResult send(const OutboxItem& item, const SubmissionAccount& account);
    // A connected, signed-in session (a refused token refreshed once).
    std::unique_ptr<SMTPSession> signIn(const AccountID& id, const SubmissionAccount& account);
    // Files the submitted message in Sent when the account needs it, then
    // finishes the send locally.
    OutboxResult file(const OutboxItem& item, const SubmissionAccount& account,
                      const std::string& message);

    SQLiteMailStore& store_;
    SubmissionJournal journal_;
    SendServices services_;
    OutboxExecutor& others_;
    Clock clock_;
    std::function<void(const OutboxItem&)> beforeEnd_;
};

// The envelope recipients of a message: To, Cc and Bcc, each address once.
std::vector<std::string> envelopeRecipients(const OutgoingMessage& message);

}  // namespace mailcore
