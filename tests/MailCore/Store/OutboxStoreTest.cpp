// The store's outbox and draft operations on a real database file: the rows
// they write, their failure texts, folding, ordering of due items, claims,
// retries and launch recovery.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::at;

struct OutboxStoreTest : testing::StoreFixture {
    FolderID archive;
    MessageID m1, m2;

    void SetUp() override {
        StoreFixture::SetUp();
        archive =
            store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
        auto ids = store->upsertSync({testing::message(account, inbox, 1, "<a@x>", "", "", "A"),
                                      testing::message(account, inbox, 2, "<b@x>", "", "", "B")});
        m1 = ids[0];
        m2 = ids[1];
    }

    OutboxMessageRef ref(MessageID id, std::uint32_t uid = 1) {
        return OutboxMessageRef{id, inbox, IMAPUID(uid), InternetMessageID::normalizing("a@x")};
    }
    static FlagChange add(std::int64_t flags) { return FlagChange{flags, 0, {}, {}}; }
    static FlagChange remove(std::int64_t flags) { return FlagChange{0, flags, {}, {}}; }
    static OutgoingMessage mail(const std::string& subject) {
        OutgoingMessage m;
        m.from = {testing::addr("me@example.com")};
        m.to = {testing::addr("you@example.com", "You")};
        m.subject = subject;
        m.textBody = "body of " + subject;
        m.messageID = InternetMessageID::normalizing("<" + subject + "@example.com>");
        return m;
    }
    OutboxItem send(const std::string& draft, double when) {
        return store->enqueue(account, OutboxOperation::send({mail("s"), DraftID(draft), true}),
                              at(when));
    }

    std::string column(const OutboxItemID& id, const std::string& name) {
        return store->read([&](SQLiteDatabase& db) {
            return *db.queryOne<std::string>("SELECT quote(" + name + ") FROM outbox WHERE id = ?",
                                             {id}, [](const SQLRow& r) { return r.text(0); });
        });
    }
    std::vector<std::string> dueIDs(double now, int limit = 50) {
        std::vector<std::string> out;
        for (const auto& row : store->dueItems(at(now), std::nullopt, limit)) {
            out.push_back(row.item.id.value);
        }
        return out;
    }
    std::string errorDetail(const std::function<void()>& body) {
        try {
            body();
        } catch (const MailError& e) {
            return e.detail();
        }
        return "no error";
    }
};

TEST_F(OutboxStoreTest, EnqueueWritesTheTargetColumnsOfEachKind) {
    auto move = store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(10), at(12));
    auto del = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2, 2)), at(11));
    auto snd = send("d1", 12);
    auto save =
        store->enqueue(account, OutboxOperation::saveDraft(DraftID("d2"), mail("x")), at(13));

    struct Expect {
        OutboxItemID id;
        std::string kind, message, folder, draft;
    } table[] = {
        {move.id, "'move'", std::to_string(m1.value), std::to_string(archive.value), "NULL"},
        {del.id, "'delete'", std::to_string(m2.value), "NULL", "NULL"},
        {snd.id, "'send'", "NULL", "NULL", "'d1'"},
        {save.id, "'saveDraft'", "NULL", "NULL", "'d2'"},
    };
    for (const auto& e : table) {
        SCOPED_TRACE(e.kind);
        EXPECT_EQ(column(e.id, "kind"), e.kind);
        EXPECT_EQ(column(e.id, "target_message_id"), e.message);
        EXPECT_EQ(column(e.id, "target_folder_id"), e.folder);
        EXPECT_EQ(column(e.id, "draft_id"), e.draft);
        EXPECT_EQ(column(e.id, "state"), "'queued'");
        EXPECT_EQ(column(e.id, "attempt_count"), "0");
        EXPECT_EQ(column(e.id, "last_error"), "NULL");
    }
    EXPECT_EQ(column(move.id, "not_before"), "12.0");
    EXPECT_EQ(column(del.id, "not_before"), "11.0");
    auto read = store->outboxItem(snd.id);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->item.operation, OutboxOperation::send({mail("s"), DraftID("d1"), true}));
    EXPECT_EQ(read->item.createdAt, at(12));
    EXPECT_EQ(snd.id.value.size(), 36u);
}

