#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Store/ThreadingKeys.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::message;
using testing::StoreFixture;

TEST(ThreadingKeysTest, NormalizesSubjects) {
    const std::pair<const char*, const char*> cases[] = {
        {"Re: [list] AW: Fwd: Budget (fwd)", "budget"},
        {"Re[3]: Plan", "plan"},
        {"Release notes", "release notes"},
        {"RE: RE:  re:Hello   World", "hello world"},
        {"Antw: Sv: Vs: WG: Tr: RV: FW: x", "x"},
        {"Re : spaced colon", "re : spaced colon"},  // the word must touch its colon
        {"Re[]: empty counter", "re[]: empty counter"},
        {"[a] [b] Re: [c] Topic", "topic"},
        {"[unclosed Re: x", "[unclosed re: x"},
        {"fwd", "fwd"},
        {"Re:", ""},
        {"  \t\r\n ", ""},
        {"Résumé  Ünïcode", "résumé  ünïcode"},
    };
    for (const auto& [in, out] : cases) {
        std::string expected = out;
        if (std::string(in) == "Résumé  Ünïcode") expected = "résumé Ünïcode";
        EXPECT_EQ(ThreadingKeys::normalizeSubject(in), expected) << in;
    }
}

TEST(ThreadingKeysTest, NormalizesMessageIDs) {
    EXPECT_EQ(InternetMessageID::normalizing(" <abc@Example.COM> ")->value(), "abc@Example.COM");
    EXPECT_EQ(InternetMessageID::normalizing("<abc@Example.COM>")->normalizedKey(),
              "abc@example.com");
    EXPECT_EQ(InternetMessageID::normalizing("A@b@C.Org")->normalizedKey(), "A@b@c.org");
    EXPECT_EQ(InternetMessageID::normalizing("NoAt")->normalizedKey(), "NoAt");
    EXPECT_EQ(InternetMessageID::normalizing("< spaced >")->value(), "spaced");
    for (const char* bad : {"", "<>", "  ", "<a b@c>", "a\tb"}) {
        EXPECT_FALSE(InternetMessageID::normalizing(bad).has_value()) << bad;
    }
}

TEST(ThreadingKeysTest, ParsesHeaderListsAndRoundTripsJSON) {
    auto keys =
        ThreadingKeys::fromHeaders("<m@x>", "<p@x> (comment)", "<a@x>\r\n <b@x> <c d@x>", "Re: Hi");
    ASSERT_TRUE(keys.messageID);
    EXPECT_EQ(keys.messageID->value(), "m@x");
    ASSERT_EQ(keys.inReplyTo.size(), 1u);
    ASSERT_EQ(keys.references.size(), 2u);  // "<c d@x>" is invalid
    EXPECT_EQ(keys.referenceKeys(), (std::vector<std::string>{"p@x", "a@x", "b@x"}));
    EXPECT_EQ(ThreadingKeys::fromJson(keys.toJson()), keys);
    EXPECT_EQ(ThreadingKeys::fromHeaders("not valid id", "", "", "").messageID, std::nullopt);
    try {
        ThreadingKeys::fromJson(Json{{"inReplyTo", 3}});
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "stored value is not decodable as ThreadingKeys");
    }
}

struct ThreadingStoreTest : StoreFixture {
    MessageID put(std::uint32_t uid, const std::string& mid, const std::string& irt,
                  const std::string& refs, const std::string& subject,
                  const std::string& from = "alice@example.com",
                  const std::string& to = "bob@example.com") {
        return store
            ->upsertSync(
                {message(account, inbox, uid, mid, irt, refs, subject, from, to, 1000 + uid)})
            .front();
    }
    ThreadID threadOf(MessageID id) { return store->message(id)->threadID; }
};

