// Account sync against a real Dovecot on 127.0.0.1: after each sync the
// store holds, for every folder, exactly the (UID, Message-ID, flags) that a
// second IMAP connection reads from the server; also after another client's
// changes, with and without QRESYNC, and after a sync stopped part way.
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "MailCore/Engine/AccountRuntime.h"
#include "MailCore/Engine/AccountSync.h"
#include "MailCore/Engine/IMAPOutboxExecutor.h"
#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "tests/fakes/DovecotServer.h"

namespace mailcore {
namespace {

using testing::DovecotServer;
// UID, Message-ID, system flags, keywords.
using Entry = std::tuple<UIDValue, std::string, std::int64_t, std::vector<std::string>>;
using FolderState = std::map<std::string, std::set<Entry>>;

std::string message(int n) {
    return "From: Sender " + std::to_string(n) + " <s" + std::to_string(n) +
           "@example.com>\r\nTo: me@example.org\r\nSubject: note " + std::to_string(n) +
           "\r\nDate: Mon, 2 Mar 2026 10:" + std::to_string(10 + n % 50) +
           ":00 +0000\r\nMessage-ID: <m" + std::to_string(n) + "@example.com>\r\n\r\nbody\r\n";
}

class AccountSyncTest : public ::testing::TestWithParam<bool> {
protected:
    AccountSyncTest() : store(StoreLocation::inMemory()) {
        store.saveAccount(account, Json::object(), Date{});
        for (int n = 1; n <= 12; ++n)
            server.writeMessage("alice", "INBOX", message(n), n % 3 == 0 ? "S" : "");
        for (int n = 13; n <= 17; ++n) server.writeMessage("alice", "Projects", message(n), "F");
    }

    std::unique_ptr<IMAPSession> signIn(const std::string& password = "secret") {
        NetConnectionFactory factory(
            std::make_shared<SocketByteStreamFactory>(server.trustAnchors()));
        auto session = factory.makeIMAPSession(server.imapTLSEndpoint(), ProtocolLimits{},
                                               ConnectionTimeouts{10, 10, 60, 30, 60});
        session->connect();
        session->authenticate({"alice", password});
        return session;
    }

    AccountSyncReport sync(SyncTuning tuning = {}, SyncDepth depth = SyncDepth::full,
                           FolderSync::ProgressHandler progress = {}, std::stop_token stop = {}) {
        tuning.qresync = GetParam();
        auto session = signIn();
        return AccountSync(store, account, tuning, std::move(progress)).run(*session, depth, stop);
    }

    FolderState serverState() {
        auto session = signIn();
        FolderState state;
        for (const auto& listing : foldersFromListing(session->list())) {
            auto& entries = state[listing.path];
            if (session->select(listing.path).exists == 0) continue;
            IMAPFetchRequest request;
            request.flags = true;
            request.envelope = true;
            session->fetch(UIDSet::fromRanges({UIDRange{1, std::nullopt}}), request,
                           [&](const IMAPFetchData& d) {
                               auto flags = messageFlags(*d.flags);
                               std::string id = d.envelope->messageID.value_or("");
                               id = id.substr(1, id.size() - 2);  // without <>
                               entries.insert({*d.uid, id, flags.system, flags.keywords});
                           });
        }
        return state;
    }

    FolderState storeState() {
        FolderState state;
        for (const auto& folder : store.folders(account)) {
            auto& entries = state[folder.path];
            store.read([&](SQLiteDatabase& db) {
                db.forEachRow(
                    "SELECT uid, message_id_value, flags_system, flags_keywords FROM messages "
                    "WHERE folder_id = ?",
                    {folder.id}, [&](const SQLRow& row) {
                        auto keywords = Json::parse(row.text(3)).get<std::vector<std::string>>();
                        entries.insert({static_cast<UIDValue>(row.int64(0)), row.text(1),
                                        row.int64(2), keywords});
                        return true;
                    });
            });
        }
        return state;
    }

    std::int64_t folderID(const std::string& path) {
        for (const auto& f : store.folders(account))
            if (f.path == path) return f.id.value;
        return -1;
    }