TEST_F(OutboxStoreTest, EnqueueFailures) {
    store->enqueue(account, OutboxOperation::deleteMessage(ref(m1)), at(1));
    struct Case {
        const char* name;
        std::function<void()> body;
        std::string detail;
    } cases[] = {
        {"unknown account",
         [&] {
             store->enqueue(AccountID("nobody"), OutboxOperation::deleteMessage(ref(m2)), at(2));
         },
         "account not found"},
        {"flags on a message being deleted",
         [&] { store->enqueueFlags(account, ref(m1), add(MessageFlags::seen), at(2)); },
         "message has a pending delete"},
        {"move of a message being deleted",
         [&] { store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(2)); },
         "message has a pending delete"},
        {"second delete",
         [&] { store->enqueue(account, OutboxOperation::deleteMessage(ref(m1)), at(2)); },
         "message has a pending delete"},
        {"draft for an unknown account",
         [&] {
             store->saveDraft(DraftRecord{DraftID("d"), AccountID("nobody"), mail("x"), {}, at(1)});
         },
         "account not found"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(errorDetail(c.body), c.detail);
    }
    EXPECT_EQ(store->outboxItems(std::nullopt).size(), 1u);
    EXPECT_TRUE(store->hasPendingDelete(account, m1));
    EXPECT_FALSE(store->hasPendingDelete(account, m2));
}

TEST_F(OutboxStoreTest, FlagChangesOnOneMessageFoldIntoOneQueuedItem) {
    auto first = store->enqueueFlags(account, ref(m1),
                                     add(MessageFlags::seen | MessageFlags::flagged), at(1));
    FlagChange second{0, MessageFlags::flagged, {"$Work"}, {}};
    auto folded = store->enqueueFlags(account, ref(m1), second, at(2));
    EXPECT_EQ(folded.id, first.id);
    auto items = store->queuedItems(account, m1);
    ASSERT_EQ(items.size(), 1u);
    const FlagChange& change = items[0].item.operation.flags();
    EXPECT_EQ(change.addSystem, MessageFlags::seen);
    EXPECT_EQ(change.removeSystem, MessageFlags::flagged);
    EXPECT_EQ(change.addKeywords, std::vector<std::string>{"$Work"});
    EXPECT_EQ(items[0].item.createdAt, at(1));

    // Once the item is in flight, a new change is a new item.
    ASSERT_TRUE(store->markInFlight(first.id));
    auto later = store->enqueueFlags(account, ref(m1), remove(MessageFlags::seen), at(3));
    EXPECT_NE(later.id, first.id);
    EXPECT_EQ(store->queuedItems(account, m1).size(), 1u);
    // A change on another message is its own item.
    EXPECT_NE(store->enqueueFlags(account, ref(m2, 2), add(1), at(4)).id, later.id);
}

