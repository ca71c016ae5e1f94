// Helpers for the outbox worker tests: a temporary store with one account
// and two messages, a clock the test steps, and an executor that plays a
// script of results and records every call.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "MailCore/Engine/OutboxWorker.h"

namespace mailcore::testing {

class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestrune-outbox-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

inline Date at(double seconds) { return dateFromSeconds(seconds); }

// A clock whose time the test sets; shared by copies.
class FakeClock {
public:
    Clock clock() const {
        auto now = now_;
        return [now] { return dateFromSeconds(now->load()); };
    }
    // A sleeper that advances this clock instead of waiting, and records
    // every wait.
    Sleeper sleeper() {
        auto now = now_;
        auto waits = waits_;
        return [now, waits](double seconds) {
            double current = now->load();
            while (!now->compare_exchange_weak(current, current + seconds)) {
            }
            std::lock_guard<std::mutex> guard(waits->lock);
            waits->list.push_back(seconds);
        };
    }
    void set(double seconds) { now_->store(seconds); }
    void advance(double seconds) { set(now_->load() + seconds); }
    double now() const { return now_->load(); }
    std::vector<double> waits() const {
        std::lock_guard<std::mutex> guard(waits_->lock);
        return waits_->list;
    }

private:
    struct Waits {
        std::mutex lock;
        std::vector<double> list;
    };
    std::shared_ptr<std::atomic<double>> now_ = std::make_shared<std::atomic<double>>(1000);
    std::shared_ptr<Waits> waits_ = std::make_shared<Waits>();
};

// Plays scripted results in order (then `done`), and scripted verification
// answers (then `unknown`). Thread-safe.
class ScriptedExecutor : public OutboxExecutor {
public:
    void script(std::vector<OutboxResult> results) {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto& r : results) results_.push_back(std::move(r));
    }
    void scriptVerify(std::vector<SentState> answers) {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto a : answers) verify_.push_back(a);
    }
    // Called at the start of every execute, outside the executor's lock.
    std::function<void(const OutboxItem&)> onExecute;

    OutboxResult execute(const OutboxItem& item) override {
        if (onExecute) onExecute(item);
        std::lock_guard<std::mutex> guard(lock_);
        calls_.push_back(item);
        if (results_.empty()) return OutboxResult::done();
        OutboxResult r = results_.front();
        results_.pop_front();
        return r;
    }
    SentState verifySent(const OutboxItem& item) override {
        std::lock_guard<std::mutex> guard(lock_);
        verifications_.push_back(item.id);
        if (verify_.empty()) return SentState::unknown;
        SentState s = verify_.front();
        verify_.pop_front();
        return s;
    }
    std::vector<OutboxItem> calls() const {
        std::lock_guard<std::mutex> guard(lock_);
        return calls_;
    }
    std::size_t verifications() const {
        std::lock_guard<std::mutex> guard(lock_);
        return verifications_.size();
    }

private:
    mutable std::mutex lock_;
    std::deque<OutboxResult> results_;
    std::deque<SentState> verify_;
    std::vector<OutboxItem> calls_;
    std::vector<OutboxItemID> verifications_;
};

inline OutgoingMessage outgoing(const std::string& subject) {
    OutgoingMessage m;
    m.from = {MailAddress{"", "me@example.com"}};
    m.to = {MailAddress{"", "you@example.com"}};
    m.subject = subject;
    m.textBody = "text of " + subject;
    m.messageID = InternetMessageID::normalizing(subject + "@example.com");
    return m;
}

// A store on a temporary file with the account "acct", its inbox and
// archive, and two messages in the inbox.
struct OutboxFixture : ::testing::Test {
    TempDir dir;
    std::unique_ptr<SQLiteMailStore> store;
    AccountID account{"acct"};
    FolderID inbox, archive;
    MessageID m1, m2;
    FakeClock fake;
    ScriptedExecutor executor;

    void SetUp() override {
        store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file("mail.db")));
        store->saveAccount(account, Json::object(), at(1));
        inbox = store->createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});
        archive =
            store->createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
        std::vector<MessageIndexFields> batch;
        for (std::uint32_t uid : {1u, 2u}) {
            MessageIndexFields f;
            f.accountID = account;
            f.folderID = inbox;
            f.uid = IMAPUID(uid);
            f.threading =
                ThreadingKeys::fromHeaders("<m" + std::to_string(uid) + "@x>", "", "", "subject");
            f.subject = "subject";
            f.date = at(100);
            batch.push_back(f);
        }
        auto ids = store->upsertSync(batch);
        m1 = ids[0];
        m2 = ids[1];
    }

    EngineTuning quietTuning() {
        EngineTuning t;
        t.applyJitter = false;
        return t;
    }
    std::unique_ptr<OutboxWorker> makeWorker(EngineTuning tuning) {
        return std::make_unique<OutboxWorker>(*store, executor, tuning, fake.clock(),
                                              fake.sleeper(), [] { return 0.5; });
    }
    OutboxMessageRef ref(MessageID id) {
        return OutboxMessageRef{id, inbox, IMAPUID(static_cast<std::uint32_t>(id.value)), {}};
    }
    OutboxItem flags(MessageID id, std::int64_t add = MessageFlags::seen) {
        return store->enqueueFlags(account, ref(id), FlagChange{add, 0, {}, {}}, at(fake.now()));
    }
    OutboxItem send(const std::string& subject, std::optional<std::string> draft = {}) {
        std::optional<DraftID> d;
        if (draft) d = DraftID(*draft);
        return store->enqueue(account, OutboxOperation::send({outgoing(subject), d, true}),
                              at(fake.now()));
    }
    OutboxItem item(const OutboxItemID& id) { return store->outboxItem(id).value().item; }
};

}  // namespace mailcore::testing