    DovecotServer server;
    SQLiteMailStore store;
    AccountID account{"alice@example.org"};
};

TEST_P(AccountSyncTest, StoreFollowsTheServerThroughAnotherClientsChanges) {
    const auto first = sync();
    EXPECT_EQ(first.added, 17);
    EXPECT_EQ(storeState(), serverState());
    EXPECT_EQ(store.folder(FolderID(folderID("Sent")))->role, FolderRole::sent);
    EXPECT_EQ(store.message(MessageID(1))->snippet, "body");  // the newest bodies come along

    struct Change {
        const char* name;
        std::function<void(IMAPSession&)> apply;
        std::int64_t added, flagUpdatesAtLeast, removed, reset;
    };
    const Change changes[] = {
        {"flags",
         [](IMAPSession& s) {
             s.select("INBOX");
             s.store(UIDSet::fromUIDs({1, 2}), IMAPFlagOperation::add, {"\\Seen", "$Label1"});
             s.store(UIDSet(3), IMAPFlagOperation::remove, {"\\Seen"});
         },
         0, 3, 0, 0},
        {"new mail",
         [](IMAPSession& s) {
             s.append("INBOX", message(30));
             s.append("Projects", message(31), {"\\Flagged"});
         },
         2, 0, 0, 0},
        {"expunge",
         [](IMAPSession& s) {
             s.select("INBOX");
             s.store(UIDSet::fromUIDs({4, 5}), IMAPFlagOperation::add, {"\\Deleted"});
             s.expunge(UIDSet::fromUIDs({4, 5}));
         },
         0, 0, 2, 0},
        {"rename",
         [this](IMAPSession&) {
             server.doveadmOK({"mailbox", "rename", "-u", "alice", "Projects", "Work"});
         },
         0, 0, 0, 0},
        {"uidvalidity",
         [this](IMAPSession& s) {
             server.doveadmOK({"mailbox", "delete", "-u", "alice", "Work"});
             s.create("Work");
             s.append("Work", message(40));
         },
         1, 0, 0, 1},
    };
    for (const auto& change : changes) {
        SCOPED_TRACE(change.name);
        const auto before = folderID("Projects");
        change.apply(*signIn());
        const auto report = sync();
        EXPECT_EQ(storeState(), serverState());
        EXPECT_EQ(report.added, change.added);
        EXPECT_GE(report.flagUpdates, change.flagUpdatesAtLeast);
        EXPECT_EQ(report.removed, change.removed);
        EXPECT_EQ(report.foldersReset, change.reset);
        EXPECT_EQ(static_cast<std::int64_t>(report.newMessages.size()),
                  change.reset ? 0 : change.added);
        // A renamed folder is the same folder with its messages.
        if (std::string(change.name) == "rename") {
            EXPECT_EQ(folderID("Work"), before);
        }
    }
}

TEST_P(AccountSyncTest, StoppedSyncResumesWithoutFetchingAnythingTwice) {
    for (int n = 50; n < 90; ++n) server.writeMessage("alice", "INBOX", message(n));
    SyncTuning tuning;
    tuning.fetchChunk = 4;
    tuning.initialWindow = 10;

    // The window pass files the newest messages of each folder first.
    auto window = sync(tuning, SyncDepth::window);
    EXPECT_EQ(window.added, 15);  // 10 of INBOX's 52, all 5 of Projects
    const auto inbox = storeState()["INBOX"];
    ASSERT_EQ(inbox.size(), 10u);
    EXPECT_EQ(std::get<0>(*inbox.begin()), 43u);

    // Stopped after three more batches, then run to the end.
    std::stop_source stop;
    int batches = 0;
    const auto stopped = sync(
        tuning, SyncDepth::full,
        [&](const FolderProgress&) {
            if (++batches == 3) stop.request_stop();
        },
        stop.get_token());
    EXPECT_EQ(stopped.added, 12);
    const auto rest = sync(tuning);
    EXPECT_EQ(window.added + stopped.added + rest.added, 57);
    EXPECT_EQ(storeState(), serverState());

    // Every header was fetched once: as many bytes as one sync from scratch.
    SQLiteMailStore fresh(StoreLocation::inMemory());
    fresh.saveAccount(account, Json::object(), Date{});
    auto session = signIn();
    const auto once = AccountSync(fresh, account, tuning).run(*session);
    EXPECT_EQ(window.bytesFetched + stopped.bytesFetched + rest.bytesFetched, once.bytesFetched);
}

TEST_P(AccountSyncTest, RuntimeTakesInMailTheServerAnnouncesDuringIdle) {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<MessageID> arrived;
    std::vector<AccountSyncState> states;
    const auto waitFor = [&](const std::function<bool()>& condition) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(60), condition);
    };
    AccountRuntime::Callbacks callbacks{[&](const std::vector<MessageID>& ids) {
                                            std::lock_guard guard(lock);
                                            arrived.insert(arrived.end(), ids.begin(), ids.end());
                                            changed.notify_all();
                                        },
                                        [&](const AccountStatus& status) {
                                            std::lock_guard guard(lock);
                                            states.push_back(status.state);
                                            changed.notify_all();
                                        }};
    SyncTuning tuning;
    tuning.qresync = GetParam();
    AccountRuntime runtime(
        store, account, [this] { return signIn(); }, callbacks, tuning);
    runtime.start();
    ASSERT_TRUE(
        waitFor([&] { return !states.empty() && states.back() == AccountSyncState::idle; }));
    EXPECT_TRUE(arrived.empty());  // the first filling is not new mail
    signIn()->append("INBOX", message(60));
    ASSERT_TRUE(waitFor([&] { return !arrived.empty(); }));
    EXPECT_EQ(store.messageFields(arrived.at(0))->threading.messageID->value(), "m60@example.com");
    runtime.stop();
    EXPECT_EQ(storeState(), serverState());

