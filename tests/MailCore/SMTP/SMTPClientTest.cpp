#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "MailCore/Common/Base64.h"
#include "MailCore/SMTP/SMTPClient.h"
#include "MailCore/Transport/LoopbackByteStream.h"
#include "tests/fakes/TestFiles.h"

namespace {

using namespace mailcore;
using testfiles::caught;

constexpr const char* fullEHLO =
    "250-mx.test\r\n250-PIPELINING\r\n250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n"
    "250-AUTH PLAIN LOGIN XOAUTH2\r\n250-STARTTLS\r\n250 SIZE 1000\r\n";

// A submission server played over a LoopbackByteStream: default answers,
// replies chosen per command prefix, DATA and BDAT collected.
struct FakeServer {
    std::string greeting = "220 mx.test ESMTP\r\n";
    std::string ehlo = fullEHLO;
    std::map<std::string, std::string> replies;  // command prefix -> reply
    std::string endReply = "250 2.0.0 queued\r\n";
    bool dropAfterEnd = false;

    std::vector<std::string> commands;
    std::string data;
    bool inData = false;
    long bdatLeft = 0;

    void answer(const std::string& line, LoopbackByteStream& s) {
        if (inData) {
            if (line != ".") {
                data += line + "\n";
                return;
            }
            inData = false;
            dropAfterEnd ? s.serverClose() : s.serverSend(endReply);
            return;
        }
        if (bdatLeft > 0) {
            data += line + "\n";
            bdatLeft -= static_cast<long>(line.size()) + 2;
            if (bdatLeft <= 0) dropAfterEnd ? s.serverClose() : s.serverSend(endReply);
            return;
        }
        commands.push_back(line);
        for (const auto& [prefix, reply] : replies) {
            if (line != prefix && (prefix.empty() || line.rfind(prefix, 0) != 0)) continue;
            s.serverSend(reply);
            inData = reply.rfind("354", 0) == 0;
            return;
        }
        if (line.rfind("EHLO", 0) == 0) return s.serverSend(ehlo);
        if (line == "DATA") {
            inData = true;
            return s.serverSend("354 go ahead\r\n");
        }
        if (line.rfind("BDAT ", 0) == 0) bdatLeft = std::stol(line.substr(5));
        if (line.rfind("BDAT ", 0) == 0) return;
        if (line == "QUIT") return s.serverSend("221 bye\r\n");
        if (line.rfind("AUTH ", 0) == 0) return s.serverSend("235 2.7.0 ok\r\n");
        s.serverSend("250 2.0.0 ok\r\n");
    }
};

struct Session {
    FakeServer server;
    LoopbackByteStream* stream = nullptr;
    std::unique_ptr<SMTPClient> client;

