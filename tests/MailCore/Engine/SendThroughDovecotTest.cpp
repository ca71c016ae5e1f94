// Sends through the outbox worker, the production connection factory and a
// real Dovecot: its submission service relays to the aiosmtpd sink, its IMAP
// server holds the Sent folder. What the sink stores and what Sent holds,
// with the sink's faults.
#include <gtest/gtest.h>

#include <sstream>

#include "MailCore/Common/Base64.h"
#include "MailCore/Engine/IMAPSentMailbox.h"
#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Engine/SendExecutor.h"
#include "MailCore/MIME/MessageParser.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "OutboxTestSupport.h"
#include "tests/fakes/DovecotServer.h"
#include "tests/fakes/SMTPSink.h"

namespace mailcore {
namespace {

using testing::at;

ConnectionTimeouts timeouts() { return ConnectionTimeouts{10, 15, 60, 30, 60}; }

struct SendThroughDovecotTest : testing::OutboxFixture {
    testfiles::SMTPSink sink;
    testing::DovecotServer server{[this] {
        testing::DovecotOptions o;
        o.submissionRelayPort = sink.port();
        return o;
    }()};
    std::shared_ptr<ConnectionFactory> factory = std::make_shared<NetConnectionFactory>(
        std::make_shared<SocketByteStreamFactory>(server.trustAnchors()));
    ServerEndpoint submission = server.submissionTLSEndpoint();
    std::unique_ptr<SendExecutor> sender;
    std::unique_ptr<OutboxWorker> worker;

    void SetUp() override {
        OutboxFixture::SetUp();
        SendServices services;
        services.account = [this](const AccountID&) {
            return SubmissionAccount{
                submission, {"alice", "secret", false, std::nullopt}, false, {}};
        };
        services.smtp = [this](const SubmissionAccount& a) {
            return factory->makeSMTPSession(a.endpoint, ProtocolLimits{}, timeouts());
        };
        services.sent = [this](const AccountID&) {
            return makeIMAPSentMailbox(factory, server.imapTLSEndpoint(), {"alice", "secret"},
                                       ProtocolLimits{}, timeouts());
        };
        sender = std::make_unique<SendExecutor>(*store, services, executor, fake.clock());
        worker = std::make_unique<OutboxWorker>(*store, *sender, testing::quietTuning(),
                                                fake.clock(), fake.sleeper(), [] { return 0.5; });
    }
    OutboxItem queue(const std::string& tag) {
        OutgoingMessage m;
        m.messageID = InternetMessageID::normalizing("<" + tag + "@example.com>");
        m.from = {{"Alice", "alice@example.com"}};
        m.to = {{"Bob", "bob@example.org"}};
        m.bcc = {{"", "hidden@example.net"}};
        m.subject = "Report " + tag;
        m.textBody = "The figures.\n.\nA line with a dot.\n";
        m.attachments = {
            {"report.pdf", "application/pdf", std::string("%PDF\0\x01\r\n.", 9), false, {}}};
        store->saveDraft({DraftID(tag), account, m, std::nullopt, at(fake.now())});
        return store->enqueue(account, OutboxOperation::send({m, DraftID(tag), true}),
                              at(fake.now()));
    }
    void runAll() {
        for (int i = 0; i < 12; ++i) {
            worker->runDue();
            fake.advance(4000);
        }
    }
    std::size_t inSink(const std::string& tag) {
        std::size_t n = 0;
        for (const auto& m : sink.messages())
            n += m.find("<" + tag + "@example.com>") != std::string::npos;
        return n;
    }
    std::size_t inSent(const std::string& tag) {
        std::istringstream lines(server.doveadmOK({"search", "-u", "alice", "mailbox", "Sent",
                                                   "header", "Message-ID", tag + "@example.com"}));
        std::size_t n = 0;
        for (std::string line; std::getline(lines, line);) n += !line.empty();
        return n;
    }
};

TEST_F(SendThroughDovecotTest, DeliversOnceAndFilesInSentOverBothKindsOfTLS) {
    for (const auto& endpoint :
         {server.submissionTLSEndpoint(), server.submissionStartTLSEndpoint()}) {
        submission = endpoint;
        const std::string tag = "tls" + std::to_string(endpoint.port);
        const auto id = queue(tag).id;
        runAll();
        EXPECT_EQ(summary(id), "gone");
        ASSERT_EQ(inSink(tag), 1u);
        EXPECT_EQ(inSent(tag), 1u);
        EXPECT_FALSE(store->draft(DraftID(tag)));
    }
    // What arrived is what was queued: recipients in the envelope (Bcc only
    // there), subject, body and attachment.
    const auto envelope = sink.envelopes().back();
    EXPECT_EQ(envelope.at("to"), Json::parse(R"(["bob@example.org", "hidden@example.net"])"));
    const std::string raw = sink.messages().back();
    const auto parsed = MessageParser().parse(raw);
    EXPECT_EQ(parsed.subject, "Report tls" + std::to_string(submission.port));
    EXPECT_EQ(raw.find("hidden@"), std::string::npos);
    EXPECT_NE(parsed.text.find("The figures.\n.\nA line with a dot."), std::string::npos);
    ASSERT_EQ(parsed.attachments.size(), 1u);
    EXPECT_EQ(parsed.attachments[0].filename, "report.pdf");
    EXPECT_EQ(parsed.attachments[0].size, 9);
    EXPECT_NE(raw.find(base64Encode(std::string("%PDF\0\x01\r\n.", 9))), std::string::npos);
}

TEST_F(SendThroughDovecotTest, SinkFaultsNeverGiveTwoCopies) {
    struct Case {
        std::string tag;
        const char* faults;
        std::size_t copies;
        std::string outcome;  // "gone", or a part of the failed item's error
    };
    const std::vector<Case> cases = {
        // Dovecot answers 421 when its relay drops after the end: the sink
        // holds the message, the copy in Sent is missing and cannot prove
        // anything, so it is never sent again.
        {"drop", R"([{"stage": "data", "drop": true}])", 1, "sent state could not be verified"},
        {"reject", R"([{"stage": "data", "reply": "554 5.7.1 Rejected as spam"}])", 0,
         "5.7.1 Rejected as spam"},
        {"busyrcpt", R"([{"stage": "rcpt", "reply": "451 4.3.0 Try later"}])", 1, "gone"},
        {"busydata", R"([{"stage": "data", "reply": "451 4.3.0 Try later"}])", 1, "gone"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tag);
        sink.setFaults(Json::parse(c.faults));
        const auto id = queue(c.tag).id;
        runAll();
        EXPECT_EQ(inSink(c.tag), c.copies);
        const auto row = store->outboxItem(id);
        const std::string outcome = row ? row->item.lastError->what() : "gone";
        EXPECT_NE(outcome.find(c.outcome), std::string::npos) << outcome;
        // Filed in Sent exactly when it went out; otherwise still a draft.
        EXPECT_EQ(inSent(c.tag), outcome == "gone" ? 1u : 0u);
        EXPECT_EQ(store->draft(DraftID(c.tag)).has_value(), outcome != "gone");
        if (row) store->cancel(id);
    }
}

}  // namespace
}  // namespace mailcore
