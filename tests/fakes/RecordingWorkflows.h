// RecordingWorkflows: a workflow handler double that records each call and
// answers with a fixed result.
#pragma once

#include <mutex>
#include <vector>

#include "KestruneMCPKit/Tools/MCPWorkflowHandling.h"

namespace mcpkit::testing {

class RecordingWorkflows : public MCPWorkflowHandling {
public:
    MCPWorkflowResult reply{"{\"id\":\"W1\",\"status\":\"pending_approval\"}", false,
                            "workflow saved"};

    std::vector<MCPWorkflowCall> calls() {
        std::lock_guard guard(lock_);
        return calls_;
    }

    MCPWorkflowResult handle(const MCPWorkflowCall& call) override {
        std::lock_guard guard(lock_);
        calls_.push_back(call);
        return reply;
    }

private:
    std::mutex lock_;
    std::vector<MCPWorkflowCall> calls_;
};

}  // namespace mcpkit::testing