TEST_F(ThreadingStoreTest, ReplyJoinsItsParentsThread) {
    auto root = put(1, "<root@x>", "", "", "Plan");
    auto reply = put(2, "<r1@x>", "<root@x>", "<root@x>", "Re: Plan", "bob@example.com",
                     "alice@example.com");
    auto irtOnly = put(3, "<r2@x>", "<r1@X>", "", "something else");  // domain case differs
    auto localCase = put(4, "<r3@x>", "<R1@x>", "", "unrelated", "q@x", "z@x");
    EXPECT_EQ(threadOf(reply), threadOf(root));
    EXPECT_EQ(threadOf(irtOnly), threadOf(root));
    EXPECT_NE(threadOf(localCase), threadOf(root));  // the local part is case-sensitive
}

TEST_F(ThreadingStoreTest, ParentArrivingAfterRepliesMergesTheirThreads) {
    // Two replies to a root not seen yet: nothing links them, two threads.
    auto a = put(1, "<a@x>", "<root@x>", "", "one", "p@x", "q@x");
    auto b = put(2, "<b@x>", "", "<other@x>", "two", "r@x", "s@x");
    auto c = put(3, "<c@x>", "<root@x>", "", "three", "t@x", "u@x");
    ThreadID first = threadOf(a), second = threadOf(b), third = threadOf(c);
    EXPECT_NE(first, third);
    EXPECT_NE(first, second);

    // The root arrives: found through the replies' references, it joins
    // the smaller thread and the other is merged into it.
    auto root = put(4, "<root@x>", "", "", "zero", "v@x", "w@x");
    EXPECT_EQ(threadOf(root), first);
    EXPECT_EQ(threadOf(c), first);
    EXPECT_EQ(store->resolveThread(third), first);

    auto bridge = put(5, "<d@x>", "<root@x>", "<other@x>", "bridge", "v@x", "w@x");
    EXPECT_EQ(threadOf(bridge), first);
    EXPECT_EQ(threadOf(b), second);  // <other@x> itself is still unknown
    auto other = put(6, "<other@x>", "", "", "origin", "v@x", "w@x");
    EXPECT_EQ(threadOf(other), first);
    EXPECT_EQ(threadOf(b), first);
    EXPECT_EQ(store->resolveThread(second), first);
    EXPECT_EQ(store->threadMessages(second).size(), 6u);
}

TEST_F(ThreadingStoreTest, RedirectsNeverChain) {
    auto t3 = put(3, "<c@x>", "", "", "c", "1@x", "2@x");
    auto t2 = put(2, "<b@x>", "", "", "b", "3@x", "4@x");
    auto t1 = put(1, "<a@x>", "", "", "a", "5@x", "6@x");
    ThreadID id3 = threadOf(t3), id2 = threadOf(t2), id1 = threadOf(t1);
    ASSERT_LT(id3.value, id2.value);
    ASSERT_LT(id2.value, id1.value);
    // Merge thread of a into thread of b, then b's into c's.
    put(4, "<m1@x>", "", "<a@x> <b@x>", "m", "7@x", "8@x");
    EXPECT_EQ(store->resolveThread(id1), id2);
    put(5, "<m2@x>", "", "<b@x> <c@x>", "m", "7@x", "8@x");
    EXPECT_EQ(store->resolveThread(id1), id3);
    EXPECT_EQ(store->resolveThread(id2), id3);
    store->read([&](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM thread_redirects WHERE new_id IN (SELECT "
                               "old_id FROM thread_redirects)"),
                  0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 1);
    });
    EXPECT_EQ(store->threadMessages(id1).size(), 5u);
}

