// The IMAP client against scripted servers, for what Dovecot does not do:
// LOGINDISABLED and LOGIN, OAuth mechanisms, STARTTLS missing, synchronising
// literals, UTF8=ACCEPT names, data arriving in the middle of commands, BYE,
// and hostile servers that must not make the client crash or hoard memory.
#include <gtest/gtest.h>

#include <deque>
#include <mutex>

#include "MailCore/IMAP/IMAPClient.h"
#include "MailCore/Transport/LoopbackByteStream.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

using PIK = ProtocolIssueKind;
using testfiles::caught;

// A server that expects the client's lines in order and answers each; a
// line it did not expect is recorded and answered with BAD.
struct Script {
    std::deque<std::pair<std::string, std::string>> steps;
    std::vector<std::string> unexpected;
    std::mutex lock;
};

struct Scripted {
    Scripted(const std::string& greeting, std::vector<std::pair<std::string, std::string>> steps,
             TransportSecurity security = TransportSecurity::implicitTLS,
             ProtocolLimits limits = {})
        : stream(new LoopbackByteStream(2.0)), script(std::make_shared<Script>()) {
        script->steps.assign(steps.begin(), steps.end());
        stream->serverSend(greeting);
        auto s = script;
        stream->setOnLine([s](const std::string& line, LoopbackByteStream& server) {
            std::string reply;
            {
                std::lock_guard<std::mutex> guard(s->lock);
                if (!s->steps.empty() && s->steps.front().first == line) {
                    reply = s->steps.front().second;
                    s->steps.pop_front();
                } else {
                    s->unexpected.push_back(line);
                    reply = line.substr(0, line.find(' ')) + " BAD unexpected\r\n";
                }
            }
            // "<close>" at the end of an answer: the server hangs up after it.
            const std::string close = "<close>";
            const bool hangUp =
                reply.size() >= close.size() &&
                reply.compare(reply.size() - close.size(), close.size(), close) == 0;
            if (hangUp) reply.resize(reply.size() - close.size());
            if (!reply.empty()) server.serverSend(reply);
            if (hangUp) server.serverClose();
        });
        client = std::make_unique<IMAPClient>(std::unique_ptr<ByteStream>(stream),
                                              ServerEndpoint{"imap.example.com", 993, security},
                                              limits, ConnectionTimeouts{5, 2, 60, 5, 5});
    }
    ~Scripted() {
        EXPECT_TRUE(script->unexpected.empty()) << script->unexpected.front();
        EXPECT_TRUE(script->steps.empty()) << "not reached: " << script->steps.front().first;
    }

    LoopbackByteStream* stream;
    std::shared_ptr<Script> script;
    std::unique_ptr<IMAPSession> client;
};

const std::string ready = "* OK [CAPABILITY IMAP4rev1 AUTH=PLAIN SASL-IR ENABLE] ready\r\n";

