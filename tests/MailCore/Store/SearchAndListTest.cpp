#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/Store/SearchExpression.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::addr;
using testing::at;
using testing::message;
using testing::StoreFixture;

TEST(SearchExpressionTest, BuildsQuotedTerms) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"budget", "\"budget\""},
        {"budget plan", "\"budget\" \"plan\""},
        {"\"quarterly budget\" plan", "\"quarterly budget\" \"plan\""},
        {"budg*", "\"budg\"*"},
        {"\"quarterly bud\"*", "\"quarterly bud\"*"},
        {"foo\"bar", "\"foo\" \"bar\""},
        {"AND (", "\"AND\""},
        {"OR NOT NEAR", "\"OR\" \"NOT\" \"NEAR\""},
        {"subject:hi", "\"subject:hi\""},
        {"alice@example.com", "\"alice@example.com\""},
        {"\"unterminated phrase", "\"unterminated phrase\""},
        {"it\"s", "\"it\" \"s\""},
        {"*", std::nullopt},
        {"\"", std::nullopt},
        {"  ( ) - ^ ", std::nullopt},
        {"", std::nullopt},
        {"caf\xc3\xa9", "\"caf\xc3\xa9\""},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(SearchExpression::build(in), out) << in;
}

struct SearchTest : StoreFixture {
    MessageID add(std::uint32_t uid, const std::string& subject, const std::string& body,
                  double date, const std::string& from = "ann@example.com") {
        auto f = message(account, inbox, uid, "<m" + std::to_string(uid) + "@x>", "", "", subject,
                         from, "ben@example.com", date);
        f.snippet = body.substr(0, 20);
        auto id = store->upsertSync({f}).front();
        if (!body.empty()) {
            StoredBody b;
            b.text = body;
            b.fetchedAt = at(date);
            b.bytes = static_cast<std::int64_t>(body.size());
            store->saveBody(id, b);
        }
        return id;
    }
    std::vector<MessageID> ids(const std::string& text) {
        std::vector<MessageID> out;
        for (const auto& hit : store->search(SearchQuery{text, {}, {}, false, 50})) {
            out.push_back(hit.row.id);
        }
        return out;
    }
};

TEST_F(SearchTest, SubjectMatchRanksAboveBodyMatch) {
    auto inBody = add(1, "Weekly notes", "we discussed the budget at length and nothing else", 200);
    auto inSubject = add(2, "Budget", "numbers attached", 100);
    EXPECT_EQ(ids("budget"), (std::vector<MessageID>{inSubject, inBody}));
}

TEST_F(SearchTest, TiesGoToTheNewerMessageThenTheHigherID) {
    auto older = add(1, "walrus", "", 100);
    auto newer = add(2, "walrus", "", 300);
    auto sameDateLow = add(3, "walrus", "", 200);
    auto sameDateHigh = add(4, "walrus", "", 200);
    EXPECT_EQ(ids("walrus"), (std::vector<MessageID>{newer, sameDateHigh, sameDateLow, older}));
}

TEST_F(SearchTest, ExcerptMarksMatches) {
    add(1, "x", "the quick brown fox jumps over the lazy dog", 100);
    auto hits = store->search(SearchQuery{"fox", {}, {}, false, 5});
    ASSERT_EQ(hits.size(), 1u);
    ASSERT_TRUE(hits[0].excerpt);
    EXPECT_NE(hits[0].excerpt->find("\u2039fox\u203a"), std::string::npos) << *hits[0].excerpt;
    EXPECT_LT(hits[0].rank, 0);
}

TEST_F(SearchTest, PhrasesPrefixesSendersAndDiacritics) {
    auto a = add(1, "Quarterly budget review", "", 100, "zoe@example.com");
    auto b = add(2, "Budget quarterly", "", 200);
    auto c = add(3, "Crème brûlée", "", 300);
    EXPECT_EQ(ids("\"quarterly budget\""), (std::vector<MessageID>{a}));
    EXPECT_EQ(ids("quart*"), (std::vector<MessageID>{b, a}));
    EXPECT_EQ(ids("zoe"), (std::vector<MessageID>{a}));
    EXPECT_EQ(ids("creme brulee"), (std::vector<MessageID>{c}));
    EXPECT_EQ(ids("zoe@example.com"), (std::vector<MessageID>{a}));
}

