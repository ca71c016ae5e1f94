// Importing maildirs and mbox files into the store, and filing single
// messages: folders, flags, threads, bodies, attachments, resumption.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "MIMETestSupport.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/MailImporter.h"
#include "MailCore/MIME/MessageIngestor.h"

namespace mailcore::testing {
namespace {

namespace fs = std::filesystem;

const AccountID account("local");

std::string message(const std::string& subject, const std::string& messageID,
                    const std::string& extraHeaders = "", const std::string& body = "hello\n") {
    return "From: Alice <alice@example.com>\nTo: Bob <bob@example.com>\nSubject: " + subject +
           "\nMessage-ID: <" + messageID + ">\nDate: Mon, 12 Feb 2024 10:00:00 +0000\n" +
           extraHeaders + "\n" + body;
}

class MailImporterTest : public ::testing::Test {
protected:
    void SetUp() override {
        store_ = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir_ / "store/mail.db"));
        store_->saveAccount(account, Json::object(), dateFromSeconds(1700000000));
    }

    // INBOX with three messages (one with an attachment, one a reply to a
    // message in Sent), Sent with one, a nested folder with one, a broken
    // file, and a file still being delivered in tmp/.
    void buildTree() {
        makeMaildir(root_);
        makeMaildir(root_ / ".Sent");
        makeMaildir(root_ / "Lists" / "dev");
        writeFile(root_ / "cur" / "1700000001.A.host:2,S",
                  message("Budget", "budget@example.com", "", "Numbers for zanzibar attached.\n"));
        writeFile(root_ / "cur" / "1700000002.B.host:2,FS",
                  message("Re: Plan", "reply@example.com", "In-Reply-To: <plan@example.com>\n"));
        writeFile(
            root_ / "new" / "1700000003.C.host",
            message(
                "Report", "report@example.com",
                "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=M\n",
                "--M\nContent-Type: text/plain\n\nsee file\n--M\n"
                "Content-Type: application/pdf; name=r.pdf\nContent-Transfer-Encoding: base64\n\n"
                "JVBERi0xLjQK\n--M--\n"));
        writeFile(root_ / "cur" / "1700000004.D.host:2,S", "");
        writeFile(root_ / "tmp" / "1700000005.E.host", message("Half", "half@example.com"));
        writeFile(root_ / ".Sent" / "cur" / "1600000000.F.host:2,S",
                  message("Plan", "plan@example.com"));
        writeFile(root_ / "Lists" / "dev" / "cur" / "1700000006.G.host:2,",
                  message("[dev] Release", "release@example.com"));
    }

    std::int64_t count(const std::string& sql) {
        return store_->read([&](SQLiteDatabase& db) { return db.scalarInt(sql).value_or(-1); });
    }

    std::map<std::string, FolderRecord> foldersByPath() {
        std::map<std::string, FolderRecord> out;
        for (auto& f : store_->folders(account)) out[f.path] = f;
        return out;
    }

    std::vector<MessageListRow> rows(FolderID folder) {
        MessageQuery q;
        q.folderID = folder;
        q.pageSize = 100;
        return store_->messages(q).rows;
    }

    TempDir dir_;
    std::unique_ptr<SQLiteMailStore> store_;
    fs::path root_ = dir_ / "Maildir";
};

TEST_F(MailImporterTest, MaildirTreeBecomesFoldersMessagesThreadsBodiesAndAttachments) {
    buildTree();
    std::vector<ImportProgress> seen;
    ImportOptions options;
    options.batchSize = 2;
    options.workers = 2;
    options.progress = [&](const ImportProgress& p) { seen.push_back(p); };
    const ImportReport report = MailImporter(*store_, account).importMaildir(root_, options);

    EXPECT_EQ(report.imported, 5u);
    EXPECT_EQ(report.failed, 1u);
    ASSERT_EQ(report.failures.size(), 1u);
    EXPECT_NE(report.failures[0].source.find("1700000004.D.host"), std::string::npos);
    EXPECT_EQ(report.failures[0].reason, "empty message");

    auto folders = foldersByPath();
    ASSERT_EQ(folders.size(), 3u);
    EXPECT_EQ(folders["INBOX"].role, FolderRole::inbox);
    EXPECT_EQ(folders["Sent"].role, FolderRole::sent);
    EXPECT_EQ(folders["Sent"].delimiter, ".");
    EXPECT_EQ(folders["Lists/dev"].delimiter, "/");
    EXPECT_EQ(folders["INBOX"].totalCount, 3);
    EXPECT_EQ(folders["INBOX"].unreadCount, 1);  // only the one in new/

    std::map<std::string, MessageListRow> inbox;
    for (auto& r : rows(folders["INBOX"].id)) inbox[r.subject] = r;
    ASSERT_EQ(inbox.size(), 3u);
    EXPECT_EQ(inbox["Re: Plan"].flags.system, MessageFlags::seen | MessageFlags::flagged);
    EXPECT_TRUE(inbox["Report"].hasAttachments);
    EXPECT_EQ(inbox["Budget"].snippet, "Numbers for zanzibar attached.");

    // The reply in INBOX and its parent in Sent share a thread.
    const auto sent = rows(folders["Sent"].id);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].threadID, inbox["Re: Plan"].threadID);

    const auto body = store_->body(inbox["Report"].id);
    ASSERT_TRUE(body.has_value());
    EXPECT_EQ(body->text, "see file");
    const auto attachments = store_->attachments(inbox["Report"].id);
    ASSERT_EQ(attachments.size(), 1u);
    EXPECT_EQ(attachments[0].filename, "r.pdf");
    EXPECT_EQ(attachments[0].partID, PartID("2"));
    EXPECT_EQ(attachments[0].size, 9);

    SearchQuery search;
    search.text = "zanzibar";
    const auto hits = store_->search(search);
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].row.subject, "Budget");

    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().imported, 5u);
    EXPECT_EQ(seen.back().failed, 1u);
    EXPECT_EQ(seen.back().found, 6u);
    for (std::size_t i = 1; i < seen.size(); ++i) EXPECT_GE(seen[i].imported, seen[i - 1].imported);
}