    // A refused password: the account needs a sign-in, nothing is retried at once.
    states.clear();
    AccountRuntime refused(
        store, account, [this] { return signIn("wrong"); }, callbacks);
    refused.start();
    ASSERT_TRUE(waitFor([&] { return states.size() >= 2; }));
    refused.stop();
    EXPECT_EQ(states.at(1), AccountSyncState::needsSignIn);
}

struct Refusing : OutboxExecutor {
    OutboxResult execute(const OutboxItem&) override {
        return OutboxResult::failed(MailError::cancelled());
    }
    SentState verifySent(const OutboxItem&) override { return SentState::unknown; }
};

TEST_P(AccountSyncTest, OutboxChangesReachTheServer) {
    sync();
    const FolderID inbox(folderID("INBOX")), projects(folderID("Projects"));
    const auto ref = [&](UIDValue uid) {
        const auto id = store.read([&](SQLiteDatabase& db) {
            return db.scalarInt("SELECT id FROM messages WHERE folder_id = ? AND uid = ?",
                                {inbox, IMAPUID(uid)});
        });
        return OutboxMessageRef{MessageID(id.value_or(0)), inbox, IMAPUID(uid), std::nullopt};
    };
    FlagChange read{MessageFlags::seen, 0, {"$Label2"}, {}};
    FlagChange unread{0, MessageFlags::seen, {}, {}};
    const OutboxMessageRef moved = ref(2);
    store.moveLocally(moved.messageID, projects);
    struct Case {
        OutboxOperation operation;
        OutboxResult::Kind expected;
    };
    const Case cases[] = {
        {OutboxOperation::setFlags(ref(1), read), OutboxResult::Kind::done},
        {OutboxOperation::setFlags(ref(3), unread), OutboxResult::Kind::done},
        {OutboxOperation::move(moved, projects), OutboxResult::Kind::done},
        {OutboxOperation::deleteMessage(ref(4)), OutboxResult::Kind::done},
        {OutboxOperation::setFlags(ref(99), read), OutboxResult::Kind::failed},
        {OutboxOperation::setFlags({MessageID(1), inbox, std::nullopt, std::nullopt}, read),
         OutboxResult::Kind::uidUnknown},
    };
    Refusing others;
    IMAPOutboxExecutor executor(
        store, [this](const AccountID&) { return signIn(); }, others);
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        OutboxItem item;
        item.accountID = account;
        item.operation = c.operation;
        EXPECT_EQ(executor.execute(item).kind, c.expected);
    }
    sync();
    auto onServer = serverState();
    EXPECT_EQ(storeState(), onServer);
    EXPECT_EQ(*onServer["INBOX"].begin(), Entry(1, "m1@example.com", 1, {"$Label2"}));
    EXPECT_EQ(onServer["Trash"].size(), 1u);
    EXPECT_EQ(onServer["Projects"].size(), 6u);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutQResync, AccountSyncTest, ::testing::Bool());

}  // namespace
}  // namespace mailcore
