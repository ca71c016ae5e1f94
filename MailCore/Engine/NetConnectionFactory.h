// NetConnectionFactory: the production ConnectionFactory. Each session gets
// a new stream from the ByteStreamFactory (implicit TLS or STARTTLS as the
// endpoint says) and a new protocol client around it; nothing is connected
// until the caller calls the session's connect(), and credentials are given
// by the caller to the session's authenticate().
//
// Thread-safe: it holds no mutable state; sessions are independent.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "MailCore/Transport/ByteStream.h"
#include "MailCore/Transport/ConnectionFactory.h"

namespace mailcore {

// The IMAP client's wire trace (IMAPClient.h), named here so that this
// header can be included beside the store's headers.
using IMAPTrace = std::function<void(bool sent, std::string_view text)>;

class NetConnectionFactory final : public ConnectionFactory {
public:
    // `trace`, when set, is handed to every IMAP client (see IMAPTrace);
    // `ehloName` is the name SMTP sessions give in EHLO.
    explicit NetConnectionFactory(std::shared_ptr<ByteStreamFactory> streams, IMAPTrace trace = {},
                                  std::string ehloName = "localhost");

    std::unique_ptr<IMAPSession> makeIMAPSession(const ServerEndpoint& endpoint,
                                                 const ProtocolLimits& limits,
                                                 const ConnectionTimeouts& timeouts) override;
    std::unique_ptr<SMTPSession> makeSMTPSession(const ServerEndpoint& endpoint,
                                                 const ProtocolLimits& limits,
                                                 const ConnectionTimeouts& timeouts) override;

private:
    std::shared_ptr<ByteStreamFactory> streams_;
    IMAPTrace trace_;
    std::string ehloName_;
};

// What either client signs in with.
struct ServerLogin {
    std::string user;
    // A password, or an OAuth access token obtained by the caller.
    std::string secret;
    bool isOAuthToken = false;
};

// Sign-in checks: a new session from `connections` connects (TLS as the
// endpoint says), signs in with `login` and leaves. Throw the session's
// MailErrors (see IMAPSession and SMTPSession).
void checkIMAPSignIn(ConnectionFactory& connections, const ServerEndpoint& endpoint,
                     const ServerLogin& login, const ConnectionTimeouts& timeouts);
void checkSMTPSignIn(ConnectionFactory& connections, const ServerEndpoint& endpoint,
                     const ServerLogin& login, const ConnectionTimeouts& timeouts);

}  // namespace mailcore
