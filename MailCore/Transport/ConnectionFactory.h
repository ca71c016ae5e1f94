// ConnectionFactory: where the account engine obtains whole protocol
// sessions, one new connection each. A session comes back not yet
// connected: the caller connects it and signs in with the account's
// credentials. The production implementation, NetConnectionFactory
// (MailCore/Engine), asks a ByteStreamFactory for a stream and hands it to a
// new IMAP or SMTP client. IMAPSession (MailCore/IMAP/IMAPSession.h) and
// SMTPSession are the interfaces of those clients and are defined with them.
#pragma once

#include <memory>

#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class IMAPSession;
class SMTPSession;

class ConnectionFactory {
public:
    virtual ~ConnectionFactory() = default;

    virtual std::unique_ptr<IMAPSession> makeIMAPSession(const ServerEndpoint& endpoint,
                                                         const ProtocolLimits& limits,
                                                         const ConnectionTimeouts& timeouts) = 0;
    virtual std::unique_ptr<SMTPSession> makeSMTPSession(const ServerEndpoint& endpoint,
                                                         const ProtocolLimits& limits,
                                                         const ConnectionTimeouts& timeouts) = 0;
};

}  // namespace mailcore
