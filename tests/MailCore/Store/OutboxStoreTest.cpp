// The store's outbox and draft operations on a real database file: what
// they record, their failure texts, folding, ordering of due items, claims
// and releases; and the JSON form of outbox operations. The worker tests
// follow items through retries, failures and launch recovery.
#include <gtest/gtest.h>

#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using testing::errorDetail;
using testing::outgoing;

struct OutboxStoreTest : testing::OutboxStoreFixture {
    std::vector<std::string> dueIDs(double now, int limit = 50) {
        std::vector<std::string> out;
        for (const auto& row : store->dueItems(at(now), std::nullopt, limit)) {
            out.push_back(row.item.id.value);
        }
        return out;
    }
    OutboxItem saveDraft(const std::string& draft, const std::string& subject, double when) {
        return store->enqueue(
            account, OutboxOperation::saveDraft(DraftID(draft), outgoing(subject)), at(when));
    }
};

TEST_F(OutboxStoreTest, EnqueueRecordsEachKindAndRefusesConflicts) {
    const OutboxOperation ops[] = {
        OutboxOperation::move(ref(m1), archive),
        OutboxOperation::deleteMessage(ref(m2)),
        OutboxOperation::send({outgoing("s"), DraftID("d1"), true}),
        OutboxOperation::saveDraft(DraftID("d2"), outgoing("x")),
    };
    for (int i = 0; i < 4; ++i) {
        auto made = store->enqueue(account, ops[i], at(10 + i), at(i == 0 ? 20 : 10 + i));
        auto read = store->outboxItem(made.id)->item;
        EXPECT_EQ(read.operation, ops[i]) << i;
        EXPECT_EQ(read.accountID, account);
        EXPECT_EQ(read.createdAt, at(10 + i));
        EXPECT_EQ(summary(made.id, 10 + i), i == 0 ? "queued 0 10 -" : "queued 0 0 -");
        EXPECT_EQ(read.id.value.size(), 36u);
    }
    // m2 has a pending delete now.
    auto refusal = [&](const OutboxOperation& op, const AccountID& who) {
        return errorDetail([&] { store->enqueue(who, op, at(2)); });
    };
    const std::string deleting = "message has a pending delete";
    EXPECT_EQ(refusal(OutboxOperation::deleteMessage(ref(m1)), AccountID("x")),
              "account not found");
    EXPECT_EQ(refusal(OutboxOperation::setFlags(ref(m2), add(1)), account), deleting);
    EXPECT_EQ(errorDetail([&] { store->enqueueFlags(account, ref(m2), add(1), at(2)); }), deleting);
    EXPECT_EQ(refusal(OutboxOperation::move(ref(m2), archive), account), deleting);
    EXPECT_EQ(refusal(OutboxOperation::deleteMessage(ref(m2)), account), deleting);
    EXPECT_EQ(
        errorDetail([&] {
            store->saveDraft(DraftRecord{DraftID("d"), AccountID("x"), outgoing("x"), {}, at(1)});
        }),
        "account not found");
    EXPECT_EQ(store->outboxItems(std::nullopt).size(), 4u);
    EXPECT_TRUE(store->hasPendingDelete(account, m2));
    EXPECT_FALSE(store->hasPendingDelete(account, m1));
}

TEST_F(OutboxStoreTest, FlagChangesOnOneMessageFoldIntoOneQueuedItem) {
    auto first = store->enqueueFlags(account, ref(m1),
                                     add(MessageFlags::seen | MessageFlags::flagged), at(1));
    auto folded = store->enqueueFlags(account, ref(m1),
                                      FlagChange{0, MessageFlags::flagged, {"$Work"}, {}}, at(2));
    EXPECT_EQ(folded.id, first.id);
    auto items = store->queuedItems(account, m1);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].item.operation.flags(),
              (FlagChange{MessageFlags::seen, MessageFlags::flagged, {"$Work"}, {}}));
    EXPECT_EQ(items[0].item.createdAt, at(1));

    // Once the item is in flight, a new change is a new item.
    ASSERT_TRUE(store->markInFlight(first.id));
    auto later = store->enqueueFlags(account, ref(m1), remove(MessageFlags::seen), at(3));
    EXPECT_NE(later.id, first.id);
    EXPECT_EQ(store->queuedItems(account, m1).size(), 1u);
    // A change on another message is its own item.
    EXPECT_NE(store->enqueueFlags(account, ref(m2), add(1), at(4)).id, later.id);

    // Folding keeps the last word on each flag.
    const FlagChange k{0, 0, {"k"}, {}}, notK{0, 0, {}, {"k"}}, kj{0, 0, {"k", "j"}, {}};
    const FlagChange cases[][3] = {{add(1), remove(1), remove(1)},
                                   {remove(1), add(1), add(1)},
                                   {add(1), add(4), add(5)},
                                   {k, notK, notK},
                                   {notK, kj, kj}};
    for (const auto& [a, b, expected] : cases) {
        EXPECT_EQ(a.folded(b), expected);
        MessageFlags start{MessageFlags::answered, {"old"}};
        EXPECT_EQ(a.folded(b).appliedTo(start), b.appliedTo(a.appliedTo(start)));
    }
}