TEST_F(SearchTest, HostileInputNeverRaisesSyntaxErrors) {
    add(1, "foo bar", "", 100);
    for (const char* text :
         {"foo\"bar", "AND (", "*", "\"", "foo AND", "NEAR(foo bar)", "^foo", "{subject}: foo",
          "foo:", "-foo", "(((", "\"\"\"\"", "foo*bar*", "\x01\x02", "e-mail", "foo)"}) {
        EXPECT_NO_THROW(store->search(SearchQuery{text, {}, {}, false, 5})) << text;
    }
    EXPECT_EQ(ids("foo\"bar").size(), 1u);
}

TEST_F(SearchTest, DeletedAndPendingDeleteAreNeverReturned) {
    auto kept = add(1, "heron", "", 100);
    auto deleted = add(2, "heron", "", 200);
    auto pending = add(3, "heron", "", 300);
    store->setLocalFlags(deleted, MessageFlags{MessageFlags::deleted, {}});
    store->deleteLocally(pending);
    EXPECT_EQ(ids("heron"), (std::vector<MessageID>{kept}));
}

TEST_F(SearchTest, FiltersByFolderAccountAndAttachments) {
    FolderID other =
        store->createFolder(account, FolderListing{"Other", "/", FolderRole::custom, {}});
    auto here = add(1, "ibis", "", 100);
    auto f = message(account, other, 1, "<o@x>", "", "", "ibis", "a@x", "b@x", 50);
    f.hasAttachments = true;
    auto there = store->upsertSync({f}).front();
    auto q = SearchQuery{"ibis", {}, inbox, false, 10};
    EXPECT_EQ(store->search(q).size(), 1u);
    EXPECT_EQ(store->search(q).front().row.id, here);
    q = SearchQuery{"ibis", account, {}, true, 10};
    ASSERT_EQ(store->search(q).size(), 1u);
    EXPECT_EQ(store->search(q).front().row.id, there);
    EXPECT_TRUE(store->search(SearchQuery{"ibis", AccountID("nobody"), {}, false, 10}).empty());
}

TEST_F(SearchTest, RemovingAnAccountRemovesItsSearchRows) {
    add(1, "plover", "", 100);
    store->removeAccount(account);
    store->read([](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM message_search"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM messages"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 0);
    });
}

TEST_F(SearchTest, BodyUpdatesKeepTheIndexInStep) {
    auto id = add(1, "Greeting", "first body about kestrels", 100);
    EXPECT_EQ(ids("kestrels"), (std::vector<MessageID>{id}));
    // New headers without a body keep the indexed body.
    auto f = message(account, inbox, 1, "<m1@x>", "", "", "Greeting again", "ann@example.com",
                     "ben@example.com", 100);
    store->upsertSync({f});
    EXPECT_EQ(ids("kestrels"), (std::vector<MessageID>{id}));
    EXPECT_EQ(ids("again"), (std::vector<MessageID>{id}));
    EXPECT_EQ(store->message(id)->snippet, "first body about kes");
    // Eviction removes the body but keeps what was indexed.
    EXPECT_EQ(store->bodyBytes(), 25);
    EXPECT_EQ(store->evictBodies(BodyEvictionPolicy{at(1000), std::nullopt, true}), 1);
    EXPECT_FALSE(store->body(id).has_value());
    EXPECT_EQ(store->bodyBytes(), 0);
    EXPECT_EQ(ids("kestrels"), (std::vector<MessageID>{id}));
}

