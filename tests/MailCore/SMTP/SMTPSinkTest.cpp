// The client against a real SMTP server (aiosmtpd) over real TLS on loopback.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/SMTP/SMTPClient.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "tests/MailCore/Transport/TLSTestPeers.h"
#include "tests/fakes/SMTPSink.h"

namespace {

using namespace mailcore;
using testfiles::caught;
using testfiles::SMTPSink;

SMTPSink makeSink(bool implicitTLS) {
    const auto& pki = mailcore::testing::TestPKI::shared();
    testfiles::SMTPSinkOptions options;
    options.tls = {{pki.dir + "/leaf.pem", pki.dir + "/leaf.key"}};
    options.implicitTLS = implicitTLS;
    options.user = "joe";
    options.password = "secret";
    return SMTPSink(options);
}

std::unique_ptr<SMTPClient> clientFor(const SMTPSink& sink, TransportSecurity security) {
    ServerEndpoint endpoint{"127.0.0.1", sink.port(), security};
    ConnectionTimeouts timeouts;
    timeouts.connect = 5;
    timeouts.read = 5;
    SocketByteStreamFactory streams;
    auto client = std::make_unique<SMTPClient>(streams.make(endpoint, timeouts), endpoint,
                                               ProtocolLimits{}, "client.test");
    client->connect();
    client->authenticate({"joe", "secret", false, std::nullopt});
    return client;
}

const std::string message = "From: a@example.com\nTo: b@example.com\nSubject: hi\n\n.dotted\nend\n";

TEST(SMTPSink, DeliversOverSTARTTLSAndImplicitTLSWithPasswordSignIn) {
    for (bool implicit : {false, true}) {
        SMTPSink sink = makeSink(implicit);
        auto client = clientFor(
            sink, implicit ? TransportSecurity::implicitTLS : TransportSecurity::startTLS);
        client->send({"a@example.com", {"b@example.com", "c@example.com"}}, message);
        client->send({"a@example.com", {"d@example.com"}}, message);  // same connection
        client->quit();
        const auto stored = sink.messages();
        ASSERT_EQ(stored.size(), 2u) << implicit;
        EXPECT_EQ(stored[0], smtpTransferForm(message, false));
        EXPECT_EQ(sink.envelopes()[0]["to"], (Json{"b@example.com", "c@example.com"}));
    }
}

TEST(SMTPSink, InjectedFaultsKeepTheServersTextAndDropAfterTheEndIsUncertain) {
    SMTPSink sink = makeSink(false);
    sink.setFaults(Json::parse(R"([{"stage":"rcpt","reply":"450 4.2.1 Mailbox busy"},
                                   {"stage":"data","reply":"554 5.7.1 Rejected as spam"}])"));
    auto client = clientFor(sink, TransportSecurity::startTLS);
    const SMTPEnvelope envelope{"a@example.com", {"b@example.com"}};
    auto error = caught<MailError>([&] { client->send(envelope, message); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->detail(), "450 4.2.1 Mailbox busy");
    EXPECT_TRUE(error->isRetryable());
    error = caught<MailError>([&] { client->send(envelope, message); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->detail(), "554 5.7.1 Rejected as spam");
    EXPECT_FALSE(error->isRetryable());
    EXPECT_TRUE(sink.messages().empty());

    sink.setFaults(Json::parse(R"([{"stage":"data","drop":true}])"));
    error = caught<MailError>([&] { client->send(envelope, message); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->networkKind(), NetworkFailureKind::outcomeUnknown);
    EXPECT_EQ(sink.messages().size(), 1u);
}

}  // namespace
