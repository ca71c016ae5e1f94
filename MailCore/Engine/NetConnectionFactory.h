// NetConnectionFactory: the production ConnectionFactory. Each session gets
// a new stream from the ByteStreamFactory (implicit TLS or STARTTLS as the
// endpoint says) and a new protocol client around it; nothing is connected
// until the caller calls the session's connect(), and credentials are given
// by the caller to the session's authenticate().
//
// Thread-safe: it holds no mutable state; sessions are independent.
#pragma once

#include <memory>
#include <string>

#include "MailCore/IMAP/IMAPClient.h"
#include "MailCore/Transport/ByteStream.h"
#include "MailCore/Transport/ConnectionFactory.h"

namespace mailcore {

class NetConnectionFactory final : public ConnectionFactory {
public:
    // `trace`, when set, is handed to every client (see IMAPTrace).
    explicit NetConnectionFactory(std::shared_ptr<ByteStreamFactory> streams, IMAPTrace trace = {});

    std::unique_ptr<IMAPSession> makeIMAPSession(const ServerEndpoint& endpoint,
                                                 const ProtocolLimits& limits,
                                                 const ConnectionTimeouts& timeouts) override;
    // Not built here yet: throws unsupportedCapability until the SMTP client
    // is wired in.
    std::unique_ptr<SMTPSession> makeSMTPSession(const ServerEndpoint& endpoint,
                                                 const ProtocolLimits& limits,
                                                 const ConnectionTimeouts& timeouts) override;

private:
    std::shared_ptr<ByteStreamFactory> streams_;
    IMAPTrace trace_;
};

}  // namespace mailcore
