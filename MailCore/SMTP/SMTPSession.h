// SMTPSession: the interface of the SMTP submission client, and the values
// it takes and gives. The account engine obtains sessions through the
// ConnectionFactory; tests may implement the interface with a fake.
//
// One session is one connection, used by one thread at a time. A session may
// submit several messages one after another.
//
// How failures are told apart (every failure is a MailError; the server's
// reply, when there is one, is kept in the detail as "550 5.1.1 text"):
//   before the message's end was written   nothing was delivered.
//       A 5xx reply is protocolViolation(commandRejected) (authentication:
//       auth(invalidCredentials)), permanent; a 421 is
//       protocolViolation(serverClosed) and a 4xx network(other) (a 454 to
//       AUTH: auth(temporaryFailure)), both worth retrying; network and TLS
//       failures are as the stream reports them.
//   after the message's end, with no reply or a 421  the outcome is
//       unknown: network(outcomeUnknown, "the message may have been sent").
//       (A submission server answers 421 when it lost its relay, which may
//       have taken the message.)
//   after the message's end, with another reply  a 4xx or 5xx says the
//       server refused the message, as above.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/SMTP/SMTPReply.h"

namespace mailcore {

// What the server offers after EHLO (nothing after a HELO fallback).
struct SMTPCapabilities {
    bool extended = false;  // EHLO was accepted
    bool startTLS = false;
    bool pipelining = false;
    bool eightBitMIME = false;
    bool smtpUTF8 = false;
    bool enhancedStatusCodes = false;
    bool chunking = false;
    std::optional<std::int64_t> maxSize;      // SIZE with a limit; 0 or none: no limit
    std::vector<std::string> authMechanisms;  // upper case

    bool offersAuth(const std::string& mechanism) const;
    // From the EHLO reply: its lines after the first are the keywords.
    static SMTPCapabilities fromEHLO(const SMTPReply& reply);
};

enum class SMTPAuthMechanism { plain, login, xoauth2, oauthBearer };

struct SMTPCredentials {
    std::string user;
    // A password, or an OAuth access token obtained by the caller.
    std::string secret;
    bool isOAuthToken = false;
    // None: PLAIN (else LOGIN) for a password, OAUTHBEARER (else XOAUTH2) for
    // a token, whichever the server offers.
    std::optional<SMTPAuthMechanism> mechanism;
};

struct SMTPEnvelope {
    std::string from;                     // the reverse path; may be empty
    std::vector<std::string> recipients;  // one RCPT TO each
};

struct SMTPRecipientResult {
    std::string address;
    bool accepted = false;
    SMTPReply reply;
};

struct SMTPSubmission {
    std::vector<SMTPRecipientResult> recipients;
    SMTPReply finalReply;  // the reply to the message's end
    std::vector<std::string> refused() const;
};

class SMTPSession {
public:
    virtual ~SMTPSession() = default;

    // Opens the connection: greeting, EHLO (HELO when EHLO is refused) and,
    // for a STARTTLS endpoint, the upgrade and a second EHLO.
    virtual void connect() = 0;
    virtual const SMTPCapabilities& capabilities() const = 0;
    virtual void authenticate(const SMTPCredentials& credentials) = 0;
    // Submits `message` (RFC 5322 text; line ends are normalised to CR LF)
    // to the envelope's recipients. Recipients the server refuses are listed
    // in the result as long as one is accepted; when none is, the first
    // refusal is thrown. `beforeEnd`, when given, runs right before the
    // message's end is written: from then on the outcome may be unknown.
    virtual SMTPSubmission send(const SMTPEnvelope& envelope, const std::string& message,
                                const std::function<void()>& beforeEnd = {}) = 0;
    // QUIT and close; never throws.
    virtual void quit() = 0;
};

// The MailError a reply stands for, as described above.
MailError smtpReplyError(const SMTPReply& reply, bool toAuth = false);

}  // namespace mailcore