TEST_F(OutboxStoreTest, FoldingKeepsTheLastWordOnEachFlag) {
    struct Case {
        FlagChange a, b, expect;
    } cases[] = {
        {add(1), remove(1), remove(1)},
        {remove(1), add(1), add(1)},
        {add(1), add(4), add(5)},
        {FlagChange{0, 0, {"k"}, {}}, FlagChange{0, 0, {}, {"k"}}, FlagChange{0, 0, {}, {"k"}}},
        {FlagChange{0, 0, {}, {"k"}}, FlagChange{0, 0, {"k", "j"}, {}},
         FlagChange{0, 0, {"k", "j"}, {}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.a.folded(c.b), c.expect);
        MessageFlags start{MessageFlags::answered, {"old"}};
        EXPECT_EQ(c.a.folded(c.b).appliedTo(start), c.b.appliedTo(c.a.appliedTo(start)));
    }
}

TEST_F(OutboxStoreTest, NewerDraftSaveReplacesTheQueuedSave) {
    auto first =
        store->enqueue(account, OutboxOperation::saveDraft(DraftID("d"), mail("v1")), at(1));
    auto second =
        store->enqueue(account, OutboxOperation::saveDraft(DraftID("d"), mail("v2")), at(2));
    EXPECT_EQ(second.id, first.id);
    auto queued = store->queuedDraftSave(account, DraftID("d"));
    ASSERT_TRUE(queued);
    EXPECT_EQ(queued->item.operation.draftSave().message.subject, "v2");
    EXPECT_EQ(store->outboxItems(account).size(), 1u);

    ASSERT_TRUE(store->markInFlight(first.id));
    auto third =
        store->enqueue(account, OutboxOperation::saveDraft(DraftID("d"), mail("v3")), at(3));
    EXPECT_NE(third.id, first.id);
    EXPECT_FALSE(store->pendingSend(account, DraftID("d")));
    auto snd = send("d", 4);
    ASSERT_TRUE(store->pendingSend(account, DraftID("d")));
    EXPECT_EQ(store->pendingSend(account, DraftID("d"))->item.id, snd.id);
    EXPECT_FALSE(store->pendingSend(AccountID("other"), DraftID("d")));
}

TEST_F(OutboxStoreTest, ItemsOnOneTargetRunInCreationOrderWhateverTheirNotBefore) {
    auto flags = store->enqueueFlags(account, ref(m1), add(1), at(10));
    auto move = store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(11), at(0));
    auto other = store->enqueue(account, OutboxOperation::deleteMessage(ref(m2, 2)), at(12), at(5));
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
    // Account filter.
    EXPECT_EQ(store->dueItems(at(100), AccountID("other"), 10).size(), 0u);
    EXPECT_EQ(store->dueItems(at(100), account, 10).size(), 2u);
}

TEST_F(OutboxStoreTest, SameInstantItemsAreOrderedBySequence) {
    auto a = store->enqueue(account, OutboxOperation::saveDraft(DraftID("d"), mail("a")), at(5));
    auto b = send("d", 5);
    EXPECT_EQ(dueIDs(10), std::vector<std::string>{a.id.value});
    store->complete(a.id);
    EXPECT_EQ(dueIDs(10), std::vector<std::string>{b.id.value});
}

TEST_F(OutboxStoreTest, ClaimIsConditionalAndCountsTheAttempt) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    EXPECT_TRUE(store->markInFlight(item.id));
    EXPECT_FALSE(store->markInFlight(item.id));
    EXPECT_EQ(column(item.id, "state"), "'inFlight'");
    EXPECT_EQ(column(item.id, "attempt_count"), "1");
    EXPECT_FALSE(store->claimNextDue(at(100), std::nullopt));

    auto next = store->enqueueFlags(account, ref(m2, 2), add(1), at(2));
    auto claimed = store->claimNextDue(at(100), std::nullopt);
    ASSERT_TRUE(claimed);
    EXPECT_EQ(claimed->item.id, next.id);
    EXPECT_EQ(claimed->item.state, OutboxItemState::inFlight);
    EXPECT_EQ(claimed->item.attemptCount, 1);
}

TEST_F(OutboxStoreTest, RetryFailReleaseAndProgressKeepOrTakeBackTheClaim) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    auto claimAndCount = [&] {
        EXPECT_TRUE(store->markInFlight(item.id));
        return store->outboxItem(item.id)->item.attemptCount;
    };
    EXPECT_EQ(claimAndCount(), 1);
    auto timeout = MailError::network(NetworkFailureKind::timeout, "read timed out");
    store->retryLater(item.id, at(50), timeout, true);
    auto row = store->outboxItem(item.id)->item;
    EXPECT_EQ(row.state, OutboxItemState::queued);
    EXPECT_EQ(row.attemptCount, 1);
    EXPECT_EQ(row.notBefore, at(50));
    EXPECT_EQ(row.lastError, timeout);

    EXPECT_EQ(claimAndCount(), 2);
    store->retryLater(item.id, at(60), MailError::offline(), false);
    EXPECT_EQ(store->outboxItem(item.id)->item.attemptCount, 1);

    EXPECT_EQ(claimAndCount(), 2);
    EXPECT_TRUE(store->recordProgress(item.id, mayHaveBeenSentError()));
    EXPECT_TRUE(store->release(item.id, at(70)));
    row = store->outboxItem(item.id)->item;
    EXPECT_EQ(row.attemptCount, 1);
    EXPECT_EQ(row.notBefore, at(70));
    EXPECT_TRUE(isMayHaveBeenSent(row.lastError));
    EXPECT_FALSE(store->release(item.id, at(70)));
    EXPECT_FALSE(store->recordProgress(item.id, timeout));

    EXPECT_EQ(claimAndCount(), 2);
    store->failPermanently(item.id, timeout, false);
    row = store->outboxItem(item.id)->item;
    EXPECT_EQ(row.state, OutboxItemState::failed);
    EXPECT_EQ(row.attemptCount, 1);

    store->reschedule(item.id, at(99));
    EXPECT_EQ(store->outboxItem(item.id)->item.notBefore, at(99));
}

