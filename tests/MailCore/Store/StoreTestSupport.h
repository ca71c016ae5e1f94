// Helpers shared by the store and outbox tests: message and outgoing-mail
// records built with little ceremony, and stores on a temporary file.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "MailCore/Store/SQLiteMailStore.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore::testing {

using testfiles::TempDir;

inline MailAddress addr(const std::string& email, const std::string& name = "") {
    return MailAddress{name, email};
}

inline Date at(double seconds) { return dateFromSeconds(seconds); }

// The detail of the MailError that `body` throws, or "no error".
inline std::string errorDetail(const std::function<void()>& body) {
    auto error = testfiles::caught<MailError>(body);
    return error ? error->detail() : "no error";
}

// A message in `folder` with the given UID, Message-ID, references and
// subject, from `from` to `to`.
inline MessageIndexFields message(const AccountID& account, FolderID folder, std::uint32_t uid,
                                  const std::string& messageID, const std::string& inReplyTo,
                                  const std::string& references, const std::string& subject,
                                  const std::string& from = "alice@example.com",
                                  const std::string& to = "bob@example.com", double date = 1000) {
    MessageIndexFields f;
    f.accountID = account;
    f.folderID = folder;
    f.uid = IMAPUID(uid);
    f.threading = ThreadingKeys::fromHeaders(messageID, inReplyTo, references, subject);
    f.subject = subject;
    f.from = {addr(from)};
    f.to = {addr(to)};
    f.date = at(date);
    f.size = 100;
    return f;
}

inline OutgoingMessage outgoing(const std::string& subject) {
    OutgoingMessage m;
    m.from = {addr("me@example.com")};
    m.to = {addr("you@example.com", "You")};
    m.subject = subject;
    m.textBody = "body of " + subject;
    m.messageID = InternetMessageID::normalizing("<" + subject + "@example.com>");
    return m;
}

// A store on a temporary file with one account "acct" and its inbox.
struct StoreFixture : ::testing::Test {
    TempDir dir;
    std::unique_ptr<SQLiteMailStore> store;
    AccountID account{"acct"};
    FolderID inbox;

    void SetUp() override { open("mail.db"); }
    // A new store on the file `name`, for a test that needs several.
    void open(const std::string& name) {
        store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file(name)));
        store->saveAccount(account, Json::object(), at(1));
        inbox = store->createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});
    }
    std::int64_t rows(const std::string& table) {
        return store->read(
            [&](SQLiteDatabase& db) { return *db.scalarInt("SELECT COUNT(*) FROM " + table); });
    }
    // Closes the store and opens the file again, as after a crash.
    void reopen() {
        store.reset();
        store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file("mail.db")));
    }
};

// The same with an archive folder and two messages in the inbox (UIDs 1
// and 2), for the outbox.
struct OutboxStoreFixture : StoreFixture {
    FolderID archive;
    MessageID m1, m2;

    void SetUp() override {
        StoreFixture::SetUp();
        archive =
            store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
        auto ids = store->upsertSync({message(account, inbox, 1, "<a@x>", "", "", "A"),
                                      message(account, inbox, 2, "<b@x>", "", "", "B")});
        m1 = ids[0];
        m2 = ids[1];
    }
    OutboxMessageRef ref(MessageID id) {
        return OutboxMessageRef{id, inbox, IMAPUID(id == m1 ? 1 : 2), std::nullopt};
    }
    static FlagChange add(std::int64_t flags) { return FlagChange{flags, 0, {}, {}}; }
    static FlagChange remove(std::int64_t flags) { return FlagChange{0, flags, {}, {}}; }
    // An outbox item as "state attempts due error" ("gone" once deleted),
    // with its due time in seconds after `since`.
    std::string summary(const OutboxItemID& id, double since = 0) {
        auto row = store->outboxItem(id);
        if (!row) return "gone";
        std::ostringstream out;
        out << rawValue(row->item.state) << " " << row->item.attemptCount << " "
            << secondsSince1970(row->item.notBefore) - since << " "
            << (row->item.lastError ? row->item.lastError->what() : "-");
        return out.str();
    }
    OutboxItem send(const std::string& subject, std::optional<std::string> draft, double when) {
        std::optional<DraftID> d;
        if (draft) d = DraftID(*draft);
        return store->enqueue(account, OutboxOperation::send({outgoing(subject), d, true}),
                              at(when));
    }
};

}  // namespace mailcore::testing