TEST_F(OutboxStoreTest, NewerDraftSaveReplacesTheQueuedSave) {
    auto first = saveDraft("d", "v1", 1);
    EXPECT_EQ(saveDraft("d", "v2", 2).id, first.id);
    auto queued = store->queuedDraftSave(account, DraftID("d"));
    ASSERT_TRUE(queued);
    EXPECT_EQ(queued->item.operation.draftSave().message.subject, "v2");
    EXPECT_EQ(store->outboxItems(account).size(), 1u);

    ASSERT_TRUE(store->markInFlight(first.id));
    EXPECT_NE(saveDraft("d", "v3", 3).id, first.id);
    EXPECT_FALSE(store->pendingSend(account, DraftID("d")));
    auto snd = send("s", "d", 4);
    ASSERT_TRUE(store->pendingSend(account, DraftID("d")));
    EXPECT_EQ(store->pendingSend(account, DraftID("d"))->item.id, snd.id);
    EXPECT_FALSE(store->pendingSend(AccountID("other"), DraftID("d")));
}

TEST_F(OutboxStoreTest, ItemsOnOneTargetRunInCreationOrderWhateverTheirNotBefore) {
    auto flags = store->enqueueFlags(account, ref(m1), add(1), at(10));
    auto move = store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(11), at(0));
    auto other = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2)), at(12), at(5));
    // Different targets are due side by side, earliest not_before first.
    EXPECT_EQ(dueIDs(100), (std::vector<std::string>{other.id.value, flags.id.value}));
    EXPECT_EQ(dueIDs(7), std::vector<std::string>{other.id.value});
    EXPECT_EQ(dueIDs(100, 1), std::vector<std::string>{other.id.value});

    // In flight still blocks; a retry that is not yet due blocks too.
    ASSERT_TRUE(store->markInFlight(flags.id));
    EXPECT_EQ(dueIDs(100), std::vector<std::string>{other.id.value});
    store->retryLater(flags.id, at(500), MailError::offline(), false);
    EXPECT_EQ(dueIDs(100), std::vector<std::string>{other.id.value});
    // A failed item stops blocking its target.
    ASSERT_TRUE(store->markInFlight(flags.id));
    store->failPermanently(flags.id, MailError::offline(), true);
    EXPECT_EQ(dueIDs(100), (std::vector<std::string>{move.id.value, other.id.value}));
    EXPECT_EQ(store->dueItems(at(100), AccountID("other"), 10).size(), 0u);
    EXPECT_EQ(store->dueItems(at(100), account, 10).size(), 2u);

    // Items of the same instant on one draft go by their sequence.
    auto save = saveDraft("d", "a", 50);
    auto snd = send("s", "d", 50);
    EXPECT_EQ(dueIDs(60), (std::vector<std::string>{move.id.value, other.id.value, save.id.value}));
    store->complete(save.id);
    EXPECT_EQ(dueIDs(60), (std::vector<std::string>{move.id.value, other.id.value, snd.id.value}));
}

TEST_F(OutboxStoreTest, ClaimsAndReleasesHoldOnlyForItemsInFlight) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    EXPECT_FALSE(store->release(item.id, at(70)));
    EXPECT_FALSE(store->recordProgress(item.id, MailError::offline()));
    EXPECT_FALSE(store->retryFailed(item.id, at(5)));
    auto claimed = store->claimNextDue(at(100), std::nullopt);
    ASSERT_TRUE(claimed);
    EXPECT_EQ(claimed->item.id, item.id);
    EXPECT_EQ(claimed->item.state, OutboxItemState::inFlight);
    EXPECT_EQ(claimed->item.attemptCount, 1);
    EXPECT_FALSE(store->markInFlight(item.id));  // claims are conditional
    EXPECT_FALSE(store->claimNextDue(at(100), std::nullopt));
    EXPECT_TRUE(store->recordProgress(item.id, mayHaveBeenSentError()));
    EXPECT_TRUE(store->release(item.id, at(70)));
    EXPECT_EQ(summary(item.id),
              "queued 0 70 network(outcomeUnknown): the message may have been sent");
    store->reschedule(item.id, at(99));
    ASSERT_TRUE(store->markInFlight(item.id));
    store->failPermanently(item.id, MailError::offline(), true);
    EXPECT_EQ(summary(item.id), "failed 1 99 offline");
    // The user's retry of a failed item starts over.
    EXPECT_TRUE(store->retryFailed(item.id, at(5)));
    EXPECT_EQ(summary(item.id), "queued 0 5 -");
    EXPECT_EQ(errorDetail([&] { store->retryFailed(OutboxItemID("nope"), at(5)); }),
              "outbox item not found");
}