TEST_F(ThreadingStoreTest, SubjectFallbackNeedsASharedParticipant) {
    auto first = put(1, "<h1@x>", "", "", "Hello", "ann@x", "ben@x");
    auto strangers = put(2, "<h2@x>", "", "", "hello", "cat@x", "dan@x");
    auto sameSubjectNoHeaders = put(3, "", "", "", "Re: Hello", "ben@x", "ann@x");
    auto emptySubject = put(4, "<e1@x>", "", "", "Re:", "ann@x", "ben@x");
    auto emptySubject2 = put(5, "<e2@x>", "", "", "", "ann@x", "ben@x");
    EXPECT_NE(threadOf(first), threadOf(strangers));
    EXPECT_EQ(threadOf(sameSubjectNoHeaders), threadOf(first));
    EXPECT_NE(threadOf(emptySubject), threadOf(first));
    EXPECT_NE(threadOf(emptySubject2), threadOf(emptySubject));
    // Participants compare without regard to ASCII case.
    auto shouted = put(6, "<h3@x>", "", "", "HELLO", "CAT@X", "dan@x");
    EXPECT_EQ(threadOf(shouted), threadOf(strangers));
}

TEST_F(ThreadingStoreTest, OneCommonAddressDoesNotBridgeConversations) {
    // The mailbox owner is on every message; two people writing to them
    // with the same subject are two conversations.
    auto fromAnn = put(1, "<a@x>", "", "", "Meeting", "ann@x", "me@x");
    auto fromCat = put(2, "<c@x>", "", "", "Meeting", "cat@x", "me@x");
    EXPECT_NE(threadOf(fromCat), threadOf(fromAnn));
    // A reply without threading headers finds its own conversation.
    auto catAgain = put(3, "", "", "", "Re: meeting", "me@x", "cat@x");
    EXPECT_EQ(threadOf(catAgain), threadOf(fromCat));
    // A message with a single address needs only that one.
    auto note = put(4, "<n@x>", "", "", "Meeting", "ann@x", "");
    EXPECT_EQ(threadOf(note), threadOf(fromAnn));
}

TEST_F(ThreadingStoreTest, RepliesOnlySubjectFallbackKeepsNewConversationsApart) {
    EXPECT_TRUE(ThreadingKeys::hasReplyPrefix("[team] AW: x"));
    EXPECT_TRUE(ThreadingKeys::hasReplyPrefix("Re[2]: x"));
    EXPECT_FALSE(ThreadingKeys::hasReplyPrefix("Release notes"));
    EXPECT_FALSE(ThreadingKeys::hasReplyPrefix("[team] Lunch"));

    auto first = put(1, "<a@x>", "", "", "Lunch", "ann@x", "me@x");
    auto sameByDefault = put(2, "<b@x>", "", "", "Lunch", "me@x", "ann@x");
    EXPECT_EQ(threadOf(sameByDefault), threadOf(first));  // the default joins them

    store->setSubjectFallbackForRepliesOnly(true);
    auto newConversation = put(3, "<c@x>", "", "", "Lunch", "ann@x", "me@x");
    EXPECT_NE(threadOf(newConversation), threadOf(first));
    auto headerlessReply = put(4, "", "", "", "Re: Lunch", "me@x", "ann@x");
    EXPECT_EQ(threadOf(headerlessReply), threadOf(newConversation));  // the newest thread
}

TEST_F(ThreadingStoreTest, InvalidMessageIDThreadsByReferenceOnly) {
    auto root = put(1, "<root@x>", "", "", "Topic");
    auto bad = put(2, "<not valid>", "<root@x>", "", "Other topic", "z@x", "y@x");
    EXPECT_EQ(threadOf(bad), threadOf(root));
    store->read([&](SQLiteDatabase& db) {
        EXPECT_FALSE(db.queryOne<std::optional<std::string>>(
                           "SELECT message_id_key FROM messages WHERE id = ?", {bad},
                           [](const SQLRow& r) { return r.optionalText(0); })
                         ->has_value());
    });
}

TEST_F(ThreadingStoreTest, CopyInAnotherFolderSharesTheThread) {
    FolderID archive =
        store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
    auto a = put(1, "<same@x>", "", "", "x", "1@x", "2@x");
    auto copy =
        store->upsertSync({message(account, archive, 1, "<same@x>", "", "", "y", "3@x", "4@x")})
            .front();
    EXPECT_EQ(threadOf(copy), threadOf(a));
}

