// The IMAP client against a real Dovecot on 127.0.0.1, through the
// production connection factory: sign-in over both kinds of TLS, folders
// and their roles, CONDSTORE/QRESYNC, fetching what the test wrote into
// Maildir, conflicts from a second client, moves with and without MOVE,
// APPENDUID, IDLE, failures, and non-ASCII folder names.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <iterator>
#include <map>
#include <thread>

#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/IMAP/IMAPSession.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "tests/fakes/DovecotServer.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

using testing::DovecotOptions;
using testing::DovecotServer;

ConnectionTimeouts timeouts() { return ConnectionTimeouts{10, 10, 60, 30, 60}; }

std::string message(int n, const std::string& subject = "") {
    return "From: sender" + std::to_string(n) +
           "@example.com\r\nTo: me@example.org\r\n"
           "Subject: " +
           (subject.empty() ? "message " + std::to_string(n) : subject) + "\r\nMessage-ID: <m" +
           std::to_string(n) + "@example.com>\r\n\r\nbody " + std::to_string(n) + "\r\n";
}

class DovecotIMAPTest : public ::testing::Test {
protected:
    explicit DovecotIMAPTest(DovecotOptions options = {}) : server(options) {}

    std::unique_ptr<IMAPSession> connect(const ServerEndpoint& endpoint,
                                         std::vector<Certificate> anchors) {
        NetConnectionFactory factory(std::make_shared<SocketByteStreamFactory>(std::move(anchors)));
        auto session = factory.makeIMAPSession(endpoint, ProtocolLimits{}, timeouts());
        session->connect();
        return session;
    }
    std::unique_ptr<IMAPSession> signIn(const std::string& password = "secret") {
        auto session = connect(server.imapTLSEndpoint(), server.trustAnchors());
        session->authenticate({"alice", password});
        return session;
    }
    std::unique_ptr<IMAPSession> inbox() {
        auto session = signIn();
        session->enable({"QRESYNC"});
        session->select("INBOX");
        return session;
    }

    DovecotServer server;
};

TEST_F(DovecotIMAPTest, SignsInOverImplicitTLSAndOverSTARTTLS) {
    for (const auto& endpoint : {server.imapTLSEndpoint(), server.imapStartTLSEndpoint()}) {
        SCOPED_TRACE(endpoint.port);
        auto session = connect(endpoint, server.trustAnchors());
        EXPECT_FALSE(session->isAuthenticated());
        EXPECT_TRUE(session->capabilities().has("AUTH=PLAIN"));
        session->authenticate({"alice", "secret"});
        EXPECT_TRUE(session->isAuthenticated());
        // The capabilities after login are the full set, and never STARTTLS.
        EXPECT_TRUE(session->capabilities().has("QRESYNC"));
        EXPECT_FALSE(session->capabilities().has("STARTTLS"));
        EXPECT_EQ(session->id({{"name", "Kestrune"}}).fields.at(0).second, "Dovecot");
        session->noop();
        session->logout();
    }
}

TEST_F(DovecotIMAPTest, ListsFoldersWithTheirRolesAndStatus) {
    server.writeMessage("alice", "INBOX", message(1), "S");
    server.writeMessage("alice", "INBOX", message(2));
    auto session = signIn();
    std::map<std::string, IMAPMailbox> byName;
    for (auto& m : session->list(true)) byName[m.name] = m;
    const std::map<std::string, std::string> roles = {{"Sent", "\\Sent"},
                                                      {"Drafts", "\\Drafts"},
                                                      {"Trash", "\\Trash"},
                                                      {"Junk", "\\Junk"},
                                                      {"Archive", "\\Archive"}};
    for (const auto& [name, role] : roles) EXPECT_EQ(byName.at(name).specialUse, role) << name;
    EXPECT_FALSE(byName.at("INBOX").specialUse);
    EXPECT_EQ(byName.at("INBOX").delimiter, '/');
    EXPECT_EQ(byName.at("INBOX").status.at("MESSAGES"), 2u);
    EXPECT_EQ(byName.at("INBOX").status.at("UNSEEN"), 1u);
    EXPECT_EQ(session->status("INBOX").uidNext, 3u);
}