TEST_F(MailImporterTest, SecondImportAddsNothingAndPicksUpChangedFlags) {
    buildTree();
    MailImporter importer(*store_, account);
    importer.importMaildir(root_);
    const std::int64_t messages = count("SELECT COUNT(*) FROM messages");
    const std::int64_t threads = count("SELECT COUNT(*) FROM threads");

    // Another program marks a message flagged and moves a new one to cur/.
    fs::rename(root_ / "cur" / "1700000001.A.host:2,S", root_ / "cur" / "1700000001.A.host:2,FS");
    fs::rename(root_ / "new" / "1700000003.C.host", root_ / "cur" / "1700000003.C.host:2,S");

    const ImportReport again = importer.importMaildir(root_);
    EXPECT_EQ(again.imported, 0u);
    EXPECT_EQ(again.skipped, 5u);
    EXPECT_EQ(again.flagsUpdated, 2u);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), messages);
    EXPECT_EQ(count("SELECT COUNT(*) FROM threads"), threads);
    EXPECT_EQ(count("SELECT flags_system FROM messages WHERE subject = 'Budget'"),
              MessageFlags::seen | MessageFlags::flagged);
    EXPECT_EQ(foldersByPath()["INBOX"].unreadCount, 0);
}

TEST_F(MailImporterTest, InterruptedImportResumesWithoutDuplicates) {
    makeMaildir(root_);
    for (int i = 0; i < 9; ++i) {
        writeFile(
            root_ / "cur" / ("17000000" + std::to_string(10 + i) + ".X.host:2,S"),
            message("Message " + std::to_string(i), "m" + std::to_string(i) + "@example.com"));
    }
    ImportOptions options;
    options.batchSize = 4;
    options.progress = [](const ImportProgress& p) {
        if (p.imported >= 4) throw std::runtime_error("stopped");
    };
    MailImporter importer(*store_, account);
    EXPECT_THROW(importer.importMaildir(root_, options), std::runtime_error);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), 4);

    const ImportReport resumed = importer.importMaildir(root_);
    EXPECT_EQ(resumed.skipped, 4u);
    EXPECT_EQ(resumed.imported, 5u);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), 9);
    EXPECT_EQ(count("SELECT COUNT(DISTINCT uid) FROM messages"), 9);
    // UIDs follow file name order.
    EXPECT_EQ(count("SELECT uid FROM messages WHERE subject = 'Message 0'"), 1);
    EXPECT_EQ(count("SELECT uid FROM messages WHERE subject = 'Message 8'"), 9);
}

TEST_F(MailImporterTest, MboxImportIsIdempotentAndKeepsIdenticalCopies) {
    const std::string copy = "From a@example.com Mon Feb 12 10:00:00 2024\n" +
                             message("Same", "same@example.com", "Status: RO\n");
    const std::string mbox =
        copy + "\n" + copy + "\n" + "From b@example.com Tue Feb 13 11:00:00 2024\n" +
        message("Other", "other@example.com", "", "quoted:\n>From somewhere\n");
    const fs::path path = dir_ / "archive.mbox";
    writeFile(path, mbox);

    MailImporter importer(*store_, account);
    const ImportReport first = importer.importMbox(path, "Archive/Old");
    EXPECT_EQ(first.imported, 3u);
    const ImportReport second = importer.importMbox(path, "Archive/Old");
    EXPECT_EQ(second.imported, 0u);
    EXPECT_EQ(second.skipped, 3u);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), 3);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages WHERE subject = 'Same' AND flags_system = 1"),
              2);
    auto folders = foldersByPath();
    ASSERT_EQ(folders.size(), 1u);
    EXPECT_EQ(folders.begin()->first, "Archive/Old");
    const auto text = store_->read([](SQLiteDatabase& db) {
        return db.queryOne<std::string>(
            "SELECT b.text FROM bodies b JOIN messages m ON m.id = b.message_id "
            "WHERE m.subject = 'Other'",
            {}, [](const SQLRow& row) { return row.text(0); });
    });
    EXPECT_EQ(text, "quoted:\nFrom somewhere\n");
}

