// The account check's sign-in against a real Dovecot (IMAP and submission),
// trusting the test CA through the account's CA file.
#include <gtest/gtest.h>

#include "MailCore/Setup/SessionServerChecker.h"
#include "tests/fakes/DovecotServer.h"
#include "tests/fakes/SMTPSink.h"

namespace mailcore {
namespace {

TEST(SessionServerChecker, SignsInOverBothKindsOfTLSAndTellsRefusalsApart) {
    testing::DovecotOptions options;
    options.submissionRelayPort = testfiles::freeLoopbackPort();  // never reached by a sign-in
    testing::DovecotServer server(options);
    struct Case {
        ServerEndpoint imap, smtp;
        std::string caFile;
        std::string password;
        std::string failure;  // "" when both sign in; else the kind both fail with
    };
    const std::vector<Case> cases = {
        {server.imapTLSEndpoint(), server.submissionTLSEndpoint(), server.caPath(), "secret", ""},
        {server.imapStartTLSEndpoint(), server.submissionStartTLSEndpoint(), server.caPath(),
         "secret", ""},
        {server.imapTLSEndpoint(), server.submissionTLSEndpoint(), server.caPath(), "wrong",
         "auth"},
        // Without the test CA, neither server is trusted.
        {server.imapTLSEndpoint(), server.submissionStartTLSEndpoint(), "", "secret", "tls"},
    };
    SessionServerChecker checker;
    for (const auto& c : cases) {
        AccountRecord account;
        account.imap = c.imap;
        account.smtp = c.smtp;
        if (!c.caFile.empty()) account.caFile = c.caFile;
        const LoginSecret login{AuthMethod::password, "alice", c.password};
        for (const auto& check :
             {&SessionServerChecker::checkIMAP, &SessionServerChecker::checkSMTP}) {
            std::string failure;
            try {
                (checker.*check)(account, login);
            } catch (const MailError& error) {
                failure = std::string(rawValue(error.errorCase()));
            }
            EXPECT_EQ(failure, c.failure) << c.imap.port << " " << c.password;
        }
    }
}

}  // namespace
}  // namespace mailcore