TEST(IMAPClientScriptedTest, ChoosesTheSignInMechanismTheServerAllows) {
    struct Case {
        const char* name;
        std::string capabilities;
        IMAPCredentials credentials;
        std::vector<std::pair<std::string, std::string>> exchange;
    };
    const std::string bearer = "auth=Bearer tok\x01\x01";
    const std::vector<Case> cases = {
        {"PLAIN with an initial response",
         "AUTH=PLAIN SASL-IR",
         {"ann", "pw"},
         {{"K2 AUTHENTICATE PLAIN AGFubgBwdw==", "K2 OK done\r\n"}}},
        {"PLAIN after a continuation",
         "AUTH=PLAIN",
         {"ann", "pw"},
         {{"K2 AUTHENTICATE PLAIN", "+ \r\n"}, {"AGFubgBwdw==", "K2 OK done\r\n"}}},
        {"LOGIN with a password that needs quoting",
         "AUTH=LOGIN",
         {"ann", "p\"w"},
         {{"K2 LOGIN \"ann\" \"p\\\"w\"", "K2 OK done\r\n"}}},
        {"OAUTHBEARER for a token",
         "AUTH=OAUTHBEARER AUTH=XOAUTH2 SASL-IR",
         {"ann", "tok", true},
         {{"K2 AUTHENTICATE OAUTHBEARER "
           "bixhPWFubiwBaG9zdD1pbWFwLmV4YW1wbGUuY29tAXBvcnQ9OTkzAWF1dGg9QmVhcmVyIHRvawEB",
           "K2 OK done\r\n"}}},
        {"XOAUTH2 answering the error challenge",
         "AUTH=XOAUTH2",
         {"ann", "tok", true},
         {{"K2 AUTHENTICATE XOAUTH2", "+ \r\n"},
          {"dXNlcj1hbm4BYXV0aD1CZWFyZXIgdG9rAQE=", "+ eyJzdGF0dXMiOiI0MDEifQ==\r\n"},
          {"", "K2 NO [AUTHENTICATIONFAILED] invalid token\r\n"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto steps = c.exchange;
        steps.insert(steps.begin(), {"K1 CAPABILITY",
                                     "* CAPABILITY IMAP4rev1 " + c.capabilities + "\r\nK1 OK\r\n"});
        if (steps.back().second.find("OK") != std::string::npos) {
            steps.push_back({"K3 CAPABILITY", "* CAPABILITY IMAP4rev1 IDLE\r\nK3 OK\r\n"});
        }
        Scripted s("* OK hi\r\n", steps);
        s.client->connect();
        const auto error = caught<MailError>([&] { s.client->authenticate(c.credentials); });
        if (error) {
            EXPECT_EQ(*error, MailError::auth(AuthFailureKind::invalidCredentials,
                                              "authentication failed: [AUTHENTICATIONFAILED] "
                                              "invalid token"));
        } else {
            EXPECT_TRUE(s.client->capabilities().has("IDLE"));
        }
    }
    Scripted disabled("* OK [CAPABILITY IMAP4rev1 LOGINDISABLED] hi\r\n", {});
    disabled.client->connect();
    EXPECT_EQ(caught<MailError>([&] {
                  disabled.client->authenticate({"ann", "pw"});
              }),
              MailError::unsupportedCapability("server offers no password sign-in"));
}

TEST(IMAPClientScriptedTest, RefusesAStartTLSEndpointWithoutStartTLS) {
    Scripted s("* OK [CAPABILITY IMAP4rev1 AUTH=PLAIN] hi\r\n", {}, TransportSecurity::startTLS);
    EXPECT_EQ(
        caught<MailError>([&] { s.client->connect(); }),
        MailError::tls(TLSFailureKind::startTLSUnavailable, "server does not offer STARTTLS"));
    EXPECT_FALSE(s.stream->didUpgrade());
    EXPECT_TRUE(s.stream->isClosed());
}

TEST(IMAPClientScriptedTest, RefusesBytesInjectedBeforeTheTLSHandshake) {
    Scripted s("* OK [CAPABILITY IMAP4rev1 STARTTLS] hi\r\n",
               {{"K1 STARTTLS", "K1 OK go\r\n* OK [CAPABILITY IMAP4rev1 AUTH=PLAIN] x\r\n"}},
               TransportSecurity::startTLS);
    EXPECT_EQ(caught<MailError>([&] { s.client->connect(); }),
              MailError::protocolViolation(PIK::unexpectedResponse, "data after STARTTLS"));
    EXPECT_FALSE(s.stream->didUpgrade());
}

TEST(IMAPClientScriptedTest, WaitsForTheServerBeforeASynchronisingLiteral) {
    Scripted s(ready, {{"K1 APPEND \"Sent\" (\\Seen) {5}", "* 3 EXISTS\r\n+ go on\r\n"},
                       {"hello", "K1 OK [APPENDUID 7 42] done\r\n"},
                       {"K2 APPEND \"Sent\" {2}", "K2 NO [OVERQUOTA] full\r\n"}});
    std::vector<IMAPResponse> untagged;
    s.client->setUntaggedHandler([&](const IMAPResponse& r) { untagged.push_back(r); });
    s.client->connect();
    const IMAPAppendResult appended = s.client->append("Sent", "hello", {"\\Seen"});
    EXPECT_EQ(appended.uidValidity, 7u);
    EXPECT_EQ(appended.uid, 42u);
    ASSERT_EQ(untagged.size(), 1u);
    EXPECT_EQ(untagged[0].as<IMAPMessageCountData>()->number, 3u);
    EXPECT_EQ(
        caught<MailError>([&] { s.client->append("Sent", "no"); }),
        MailError::protocolViolation(PIK::commandRejected, "append failed: [OVERQUOTA] full"));
    EXPECT_EQ(s.stream->writtenString().find("no\r\n"), std::string::npos);
}

TEST(IMAPClientScriptedTest, SendsAndReadsUTF8NamesOnceEnabled) {
    Scripted s("* PREAUTH [CAPABILITY IMAP4rev1 ENABLE UTF8=ACCEPT LITERAL+] hi\r\n",
               {{"K1 ENABLE UTF8=ACCEPT", "* ENABLED UTF8=ACCEPT\r\nK1 OK\r\n"},
                {"K2 CREATE \"Größe\"", "K2 OK\r\n"},
                {"K3 LIST \"\" *", "* LIST () \"/\" \"Größe\"\r\nK3 OK\r\n"}});
    s.client->connect();
    EXPECT_TRUE(s.client->isAuthenticated());
    s.client->enable({"UTF8=ACCEPT"});
    s.client->create("Größe");
    EXPECT_EQ(s.client->list().at(0).name, "Größe");
}

TEST(IMAPClientScriptedTest, EndsCleanlyOnBye) {
    Scripted s(ready, {{"K1 NOOP", "* BYE going down\r\n<close>"}});
    s.client->connect();
    const auto closed =
        MailError::protocolViolation(PIK::serverClosed, "server closed the session: going down");
    EXPECT_EQ(caught<MailError>([&] { s.client->noop(); }), closed);
    EXPECT_EQ(caught<MailError>([&] { s.client->noop(); }), closed);
    s.client->logout();  // never throws
}

TEST(IMAPClientScriptedTest, HostileServersFailWithinTheLimits) {
    const ProtocolLimits small{1024, 4096, 8192, 50, 1024, 100};
    struct Case {
        const char* name;
        std::string answer;
        MailError error;
    };
    const std::vector<Case> cases = {
        {"endless line", std::string(1 << 20, 'x'),
         MailError::protocolViolation(PIK::responseTooLarge, "line too long")},
        {"huge literal", "* 1 FETCH (BODY[] {1000000000}\r\n" + std::string(1 << 16, 'x'),
         MailError::protocolViolation(PIK::responseTooLarge, "literal too large")},
        {"flood of untagged responses",
         [] {
             std::string s;
             for (int i = 0; i < 1000; ++i) s += "* 1 EXISTS\r\n";
             return s;
         }(),
         MailError::protocolViolation(PIK::responseTooLarge, "too many untagged responses")},
        {"answer to another tag", "K9 OK\r\n",
         MailError::protocolViolation(PIK::unexpectedResponse, "answer to an unknown command")},
        {"binary garbage", std::string("\0\xff\r\n", 4),
         MailError::protocolViolation(PIK::malformedResponse, "malformed response")},
        {"silence, then the end", "<close>",
         MailError::network(NetworkFailureKind::connectionLost, "connection closed by server")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Scripted s(ready, {{"K1 NOOP", c.answer}}, TransportSecurity::implicitTLS, small);
        s.client->connect();
        EXPECT_EQ(caught<MailError>([&] { s.client->noop(); }), c.error);
        EXPECT_TRUE(s.stream->isClosed());
    }
}

}  // namespace
}  // namespace mailcore