struct ListTest : StoreFixture {
    MessageID add(std::uint32_t uid, const std::string& mid, const std::string& irt, double date,
                  std::int64_t flags = 0, FolderID folder = FolderID()) {
        auto f = message(account, folder.value ? folder : inbox, uid, mid, irt, "", "s" + mid,
                         "a@x", "b@x", date);
        f.flags.system = flags;
        return store->upsertSync({f}).front();
    }
    std::vector<MessageID> page(MessageQuery q, std::optional<PageCursor>* next = nullptr) {
        auto p = store->messages(q);
        if (next) *next = p.nextCursor;
        std::vector<MessageID> out;
        for (const auto& r : p.rows) out.push_back(r.id);
        return out;
    }
};

TEST_F(ListTest, CursorPagingHasNoGapsOrRepeatsUnderEqualDates) {
    std::vector<MessageID> all;
    for (std::uint32_t i = 1; i <= 23; ++i)
        all.push_back(
            add(i, "<" + std::to_string(i) + "@x>", "", i % 3 == 0 ? 500 : 100 * (i % 4)));
    MessageQuery q;
    q.folderID = inbox;
    q.pageSize = 5;
    std::vector<MessageID> seen;
    std::optional<PageCursor> next;
    int pages = 0;
    do {
        q.cursor = next;
        auto ids = page(q, &next);
        seen.insert(seen.end(), ids.begin(), ids.end());
        ++pages;
    } while (next && pages < 10);
    EXPECT_EQ(seen.size(), all.size());
    EXPECT_EQ(std::set<MessageID>(seen.begin(), seen.end()).size(), all.size());
    for (std::size_t i = 1; i < seen.size(); ++i) {
        auto a = store->message(seen[i - 1]), b = store->message(seen[i]);
        EXPECT_TRUE(a->date > b->date || (a->date == b->date && a->id > b->id));
    }
}

TEST_F(ListTest, CollapsedListShowsEachThreadOnceWithCounts) {
    auto root = add(1, "<r@x>", "", 100, MessageFlags::seen);
    auto reply = add(2, "<r2@x>", "<r@x>", 300);
    auto reply2 = add(3, "<r3@x>", "<r@x>", 200, MessageFlags::draft);
    auto lone = add(4, "<l@x>", "", 250);
    MessageQuery q;
    q.folderID = inbox;
    q.collapseThreads = true;
    auto p = store->messages(q);
    ASSERT_EQ(p.rows.size(), 2u);
    EXPECT_EQ(p.rows[0].id, reply);
    EXPECT_EQ(p.rows[0].threadMessageCount, 3);
    EXPECT_EQ(p.rows[0].threadUnreadCount, 1);  // the draft is never unread
    EXPECT_EQ(p.rows[1].id, lone);
    EXPECT_EQ(p.rows[1].threadMessageCount, 1);
    EXPECT_FALSE(p.nextCursor);

    // Paged one thread at a time.
    q.pageSize = 1;
    std::optional<PageCursor> next;
    EXPECT_EQ(page(q, &next), (std::vector<MessageID>{reply}));
    q.cursor = next;
    EXPECT_EQ(page(q, &next), (std::vector<MessageID>{lone}));
    q.cursor = next;
    EXPECT_TRUE(page(q, &next).empty());

    // Oldest first within the thread.
    auto thread = store->threadMessages(store->message(root)->threadID);
    ASSERT_EQ(thread.size(), 3u);
    EXPECT_EQ(thread[0].id, root);
    EXPECT_EQ(thread[1].id, reply2);
    EXPECT_EQ(thread[2].id, reply);
}

