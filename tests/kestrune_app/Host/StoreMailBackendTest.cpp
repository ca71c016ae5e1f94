#include <gtest/gtest.h>

#include <fstream>

#include "AppTestSupport.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/LocalDelivery.h"
#include "kestrune_app/Host/MailIngest.h"
#include "kestrune_app/Host/StoreMailBackend.h"
#include "tests/fakes/TestFiles.h"

// Queries are written as aggregates naming only the fields a case sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace kestrune {
namespace {

using namespace mailcore;
using mcpkit::MCPSearchQuery;

Date fixedNow() { return dateFromSeconds(1'790'000'000); }

struct BackendTest : ::testing::Test {
    testing::TempDir dir;
    std::shared_ptr<SQLiteMailStore> store =
        std::make_shared<SQLiteMailStore>(StoreLocation::file((dir.path / "mail.sqlite").string()));
    bool undo = false;
    LocalDelivery delivery{store};
    // The outbox runs on the calling thread (no background threads here).
    std::shared_ptr<OutboxWorker> outbox = std::make_shared<OutboxWorker>(*store, delivery);
    std::shared_ptr<StoreMailBackend> backend = std::make_shared<StoreMailBackend>(
        store, fixedNow,
        SendPath{outbox, 0, 5,
                 [this](const mcpkit::MCPOutgoing&, const std::function<bool()>& takeBack) {
                     return undo && takeBack() ? SendPath::HoldEnd::undone
                                               : SendPath::HoldEnd::windowOver;
                 }});
    std::vector<MessageID> ids;

    void SetUp() override {
        ensureAccount(*store, {"alex@example.com", "Alex", true}, fixedNow());
        ensureAccount(*store, {"work@example.org", "Work", false}, fixedNow());
        const auto inbox = folderWithRole(*store, "alex@example.com", FolderRole::inbox);
        const auto archive = folderWithRole(*store, "alex@example.com", FolderRole::archive);
        MessageFlags seen;
        seen.system = MessageFlags::seen;
        const struct {
            const char* from;
            const char* subject;
            const char* date;
            const char* body;
            FolderID folder;
            bool read;
        } messages[] = {
            {"Priya <priya@northwind.example>", "Budget review", "Mon, 16 Nov 2026 09:00:00 +0000",
             "The travel budget is over plan.", inbox, true},
            {"Sam <sam@northwind.example>", "Re: Budget review", "Tue, 17 Nov 2026 09:00:00 +0000",
             "Budget budget budget: we cut travel.", inbox, false},
            {"News <news@weekly.example>", "Weekly digest", "Wed, 18 Nov 2026 09:00:00 +0000",
             "Nothing about money.", inbox, false},
            {"Priya <priya@northwind.example>", "Old budget", "Sun, 01 Nov 2026 09:00:00 +0000",
             "Archived budget notes.", archive, true},
        };
        for (const auto& m : messages) {
            ids.push_back(fileMessage(*store, "alex@example.com", m.folder,
                                      testing::rawMessage(m.from, m.subject, m.date, m.body),
                                      m.read ? seen : MessageFlags{}, fixedNow()));
        }
        const auto workInbox = folderWithRole(*store, "work@example.org", FolderRole::inbox);
        ids.push_back(fileMessage(*store, "work@example.org", workInbox,
                                  testing::rawMessage("Boss <boss@example.org>", "Budget at work",
                                                      "Thu, 19 Nov 2026 09:00:00 +0000", "Budget."),
                                  {}, fixedNow()));
    }

    std::vector<std::string> subjects(const mcpkit::MCPSearchPage& page) {
        std::vector<std::string> out;
        for (const auto& r : page.results) out.push_back(r.subject);
        return out;
    }
};

TEST_F(BackendTest, AccountsAndFoldersWithUnreadCounts) {
    const auto accounts = backend->accounts();
    ASSERT_EQ(accounts.size(), 2u);
    EXPECT_EQ(accounts[0], (mcpkit::MCPAccount{"alex@example.com", "Alex"}));
    const auto folders = backend->folders("alex@example.com");
    ASSERT_EQ(folders.size(), 5u);
    EXPECT_EQ(folders[0], (mcpkit::MCPFolder{"inbox", "INBOX", 2}));
    EXPECT_THROW(backend->folders("nobody@example.com"), mcpkit::MCPToolError);
}

TEST_F(BackendTest, SearchesAndListsAsAsked) {
    struct Case {
        const char* name;
        MCPSearchQuery query;
        std::vector<std::string> subjects;
        std::int64_t total;
    };
    const std::vector<std::string> alex{"alex@example.com"};
    const std::vector<Case> cases = {
        {"ranked text across folders",
         {alex, "budget"},
         {"Re: Budget review", "Old budget", "Budget review"},
         3},
        {"text within a folder", {alex, "budget", "archive"}, {"Old budget"}, 1},
        {"text paged", {alex, "budget", {}, {}, false, 1, 1}, {"Old budget"}, 3},
        {"text from a sender", {alex, "budget", {}, "priya"}, {"Old budget", "Budget review"}, 2},
        {"text unread only", {alex, "budget", {}, {}, true}, {"Re: Budget review"}, 1},
        {"no text lists newest",
         {alex, ""},
         {"Weekly digest", "Re: Budget review", "Budget review", "Old budget"},
         4},
        {"no text paged",
         {alex, "", {}, {}, false, 2, 1},
         {"Re: Budget review", "Budget review"},
         4},
        {"no text in inbox unread",
         {alex, "", "inbox", {}, true},
         {"Weekly digest", "Re: Budget review"},
         2},
        {"no text from a sender", {alex, "", {}, "NEWS@weekly"}, {"Weekly digest"}, 1},
        {"a sender's '_' is no wildcard", {alex, "", {}, "priya_northwind"}, {}, 0},
        {"punctuation only lists", {alex, "(*)", "archive"}, {"Old budget"}, 1},
        {"only the accounts named", {{"work@example.org"}, "budget"}, {"Budget at work"}, 1},
        {"both accounts",
         {{"alex@example.com", "work@example.org"}, "", {}, "boss"},
         {"Budget at work"},
         1},
        {"text ranked across accounts",
         {{"alex@example.com", "work@example.org"}, "budget", {}, {}, false, 2},
         {"Re: Budget review", "Budget at work"},
         4},
        {"text in one account's folder among two",
         {{"alex@example.com", "work@example.org"}, "budget", "archive"},
         {"Old budget"},
         1},
        {"unknown account gives nothing", {{"nobody@example.com"}, "budget"}, {}, 0},
    };
    for (const auto& c : cases) {
        const auto page = backend->search(c.query);
        EXPECT_EQ(subjects(page), c.subjects) << c.name;
        EXPECT_EQ(page.total, c.total) << c.name;
    }
    EXPECT_THROW(backend->search({alex, "budget", "no-such-folder"}), mcpkit::MCPToolError);
}

TEST_F(BackendTest, SummariesCarryHandlesThatReadBack) {
    const auto page = backend->search({{"alex@example.com"}, "cut"});
    ASSERT_FALSE(page.results.empty());
    const auto& s = page.results[0];
    EXPECT_EQ(s.account, "alex@example.com");
    EXPECT_EQ(s.folder, "inbox");
    EXPECT_EQ(s.date, "2026-11-17T09:00:00Z");
    EXPECT_TRUE(s.unread);
    const auto m = backend->message(s.id, std::nullopt);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->subject, "Re: Budget review");
    EXPECT_EQ(m->from, "Sam <sam@northwind.example>");
    EXPECT_EQ(m->to, std::vector<std::string>{"alex@example.com"});
    EXPECT_NE(m->bodyText.find("we cut travel"), std::string::npos);
    EXPECT_FALSE(backend->message(s.id, std::string("work@example.org")));
    for (const char* bad : {"", "m", "m0", "x12", "m12a", "m99999", "m-1", "m99999999999999999999"})
        EXPECT_FALSE(backend->message(bad, std::nullopt)) << bad;
}

TEST_F(BackendTest, AttachmentsAreNamed) {
    const std::string raw =
        "From: Lena <lena@example.com>\r\nTo: alex@example.com\r\nSubject: Contract\r\n"
        "Date: Fri, 20 Nov 2026 10:00:00 +0000\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\n"
        "Signed.\r\n--b\r\nContent-Type: application/pdf\r\nContent-Disposition: attachment; "
        "filename=\"contract.pdf\"\r\nContent-Transfer-Encoding: "
        "base64\r\n\r\nJVBERi0=\r\n--b--\r\n";
    const auto id = fileMessage(*store, "alex@example.com",
                                folderWithRole(*store, "alex@example.com", FolderRole::inbox), raw,
                                {}, fixedNow());
    const auto m = backend->message(StoreMailBackend::handle(id), std::nullopt);
    ASSERT_TRUE(m);
    ASSERT_EQ(m->attachments.size(), 1u);
    EXPECT_EQ(m->attachments[0], (mcpkit::MCPAttachment{"contract.pdf", "application/pdf"}));
}

TEST_F(BackendTest, WritesApplyLocallyAndQueueForTheServer) {
    const std::string h = StoreMailBackend::handle(ids[1]);
    backend->setRead(h, "alex@example.com", true);
    EXPECT_FALSE(store->message(ids[1])->flags.isUnread());
    EXPECT_EQ(backend->folders("alex@example.com")[0].unread, 1);
    backend->applyLabel(h, "alex@example.com", std::string("finance"), true);
    const auto flags = store->message(ids[1])->flags;
    EXPECT_TRUE(flags.has(MessageFlags::flagged));
    EXPECT_EQ(flags.keywords, std::vector<std::string>{"finance"});
    EXPECT_FALSE(store->queuedItems(AccountID("alex@example.com"), ids[1]).empty());
    backend->setRead(h, "alex@example.com", false);
    EXPECT_TRUE(store->message(ids[1])->flags.isUnread());
    EXPECT_THROW(backend->setRead(h, "work@example.org", true), mcpkit::MCPToolError);
    EXPECT_THROW(backend->applyLabel("m0", "alex@example.com", std::string("x"), std::nullopt),
                 mcpkit::MCPToolError);
}

TEST_F(BackendTest, DraftsSendsAndTheUndoWindowGoThroughTheOutbox) {
    const AccountID alex("alex@example.com");
    auto inFolder = [&](const char* folder) {
        outbox->drainOutbox(alex, 5);
        return subjects(backend->search({{"alex@example.com"}, "", folder}));
    };
    // A reply draft: a draft record, and its copy filed in Drafts by the
    // outbox, threaded with the message it answers.
    const mcpkit::MCPOutgoing out{
        "alex@example.com", {"priya@northwind.example"}, {}, "Thursday", "See you."};
    const std::string draftID = backend->saveDraft(out, StoreMailBackend::handle(ids[0]));
    ASSERT_TRUE(StoreMailBackend::draftID(draftID)) << draftID;
    // What the agent set, and what else the draft would send (nothing here).
    auto agentFields = [](std::optional<mcpkit::MCPOutgoing> m) {
        if (m) m->fromDraft.reset();
        return m;
    };
    EXPECT_EQ(agentFields(backend->draft(draftID)), out);
    EXPECT_EQ(backend->draft(draftID)->fromDraft,
              (mcpkit::MCPDraftExtras{draftID, {}, {}, {}, {}}));
    EXPECT_EQ(inFolder("drafts"), std::vector<std::string>{"Thursday"});
    const auto copy = backend->search({{"alex@example.com"}, "", "drafts"}).results.at(0);
    EXPECT_EQ(store->message(*StoreMailBackend::messageID(copy.id))->threadID,
              store->message(ids[0])->threadID);
    EXPECT_FALSE(backend->draft(StoreMailBackend::handle(ids[0])));  // not in Drafts
    EXPECT_THROW(backend->saveDraft(out, std::string("m0")), mcpkit::MCPToolError);

    // Undone in the window: nothing is sent and the message is kept as a draft.
    undo = true;
    const mcpkit::MCPOutgoing note{
        "alex@example.com", {"sam@northwind.example"}, {}, "Venue", "Terrace."};
    EXPECT_EQ(backend->send(note, std::nullopt), mcpkit::MCPSendDelivery::undone);
    EXPECT_EQ(inFolder("drafts"), (std::vector<std::string>{"Venue", "Thursday"}));
    EXPECT_EQ(store->drafts(alex).size(), 2u);
    EXPECT_TRUE(inFolder("sent").empty());

    // Sent by its draft handle: filed in Sent as composed, draft and copy gone.
    undo = false;
    EXPECT_EQ(backend->send(out, draftID), mcpkit::MCPSendDelivery::sent);
    EXPECT_FALSE(backend->draft(draftID));
    EXPECT_EQ(inFolder("sent"), std::vector<std::string>{"Thursday"});
    EXPECT_EQ(inFolder("drafts"), std::vector<std::string>{"Venue"});
    const auto sent = backend->search({{"alex@example.com"}, "", "sent"}).results.at(0);
    const auto sentCopy = backend->message(sent.id, std::nullopt);
    EXPECT_EQ(sentCopy->to, out.to);
    EXPECT_EQ(sentCopy->bodyText, "See you.\n");
    EXPECT_EQ(store->message(*StoreMailBackend::messageID(sent.id))->threadID,
              store->message(ids[0])->threadID);

    // A message in the Drafts folder sends as the draft it is a copy of.
    const auto venue = backend->search({{"alex@example.com"}, "", "drafts"}).results.at(0);
    EXPECT_EQ(agentFields(backend->draft(venue.id)), note);
    EXPECT_EQ(backend->send(note, venue.id), mcpkit::MCPSendDelivery::sent);
    EXPECT_TRUE(inFolder("drafts").empty());
    EXPECT_TRUE(store->drafts(alex).empty());
    EXPECT_EQ(inFolder("sent"), (std::vector<std::string>{"Venue", "Thursday"}));
    EXPECT_TRUE(store->outboxItems(alex).empty());

    // An account without an outgoing server: the send fails and the message
    // is kept as a draft, with nothing left to go out later.
    const AccountID work("work@example.org");
    const mcpkit::MCPOutgoing hello{"work@example.org", {"a@example.org"}, {}, "Hi", "Hello"};
    EXPECT_EQ(backend->send(hello, std::nullopt), mcpkit::MCPSendDelivery::failed);
    ASSERT_EQ(store->drafts(work).size(), 1u);
    EXPECT_EQ(store->drafts(work)[0].message.subject, "Hi");
    outbox->drainOutbox(work, 5);
    for (const auto& row : store->outboxItems(work))
        EXPECT_NE(row.item.operation.kind(), OutboxOperation::Kind::send);
    EXPECT_EQ(backend->search({{"work@example.org"}, "", "sent"}).total, 0);

    EXPECT_THROW(backend->send({"nobody@example.com", {"a@b.c"}, {}, "", ""}, std::nullopt),
                 mcpkit::MCPToolError);
    EXPECT_THROW(backend->send(out, std::string("d00000000-0000-0000-0000-000000000000")),
                 mcpkit::MCPToolError);
}

TEST_F(BackendTest, AnInterruptedSendIsDeliveredExactlyOnce) {
    // The app stopped in the middle of a send, before or after the message
    // was filed in Sent: at the next launch it is verified, then sent only
    // if it did not go out.
    const AccountID alex("alex@example.com");
    for (const bool deliveredBeforeTheStop : {false, true}) {
        OutboxSend send;
        send.message.messageID = InternetMessageID::normalizing(
            deliveredBeforeTheStop ? "a@example.com" : "b@example.com");
        send.message.from = {{"", "alex@example.com"}};
        send.message.to = {{"", "sam@northwind.example"}};
        send.message.subject = deliveredBeforeTheStop ? "Delivered" : "Not yet";
        send.message.textBody = "Body";
        store->enqueue(alex, OutboxOperation::send(send), systemClock()());
        const auto claimed = store->claimNextDue(systemClock()(), alex);
        ASSERT_TRUE(claimed);
        if (deliveredBeforeTheStop) {
            // Carrying it out again files nothing more.
            for (int i = 0; i < 2; ++i)
                ASSERT_EQ(delivery.execute(claimed->item).kind, OutboxResult::Kind::done);
        }
        EXPECT_EQ(delivery.verifySent(claimed->item),
                  deliveredBeforeTheStop ? SentState::sent : SentState::notSent);

        EngineTuning tuning;
        tuning.sentVerifyDelay = 0;
        OutboxWorker relaunched(*store, delivery, tuning);
        EXPECT_EQ(relaunched.recoverAtLaunch().heldSends, 1u);
        relaunched.runDue(alex);
        EXPECT_TRUE(store->outboxItems(alex).empty());
        EXPECT_EQ(
            delivery.copiesIn("alex@example.com", FolderRole::sent, *send.message.messageID).size(),
            1u)
            << send.message.subject;
    }
}

TEST_F(BackendTest, AClosedStoreFailsInsteadOfAnsweringEmpty) {
    store->close();
    EXPECT_ANY_THROW(backend->accounts());
    EXPECT_ANY_THROW(backend->search({{"alex@example.com"}, "budget"}));
    EXPECT_ANY_THROW(backend->search({{"alex@example.com"}, ""}));
    EXPECT_ANY_THROW(backend->message("m1", std::nullopt));
}

TEST(MailImportTest, ImportsMaildirAndMboxIntoAnAccount) {
    testing::TempDir dir;
    SQLiteMailStore store(StoreLocation::file((dir.path / "mail.sqlite").string()));
    ensureAccount(store, {"me@example.com", "", false}, fixedNow());
    namespace fs = std::filesystem;
    fs::create_directories(dir.path / "md" / "cur");
    fs::create_directories(dir.path / "md" / "new");
    fs::create_directories(dir.path / "md" / "tmp");
    std::ofstream(dir.path / "md" / "cur" / "1.host:2,S")
        << testing::rawMessage("a@example.com", "Seen one", "Mon, 16 Nov 2026 09:00:00 +0000", "x");
    std::ofstream(dir.path / "md" / "new" / "2.host")
        << testing::rawMessage("b@example.com", "New one", "Mon, 16 Nov 2026 10:00:00 +0000", "y");
    std::ofstream(dir.path / "md" / "new" / "3.host");  // empty
    auto result = importMaildir(store, "me@example.com", dir.path / "md", fixedNow());
    EXPECT_EQ(result.imported, 2);
    EXPECT_EQ(result.skipped, 1);
    EXPECT_EQ(store.folders(AccountID("me@example.com"))[0].unreadCount, 1);
    const auto invalid = [](const std::function<void()>& action) {
        const auto error = testfiles::caught<HostError>(action);
        return error && error->kind() == HostError::Kind::invalidInput;
    };
    EXPECT_TRUE(invalid([&] { importMaildir(store, "me@example.com", dir.path, fixedNow()); }));

    std::ofstream(dir.path / "box.mbox")
        << "From x Mon Jan 1 00:00:00 2026\n"
        << testing::rawMessage("c@example.com", "Mbox one", "Mon, 16 Nov 2026 11:00:00 +0000", "z");
    result = importMbox(store, "me@example.com", dir.path / "box.mbox", fixedNow());
    EXPECT_EQ(result.imported, 1);
    EXPECT_TRUE(
        invalid([&] { importMbox(store, "me@example.com", dir.path / "missing", fixedNow()); }));
    EXPECT_TRUE(invalid([&] { ensureAccount(store, {"not-an-address", "", false}, fixedNow()); }));
}

}  // namespace
}  // namespace kestrune