TEST_F(DovecotIMAPTest, SelectsWithCondstoreAndResynchronisesWithQresync) {
    for (int n = 1; n <= 3; ++n) server.writeMessage("alice", "INBOX", message(n));
    auto session = signIn();
    ASSERT_EQ(session->enable({"QRESYNC"}), std::vector<std::string>{"QRESYNC"});
    IMAPSelectOptions condstore;
    condstore.condstore = true;
    const IMAPSelectedFolder first = session->select("INBOX", condstore);
    const std::string validity = server.doveadmOK(
        {"-f", "flow", "mailbox", "status", "-u", "alice", "uidvalidity", "INBOX"});
    EXPECT_EQ("INBOX uidvalidity=" + std::to_string(first.uidValidity) + "\n", validity);
    EXPECT_EQ(first.exists, 3u);
    EXPECT_EQ(first.uidNext, 4u);
    ASSERT_TRUE(first.highestModSeq);

    // Another client expunges one message and flags another.
    server.doveadmOK({"expunge", "-u", "alice", "mailbox", "INBOX", "uid", "2"});
    server.doveadmOK({"flags", "add", "-u", "alice", "\\Flagged", "mailbox", "INBOX", "uid", "3"});
    IMAPSelectOptions resync;
    resync.qresync =
        IMAPQResyncState{first.uidValidity, *first.highestModSeq, UIDSet::fromUIDs({1, 2, 3})};
    const IMAPSelectedFolder again = session->select("INBOX", resync);
    EXPECT_EQ(again.vanished, UIDSet(2));
    ASSERT_EQ(again.changed.size(), 1u);
    EXPECT_EQ(again.changed[0].uid, 3u);
    EXPECT_EQ(again.changed[0].flags, std::vector<std::string>{"\\Flagged"});
    EXPECT_GT(*again.highestModSeq, *first.highestModSeq);
}

TEST_F(DovecotIMAPTest, FetchesHeadersFlagsAndWholeMessagesWrittenToMaildir) {
    const std::vector<std::string> flags = {"S", "", "FS", "R"};
    for (int n = 0; n < 4; ++n) server.writeMessage("alice", "INBOX", message(n), flags[n]);
    auto session = inbox();
    std::vector<IMAPFetchData> fetched;
    IMAPFetchRequest request;
    request.flags = request.size = request.envelope = true;
    request.sections = {"HEADER", ""};
    session->fetch(UIDSet::fromRanges({{1, std::nullopt}}), request,
                   [&](const IMAPFetchData& f) { fetched.push_back(f); });
    ASSERT_EQ(fetched.size(), 4u);
    std::map<std::string, std::vector<std::string>> flagsBySubject;
    for (const auto& f : fetched) {
        const std::string whole = *f.section("");
        const int n = whole[12] - '0';  // "From: sender<n>@"
        EXPECT_EQ(whole, message(n));
        EXPECT_EQ(*f.section("HEADER"), whole.substr(0, whole.find("\r\n\r\n") + 4));
        EXPECT_EQ(f.size, whole.size());
        EXPECT_EQ(f.envelope->subject, "message " + std::to_string(n));
        auto& kept = flagsBySubject[*f.envelope->subject];
        std::copy_if(f.flags->begin(), f.flags->end(), std::back_inserter(kept),
                     [](const std::string& flag) { return flag != "\\Recent"; });
    }
    EXPECT_EQ(flagsBySubject["message 0"], std::vector<std::string>{"\\Seen"});
    EXPECT_EQ(flagsBySubject["message 1"], std::vector<std::string>{});
    EXPECT_EQ(flagsBySubject["message 2"], (std::vector<std::string>{"\\Flagged", "\\Seen"}));
    EXPECT_EQ(flagsBySubject["message 3"], std::vector<std::string>{"\\Answered"});
}