TEST_F(ListTest, FiltersRolesAndCounts) {
    FolderID trash =
        store->createFolder(account, FolderListing{"Trash", "/", FolderRole::trash, {}});
    auto unread = add(1, "<1@x>", "", 100);
    auto flagged = add(2, "<2@x>", "", 200, MessageFlags::seen | MessageFlags::flagged);
    auto draft = add(3, "<3@x>", "", 300, MessageFlags::draft);
    auto deleted = add(4, "<4@x>", "", 400, MessageFlags::deleted);
    auto trashed = add(1, "<5@x>", "", 500, 0, trash);
    auto pending = add(5, "<6@x>", "", 600);
    store->deleteLocally(pending);

    auto inboxRecord = store->folder(inbox);
    EXPECT_EQ(inboxRecord->totalCount, 3);   // not deleted, not pending
    EXPECT_EQ(inboxRecord->unreadCount, 1);  // drafts are never unread

    MessageQuery q;
    EXPECT_EQ(page(q), (std::vector<MessageID>{draft, flagged, unread}));  // no trash
    q.role = FolderRole::trash;
    EXPECT_EQ(page(q), (std::vector<MessageID>{trashed}));
    q.accountID = AccountID("other");
    EXPECT_TRUE(page(q).empty());
    q = MessageQuery{};
    q.unreadOnly = true;
    EXPECT_EQ(page(q), (std::vector<MessageID>{unread}));
    q = MessageQuery{};
    q.flaggedOnly = true;
    EXPECT_EQ(page(q), (std::vector<MessageID>{flagged}));
    (void)deleted;
}

TEST_F(ListTest, LocalMoveAndServerBinding) {
    FolderID archive =
        store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
    auto id = add(1, "<a@x>", "", 100);
    StoredBody body;
    body.text = "kept body";
    body.fetchedAt = at(5);
    store->saveBody(id, body);
    store->moveLocally(id, archive);
    auto row = store->message(id);
    EXPECT_EQ(row->folderID, archive);
    EXPECT_EQ(row->localState, LocalState::pendingMove);
    EXPECT_EQ(store->folder(inbox)->totalCount, 0);
    EXPECT_EQ(store->folder(archive)->totalCount, 1);

    // Sync filed the server copy before the move was bound: folded in.
    auto dup = message(account, archive, 77, "<a@x>", "", "", "sa", "a@x", "b@x", 100);
    dup.flags.system = MessageFlags::seen;
    dup.modSeq = ModSeq(5);
    auto dupID = store->upsertSync({dup}).front();
    EXPECT_NE(dupID, id);
    store->bindMovedMessage(id, archive, IMAPUID(77));
    row = store->message(id);
    EXPECT_EQ(row->localState, LocalState::synced);
    EXPECT_EQ(row->flags.system, MessageFlags::seen);
    EXPECT_FALSE(store->message(dupID).has_value());
    EXPECT_EQ(store->body(id)->text, "kept body");
    EXPECT_EQ(store->folder(archive)->totalCount, 1);

    // Failures.
    store->saveAccount(AccountID("other"), Json::object(), at(2));
    FolderID foreign =
        store->createFolder(AccountID("other"), FolderListing{"INBOX", "/", FolderRole::inbox, {}});
    struct Case {
        FolderID target;
        const char* detail;
    };
    for (const auto& c :
         {Case{foreign, "cannot move across accounts"}, Case{FolderID(999), "folder not found"}}) {
        try {
            store->moveLocally(id, c.target);
            ADD_FAILURE() << c.detail;
        } catch (const MailError& e) {
            EXPECT_EQ(e.detail(), c.detail);
        }
    }
    EXPECT_EQ(store->message(id)->folderID, archive);  // nothing changed
}

TEST_F(ListTest, UIDValidityResetKeepsPendingMoves) {
    FolderID archive =
        store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
    auto moved = add(1, "<a@x>", "", 100);
    add(2, "<b@x>", "<a@x>", 200, 0, archive);
    add(3, "<c@x>", "", 300, 0, archive);
    store->moveLocally(moved, archive);
    store->resetFolder(archive, UIDValidity(777));
    auto f = store->folder(archive);
    EXPECT_EQ(f->cursor.uidValidity, UIDValidity(777));
    EXPECT_EQ(f->totalCount, 1);
    EXPECT_TRUE(store->message(moved).has_value());
    store->read([](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 1);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM message_search"), 1);
    });
}

