#include "MailCore/Engine/NetConnectionFactory.h"

#include "MailCore/IMAP/IMAPClient.h"
#include "MailCore/SMTP/SMTPClient.h"

namespace mailcore {

NetConnectionFactory::NetConnectionFactory(std::shared_ptr<ByteStreamFactory> streams,
                                           IMAPTrace trace, std::string ehloName)
    : streams_(std::move(streams)), trace_(std::move(trace)), ehloName_(std::move(ehloName)) {}

std::unique_ptr<IMAPSession> NetConnectionFactory::makeIMAPSession(
    const ServerEndpoint& endpoint, const ProtocolLimits& limits,
    const ConnectionTimeouts& timeouts) {
    return std::make_unique<IMAPClient>(streams_->make(endpoint, timeouts), endpoint, limits,
                                        timeouts, trace_);
}

std::unique_ptr<SMTPSession> NetConnectionFactory::makeSMTPSession(
    const ServerEndpoint& endpoint, const ProtocolLimits& limits,
    const ConnectionTimeouts& timeouts) {
    return std::make_unique<SMTPClient>(streams_->make(endpoint, timeouts), endpoint, limits,
                                        ehloName_);
}

}  // namespace mailcore