TEST_F(DovecotIMAPTest, ReportsAnUnchangedSinceConflictCausedByAnotherClient) {
    server.writeMessage("alice", "INBOX", message(1));
    server.writeMessage("alice", "INBOX", message(2));
    auto session = inbox();
    std::map<UIDValue, ModSeqValue> modSeqs;
    IMAPFetchRequest request;
    request.modSeq = true;
    session->fetch(UIDSet::fromUIDs({1, 2}), request,
                   [&](const IMAPFetchData& f) { modSeqs[*f.uid] = *f.modSeq; });

    auto other = inbox();
    other->store(UIDSet(1), IMAPFlagOperation::add, {"\\Flagged"});

    const ModSeqValue known = std::max(modSeqs[1], modSeqs[2]);
    const IMAPStoreResult result =
        session->store(UIDSet::fromUIDs({1, 2}), IMAPFlagOperation::add, {"\\Seen"}, known);
    EXPECT_EQ(result.conflicts, UIDSet(1));
    std::map<UIDValue, std::vector<std::string>> flags;
    for (const auto& f : result.updated)
        flags[*f.uid] = f.flags.value_or(std::vector<std::string>{});
    auto has = [](const std::vector<std::string>& list, const char* flag) {
        return std::find(list.begin(), list.end(), flag) != list.end();
    };
    EXPECT_TRUE(has(flags[2], "\\Seen"));
    EXPECT_FALSE(has(flags[1], "\\Seen"));
}