TEST_F(ThreadingStoreTest, ThreadGoesWithItsLastMessage) {
    auto a = put(1, "<a@x>", "", "", "x");
    auto b = put(2, "<b@x>", "<a@x>", "", "y");
    auto c = put(3, "<c@x>", "", "", "z", "9@x", "8@x");
    ThreadID ab = threadOf(a), ct = threadOf(c);
    put(4, "<d@x>", "", "<a@x> <c@x>", "w", "7@x", "6@x");  // merges c's thread into ab
    ASSERT_EQ(store->resolveThread(ct), ab);

    store->removeMessages(inbox, {IMAPUID(1), IMAPUID(2)});
    EXPECT_EQ(store->resolveThread(ab), ab);  // messages 3 and 4 remain
    store->purgeMessage(c);
    store->removeMessages(inbox, {IMAPUID(4)});
    for (ThreadID t : {ab, ct}) {
        try {
            store->resolveThread(t);
            FAIL();
        } catch (const MailError& e) {
            EXPECT_EQ(e.detail(), "thread not found");
        }
    }
    store->read([](SQLiteDatabase& db) {
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM threads"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM thread_redirects"), 0);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM message_search"), 0);
    });
    (void)b;
}

TEST_F(ThreadingStoreTest, UpsertOfAKnownMessageUpdatesInPlace) {
    auto first = store->upsertSync({message(account, inbox, 7, "<k@x>", "", "", "Old subject")});
    auto f = message(account, inbox, 7, "<k@x>", "", "", "New subject");
    f.flags.system = MessageFlags::seen;
    f.flags.keywords = {"$Important"};
    f.modSeq = ModSeq(42);
    auto second = store->upsertSync({f});
    EXPECT_EQ(first, second);
    auto stored = store->messageFields(second.front());
    EXPECT_EQ(stored->subject, "New subject");
    EXPECT_EQ(stored->flags, f.flags);
    EXPECT_EQ(stored->modSeq, ModSeq(42));
    EXPECT_EQ(store->search(SearchQuery{"new", {}, {}, false, 5}).size(), 1u);
    EXPECT_TRUE(store->search(SearchQuery{"old", {}, {}, false, 5}).empty());
    EXPECT_EQ(store->folder(inbox)->totalCount, 1);
    EXPECT_EQ(store->folder(inbox)->unreadCount, 0);
}

TEST_F(ThreadingStoreTest, ServerFlagsWaitForAQueuedLocalChange) {
    auto id = put(1, "<a@x>", "", "", "x");
    store->setLocalFlags(id, MessageFlags{MessageFlags::seen | MessageFlags::flagged, {}});
    store->write([&](SQLiteDatabase& db) {
        db.run(
            "INSERT INTO outbox(id, account_id, kind, target_message_id, payload, state, "
            "created_at, not_before) VALUES ('o1', 'acct', 'setFlags', ?, x'7b7d', 'queued', 0, "
            "0)",
            {id});
    });
    store->applyServerFlags(inbox, {FlagUpdate{IMAPUID(1), MessageFlags{0, {}}, ModSeq(9)}});
    auto row = store->messageFields(id);
    EXPECT_EQ(row->flags.system, MessageFlags::seen | MessageFlags::flagged);
    EXPECT_EQ(row->modSeq, ModSeq(9));
    auto resent = message(account, inbox, 1, "<a@x>", "", "", "x");
    store->upsertSync({resent});
    EXPECT_EQ(store->messageFields(id)->flags.system, MessageFlags::seen | MessageFlags::flagged);

    store->write([](SQLiteDatabase& db) { db.run("DELETE FROM outbox"); });
    store->applyServerFlags(
        inbox, {FlagUpdate{IMAPUID(1), MessageFlags{MessageFlags::answered, {"k"}}, ModSeq(10)}});
    EXPECT_EQ(store->messageFields(id)->flags, (MessageFlags{MessageFlags::answered, {"k"}}));
    EXPECT_EQ(store->folder(inbox)->unreadCount, 1);
}

}  // namespace
}  // namespace mailcore
