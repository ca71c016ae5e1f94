#include "MailCore/Setup/SessionServerChecker.h"

#include <memory>

#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Transport/SocketTLSTransport.h"

namespace mailcore {
namespace {

NetConnectionFactory connections(const AccountRecord& account, const std::string& ehloName) {
    return NetConnectionFactory(std::make_shared<SocketByteStreamFactory>(extraAnchors(account)),
                                {}, ehloName);
}

ServerLogin serverLogin(const LoginSecret& login) {
    return {login.loginName, login.secret, login.method == AuthMethod::oauth};
}

}  // namespace

SessionServerChecker::SessionServerChecker(ConnectionTimeouts timeouts, std::string ehloName)
    : timeouts_(timeouts), ehloName_(std::move(ehloName)) {}

void SessionServerChecker::checkIMAP(const AccountRecord& account, const LoginSecret& login) {
    auto factory = connections(account, ehloName_);
    checkIMAPSignIn(factory, *account.imap, serverLogin(login), timeouts_);
}

void SessionServerChecker::checkSMTP(const AccountRecord& account, const LoginSecret& login) {
    auto factory = connections(account, ehloName_);
    checkSMTPSignIn(factory, *account.smtp, serverLogin(login), timeouts_);
}

}  // namespace mailcore
