// MCPWorkflowHandling: how the agent service runs the workflow tools
// (create_workflow, update_workflow, pause_workflow, delete_workflow,
// list_workflows, preview_workflow). The host supplies the implementation;
// the service has already checked token, rate limit, permission, argument
// size and, for writes in a mail-influenced session, the user's approval.
// Implementations must be thread-safe: calls arrive concurrently.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mcpkit {

struct MCPWorkflowCall {
    std::string harnessID;     // the calling harness's registration id (the workflow author)
    std::string harnessName;   // its display name
    std::string tool;          // one of the six workflow tool names
    mailcore::Json arguments;  // the tool's arguments object
    std::vector<std::string> grantedPermissions;  // the permissions enabled for this call
    std::vector<std::string> allowedAccounts;     // account emails the harness may use
};

struct MCPWorkflowResult {
    std::string text;      // the text handed to the agent (JSON text or a message)
    bool isError = false;  // true for tool errors: `text` is then the error message
    std::string summary;   // short audit summary, no mail content and no secrets
};

class MCPWorkflowHandling {
public:
    virtual ~MCPWorkflowHandling() = default;
    // Never throws for bad arguments (they become isError results); may throw
    // for internal failures, which the service reports as "The request failed.".
    virtual MCPWorkflowResult handle(const MCPWorkflowCall& call) = 0;
};

}  // namespace mcpkit