TEST_F(MailImporterTest, MissingAccountAndMissingSourcesAreClearErrors) {
    MailImporter stranger(*store_, AccountID("nobody"));
    makeMaildir(root_);
    try {
        stranger.importMaildir(root_);
        FAIL() << "expected an error";
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "account not found");
    }
    MailImporter importer(*store_, account);
    EXPECT_THROW(importer.importMbox(dir_ / "missing.mbox", "X"), MailError);
    EXPECT_THROW(importer.importMaildir(dir_ / "missing"), MailError);
    EXPECT_EQ(count("SELECT COUNT(*) FROM folders"), 0);  // a failed import creates nothing
}

// --- single-message ingestion ---

TEST_F(MailImporterTest, IngestFilesOneMessageInOneTransaction) {
    const FolderID inbox =
        store_->createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});
    MessageIngestor ingestor(*store_);
    IncomingMessage incoming{inbox, IMAPUID(7), MessageFlags{MessageFlags::seen, {}}, std::nullopt,
                             std::nullopt};
    const MessageID id = ingestor.ingest(account, incoming, message("First", "first@example.com"));
    const auto fields = store_->messageFields(id);
    ASSERT_TRUE(fields.has_value());
    EXPECT_EQ(fields->subject, "First");
    EXPECT_EQ(fields->threading.messageID->value(), "first@example.com");
    EXPECT_EQ(fields->from, (std::vector<MailAddress>{{"Alice", "alice@example.com"}}));

    // The same UID again updates the message instead of adding one.
    const MessageID again =
        ingestor.ingest(account, incoming, message("First, edited", "first@example.com"));
    EXPECT_EQ(again, id);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), 1);
    EXPECT_EQ(store_->messageFields(id)->subject, "First, edited");

    // A failure part-way leaves nothing behind: a folder that does not exist.
    IncomingMessage nowhere{FolderID(9999), IMAPUID(1), {}, std::nullopt, std::nullopt};
    EXPECT_THROW(ingestor.ingest(account, nowhere, message("Lost", "lost@example.com")), MailError);
    EXPECT_EQ(count("SELECT COUNT(*) FROM messages"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM threads"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM bodies"), 1);
    EXPECT_THROW(ingestor.ingest(account, incoming, ""), MailError);
}

TEST(PrepareMessage, MapsParsedFieldsToStoreRecords) {
    const ParsedMessage parsed = MessageParser().parse(
        "From: Alice <alice@example.com>\nTo: bob@example.com\nReply-To: list@example.com\n"
        "Subject: Re: [team] Fwd: Launch\nMessage-ID: <x@Example.COM>\nIn-Reply-To: "
        "<p@example.com>\n"
        "References: <r@example.com> <bad id> <p@example.com>\n\nhello there\n");
    IncomingMessage incoming{FolderID(3), IMAPUID(9), MessageFlags{MessageFlags::seen, {"work"}},
                             dateFromSeconds(1000), std::nullopt};
    const PreparedMessage p = prepareMessage(parsed, account, incoming, dateFromSeconds(2000));
    EXPECT_EQ(p.fields.threading.normalizedSubject, "launch");
    EXPECT_EQ(p.fields.threading.messageID->normalizedKey(), "x@example.com");
    ASSERT_EQ(p.fields.threading.references.size(), 2u);
    EXPECT_EQ(p.fields.threading.inReplyTo.front().value(), "p@example.com");
    EXPECT_EQ(p.fields.replyTo, (std::vector<MailAddress>{{"", "list@example.com"}}));
    EXPECT_EQ(secondsSince1970(p.fields.date), 1000.0);  // no Date header: the internal date
    EXPECT_EQ(p.fields.flags.keywords, std::vector<std::string>{"work"});
    EXPECT_EQ(p.body.text, "hello there\n");
    EXPECT_EQ(p.body.bytes, 12);
    ASSERT_TRUE(p.body.structure.has_value());
    const Json structure =
        parseJson(std::string(p.body.structure->begin(), p.body.structure->end()));
    EXPECT_EQ(structure[0]["mimeType"], "text/plain");
}

}  // namespace
}  // namespace mailcore::testing