TEST_F(OutboxStoreTest, CancelRefusesInFlightAndUnknownItems) {
    auto a = store->enqueueFlags(account, ref(m1), add(1), at(1));
    auto b = store->enqueueFlags(account, ref(m2), add(1), at(1));
    ASSERT_TRUE(store->markInFlight(b.id));
    store->cancel(a.id);
    EXPECT_FALSE(store->outboxItem(a.id));
    EXPECT_EQ(errorDetail([&] { store->cancel(b.id); }), "item is in flight");
    EXPECT_EQ(errorDetail([&] { store->cancel(a.id); }), "outbox item not found");
    EXPECT_TRUE(store->outboxItem(b.id));
}

TEST_F(OutboxStoreTest, RemovalsTakeWaitingItemsAndLeaveInFlightOnesAlone) {
    store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(2));
    auto moveInFlight = store->enqueue(account, OutboxOperation::move(ref(m2), archive), at(1));
    ASSERT_TRUE(store->markInFlight(moveInFlight.id));
    auto all = store->outboxItems(std::nullopt);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].item.id, moveInFlight.id);  // by creation time
    EXPECT_EQ(store->outboxItemsTargeting(archive).size(), 2u);
    EXPECT_TRUE(store->outboxItems(AccountID("other")).empty());
    store->removeFolder(archive);
    auto left = store->outboxItems(std::nullopt);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].item.id, moveInFlight.id);

    // A purged message takes its waiting operations and draft references.
    auto queued = store->enqueueFlags(account, ref(m1), add(1), at(1));
    store->saveDraft(DraftRecord{DraftID("reply"), account, outgoing("re"), m1, at(3)});
    store->purgeMessage(m1);
    EXPECT_FALSE(store->outboxItem(queued.id));
    EXPECT_TRUE(store->outboxItem(moveInFlight.id));
    EXPECT_EQ(store->draft(DraftID("reply"))->sourceMessageID, std::nullopt);
}

TEST_F(OutboxStoreTest, DraftsSaveReadListDeleteAndComeBackFromHeldSends) {
    store->saveAccount(AccountID("b"), Json::object(), at(1));
    DraftRecord a{DraftID("a"), account, outgoing("first"), m1, at(10)};
    DraftRecord b{DraftID("b"), AccountID("b"), outgoing("second"), std::nullopt, at(20)};
    DraftRecord c{DraftID("c"), account, outgoing("third"), std::nullopt, at(20)};
    for (const auto& d : {a, b, c}) store->saveDraft(d);
    EXPECT_EQ(store->draft(DraftID("a")), a);
    std::vector<std::string> order;
    for (const auto& d : store->drafts(std::nullopt)) order.push_back(d.id.value);
    EXPECT_EQ(order, (std::vector<std::string>{"b", "c", "a"}));  // newest first, then by id
    EXPECT_EQ(store->drafts(account).size(), 2u);

    a.message.subject = "edited";
    a.updatedAt = at(30);
    store->saveDraft(a);
    EXPECT_EQ(store->drafts(std::nullopt)[0], a);
    store->deleteDraft(DraftID("a"));
    EXPECT_FALSE(store->draft(DraftID("a")));
    store->removeAccount(AccountID("b"));
    EXPECT_EQ(store->drafts(std::nullopt).size(), 1u);

    // A held send becomes a draft in one step.
    auto snd = send("s", "d", 1);
    store->convertSendToDraft(snd.id, DraftRecord{DraftID("d"), account, outgoing("s"), {}, at(5)});
    EXPECT_FALSE(store->outboxItem(snd.id));
    EXPECT_EQ(store->draft(DraftID("d"))->message, outgoing("s"));
    EXPECT_EQ(errorDetail([&] {
                  store->convertSendToDraft(
                      snd.id, DraftRecord{DraftID("e"), account, outgoing("s"), {}, at(5)});
              }),
              "outbox item not found");
    EXPECT_FALSE(store->draft(DraftID("e")));
}