TEST_F(OutboxStoreTest, UserRetryResetsAttemptsAndError) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    EXPECT_FALSE(store->retryFailed(item.id, at(5)));  // not failed
    ASSERT_TRUE(store->markInFlight(item.id));
    store->failPermanently(item.id, MailError::offline(), true);
    EXPECT_TRUE(store->retryFailed(item.id, at(5)));
    auto row = store->outboxItem(item.id)->item;
    EXPECT_EQ(row.state, OutboxItemState::queued);
    EXPECT_EQ(row.attemptCount, 0);
    EXPECT_EQ(row.notBefore, at(5));
    EXPECT_FALSE(row.lastError);
    EXPECT_EQ(errorDetail([&] { store->retryFailed(OutboxItemID("nope"), at(5)); }),
              "outbox item not found");
}

TEST_F(OutboxStoreTest, CancelRefusesInFlightAndUnknownItems) {
    auto a = store->enqueueFlags(account, ref(m1), add(1), at(1));
    auto b = store->enqueueFlags(account, ref(m2, 2), add(1), at(1));
    ASSERT_TRUE(store->markInFlight(b.id));
    store->cancel(a.id);
    EXPECT_FALSE(store->outboxItem(a.id));
    EXPECT_EQ(errorDetail([&] { store->cancel(b.id); }), "item is in flight");
    EXPECT_EQ(errorDetail([&] { store->cancel(a.id); }), "outbox item not found");
    EXPECT_TRUE(store->outboxItem(b.id));
}

TEST_F(OutboxStoreTest, LaunchRecoveryQueuesInFlightItemsWithTheirClaimedAttempts) {
    auto flags = store->enqueueFlags(account, ref(m1), add(1), at(1));
    auto snd = send("d", 2);
    auto waiting = store->enqueueFlags(account, ref(m2, 2), add(1), at(3));
    ASSERT_TRUE(store->markInFlight(flags.id));
    store->retryLater(flags.id, at(4), MailError::offline(), true);
    ASSERT_TRUE(store->markInFlight(flags.id));
    ASSERT_TRUE(store->markInFlight(snd.id));

    // Reopen, as after a crash.
    store.reset();
    store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file("mail.db")));
    auto recovered = store->recoverInFlight();
    ASSERT_EQ(recovered.size(), 2u);
    EXPECT_EQ(recovered[0].item.id, flags.id);
    auto f = store->outboxItem(flags.id)->item;
    EXPECT_EQ(f.state, OutboxItemState::queued);
    EXPECT_EQ(f.attemptCount, 2);
    EXPECT_EQ(f.lastError, MailError::offline());
    auto s = store->outboxItem(snd.id)->item;
    EXPECT_EQ(s.state, OutboxItemState::queued);
    EXPECT_EQ(s.attemptCount, 1);
    EXPECT_TRUE(isMayHaveBeenSent(s.lastError));
    EXPECT_EQ(store->outboxItem(waiting.id)->item.attemptCount, 0);
    EXPECT_TRUE(store->recoverInFlight().empty());
}

TEST_F(OutboxStoreTest, ListingsAndRemovalsLeaveInFlightItemsAlone) {
    auto moveQueued = store->enqueue(account, OutboxOperation::move(ref(m1), archive), at(2));
    auto moveInFlight = store->enqueue(account, OutboxOperation::move(ref(m2, 2), archive), at(1));
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
    (void)moveQueued;
}

