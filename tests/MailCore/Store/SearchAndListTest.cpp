// Full-text search and message lists: ranking, filters, user text that is
// not a valid match expression, paging, collapsed threads, folder counts,
// local moves, folder listings and the rest of the store's bookkeeping.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "MailCore/Store/SearchExpression.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using testing::errorDetail;
using testing::message;
using testing::StoreFixture;

TEST(SearchExpressionTest, BuildsQuotedTerms) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"budget", "\"budget\""},
        {"\"quarterly budget\" plan", "\"quarterly budget\" \"plan\""},
        {"budg*", "\"budg\"*"},
        {"\"quarterly bud\"*", "\"quarterly bud\"*"},
        {"foo\"bar", "\"foo\" \"bar\""},
        {"AND (", "\"AND\""},
        {"subject:hi", "\"subject:hi\""},
        {"\"unterminated phrase", "\"unterminated phrase\""},
        {"it\"s", "\"it\" \"s\""},
        {"*", std::nullopt},
        {"  ( ) - ^ ", std::nullopt},
        {"", std::nullopt},
        {"caf\xc3\xa9", "\"caf\xc3\xa9\""},
        {"a\x1f"
         "b\x7f"
         "c",
         "\"a b c\""},  // the last control character and DEL
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(SearchExpression::build(in), out) << in;
}

StoredBody bodyOf(const std::string& text, double fetchedAt) {
    StoredBody b;
    b.text = text;
    b.fetchedAt = at(fetchedAt);
    b.bytes = static_cast<std::int64_t>(text.size());
    return b;
}

struct SearchTest : StoreFixture {
    std::map<std::string, MessageID> ids;  // by label
    std::uint32_t nextUID = 1;

    MessageID add(const std::string& label, const std::string& subject, const std::string& body,
                  double date, const std::string& from = "ann@example.com",
                  FolderID folder = FolderID(), bool attachments = false) {
        std::uint32_t uid = nextUID++;
        auto f =
            message(account, folder.value ? folder : inbox, uid, "<m" + std::to_string(uid) + "@x>",
                    "", "", subject, from, "ben@example.com", date);
        f.snippet = body.substr(0, 20);
        f.hasAttachments = attachments;
        auto id = ids[label] = store->upsertSync({f}).front();
        if (!body.empty()) {
            store->saveBody(id, bodyOf(body, date));
        }
        return id;
    }
    // The labels of the hits, best first, separated by spaces.
    std::string hits(const std::string& text, std::optional<AccountID> inAccount = {},
                     std::optional<FolderID> inFolder = {}, bool attachments = false) {
        std::string out;
        for (const auto& hit :
             store->search(SearchQuery{text, inAccount, inFolder, attachments, 50})) {
            for (const auto& [label, id] : ids) {
                if (id == hit.row.id) out += (out.empty() ? "" : " ") + label;
            }
        }
        return out;
    }
};

TEST_F(SearchTest, RanksMatchesAndAppliesFilters) {
    FolderID other =
        store->createFolder(account, FolderListing{"Other", "/", FolderRole::custom, {}});
    add("notes", "Weekly notes", "budget: the budget, our budget", 200);
    add("budget", "Budget", "numbers attached", 100);
    add("w100", "walrus", "", 100);
    add("w300", "walrus", "", 300);
    add("w200", "walrus", "", 200);
    add("w200-later", "walrus", "", 200);
    add("review", "Quarterly sales review", "", 100, "zoe@example.com");
    add("sales", "Sales quarterly", "", 200);
    add("creme", "Crème brûlée", "", 300);
    add("foobar", "foo bar", "", 100);
    add("heron", "heron", "", 100);
    store->setLocalFlags(add("deleted", "heron", "", 200), MessageFlags{MessageFlags::deleted, {}});
    store->deleteLocally(add("pending delete", "heron", "", 300));
    add("ibis", "ibis", "", 100);
    add("ibis elsewhere", "ibis", "", 50, "a@x", other, true);

    EXPECT_EQ(hits("budget"), "budget notes");  // the subject weighs more than the body
    EXPECT_EQ(hits("walrus"), "w300 w200-later w200 w100");  // ties: newest, then highest id
    EXPECT_EQ(hits("\"quarterly sales\""), "review");
    EXPECT_EQ(hits("quart*"), "sales review");
    EXPECT_EQ(hits("zoe"), "review");
    EXPECT_EQ(hits("zoe@example.com"), "review");
    EXPECT_EQ(hits("creme brulee"), "creme");
    EXPECT_EQ(hits("foo\"bar"), "foobar");
    EXPECT_EQ(hits("heron"), "heron");
    EXPECT_EQ(hits("ibis", {}, inbox), "ibis");
    EXPECT_EQ(hits("ibis", account, {}, true), "ibis elsewhere");
    EXPECT_EQ(hits("ibis", AccountID("nobody")), "");
    // Text that is no valid match expression never raises a syntax error.
    for (const char* text :
         {"foo\"bar", "AND (", "*", "\"", "foo AND", "NEAR(foo bar)", "^foo", "{subject}: foo",
          "foo:", "-foo", "(((", "\"\"\"\"", "foo*bar*", "\x01\x02", "e-mail", "foo)"}) {
        EXPECT_NO_THROW(store->search(SearchQuery{text, {}, {}, false, 5})) << text;
    }
}

