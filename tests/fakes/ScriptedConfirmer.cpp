#include "tests/fakes/ScriptedConfirmer.h"

namespace mcpkit::testing {

void ScriptedConfirmer::answer(MCPConfirmOutcome outcome) {
    std::lock_guard guard(lock_);
    answers_.push_back(outcome);
}

void ScriptedConfirmer::holdAnswers(bool hold) {
    std::lock_guard guard(lock_);
    hold_ = hold;
    changed_.notify_all();
}

void ScriptedConfirmer::release() { holdAnswers(false); }

bool ScriptedConfirmer::waitForPending(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return pending_ > 0; });
}

std::vector<MCPWriteRequest> ScriptedConfirmer::writes() {
    std::lock_guard guard(lock_);
    return writes_;
}

std::vector<MCPSendRequest> ScriptedConfirmer::sends() {
    std::lock_guard guard(lock_);
    return sends_;
}

std::vector<std::chrono::seconds> ScriptedConfirmer::timeouts() {
    std::lock_guard guard(lock_);
    return timeouts_;
}

MCPConfirmOutcome ScriptedConfirmer::next(std::chrono::seconds timeout) {
    std::unique_lock guard(lock_);
    timeouts_.push_back(timeout);
    ++pending_;
    changed_.notify_all();
    const bool answered = changed_.wait_for(guard, timeout, [&] { return !hold_; });
    --pending_;
    if (!answered) return MCPConfirmOutcome::timedOut;
    if (answers_.empty()) return defaultAnswer;
    const auto outcome = answers_.front();
    answers_.pop_front();
    return outcome;
}

MCPConfirmOutcome ScriptedConfirmer::confirmWrite(const MCPWriteRequest& request,
                                                  std::chrono::seconds timeout) {
    {
        std::lock_guard guard(lock_);
        writes_.push_back(request);
    }
    return next(timeout);
}

MCPConfirmOutcome ScriptedConfirmer::confirmSend(const MCPSendRequest& request,
                                                 std::chrono::seconds timeout) {
    {
        std::lock_guard guard(lock_);
        sends_.push_back(request);
    }
    return next(timeout);
}

}  // namespace mcpkit::testing
