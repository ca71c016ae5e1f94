// Helpers for the outbox worker tests: the store fixture with its two
// messages, a clock the test steps, and an executor that plays a script of
// results and records every call.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "../Store/StoreTestSupport.h"
#include "MailCore/Engine/OutboxWorker.h"

namespace mailcore::testing {

// A clock whose time the test sets, and a sleeper that advances it instead
// of waiting and records every wait. Copies share the time.
class FakeClock {
public:
    Clock clock() const {
        return [now = now_] { return dateFromSeconds(now->load()); };
    }
    Sleeper sleeper() {
        return [this](double seconds) {
            advance(seconds);
            std::lock_guard<std::mutex> guard(lock_);
            waits_.push_back(seconds);
        };
    }
    void advance(double seconds) {
        double current = now_->load();
        while (!now_->compare_exchange_weak(current, current + seconds)) {
        }
    }
    double now() const { return now_->load(); }
    std::vector<double> waits() const {
        std::lock_guard<std::mutex> guard(lock_);
        return waits_;
    }

private:
    std::shared_ptr<std::atomic<double>> now_ = std::make_shared<std::atomic<double>>(1000);
    mutable std::mutex lock_;
    std::vector<double> waits_;
};

// Plays scripted results in order (then `done`), and scripted verification
// answers (then `unknown`). Thread-safe.
class ScriptedExecutor : public OutboxExecutor {
public:
    void script(std::vector<OutboxResult> results) {
        std::lock_guard<std::mutex> guard(lock_);
        results_.insert(results_.end(), results.begin(), results.end());
    }
    void scriptVerify(std::vector<SentState> answers) {
        std::lock_guard<std::mutex> guard(lock_);
        verify_.insert(verify_.end(), answers.begin(), answers.end());
    }
    // Called at the start of every execute, outside the executor's lock.
    std::function<void(const OutboxItem&)> onExecute;
    // When set, a verification with no scripted answer throws.
    bool verifyThrows = false;

    OutboxResult execute(const OutboxItem& item) override {
        if (onExecute) onExecute(item);
        std::lock_guard<std::mutex> guard(lock_);
        calls_.push_back(item);
        if (results_.empty()) return OutboxResult::done();
        OutboxResult r = results_.front();
        results_.pop_front();
        return r;
    }
    SentState verifySent(const OutboxItem&) override {
        std::lock_guard<std::mutex> guard(lock_);
        ++verifications_;
        if (verify_.empty() && verifyThrows) throw std::runtime_error("no answer from the server");
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
        return verifications_;
    }

private:
    mutable std::mutex lock_;
    std::deque<OutboxResult> results_;
    std::deque<SentState> verify_;
    std::vector<OutboxItem> calls_;
    std::size_t verifications_ = 0;
};

inline EngineTuning quietTuning() {
    EngineTuning t;
    t.applyJitter = false;
    return t;
}

struct OutboxFixture : OutboxStoreFixture {
    FakeClock fake;
    ScriptedExecutor executor;

    std::unique_ptr<OutboxWorker> makeWorker(EngineTuning tuning = quietTuning()) {
        return std::make_unique<OutboxWorker>(*store, executor, tuning, fake.clock(),
                                              fake.sleeper(), [] { return 0.5; });
    }
    OutboxItem flags(MessageID id) {
        return store->enqueueFlags(account, ref(id), add(MessageFlags::seen), at(fake.now()));
    }
    OutboxItem send(const std::string& subject, std::optional<std::string> draft = {}) {
        return OutboxStoreFixture::send(subject, draft, fake.now());
    }
    OutboxItem item(const OutboxItemID& id) { return store->outboxItem(id).value().item; }
};

}  // namespace mailcore::testing