TEST_F(OutboxStoreTest, PurgedMessageTakesItsWaitingOperationsAndDraftReferences) {
    auto queued = store->enqueueFlags(account, ref(m1), add(1), at(1));
    auto other = store->enqueueFlags(account, ref(m2, 2), add(1), at(1));
    store->saveDraft(DraftRecord{DraftID("reply"), account, mail("re"), m1, at(3)});
    store->purgeMessage(m1);
    EXPECT_FALSE(store->outboxItem(queued.id));
    EXPECT_TRUE(store->outboxItem(other.id));
    EXPECT_EQ(store->draft(DraftID("reply"))->sourceMessageID, std::nullopt);
}

TEST_F(OutboxStoreTest, DraftsSaveReadListAndDelete) {
    store->saveAccount(AccountID("b"), Json::object(), at(1));
    DraftRecord a{DraftID("a"), account, mail("first"), m1, at(10)};
    DraftRecord b{DraftID("b"), AccountID("b"), mail("second"), std::nullopt, at(20)};
    DraftRecord c{DraftID("c"), account, mail("third"), std::nullopt, at(20)};
    for (const auto& d : {a, b, c}) store->saveDraft(d);
    EXPECT_EQ(store->draft(DraftID("a")), a);
    auto list = store->drafts(std::nullopt);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].id.value, "b");  // newest first, then by id
    EXPECT_EQ(list[1].id.value, "c");
    EXPECT_EQ(list[2].id.value, "a");
    EXPECT_EQ(store->drafts(account).size(), 2u);

    a.message.subject = "edited";
    a.updatedAt = at(30);
    store->saveDraft(a);
    EXPECT_EQ(store->drafts(std::nullopt)[0], a);
    store->deleteDraft(DraftID("a"));
    EXPECT_FALSE(store->draft(DraftID("a")));
    store->removeAccount(AccountID("b"));
    EXPECT_EQ(store->drafts(std::nullopt).size(), 1u);
}

TEST_F(OutboxStoreTest, HeldSendBecomesADraftInOneStep) {
    auto snd = send("d", 1);
    store->convertSendToDraft(snd.id, DraftRecord{DraftID("d"), account, mail("s"), {}, at(5)});
    EXPECT_FALSE(store->outboxItem(snd.id));
    EXPECT_EQ(store->draft(DraftID("d"))->message, mail("s"));
    EXPECT_EQ(errorDetail([&] {
                  store->convertSendToDraft(
                      snd.id, DraftRecord{DraftID("e"), account, mail("s"), {}, at(5)});
              }),
              "outbox item not found");
    EXPECT_FALSE(store->draft(DraftID("e")));
}

TEST_F(OutboxStoreTest, UndecodableRowsFailWithTheirTypeName) {
    auto item = store->enqueueFlags(account, ref(m1), add(1), at(1));
    store->saveDraft(DraftRecord{DraftID("d"), account, mail("x"), {}, at(1)});
    struct Case {
        std::string sql;
        std::function<void()> read;
        std::string detail;
    } cases[] = {
        {"UPDATE outbox SET payload = CAST('{\"kind\":\"fly\"}' AS BLOB)",
         [&] { store->outboxItem(item.id); }, "stored value is not decodable as OutboxOperation"},
        {"UPDATE outbox SET payload = CAST('not json' AS BLOB)",
         [&] { store->outboxItems(std::nullopt); },
         "stored value is not decodable as OutboxOperation"},
        {"UPDATE outbox SET payload = "
         "CAST('{\"kind\":\"move\",\"message\":{\"messageID\":1,\"folderID\":1}}' AS BLOB)",
         [&] { store->dueItems(at(9), std::nullopt, 5); },
         "stored value is not decodable as OutboxOperation"},
        {"UPDATE drafts SET payload = CAST('[]' AS BLOB)", [&] { store->draft(DraftID("d")); },
         "stored value is not decodable as OutgoingMessage"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sql);
        store->write([&](SQLiteDatabase& db) { db.execute(c.sql); });
        EXPECT_EQ(errorDetail(c.read), c.detail);
    }
    store->write([&](SQLiteDatabase& db) {
        db.execute(
            "UPDATE outbox SET payload = "
            "CAST('{\"kind\":\"delete\",\"message\":{\"messageID\":1,\"folderID\":1}}' AS BLOB), "
            "last_error = CAST('{\"case\":\"nope\"}' AS BLOB)");
    });
    EXPECT_EQ(errorDetail([&] { store->outboxItem(item.id); }),
              "stored value is not decodable as MailError");
}

