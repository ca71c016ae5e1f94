// Threading keys, and how the store groups messages into threads as they
// arrive: by references, by subject among the same people, merging threads
// when a missing parent turns up.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

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
        {"[a] [b] Re: [c] Topic", "topic"},
        {"[unclosed Re: x", "[unclosed re: x"},
        {"Re:", ""},
        {"  \t\r\n ", ""},
        {"Résumé  ÜNÏCODE", "résumé ünïcode"},
        {"Re: ÜBER", "über"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(ThreadingKeys::normalizeSubject(in), out) << in;
    EXPECT_TRUE(ThreadingKeys::hasReplyPrefix("[team] AW: x"));
    EXPECT_TRUE(ThreadingKeys::hasReplyPrefix("Re[2]: x"));
    EXPECT_FALSE(ThreadingKeys::hasReplyPrefix("Release notes"));
    EXPECT_FALSE(ThreadingKeys::hasReplyPrefix("[team] Lunch"));
}

TEST(ThreadingKeysTest, ParsesMessageIDsAndHeaderLists) {
    EXPECT_EQ(InternetMessageID::normalizing(" <abc@Example.COM> ")->value(), "abc@Example.COM");
    EXPECT_EQ(InternetMessageID::normalizing("<abc@Example.COM>")->normalizedKey(),
              "abc@example.com");
    EXPECT_EQ(InternetMessageID::normalizing("A@b@C.Org")->normalizedKey(), "A@b@c.org");
    EXPECT_EQ(InternetMessageID::normalizing("NoAt")->normalizedKey(), "NoAt");
    EXPECT_EQ(InternetMessageID::normalizing("< spaced >")->value(), "spaced");
    for (const char* bad : {"", "<>", "  ", "<a b@c>", "a\tb"}) {
        EXPECT_FALSE(InternetMessageID::normalizing(bad).has_value()) << bad;
    }

    auto keys =
        ThreadingKeys::fromHeaders("<m@x>", "<p@x> (comment)", "<a@x>\r\n <b@x> <c d@x>", "Re: Hi");
    EXPECT_EQ(keys.messageID->value(), "m@x");
    ASSERT_EQ(keys.inReplyTo.size(), 1u);
    ASSERT_EQ(keys.references.size(), 2u);  // "<c d@x>" is invalid
    EXPECT_EQ(keys.referenceKeys(), (std::vector<std::string>{"p@x", "a@x", "b@x"}));
    EXPECT_EQ(ThreadingKeys::fromJson(keys.toJson()), keys);
    EXPECT_EQ(ThreadingKeys::fromHeaders("not valid id", "", "", "").messageID, std::nullopt);

    // In-Reply-To as mail clients really write it: only identifiers count.
    const std::pair<const char*, std::vector<std::string>> lists[] = {
        {"Message from Ann <ann@x.org> of \"Sun, 01 Sep 2002 16:14:11 +0200.\" <p1@h.x>",
         {"p1@h.x"}},
        {"<p2@h.x> (ann@x.org's message of \"Tue, 27 Aug 2002 15:45:36 +0100\")", {"p2@h.x"}},
        {"<p3@h.x>; from ann@x.org on Mon, Aug 26, 2002 at 07:14:54PM +0200", {"p3@h.x"}},
        {"message-id <p4@h.x> of Tue, Sep 10 12:52:16 2002", {"p4@h.x"}},
        {"ann@x.org's message of \"Thu, 19 Sep 2002 12:35:59 +0100\"", {}},
        {"Ann's message of \"Tue, 1 Oct 2002 16:58:21 -0400\"", {}},
        {"craig@example.com, <p5@h.x>", {"p5@h.x"}},
        {"Ann <ann@x.org> \"Re: Plan (was: Budget)\" (Sep 25, 7:35pm)", {}},
        {"bare@h.x", {"bare@h.x"}},
        {"b1@h.x b2@h.x", {"b1@h.x", "b2@h.x"}},
        {"Your message of \"Fri, 06 Sep 2002\" <cut@h.x", {"cut@h.x"}},
    };
    for (const auto& [value, ids] : lists) {
        std::vector<std::string> seen;
        for (const auto& id : ThreadingKeys::parseIDList(value)) seen.push_back(id.value());
        EXPECT_EQ(seen, ids) << value;
    }
    EXPECT_EQ(testing::errorDetail([] {
                  ThreadingKeys::fromJson(Json{{"inReplyTo", 3}});
              }),
              "stored value is not decodable as ThreadingKeys");
}

