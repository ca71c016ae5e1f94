// The application's sends for a server account, as `serve` wires them: the
// account's record and stored password, its CA file, its sent-filing
// setting, against a real Dovecot (IMAP and submission) relaying to the sink.
#include <gtest/gtest.h>

#include <sstream>

#include "AppTestSupport.h"
#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Engine/OutboxWorker.h"
#include "kestrune_app/Host/LocalDelivery.h"
#include "kestrune_app/Host/ServerSending.h"
#include "tests/fakes/DovecotServer.h"
#include "tests/fakes/SMTPSink.h"

namespace kestrune {
namespace {

using namespace mailcore;

TEST(ServerSending, SendsWithTheStoredLoginAndFilesSentOnlyWhenTheProviderDoesNot) {
    testfiles::SMTPSink sink;
    mailcore::testing::DovecotOptions options;
    options.submissionRelayPort = sink.port();
    mailcore::testing::DovecotServer server(options);
    testing::TempDir dir;
    auto store =
        std::make_shared<SQLiteMailStore>(StoreLocation::file((dir.path / "mail.sqlite").string()));

    struct Case {
        std::string tag;
        std::string password;
        bool providerFilesSent;
        std::size_t delivered, filed;
        std::string failure;  // empty: the item is gone
    };
    const std::vector<Case> cases = {
        {"filed", "secret", false, 1, 1, ""},
        {"providerfiles", "secret", true, 1, 0, ""},
        {"refused", "wrong", false, 0, 0, "auth(invalidCredentials)"},
    };
    // The credential store is opened once, at the first send.
    auto secrets = std::make_shared<std::unique_ptr<CredentialStore>>(
        std::make_unique<MemoryCredentialStore>());
    for (const auto& c : cases) {
        AccountRecord account;
        account.id = AccountID(c.tag + "@example.com");
        account.address = "alice@example.com";
        account.imap = server.imapTLSEndpoint();
        account.smtp = server.submissionStartTLSEndpoint();
        account.loginName = "alice";
        account.caFile = server.caPath();
        account.serverFilesSentMail = c.providerFilesSent;
        AccountDirectory(*store).save(account, systemClock()());
        (*secrets)->setSecret(account.id.value, CredentialKind::password, c.password);
    }
    LocalDelivery local(store);
    SendExecutor sender(
        *store, serverSendServices(store, [secrets] { return std::move(*secrets); }), local);
    OutboxWorker worker(*store, sender);

    for (const auto& c : cases) {
        SCOPED_TRACE(c.tag);
        OutgoingMessage m;
        m.messageID = InternetMessageID::normalizing("<" + c.tag + "@example.com>");
        m.from = {{"Alice", "alice@example.com"}};
        m.to = {{"", "bob@example.org"}};
        m.subject = c.tag;
        m.textBody = "Hello.\n";
        const auto id =
            store
                ->enqueue(AccountID(c.tag + "@example.com"),
                          OutboxOperation::send({m, std::nullopt, true}), systemClock()())
                .id;
        worker.runDue();

        std::size_t delivered = 0;
        for (const auto& raw : sink.messages())
            delivered += raw.find("<" + c.tag + "@example.com>") != std::string::npos;
        EXPECT_EQ(delivered, c.delivered);
        std::istringstream filed(server.doveadmOK(
            {"search", "-u", "alice", "mailbox", "Sent", "header", "Message-ID", c.tag + "@"}));
        std::size_t inSent = 0;
        for (std::string line; std::getline(filed, line);) inSent += !line.empty();
        EXPECT_EQ(inSent, c.filed);
        const auto row = store->outboxItem(id);
        EXPECT_EQ(row ? std::string(row->item.lastError->what()).substr(0, c.failure.size())
                      : std::string(),
                  c.failure);
    }
}

}  // namespace
}  // namespace kestrune