TEST_F(SearchTest, ExcerptMarksMatchesAndBodyChangesKeepTheIndexInStep) {
    const std::string body = "first body about the kestrels and the quick fox";
    auto id = add("k", "Greeting", body, 100);
    auto found = store->search(SearchQuery{"fox", {}, {}, false, 5});
    ASSERT_EQ(found.size(), 1u);
    ASSERT_TRUE(found[0].excerpt);
    EXPECT_NE(found[0].excerpt->find("\u2039fox\u203a"), std::string::npos) << *found[0].excerpt;
    EXPECT_LT(found[0].rank, 0);
    // New headers without a body keep the indexed body.
    store->upsertSync({message(account, inbox, 1, "<m1@x>", "", "", "Greeting again",
                               "ann@example.com", "ben@example.com", 100)});
    EXPECT_EQ(hits("kestrels"), "k");
    EXPECT_EQ(hits("again"), "k");
    EXPECT_EQ(store->message(id)->snippet, "first body about the");
    // Eviction removes the body but keeps what was indexed.
    EXPECT_EQ(store->bodyBytes(), static_cast<std::int64_t>(body.size()));
    EXPECT_EQ(store->evictBodies(BodyEvictionPolicy{at(1000), std::nullopt, true}), 1);
    EXPECT_FALSE(store->body(id).has_value());
    EXPECT_EQ(store->bodyBytes(), 0);
    EXPECT_EQ(hits("kestrels"), "k");
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
    FolderID folder(const std::string& path, FolderRole role) {
        return store->createFolder(account, FolderListing{path, "/", role, {}});
    }
};

TEST_F(ListTest, CursorPagingHasNoGapsOrRepeatsUnderEqualDates) {
    for (std::uint32_t i = 1; i <= 23; ++i)
        add(i, "<" + std::to_string(i) + "@x>", "", i % 3 == 0 ? 500 : 100 * (i % 4));
    MessageQuery q;
    q.folderID = inbox;
    q.pageSize = 5;
    std::vector<MessageID> seen;
    std::optional<PageCursor> next;
    for (int pages = 0; pages == 0 || (next && pages < 10); ++pages) {
        q.cursor = next;
        auto ids = page(q, &next);
        seen.insert(seen.end(), ids.begin(), ids.end());
    }
    EXPECT_EQ(seen.size(), 23u);
    EXPECT_EQ(std::set<MessageID>(seen.begin(), seen.end()).size(), 23u);
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
    FolderID trash = folder("Trash", FolderRole::trash);
    auto unread = add(1, "<1@x>", "", 100);
    auto flagged = add(2, "<2@x>", "", 200, MessageFlags::seen | MessageFlags::flagged);
    auto draft = add(3, "<3@x>", "", 300, MessageFlags::draft);
    add(4, "<4@x>", "", 400, MessageFlags::deleted);
    auto trashed = add(1, "<5@x>", "", 500, 0, trash);
    store->deleteLocally(add(5, "<6@x>", "", 600));

    EXPECT_EQ(store->folder(inbox)->totalCount, 3);   // not deleted, not pending
    EXPECT_EQ(store->folder(inbox)->unreadCount, 1);  // drafts are never unread
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
}