    explicit Session(std::function<void(FakeServer&)> setup = {},
                     TransportSecurity security = TransportSecurity::implicitTLS) {
        if (setup) setup(server);
        auto s = std::make_unique<LoopbackByteStream>(0.5);
        stream = s.get();
        stream->serverSend(server.greeting);
        stream->setOnLine(
            [this](const std::string& line, LoopbackByteStream& st) { server.answer(line, st); });
        client =
            std::make_unique<SMTPClient>(std::move(s), ServerEndpoint{"mx.test", 465, security},
                                         ProtocolLimits{}, "client.test");
    }
    SMTPSubmission send(std::vector<std::string> to = {"b@example.com"},
                        const std::string& message = "Subject: hi\n\nline\n.hidden\r\n") {
        client->connect();
        return client->send({"a@example.com", std::move(to)}, message);
    }
    std::optional<MailError> sendError(std::vector<std::string> to = {"b@example.com"},
                                       const std::string& message = "Subject: hi\n\nbody\n") {
        return caught<MailError>([&] { send(std::move(to), message); });
    }
    bool sent(const std::string& prefix) const {
        for (const auto& c : server.commands) {
            if (c.rfind(prefix, 0) == 0) return true;
        }
        return false;
    }
};

TEST(SMTPClient, SubmitsWithPipeliningReportingEachRecipientAndDotStuffing) {
    Session s([](FakeServer& f) { f.replies["RCPT TO:<bad@"] = "550 5.1.1 no such user\r\n"; });
    s.client->connect();
    s.client->authenticate({"joe", "secret", false, std::nullopt});
    const auto result = s.client->send({"a@example.com", {"b@example.com", "bad@example.com"}},
                                       "Subject: hi\n\nline\n.hidden\r\n..two");
    EXPECT_EQ(result.refused(), std::vector<std::string>{"bad@example.com"});
    EXPECT_EQ(result.recipients[1].reply.summary(), "550 5.1.1 no such user");
    EXPECT_EQ(s.server.data, "Subject: hi\n\nline\n..hidden\n...two\n");
    EXPECT_TRUE(s.sent("AUTH PLAIN " + base64Encode(std::string("\0joe\0secret", 11))));
    EXPECT_TRUE(s.sent("MAIL FROM:<a@example.com> SIZE=39"));
}

TEST(SMTPClient, FailuresAreClassifiedWithTheServersText) {
    using C = MailError::Case;
    struct Case {
        std::function<void(FakeServer&)> setup;
        C errorCase;
        int kind;
        std::string detail;
    };
    const std::vector<Case> cases = {
        {[](FakeServer& f) { f.greeting = "554 5.3.2 go away\r\n"; }, C::protocolViolation,
         int(ProtocolIssueKind::commandRejected), "554 5.3.2 go away"},
        {[](FakeServer& f) { f.replies["MAIL"] = "421 4.3.2 shutting down\r\n"; },
         C::protocolViolation, int(ProtocolIssueKind::serverClosed), "421 4.3.2 shutting down"},
        {[](FakeServer& f) { f.replies["RCPT"] = "450 4.2.1 mailbox busy\r\n"; }, C::network,
         int(NetworkFailureKind::other), "450 4.2.1 mailbox busy"},
        {[](FakeServer& f) { f.replies["RCPT"] = "550 5.1.1 unknown\r\n"; }, C::protocolViolation,
         int(ProtocolIssueKind::commandRejected), "550 5.1.1 unknown"},
        {[](FakeServer& f) { f.endReply = "451 4.3.0 try later\r\n"; }, C::network,
         int(NetworkFailureKind::other), "451 4.3.0 try later"},
        {[](FakeServer& f) { f.endReply = "554 5.7.1 spam\r\n"; }, C::protocolViolation,
         int(ProtocolIssueKind::commandRejected), "554 5.7.1 spam"},
        {[](FakeServer& f) { f.dropAfterEnd = true; }, C::network,
         int(NetworkFailureKind::outcomeUnknown), "the message may have been sent"},
        {[](FakeServer& f) { f.endReply = "421 4.4.0 Lost connection to relay server\r\n"; },
         C::network, int(NetworkFailureKind::outcomeUnknown),
         "the message may have been sent (421 4.4.0 Lost connection to relay server)"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Session s(cases[i].setup);
        const auto error = s.sendError();
        ASSERT_TRUE(error) << i;
        EXPECT_EQ(error->errorCase(), cases[i].errorCase) << i << " " << error->what();
        EXPECT_EQ(error->kindValue(), cases[i].kind) << i;
        EXPECT_EQ(error->detail(), cases[i].detail) << i;
    }
}

TEST(SMTPClient, SilentServerAfterTheMessageEndIsAnUncertainSend) {
    Session s([](FakeServer& f) { f.endReply = ""; });
    bool ended = false;
    s.client->connect();
    const auto error = caught<MailError>([&] {
        s.client->send({"a@example.com", {"b@example.com"}}, "x\n", [&] { ended = true; });
    });
    ASSERT_TRUE(error);
    EXPECT_TRUE(ended);
    EXPECT_EQ(error->networkKind(), NetworkFailureKind::outcomeUnknown);
}

TEST(SMTPClient, FallsBackToHELOAndSendsWithoutExtensions) {
    Session s([](FakeServer& f) { f.replies["EHLO"] = "502 5.5.1 what\r\n"; });
    s.send();
    EXPECT_TRUE(s.sent("HELO client.test"));
    EXPECT_TRUE(s.sent("MAIL FROM:<a@example.com>"));
    EXPECT_FALSE(s.sent("MAIL FROM:<a@example.com> SIZE"));
    EXPECT_FALSE(s.client->capabilities().pipelining);
}

TEST(SMTPClient, STARTTLSUpgradesAndGreetsAgain) {
    Session s({}, TransportSecurity::startTLS);
    s.server.replies["STARTTLS"] = "220 2.0.0 go\r\n";
    s.client->connect();
    EXPECT_TRUE(s.stream->didUpgrade());
    EXPECT_EQ(s.stream->upgradeServerName(), "mx.test");
    EXPECT_EQ(s.server.commands,
              (std::vector<std::string>{"EHLO client.test", "STARTTLS", "EHLO client.test"}));

    Session missing([](FakeServer& f) { f.ehlo = "250 mx.test\r\n"; }, TransportSecurity::startTLS);
    auto error = caught<MailError>([&] { missing.client->connect(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->tlsKind(), TLSFailureKind::startTLSUnavailable);

    Session injected({}, TransportSecurity::startTLS);
    injected.server.replies["STARTTLS"] = "220 go\r\n250 injected\r\n";
    error = caught<MailError>([&] { injected.client->connect(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->detail(), "data after the STARTTLS reply");
    EXPECT_FALSE(injected.stream->didUpgrade());
}

TEST(SMTPClient, RefusesBeforeSendingWhatTheServerCannotTake) {
    Session big;
    auto error = big.sendError({"b@example.com"}, std::string(2000, 'x'));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->detail(),
              "The message is 3 kB, larger than the 1 kB the mail server accepts. Remove or "
              "shrink attachments and send it again.");
    EXPECT_FALSE(big.sent("MAIL"));

    Session ascii;
    error = ascii.sendError({"jos\xC3\xA9@example.com"});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCase(), MailError::Case::unsupportedCapability);
    EXPECT_FALSE(ascii.sent("MAIL"));

    Session utf8([](FakeServer& f) { f.ehlo = "250-mx.test\r\n250 SMTPUTF8\r\n"; });
    utf8.send({"jos\xC3\xA9@example.com"});
    EXPECT_TRUE(utf8.sent("MAIL FROM:<a@example.com> SMTPUTF8"));

    Session hostile;
    error = hostile.sendError({"b@example.com>\r\nRCPT TO:<c@example.com"});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->protocolKind(), ProtocolIssueKind::invalidInput);
}

TEST(SMTPClient, AuthenticationMechanismsAndTheirFailures) {
    Session login([](FakeServer& f) {
        f.ehlo = "250-mx.test\r\n250 AUTH LOGIN\r\n";
        f.replies["AUTH LOGIN"] = "334 VXNlcm5hbWU6\r\n";
        f.replies[base64Encode("joe")] = "334 UGFzc3dvcmQ6\r\n";
        f.replies[base64Encode("pw")] = "235 2.7.0 ok\r\n";
    });
    login.client->authenticate({"joe", "pw", false, std::nullopt});
    EXPECT_TRUE(login.sent(base64Encode("pw")));

    Session oauth([](FakeServer& f) {
        f.replies["AUTH XOAUTH2"] = "334 eyJzdGF0dXMiOiI0MDEifQ==\r\n";
        f.replies[""] = "535 5.7.8 token expired\r\n";
    });
    auto error = caught<MailError>([&] {
        oauth.client->authenticate({"joe", "tok", true, std::nullopt});
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->authKind(), AuthFailureKind::reauthorizationRequired);
    EXPECT_TRUE(oauth.sent("AUTH XOAUTH2 " + base64Encode("user=joe\x01"
                                                          "auth=Bearer tok\x01\x01")));

    Session wrong([](FakeServer& f) { f.replies["AUTH PLAIN"] = "535 5.7.8 bad\r\n"; });
    error = caught<MailError>([&] { wrong.client->authenticate({"joe", "x", false, {}}); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->authKind(), AuthFailureKind::invalidCredentials);
    EXPECT_EQ(error->detail(), "535 5.7.8 bad");
}

TEST(SMTPClient, ChunkingSendsOneBDATWithoutDotStuffing) {
    Session s([](FakeServer& f) { f.ehlo = "250-mx.test\r\n250 CHUNKING\r\n"; });
    s.send({"b@example.com"}, "Subject: x\n\n.dot\n");
    EXPECT_TRUE(s.sent("BDAT 20 LAST"));
    EXPECT_FALSE(s.sent("DATA"));
    EXPECT_EQ(s.server.data, "Subject: x\n\n.dot\n");
}

}  // namespace
