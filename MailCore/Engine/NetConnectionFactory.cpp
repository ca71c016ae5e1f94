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

void checkIMAPSignIn(ConnectionFactory& connections, const ServerEndpoint& endpoint,
                     const ServerLogin& login, const ConnectionTimeouts& timeouts) {
    auto session = connections.makeIMAPSession(endpoint, ProtocolLimits{}, timeouts);
    try {
        session->connect();
        if (!session->isAuthenticated())
            session->authenticate({login.user, login.secret, login.isOAuthToken});
    } catch (const MailError&) {
        session->logout();
        throw;
    }
    session->logout();
}

void checkSMTPSignIn(ConnectionFactory& connections, const ServerEndpoint& endpoint,
                     const ServerLogin& login, const ConnectionTimeouts& timeouts) {
    auto session = connections.makeSMTPSession(endpoint, ProtocolLimits{}, timeouts);
    try {
        session->connect();
        session->authenticate({login.user, login.secret, login.isOAuthToken, std::nullopt});
    } catch (const MailError&) {
        session->quit();
        throw;
    }
    session->quit();
}

}  // namespace mailcore