struct ThreadingStoreTest : StoreFixture {
    std::uint32_t nextUID = 1;
    MessageID put(const std::string& mid, const std::string& irt, const std::string& refs,
                  const std::string& subject, const std::string& from = "alice@example.com",
                  const std::string& to = "bob@example.com", FolderID folder = FolderID()) {
        std::uint32_t uid = nextUID++;
        return store
            ->upsertSync({message(account, folder.value ? folder : inbox, uid, mid, irt, refs,
                                  subject, from, to, 1000 + uid)})
            .front();
    }
    ThreadID threadOf(MessageID id) { return store->message(id)->threadID; }
};

// Messages a, b, c, ... arrive in order; `threads` lists which end up
// together ("ab c": a and b share a thread, c is alone).
TEST_F(ThreadingStoreTest, GroupsArrivingMessagesIntoThreads) {
    struct Msg {
        const char *mid, *irt, *refs, *subject, *from, *to;
        bool inArchive = false;
    };
    struct Case {
        const char* name;
        std::vector<Msg> messages;
        const char* threads;
        bool repliesOnly = false;
    };
    const Case cases[] = {
        {"a reply joins its parent; the domain of an id ignores case, its local part does not",
         {{"<root@x>", "", "", "Plan", "a@x", "b@x"},
          {"<r1@x>", "<root@x>", "<root@x>", "Re: Plan", "b@x", "a@x"},
          {"<r2@x>", "<r1@X>", "", "something else", "a@x", "b@x"},
          {"<r3@x>", "<R1@x>", "", "unrelated", "q@x", "z@x"}},
         "abc d"},
        {"the same subject joins only among the same people, never an empty one",
         {{"<h1@x>", "", "", "Hello", "ann@x", "ben@x"},
          {"<h2@x>", "", "", "hello", "cat@x", "dan@x"},
          {"", "", "", "Re: Hello", "ben@x", "ann@x"},
          {"<e1@x>", "", "", "Re:", "ann@x", "ben@x"},
          {"<e2@x>", "", "", "", "ann@x", "ben@x"},
          {"<h3@x>", "", "", "HELLO", "CAT@X", "dan@x"}},
         "ac bf d e"},
        {"one common address does not bridge conversations; a lone address suffices",
         {{"<a@x>", "", "", "Meeting", "ann@x", "me@x"},
          {"<c@x>", "", "", "Meeting", "cat@x", "me@x"},
          {"", "", "", "Re: meeting", "me@x", "cat@x"},
          {"<n@x>", "", "", "Meeting", "ann@x", ""}},
         "ad bc"},
        {"replies-only subject fallback keeps new conversations apart",
         {{"<a@x>", "", "", "Lunch", "ann@x", "me@x"},
          {"<b@x>", "", "", "Lunch", "me@x", "ann@x"},
          {"", "", "", "Re: Lunch", "me@x", "ann@x"}},
         "a bc",
         true},
        {"an invalid Message-ID threads by reference only; a copy elsewhere shares the thread",
         {{"<root@x>", "", "", "Topic", "a@x", "b@x"},
          {"<not valid>", "<root@x>", "", "Other topic", "z@x", "y@x"},
          {"<same@x>", "", "", "x", "1@x", "2@x"},
          {"<same@x>", "", "", "y", "3@x", "4@x", true}},
         "ab cd"},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        open("case" + std::to_string(n++) + ".db");
        nextUID = 1;
        store->setSubjectFallbackForRepliesOnly(c.repliesOnly);
        FolderID archive =
            store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
        std::vector<MessageID> ids;
        for (const auto& m : c.messages) {
            ids.push_back(put(m.mid, m.irt, m.refs, m.subject, m.from, m.to,
                              m.inArchive ? archive : FolderID()));
        }
        std::map<ThreadID, std::string> groups;
        for (std::size_t i = 0; i < ids.size(); ++i) groups[threadOf(ids[i])] += char('a' + i);
        std::vector<std::string> seen, expected;
        for (const auto& [thread, members] : groups) seen.push_back(members);
        std::istringstream in(c.threads);
        for (std::string group; in >> group;) expected.push_back(group);
        std::sort(seen.begin(), seen.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(seen, expected);
    }
}

TEST_F(ThreadingStoreTest, ParentArrivingAfterRepliesMergesTheirThreads) {
    // Two replies to a root not seen yet share a thread through the
    // reference they have in common; a third refers elsewhere.
    auto a = put("<a@x>", "<root@x>", "", "one", "p@x", "q@x");
    auto b = put("<b@x>", "", "<other@x>", "two", "r@x", "s@x");
    auto c = put("<c@x>", "<root@x>", "", "three", "t@x", "u@x");
    ThreadID first = threadOf(a), second = threadOf(b);
    EXPECT_EQ(threadOf(c), first);
    EXPECT_NE(first, second);

    // The root arrives: found through the replies' references.
    auto root = put("<root@x>", "", "", "zero", "v@x", "w@x");
    EXPECT_EQ(threadOf(root), first);

    // A message referring to both roots, neither of which b's thread has
    // seen, bridges the two through the references they share.
    auto bridge = put("<d@x>", "<root@x>", "<other@x>", "bridge", "v@x", "w@x");
    EXPECT_EQ(threadOf(bridge), first);
    EXPECT_EQ(threadOf(b), first);
    EXPECT_EQ(store->resolveThread(second), first);
    auto other = put("<other@x>", "", "", "origin", "v@x", "w@x");
    EXPECT_EQ(threadOf(other), first);
    EXPECT_EQ(store->threadMessages(second).size(), 6u);
}

// A conversation whose messages arrive in every possible order ends in the
// same threads; so does one whose root never arrives, and the same mail
// filed again after the folder was reset.
TEST_F(ThreadingStoreTest, ThreadsDoNotDependOnArrivalOrder) {
    struct Msg {
        const char *mid, *irt, *refs, *subject;
    };
    const Msg all[] = {
        {"<r@x>", "", "", "Plan"},
        {"<a@x>", "<r@x>", "<r@x>", "Re: Plan"},
        {"<b@x>", "<a@x>", "<r@x> <a@x>", "Re: Plan"},
        {"<c@x>", "Message from Ann <ann@x> of \"Mon, 2 Sep 2002\" <r@x>", "", "Re: Plan"},
        {"<d@x>", "", "", "Other"},
    };
    // No two messages share a person, so only references can join them.
    auto from = [](int i) { return std::string(1, char('a' + i)) + "@from.x"; };
    auto to = [](int i) { return std::string(1, char('a' + i)) + "@to.x"; };
    for (bool withRoot : {true, false}) {
        std::vector<int> order{1, 2, 3};  // the unrelated message always comes last
        if (withRoot) order.insert(order.begin(), 0);
        const std::string expected = withRoot ? "abcd|e" : "bcd|e";
        int run = 0;
        do {
            SCOPED_TRACE(::testing::Message() << "root " << withRoot << " run " << run);
            open("order" + std::to_string(withRoot) + "-" + std::to_string(run++) + ".db");
            nextUID = 1;
            std::map<int, MessageID> ids;
            for (int i : order) {
                ids[i] = put(all[i].mid, all[i].irt, all[i].refs, all[i].subject, from(i), to(i));
            }
            ids[4] = put(all[4].mid, all[4].irt, all[4].refs, all[4].subject, from(0), to(0));
            auto grouping = [&] {
                std::map<ThreadID, std::string> groups;
                for (auto& [i, id] : ids) groups[threadOf(id)] += char('a' + i);
                std::vector<std::string> seen;
                for (auto& [t, g] : groups) seen.push_back(g);
                std::sort(seen.begin(), seen.end());
                std::string joined;
                for (auto& g : seen) joined += (joined.empty() ? "" : "|") + g;
                return joined;
            };
            EXPECT_EQ(grouping(), expected);
            if (run == 1) {  // once: the folder's mail filed anew after a reset
                store->resetFolder(inbox, UIDValidity(99));
                nextUID = 1;
                for (int i : {4, 3, 2, 1, 0}) {
                    if (ids.count(i)) {
                        ids[i] = put(all[i].mid, all[i].irt, all[i].refs, all[i].subject,
                                     from(i == 4 ? 0 : i), to(i == 4 ? 0 : i));
                    }
                }
                EXPECT_EQ(grouping(), expected);
            }
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(ThreadingStoreTest, RedirectsNeverChain) {
    ThreadID id3 = threadOf(put("<c@x>", "", "", "c", "1@x", "2@x"));
    ThreadID id2 = threadOf(put("<b@x>", "", "", "b", "3@x", "4@x"));
    ThreadID id1 = threadOf(put("<a@x>", "", "", "a", "5@x", "6@x"));
    ASSERT_LT(id3.value, id2.value);
    ASSERT_LT(id2.value, id1.value);
    // Merge thread of a into thread of b, then b's into c's.
    put("<m1@x>", "", "<a@x> <b@x>", "m", "7@x", "8@x");
    EXPECT_EQ(store->resolveThread(id1), id2);
    put("<m2@x>", "", "<b@x> <c@x>", "m", "7@x", "8@x");
    EXPECT_EQ(store->resolveThread(id1), id3);
    EXPECT_EQ(store->resolveThread(id2), id3);
    EXPECT_EQ(rows("thread_redirects WHERE new_id IN (SELECT old_id FROM thread_redirects)"), 0);
    EXPECT_EQ(rows("threads"), 1);
    EXPECT_EQ(store->threadMessages(id1).size(), 5u);
}

TEST_F(ThreadingStoreTest, ThreadGoesWithItsLastMessage) {
    auto a = put("<a@x>", "", "", "x");
    put("<b@x>", "<a@x>", "", "y");
    auto c = put("<c@x>", "", "", "z", "9@x", "8@x");
    ThreadID ab = threadOf(a), ct = threadOf(c);
    put("<d@x>", "", "<a@x> <c@x>", "w", "7@x", "6@x");  // merges c's thread into ab
    ASSERT_EQ(store->resolveThread(ct), ab);

    store->removeMessages(inbox, {IMAPUID(1), IMAPUID(2)});
    EXPECT_EQ(store->resolveThread(ab), ab);  // messages 3 and 4 remain
    store->purgeMessage(c);
    store->removeMessages(inbox, {IMAPUID(4)});
    for (ThreadID t : {ab, ct}) {
        EXPECT_EQ(testing::errorDetail([&] { store->resolveThread(t); }), "thread not found");
    }
    for (const char* table : {"threads", "thread_redirects", "message_search"}) {
        EXPECT_EQ(rows(table), 0) << table;
    }
}

TEST_F(ThreadingStoreTest, ServerFlagsWaitForAQueuedLocalChangeAndUpsertsUpdateInPlace) {
    auto id = put("<a@x>", "", "", "x");
    const MessageFlags local{MessageFlags::seen | MessageFlags::flagged, {}};
    store->setLocalFlags(id, local);
    auto queued =
        store->enqueueFlags(account, OutboxMessageRef{id, inbox, IMAPUID(1), std::nullopt},
                            FlagChange{local.system, 0, {}, {}}, testing::at(5));
    store->applyServerFlags(inbox, {FlagUpdate{IMAPUID(1), MessageFlags{0, {}}, ModSeq(9)}});
    EXPECT_EQ(store->messageFields(id)->flags, local);
    EXPECT_EQ(store->messageFields(id)->modSeq, ModSeq(9));
    store->upsertSync({message(account, inbox, 1, "<a@x>", "", "", "x")});
    EXPECT_EQ(store->messageFields(id)->flags, local);

    store->cancel(queued.id);
    store->applyServerFlags(
        inbox, {FlagUpdate{IMAPUID(1), MessageFlags{MessageFlags::answered, {"k"}}, ModSeq(10)}});
    EXPECT_EQ(store->messageFields(id)->flags, (MessageFlags{MessageFlags::answered, {"k"}}));
    EXPECT_EQ(store->folder(inbox)->unreadCount, 1);

    // Without a queued change, a known message is updated in place, index included.
    auto f = message(account, inbox, 1, "<a@x>", "", "", "New subject");
    f.flags = MessageFlags{MessageFlags::seen, {"$Important"}};
    f.modSeq = ModSeq(42);
    EXPECT_EQ(store->upsertSync({f}).front(), id);
    auto stored = store->messageFields(id);
    EXPECT_EQ(stored->subject, "New subject");
    EXPECT_EQ(stored->flags, f.flags);
    EXPECT_EQ(stored->modSeq, ModSeq(42));
    EXPECT_EQ(store->search(SearchQuery{"new", {}, {}, false, 5}).size(), 1u);
    EXPECT_EQ(store->folder(inbox)->totalCount, 1);
    EXPECT_EQ(store->folder(inbox)->unreadCount, 0);
}

}  // namespace
}  // namespace mailcore