TEST_F(OutboxStoreTest, UndecodableRowsFailWithTheirTypeName) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    store->saveDraft(DraftRecord{DraftID("d"), account, outgoing("x"), {}, at(1)});
    const std::string operation = "stored value is not decodable as OutboxOperation";
    const std::tuple<std::string, std::function<void()>, std::string> cases[] = {
        {"UPDATE outbox SET payload = CAST('{\"kind\":\"fly\"}' AS BLOB)",
         [&] { store->outboxItem(item.id); }, operation},
        {"UPDATE outbox SET payload = CAST('not json' AS BLOB)",
         [&] { store->outboxItems(std::nullopt); }, operation},
        {"UPDATE outbox SET payload = "
         "CAST('{\"kind\":\"move\",\"message\":{\"messageID\":1,\"folderID\":1}}' AS BLOB)",
         [&] { store->dueItems(at(9), std::nullopt, 5); }, operation},
        {"UPDATE drafts SET payload = CAST('[]' AS BLOB)", [&] { store->draft(DraftID("d")); },
         "stored value is not decodable as OutgoingMessage"},
        {"UPDATE outbox SET payload = "
         "CAST('{\"kind\":\"delete\",\"message\":{\"messageID\":1,\"folderID\":1}}' AS BLOB), "
         "last_error = CAST('{\"case\":\"nope\"}' AS BLOB)",
         [&] { store->outboxItem(item.id); }, "stored value is not decodable as MailError"},
    };
    for (const auto& c : cases) {
        store->write([&](SQLiteDatabase& db) { db.execute(std::get<0>(c)); });
        EXPECT_EQ(errorDetail(std::get<1>(c)), std::get<2>(c)) << std::get<0>(c);
    }
}

TEST(OutboxRecordsTest, OperationsRoundTripThroughJsonAndMalformedOnesAreRejected) {
    OutgoingMessage m = outgoing("Hi \xE2\x9C\x93");
    m.messageID = InternetMessageID::normalizing("<id@x>");
    m.bcc = {testing::addr("hidden@x")};
    m.textBody = "line\r\nline";
    m.htmlBody = "<p>hi</p>";
    m.inReplyTo = {*InternetMessageID::normalizing("p@x")};
    m.references = {*InternetMessageID::normalizing("q@x"), *InternetMessageID::normalizing("p@x")};
    OutboxMessageRef r{MessageID(3), FolderID(4), IMAPUID(4294967295u), std::nullopt};
    const std::pair<OutboxOperation, const char*> ops[] = {
        {OutboxOperation::setFlags(r, FlagChange{1, 4, {"a"}, {"b"}}), "setFlags"},
        {OutboxOperation::move(r, FolderID(9)), "move"},
        {OutboxOperation::deleteMessage(OutboxMessageRef{MessageID(1), FolderID(2), std::nullopt,
                                                         InternetMessageID::normalizing("z@x")}),
         "delete"},
        {OutboxOperation::send({m, std::nullopt, false}), "send"},
        {OutboxOperation::send({m, DraftID("d"), true}), "send"},
        {OutboxOperation::saveDraft(DraftID("d"), OutgoingMessage{}), "saveDraft"},
    };
    for (const auto& [op, kind] : ops) {
        Json json = op.toJson();
        EXPECT_EQ(json["kind"], kind);
        EXPECT_EQ(OutboxOperation::fromJson(parseJson(encodeJson(json))), op) << json.dump();
    }
    EXPECT_EQ(ops[3].first.toJson()["send"]["message"]["subject"], m.subject);

    const char* bad[] = {
        "null",
        "{}",
        R"({"kind":"setFlags"})",
        R"({"kind":"setFlags","message":{"messageID":1,"folderID":1},"flags":{}})",
        R"({"kind":"move","message":{"messageID":"1","folderID":1},"destination":2})",
        R"({"kind":"delete","message":{"messageID":1,"folderID":1,"uid":4294967296}})",
        R"({"kind":"send","send":{"message":{},"saveToSent":true}})",
        R"({"kind":"send","send":{"message":{"subject":"","textBody":"","to":[{"name":"x"}]},)"
        R"("saveToSent":true}})",
        R"({"kind":"send","send":{"message":{"subject":"","textBody":"","messageID":"a b"},)"
        R"("saveToSent":true}})",
        R"({"kind":"saveDraft","message":{"subject":"","textBody":""}})",
    };
    for (const char* text : bad) {
        EXPECT_EQ(errorDetail([&] { OutboxOperation::fromJson(parseJson(text)); }),
                  "stored value is not decodable as OutboxOperation")
            << text;
    }
}

}  // namespace
}  // namespace mailcore