TEST(OutboxRecordsTest, OperationsRoundTripThroughJson) {
    OutgoingMessage m;
    m.messageID = InternetMessageID::normalizing("<id@x>");
    m.from = {MailAddress{"Me", "me@x"}};
    m.to = {MailAddress{"", "you@x"}};
    m.bcc = {MailAddress{"", "hidden@x"}};
    m.subject = "Hi \xE2\x9C\x93";
    m.textBody = "line\r\nline";
    m.htmlBody = "<p>hi</p>";
    m.inReplyTo = {*InternetMessageID::normalizing("p@x")};
    m.references = {*InternetMessageID::normalizing("q@x"), *InternetMessageID::normalizing("p@x")};
    OutboxMessageRef r{MessageID(3), FolderID(4), IMAPUID(4294967295u), std::nullopt};
    OutboxOperation ops[] = {
        OutboxOperation::setFlags(r, FlagChange{1, 4, {"a"}, {"b"}}),
        OutboxOperation::move(r, FolderID(9)),
        OutboxOperation::deleteMessage(OutboxMessageRef{MessageID(1), FolderID(2), std::nullopt,
                                                        InternetMessageID::normalizing("z@x")}),
        OutboxOperation::send({m, std::nullopt, false}),
        OutboxOperation::send({m, DraftID("d"), true}),
        OutboxOperation::saveDraft(DraftID("d"), OutgoingMessage{}),
    };
    for (const auto& op : ops) {
        Json json = op.toJson();
        SCOPED_TRACE(json.dump());
        EXPECT_EQ(OutboxOperation::fromJson(parseJson(encodeJson(json))), op);
    }
    EXPECT_EQ(ops[0].toJson()["kind"], "setFlags");
    EXPECT_EQ(ops[2].toJson()["kind"], "delete");
    EXPECT_EQ(
        OutboxOperation::send({m, std::nullopt, false}).toJson()["send"]["message"]["subject"],
        m.subject);
}

TEST(OutboxRecordsTest, MalformedPayloadsAreRejected) {
    const char* bad[] = {
        "null",
        "[]",
        "{}",
        "{\"kind\":7}",
        "{\"kind\":\"setFlags\"}",
        "{\"kind\":\"setFlags\",\"message\":{\"messageID\":1,\"folderID\":1},\"flags\":{}}",
        "{\"kind\":\"move\",\"message\":{\"messageID\":\"1\",\"folderID\":1},\"destination\":2}",
        "{\"kind\":\"delete\",\"message\":{\"messageID\":1,\"folderID\":1,\"uid\":-1}}",
        "{\"kind\":\"delete\",\"message\":{\"messageID\":1,\"folderID\":1,\"uid\":4294967296}}",
        "{\"kind\":\"send\",\"send\":{\"message\":{},\"saveToSent\":true}}",
        "{\"kind\":\"send\",\"send\":{\"message\":{\"subject\":\"\",\"textBody\":\"\","
        "\"to\":[{\"name\":\"x\"}]},\"saveToSent\":true}}",
        "{\"kind\":\"send\",\"send\":{\"message\":{\"subject\":\"\",\"textBody\":\"\","
        "\"messageID\":\"a b\"},\"saveToSent\":true}}",
        "{\"kind\":\"saveDraft\",\"message\":{\"subject\":\"\",\"textBody\":\"\"}}",
    };
    for (const char* text : bad) {
        SCOPED_TRACE(text);
        try {
            OutboxOperation::fromJson(parseJson(text));
            ADD_FAILURE() << "accepted";
        } catch (const MailError& e) {
            EXPECT_EQ(e.detail(), "stored value is not decodable as OutboxOperation");
        }
    }
}

}  // namespace
}  // namespace mailcore