TEST_F(ListTest, FolderListingKeepsUserRolesAndRemovesMissingFolders) {
    FolderID junk = store->createFolder(account, FolderListing{"Spam", "/", FolderRole::junk, {}});
    add(1, "<a@x>", "", 100, 0, junk);
    store->setFolderRole(inbox, FolderRole::archive);
    auto folders = store->applyFolderListing(
        account, {FolderListing{"INBOX", ".", FolderRole::inbox, {"\\HasNoChildren"}},
                  FolderListing{"Sent", ".", FolderRole::sent, {"\\Sent"}}});
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_EQ(folders[0].role, FolderRole::archive);
    EXPECT_TRUE(folders[0].roleOverride);
    EXPECT_EQ(folders[0].delimiter, ".");
    EXPECT_EQ(folders[0].attributes, (std::vector<std::string>{"\\HasNoChildren"}));
    EXPECT_EQ(folders[1].path, "Sent");
    EXPECT_EQ(folders[1].role, FolderRole::sent);
    EXPECT_FALSE(store->folder(junk).has_value());
    store->resetFolderRole(inbox);
    EXPECT_EQ(store->folder(inbox)->role, FolderRole::inbox);
    store->read([](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM messages"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM message_search"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 0);
    });
    try {
        store->applyFolderListing(AccountID("ghost"), {});
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "account not found");
    }
}

TEST_F(ListTest, AttachmentsKeepTheirCachedCopies) {
    auto id = add(1, "<a@x>", "", 100);
    store->replaceAttachments(id, {AttachmentInfo{PartID("2"), "a.pdf", "application/pdf", 10,
                                                  std::nullopt, false, std::nullopt},
                                   AttachmentInfo{PartID("3"), "logo.png", "image/png", 5,
                                                  std::string("cid1"), true, std::nullopt}});
    store->setAttachmentCachedPath(id, PartID("2"), std::string("/cache/a.pdf"));
    store->replaceAttachments(id, {AttachmentInfo{PartID("2"), "a.pdf", "application/pdf", 10,
                                                  std::nullopt, false, std::nullopt}});
    auto list = store->attachments(id);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].cachedPath, "/cache/a.pdf");
    auto byThread = store->threadAttachments();
    ASSERT_EQ(byThread.size(), 1u);
    EXPECT_EQ(byThread[0].second.size(), 1u);
}

TEST_F(ListTest, SettingsAndAccounts) {
    EXPECT_FALSE(store->setting("k").has_value());
    store->setSetting("k", Blob{1, 2});
    EXPECT_EQ(store->setting("k"), (Blob{1, 2}));
    store->setSetting("k", Blob{3});
    EXPECT_EQ(store->setting("k"), (Blob{3}));
    store->removeSetting("k");
    EXPECT_FALSE(store->setting("k").has_value());

    store->saveAccount(AccountID("b"), Json{{"n", 2}}, at(0));
    auto configs = store->accountConfigs();
    ASSERT_EQ(configs.size(), 2u);
    EXPECT_EQ(configs[0], (Json{{"n", 2}}));
    store->write(
        [](SQLiteDatabase& db) { db.run("UPDATE accounts SET config = x'ff00' WHERE id = 'b'"); });
    try {
        store->accountConfig(AccountID("b"));
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "stored value is not decodable as AccountConfig");
    }
}

TEST_F(ListTest, FailedWriteLeavesNothingBehind) {
    add(1, "<a@x>", "", 100);
    auto good = message(account, inbox, 2, "<b@x>", "", "", "b");
    auto bad = message(account, FolderID(999), 3, "<c@x>", "", "", "c");  // no such folder
    EXPECT_THROW(store->upsertSync({good, bad}), MailError);
    store->read([](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM messages"), 1);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM message_search"), 1);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 1);
    });
    EXPECT_EQ(store->folder(inbox)->totalCount, 1);
}

}  // namespace
}  // namespace mailcore