TEST_F(ListTest, LocalMoveIsBoundToTheServerCopy) {
    FolderID archive = folder("Archive", FolderRole::archive);
    auto id = add(1, "<a@x>", "", 100);
    store->saveBody(id, bodyOf("kept body", 5));
    store->moveLocally(id, archive);
    auto row = store->message(id);
    EXPECT_EQ(row->folderID, archive);
    EXPECT_EQ(row->localState, LocalState::pendingMove);
    EXPECT_EQ(store->folder(inbox)->totalCount, 0);
    EXPECT_EQ(store->folder(archive)->totalCount, 1);

    // Sync filed the server copy before the move was bound: folded in.
    auto dup = message(account, archive, 77, "<a@x>", "", "", "sa", "a@x", "b@x", 100);
    dup.flags.system = MessageFlags::seen;
    auto dupID = store->upsertSync({dup}).front();
    EXPECT_NE(dupID, id);
    store->bindMovedMessage(id, archive, IMAPUID(77));
    row = store->message(id);
    EXPECT_EQ(row->localState, LocalState::synced);
    EXPECT_EQ(row->flags.system, MessageFlags::seen);
    EXPECT_FALSE(store->message(dupID).has_value());
    EXPECT_EQ(store->body(id)->text, "kept body");
    EXPECT_EQ(store->folder(archive)->totalCount, 1);

    store->saveAccount(AccountID("other"), Json::object(), at(2));
    FolderID foreign =
        store->createFolder(AccountID("other"), FolderListing{"INBOX", "/", FolderRole::inbox, {}});
    EXPECT_EQ(errorDetail([&] { store->moveLocally(id, foreign); }), "cannot move across accounts");
    EXPECT_EQ(errorDetail([&] { store->moveLocally(id, FolderID(999)); }), "folder not found");
    EXPECT_EQ(store->message(id)->folderID, archive);  // nothing changed
}

TEST_F(ListTest, UIDValidityResetKeepsPendingMoves) {
    FolderID archive = folder("Archive", FolderRole::archive);
    auto moved = add(1, "<a@x>", "", 100);
    add(2, "<b@x>", "<a@x>", 200, 0, archive);
    add(3, "<c@x>", "", 300, 0, archive);
    store->moveLocally(moved, archive);
    store->resetFolder(archive, UIDValidity(777));
    EXPECT_EQ(store->folder(archive)->cursor.uidValidity, UIDValidity(777));
    EXPECT_EQ(store->folder(archive)->totalCount, 1);
    EXPECT_TRUE(store->message(moved).has_value());
    EXPECT_EQ(rows("threads"), 1);
    EXPECT_EQ(rows("message_search"), 1);
}

TEST_F(ListTest, FolderListingKeepsUserRolesAndRemovesMissingFolders) {
    FolderID junk = folder("Spam", FolderRole::junk);
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
    for (const char* table : {"messages", "message_search", "threads"}) {
        EXPECT_EQ(rows(table), 0) << table;
    }
    EXPECT_EQ(errorDetail([&] { store->applyFolderListing(AccountID("ghost"), {}); }),
              "account not found");
}

TEST_F(ListTest, AttachmentsKeepTheirCachedCopies) {
    auto id = add(1, "<a@x>", "", 100);
    const AttachmentInfo pdf{PartID("2"),  "a.pdf", "application/pdf", 10,
                             std::nullopt, false,   std::nullopt};
    store->replaceAttachments(id, {pdf, AttachmentInfo{PartID("3"), "logo.png", "image/png", 5,
                                                       std::string("cid1"), true, std::nullopt}});
    store->setAttachmentCachedPath(id, PartID("2"), std::string("/cache/a.pdf"));
    store->replaceAttachments(id, {pdf});
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
    EXPECT_EQ(errorDetail([&] { store->accountConfig(AccountID("b")); }),
              "stored value is not decodable as AccountConfig");

    // Removing an account removes its messages, threads and search rows.
    add(1, "<a@x>", "", 100);
    store->removeAccount(account);
    for (const char* table : {"messages", "message_search", "threads"}) {
        EXPECT_EQ(rows(table), 0) << table;
    }
}

TEST_F(ListTest, FailedWriteLeavesNothingBehind) {
    add(1, "<a@x>", "", 100);
    auto good = message(account, inbox, 2, "<b@x>", "", "", "b");
    auto bad = message(account, FolderID(999), 3, "<c@x>", "", "", "c");  // no such folder
    EXPECT_THROW(store->upsertSync({good, bad}), MailError);
    for (const char* table : {"messages", "message_search", "threads"}) {
        EXPECT_EQ(rows(table), 1) << table;
    }
    EXPECT_EQ(store->folder(inbox)->totalCount, 1);
}

}  // namespace
}  // namespace mailcore
