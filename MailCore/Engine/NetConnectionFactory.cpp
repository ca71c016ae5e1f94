#include "MailCore/Engine/NetConnectionFactory.h"

#include "MailCore/Common/MailError.h"

namespace mailcore {

NetConnectionFactory::NetConnectionFactory(std::shared_ptr<ByteStreamFactory> streams,
                                           IMAPTrace trace)
    : streams_(std::move(streams)), trace_(std::move(trace)) {}

std::unique_ptr<IMAPSession> NetConnectionFactory::makeIMAPSession(
    const ServerEndpoint& endpoint, const ProtocolLimits& limits,
    const ConnectionTimeouts& timeouts) {
    return std::make_unique<IMAPClient>(streams_->make(endpoint, timeouts), endpoint, limits,
                                        timeouts, trace_);
}

std::unique_ptr<SMTPSession> NetConnectionFactory::makeSMTPSession(const ServerEndpoint&,
                                                                   const ProtocolLimits&,
                                                                   const ConnectionTimeouts&) {
    throw MailError::unsupportedCapability("SMTP sessions are not available");
}

}  // namespace mailcore
