// The Dovecot fixture itself: what other suites rely on (ports that answer
// over TLS with the test CA, users added later, messages written into
// Maildir folders that Dovecot then serves, MOVE switched off, submission).
#include <gtest/gtest.h>

#include <algorithm>

#include "MailCore/Transport/SocketTLSTransport.h"
#include "MailCore/Transport/StreamReader.h"
#include "tests/fakes/DovecotServer.h"

namespace mailcore::testing {
namespace {

std::string greeting(const DovecotServer& server, const ServerEndpoint& endpoint) {
    SocketByteStreamFactory factory(server.trustAnchors());
    auto stream = factory.make(endpoint, ConnectionTimeouts{5, 5, 0, 0, 0});
    stream->open();
    StreamReader reader(*stream);
    return bytesToString(reader.readLine(4096));
}

TEST(DovecotServerTest, ServesMaildirMessagesToUsersOverTLSWithTheTestCA) {
    DovecotServer server;
    EXPECT_EQ(greeting(server, server.imapTLSEndpoint()).rfind("* OK", 0), 0u);
    EXPECT_NE(greeting(server, server.imapStartTLSEndpoint()).find("STARTTLS"), std::string::npos);

    server.addUser("bob", "hunter2");
    server.writeMessage("bob", "INBOX", "Subject: one\r\n\r\nbody\r\n", "S");
    server.writeMessage("bob", "Projekte/Größe", "Subject: two\r\n\r\nbody\r\n");
    server.doveadmOK({"save", "-u", "bob", "-m", "Sent"}, "Subject: three\r\n\r\nx\r\n");

    EXPECT_EQ(server.doveadmOK({"fetch", "-u", "bob", "flags hdr.subject", "mailbox", "INBOX"}),
              "flags: \\Seen \\Recent\nhdr.subject: one\n");
    EXPECT_NE(server.doveadmOK({"mailbox", "list", "-u", "bob"}).find("Projekte/Größe"),
              std::string::npos);
    const std::string sent = server.doveadmOK({"search", "-u", "bob", "mailbox", "Sent", "all"});
    EXPECT_EQ(std::count(sent.begin(), sent.end(), '\n'), 1);
    EXPECT_NE(server.doveadm({"fetch", "-u", "nobody-here", "uid", "all"}).status, 0);
}

TEST(DovecotServerTest, OffersSubmissionWhenAskedAndCanLeaveMoveOut) {
    DovecotOptions options;
    options.move = false;
    options.submissionRelayPort = 2525;
    DovecotServer server(options);
    EXPECT_EQ(greeting(server, server.submissionTLSEndpoint()).rfind("220 ", 0), 0u);
    EXPECT_EQ(greeting(server, server.submissionStartTLSEndpoint()).rfind("220 ", 0), 0u);
    EXPECT_EQ(server.doveadmOK({"config", "-h", "imap_capability"}).find("MOVE"),
              std::string::npos);
}

}  // namespace
}  // namespace mailcore::testing
