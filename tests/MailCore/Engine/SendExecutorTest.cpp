// The send executor under the real outbox worker and store, with a fake SMTP
// session and a fake Sent folder, for what the real servers of
// SendThroughDovecotTest cannot be made to show: a stop between the end of
// the message and its reply, a provider that files sent mail itself, and a
// refused OAuth token.
#include <gtest/gtest.h>

#include "MailCore/Engine/SendExecutor.h"
#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;

// What the fake server does with each submission, in order (then "ok"):
// "ok", "drop" (the end is written, no reply: the message did arrive), or
// an error thrown before the end.
struct FakeSubmission {
    std::deque<std::variant<std::string, MailError>> script;
    std::vector<std::pair<SMTPEnvelope, std::string>> delivered;
    std::string refusedSecret = "expired";
};

class FakeSMTP final : public SMTPSession {
public:
    explicit FakeSMTP(FakeSubmission& server) : server_(server) {}
    void connect() override {}
    const SMTPCapabilities& capabilities() const override { return caps_; }
    void authenticate(const SMTPCredentials& credentials) override {
        if (credentials.secret == server_.refusedSecret)
            throw MailError::auth(AuthFailureKind::invalidCredentials, "535 5.7.8 refused");
    }
    SMTPSubmission send(const SMTPEnvelope& envelope, const std::string& message,
                        const std::function<void()>& beforeEnd) override {
        std::variant<std::string, MailError> step = std::string("ok");
        if (!server_.script.empty()) {
            step = server_.script.front();
            server_.script.pop_front();
        }
        if (auto* error = std::get_if<MailError>(&step)) throw *error;
        if (beforeEnd) beforeEnd();
        server_.delivered.push_back({envelope, message});
        if (std::get<std::string>(step) == "drop")
            throw MailError::network(NetworkFailureKind::outcomeUnknown, "lost");
        return {};
    }
    void quit() override {}

private:
    FakeSubmission& server_;
    SMTPCapabilities caps_;
};

struct FakeSent final : SentMailbox {
    std::vector<std::string>* folder;
    int* failAppends;
    void append(const std::string& message) override {
        if (*failAppends > 0) {
            --*failAppends;
            throw MailError::network(NetworkFailureKind::connectionLost, "connection lost");
        }
        folder->push_back(message);
    }
    bool contains(const InternetMessageID& id) override {
        for (const auto& m : *folder) {
            if (m.find("Message-ID: <" + id.value() + ">") != std::string::npos) return true;
        }
        return false;
    }
};

struct SendExecutorTest : testing::OutboxFixture {
    FakeSubmission server;
    std::vector<std::string> sentFolder;
    int failAppends = 0;
    bool providerFiles = false;
    std::string token = "fresh";
    std::vector<std::string> refusals;
    std::unique_ptr<SendExecutor> sender;
    std::unique_ptr<OutboxWorker> worker;

    void SetUp() override {
        OutboxFixture::SetUp();
        start();
    }
    void start() {
        SendServices services;
        services.account = [this](const AccountID&) {
            return SubmissionAccount{{"smtp.test", 465, TransportSecurity::implicitTLS},
                                     {"joe", token, true, std::nullopt},
                                     providerFiles,
                                     {}};
        };
        services.signInRefused = [this](const AccountID&, const std::string& secret) {
            refusals.push_back(secret);
            token = "fresh";
        };
        services.smtp = [this](const SubmissionAccount&) {
            return std::make_unique<FakeSMTP>(server);
        };
        services.sent = [this](const AccountID&) {
            auto sent = std::make_unique<FakeSent>();
            sent->folder = &sentFolder;
            sent->failAppends = &failAppends;
            return sent;
        };
        sender = std::make_unique<SendExecutor>(*store, services, executor, fake.clock());
        worker = std::make_unique<OutboxWorker>(*store, *sender, testing::quietTuning(),
                                                fake.clock(), fake.sleeper(), [] { return 0.5; });
    }
    OutboxItem queue() {
        OutgoingMessage m;
        m.messageID = InternetMessageID::normalizing("<one@example.com>");
        m.from = {{"Joe", "joe@example.com"}};
        m.to = {{"", "ann@example.com"}};
        m.cc = {{"", "Ann@example.com"}};
        m.bcc = {{"", "hidden@example.com"}};
        m.subject = "Report";
        m.textBody = "See attached.\n";
        m.attachments = {
            {"report.pdf", "application/pdf", std::string("%PDF\0\x01", 6), false, {}}};
        DraftRecord draft{DraftID("d1"), account, m, std::nullopt, at(fake.now())};
        store->saveDraft(draft);
        return store->enqueue(account, OutboxOperation::send({m, DraftID("d1"), true}),
                              at(fake.now()));
    }
    // Runs whatever is due, moving the clock past every retry delay.
    void runAll() {
        for (int i = 0; i < 20; ++i) {
            worker->runDue();
            fake.advance(4000);
        }
    }
};

TEST_F(SendExecutorTest, AProviderThatFilesSentProvesAnUnknownOutcome) {
    providerFiles = true;
    server.script = {std::string("drop")};
    queue();
    worker->runOnce();  // dropped; not in Sent (the provider filed nothing): not sent
    EXPECT_TRUE(sentFolder.empty());
    runAll();
    EXPECT_EQ(server.delivered.size(), 2u);
}

TEST_F(SendExecutorTest, AcceptedMessageIsOnlyFiledOnLaterAttemptsAndAfterACrash) {
    failAppends = 1;
    const auto id = queue().id;
    worker->runOnce();
    EXPECT_EQ(server.delivered.size(), 1u);
    EXPECT_TRUE(sentFolder.empty());
    ASSERT_TRUE(store->outboxItem(id));
    runAll();
    EXPECT_EQ(server.delivered.size(), 1u);
    EXPECT_EQ(sentFolder.size(), 1u);

    // Stopped right after the end was written, then launched again: the
    // journal says the outcome is unknown; a copy in Sent settles it.
    sentFolder.clear();
    struct Killed {};  // not an exception the worker handles: the item stays in flight
    sender->setBeforeEnd([](const OutboxItem&) { throw Killed{}; });
    const auto second = queue().id;
    EXPECT_THROW(worker->runOnce(), Killed);
    worker.reset();
    sender.reset();
    reopen();
    start();
    sentFolder.push_back("Message-ID: <one@example.com>\r\n\r\n");
    EXPECT_EQ(worker->recoverAtLaunch().heldSends, 1u);
    runAll();
    EXPECT_EQ(server.delivered.size(), 1u);
    EXPECT_FALSE(store->outboxItem(second));
}

TEST_F(SendExecutorTest, ARefusedTokenIsRenewedOnceAndASecondRefusalIsPermanent) {
    token = "expired";
    const auto first = queue().id;
    runAll();
    EXPECT_EQ(refusals, std::vector<std::string>{"expired"});
    EXPECT_EQ(summary(first), "gone");
    EXPECT_EQ(server.delivered.size(), 1u);

    server.refusedSecret = "fresh";  // the renewed token is refused as well
    const auto second = queue().id;
    runAll();
    EXPECT_EQ(refusals.size(), 2u);
    EXPECT_EQ(server.delivered.size(), 1u);
    EXPECT_EQ(std::string(store->outboxItem(second)->item.lastError->what()),
              "auth(invalidCredentials): 535 5.7.8 refused");
}

}  // namespace
}  // namespace mailcore
