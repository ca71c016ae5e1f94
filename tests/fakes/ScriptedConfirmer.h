// ScriptedConfirmer: plays the user answering confirmations. Answers come
// from a queue (or a default), can be delayed, and every request is recorded.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "KestruneMCPKit/Taint/MCPConfirmation.h"

namespace mcpkit::testing {

class ScriptedConfirmer : public MCPSendConfirming {
public:
    // Queues the next answers; when the queue is empty `defaultAnswer` is used.
    void answer(MCPConfirmOutcome outcome);
    MCPConfirmOutcome defaultAnswer = MCPConfirmOutcome::declined;

    // When set, each confirmation blocks until release() (or its timeout,
    // which then ends as timedOut), like a user who has not answered yet.
    void holdAnswers(bool hold);
    void release();
    // Waits until a confirmation is pending (held).
    bool waitForPending(std::chrono::milliseconds limit);

    std::vector<MCPWriteRequest> writes();
    std::vector<MCPSendRequest> sends();
    std::vector<std::chrono::seconds> timeouts();

    MCPConfirmOutcome confirmWrite(const MCPWriteRequest& request,
                                   std::chrono::seconds timeout) override;
    MCPConfirmOutcome confirmSend(const MCPSendRequest& request,
                                  std::chrono::seconds timeout) override;

private:
    MCPConfirmOutcome next(std::chrono::seconds timeout);

    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<MCPConfirmOutcome> answers_;
    bool hold_ = false;
    int pending_ = 0;
    std::vector<MCPWriteRequest> writes_;
    std::vector<MCPSendRequest> sends_;
    std::vector<std::chrono::seconds> timeouts_;
};

}  // namespace mcpkit::testing
