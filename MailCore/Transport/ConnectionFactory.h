// ConnectionFactory: where the account engine obtains whole protocol
// sessions. The production implementation asks a ByteStreamFactory for a
// stream and hands it, with the MIME parser, message builder, SASL response
// builder, MIME limits, EHLO name and an optional protocol trace sink, to a
// new IMAP or SMTP client. IMAPSession and SMTPSession are the interfaces of
// those clients and are defined with them.
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