TEST_F(DovecotIMAPTest, AppendsWithAppendUIDAndFindsTheMessageByMessageID) {
    auto session = signIn();
    const IMAPAppendResult appended =
        session->append("Sent", message(7), {"\\Seen"}, dateFromSeconds(1'772'668'800));
    ASSERT_TRUE(appended.uid && appended.uidValidity);
    const IMAPSelectedFolder sent = session->select("Sent");
    EXPECT_EQ(sent.uidValidity, *appended.uidValidity);
    EXPECT_EQ(session->search(IMAPSearchCriteria().header("Message-ID", "<m7@example.com>")),
              UIDSet(*appended.uid));
    EXPECT_TRUE(session->search(IMAPSearchCriteria().header("Message-ID", "<none@x>")).isEmpty());
    EXPECT_EQ(server.doveadmOK({"fetch", "-u", "alice", "date.received", "mailbox", "Sent"}),
              "date.received: 2026-03-05 00:00:00\n");
}

class DovecotWithoutMoveTest : public DovecotIMAPTest {
protected:
    static DovecotOptions withoutMove() {
        DovecotOptions options;
        options.move = false;
        return options;
    }
    DovecotWithoutMoveTest() : DovecotIMAPTest(withoutMove()) {}
};

void expectMoveWorks(IMAPSession& session, DovecotServer& server) {
    session.select("INBOX");
    const IMAPCopyResult moved = session.move(UIDSet::fromUIDs({1, 3}), "Archive");
    EXPECT_EQ(moved.sourceUIDs, UIDSet::fromUIDs({1, 3}));
    EXPECT_EQ(moved.destinationUIDs, UIDSet::fromUIDs({1, 2}));
    const std::string archived =
        server.doveadmOK({"search", "-u", "alice", "mailbox", "Archive", "all"});
    EXPECT_EQ(std::count(archived.begin(), archived.end(), '\n'), 2);
    EXPECT_EQ(server.doveadmOK({"fetch", "-u", "alice", "uid", "mailbox", "INBOX"}), "uid: 2\n");
}

TEST_F(DovecotIMAPTest, MovesWithMove) {
    for (int n = 1; n <= 3; ++n) server.writeMessage("alice", "INBOX", message(n));
    auto session = signIn();
    ASSERT_TRUE(session->capabilities().has("MOVE"));
    expectMoveWorks(*session, server);
}

TEST_F(DovecotWithoutMoveTest, MovesWithCopyStoreAndUIDExpunge) {
    for (int n = 1; n <= 3; ++n) server.writeMessage("alice", "INBOX", message(n));
    auto session = signIn();
    ASSERT_FALSE(session->capabilities().has("MOVE"));
    expectMoveWorks(*session, server);
}

TEST_F(DovecotIMAPTest, IdleSeesNewMailAndFlagChangesFromAnotherConnection) {
    server.writeMessage("alice", "INBOX", message(1));
    auto session = inbox();
    std::atomic<bool> idling{false};
    bool sawExists = false, sawFlags = false;
    std::stop_source stop;
    auto other = std::async(std::launch::async, [&] {
        while (!idling) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        auto second = inbox();
        second->append("INBOX", message(2));
        second->store(UIDSet(1), IMAPFlagOperation::add, {"\\Flagged"});
        second->logout();
    });
    // The answer to IDLE has arrived once the first untagged response does;
    // the second client starts right away and idle() waits for its effects.
    idling = true;
    session->idle(
        [&](const IMAPResponse& r) {
            if (const auto* count = r.as<IMAPMessageCountData>()) {
                sawExists |=
                    count->kind == IMAPMessageCountData::Kind::exists && count->number == 2;
            }
            if (const auto* fetch = r.as<IMAPFetchData>()) {
                sawFlags |= fetch->flags && std::find(fetch->flags->begin(), fetch->flags->end(),
                                                      "\\Flagged") != fetch->flags->end();
            }
            return !(sawExists && sawFlags);
        },
        stop.get_token());
    other.get();
    EXPECT_TRUE(sawExists);
    EXPECT_TRUE(sawFlags);
    session->noop();  // still usable after DONE
}

TEST_F(DovecotIMAPTest, FailuresHaveTheirKinds) {
    const auto wrongPassword = testfiles::caught<MailError>([&] { signIn("wrong"); });
    ASSERT_TRUE(wrongPassword);
    EXPECT_EQ(wrongPassword->errorCase(), MailError::Case::auth);
    EXPECT_EQ(wrongPassword->authKind(), AuthFailureKind::invalidCredentials);
    EXPECT_NE(wrongPassword->detail().find("Authentication failed"), std::string::npos);

    // Without the test CA the server's certificate chains to nothing trusted.
    const auto untrusted =
        testfiles::caught<MailError>([&] { connect(server.imapTLSEndpoint(), {}); });
    EXPECT_EQ(untrusted, MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted"));

    // The server ends the session: the next command reports it, and stays failed.
    auto session = signIn();
    server.doveadmOK({"kick", "alice"});
    const auto kicked = testfiles::caught<MailError>([&] { session->noop(); });
    ASSERT_TRUE(kicked);
    EXPECT_EQ(kicked->errorCase(), MailError::Case::protocolViolation);
    EXPECT_EQ(kicked->protocolKind(), ProtocolIssueKind::serverClosed);
    EXPECT_EQ(testfiles::caught<MailError>([&] { session->list(); }), kicked);

    // A rejected command keeps the server's words and the session.
    auto alive = signIn();
    const auto missing = testfiles::caught<MailError>([&] { alive->select("No/Such"); });
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->protocolKind(), ProtocolIssueKind::commandRejected);
    EXPECT_EQ(missing->detail().rfind("select failed: Mailbox doesn't exist: No/Such", 0), 0u);
    alive->noop();
}

TEST_F(DovecotIMAPTest, NonASCIIFolderNamesRoundTripThroughTheServer) {
    const std::vector<std::string> names = {"Entwürfe", "Größe & Co/Ü", "日本語", "Emoji 📬"};
    auto session = signIn();
    for (const auto& name : names) session->create(name);
    session->create(names[0]);  // already there: fine
    server.writeMessage("alice", "Größe & Co/Ü", message(5));
    std::vector<std::string> listed;
    for (const auto& m : session->list()) listed.push_back(m.name);
    for (const auto& name : names) {
        EXPECT_NE(std::find(listed.begin(), listed.end(), name), listed.end()) << name;
    }
    EXPECT_EQ(session->select("Größe & Co/Ü").exists, 1u);
    EXPECT_NE(server.doveadmOK({"mailbox", "list", "-u", "alice"}).find("Emoji 📬"),
              std::string::npos);
}

}  // namespace
}  // namespace mailcore
