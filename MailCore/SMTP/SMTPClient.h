// SMTPClient: the SMTP submission client over a ByteStream (RFC 5321 with
// the extensions a submission server offers: STARTTLS, AUTH PLAIN, LOGIN,
// XOAUTH2 and OAUTHBEARER, SIZE, 8BITMIME, SMTPUTF8, PIPELINING,
// ENHANCEDSTATUSCODES and CHUNKING). See SMTPSession for how failures are
// classified.
//
// Replies are read through an SMTPReplyParser bounded by the ProtocolLimits;
// read timeouts are the stream's. A failed connection stays failed: every
// later call throws network(connectionLost, "smtp session is closed").
//
// Not thread-safe: one thread uses a client at a time.
#pragma once

#include <memory>
#include <string>

#include "MailCore/SMTP/SMTPReply.h"
#include "MailCore/SMTP/SMTPSession.h"
#include "MailCore/Transport/ByteStream.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class SMTPClient final : public SMTPSession {
public:
    SMTPClient(std::unique_ptr<ByteStream> stream, ServerEndpoint endpoint, ProtocolLimits limits,
               std::string ehloName);
    ~SMTPClient() override;

    void connect() override;
    const SMTPCapabilities& capabilities() const override { return capabilities_; }
    void authenticate(const SMTPCredentials& credentials) override;
    SMTPSubmission send(const SMTPEnvelope& envelope, const std::string& message,
                        const std::function<void()>& beforeEnd = {}) override;
    void quit() override;

private:
    SMTPReply readReply();
    void writeText(const std::string& text);
    SMTPReply command(const std::string& line);
    void hello();
    void startTLS();
    void authExchange(const std::string& mechanism, const std::string& initial,
                      const std::vector<std::string>& answers, const std::string& onChallenge,
                      bool oauth);
    void reset();
    void requireUsable() const;
    // Marks the session dead and rethrows.
    [[noreturn]] void broke(const MailError& error);

    std::unique_ptr<ByteStream> stream_;
    ServerEndpoint endpoint_;
    SMTPReplyParser parser_;
    std::string ehloName_;
    SMTPCapabilities capabilities_;
    bool connected_ = false;
    bool dead_ = false;
};

// The message as DATA carries it: line ends made CR LF, a final line end
// added when missing, lines that start with "." given a second one, and the
// end-of-data line ".\r\n" NOT appended. With `dotStuff` false (BDAT), only
// the line ends are normalised.
std::string smtpTransferForm(const std::string& message, bool dotStuff);

}  // namespace mailcore
