// MCPWorkflowBridge: the agent service's workflow tools (MCPWorkflowHandling)
// over the mail engine's WorkflowToolHandler and WorkflowStore. The calling
// harness becomes the workflow author, its enabled permissions decide which
// actions it may propose, and its allowed accounts are the only accounts it
// may name and the only mail a preview reads, through the host's
// MCPMailBackend (MCPWorkflowMailSource).
//
// The application builds one of each at start:
//
//   mailcore::WorkflowStore workflows(dataDirectory / "workflows");
//   mcpkit::MCPWorkflowBridge bridge(workflows, backend, mailcore::systemClock());
//   mcpkit::MCPService service(..., /*workflows:*/ bridge, ...);
//
// and serves the user's decisions from the same store: workflows.all() for
// the review list (with mailcore::describeWorkflow(w.spec) and w.risk),
// workflows.approve(id, now), workflows.resume(id, now), workflows.pause(id,
// now) and workflows.removeByUser(id). No tool reaches approve or resume.
//
// Thread-safe: the store locks, the handler keeps no state, and the backend
// is required to be thread-safe.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Tools/MCPMailBackend.h"
#include "KestruneMCPKit/Tools/MCPWorkflowHandling.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Workflow/WorkflowLimits.h"
#include "MailCore/Workflow/WorkflowMailSource.h"
#include "MailCore/Workflow/WorkflowMatcher.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "MailCore/Workflow/WorkflowToolHandler.h"

namespace mcpkit {

// The recent mail of named accounts, read through MCPMailBackend: one search
// page (newest first, as the backend orders it) and, for each result, the
// message itself for its recipients, text and attachments. A message that
// cannot be loaded keeps what its search summary says.
class MCPWorkflowMailSource : public mailcore::WorkflowMailSource {
public:
    explicit MCPWorkflowMailSource(MCPMailBackend& backend) : backend_(backend) {}

    std::vector<mailcore::WorkflowMailMessage> recentMessages(
        const std::vector<std::string>& accounts, int limit) override;

    // Reads a backend date text: seconds since 1970, ISO 8601
    // ("2026-11-20T09:00:00Z", "2026-11-20 09:00:00+01:00", no zone = UTC)
    // or an Internet message date ("Fri, 20 Nov 2026 09:00:00 +0100").
    static std::optional<mailcore::Date> parseDate(std::string_view text);

private:
    MCPMailBackend& backend_;
};

class MCPWorkflowBridge : public MCPWorkflowHandling {
public:
    // `store` and `backend` must outlive the bridge.
    MCPWorkflowBridge(mailcore::WorkflowStore& store, MCPMailBackend& backend,
                      mailcore::Clock clock, mailcore::WorkflowLimits limits = {},
                      mailcore::WorkflowMatcher::UTCOffset utcOffset =
                          mailcore::WorkflowMatcher::localUTCOffset());
    // Previews read `previewMail` (the local store with its conversations,
    // so that no_reply and in_thread previews see threads) instead of the
    // backend; `aiAvailable` tells whether the person has an AI provider.
    // Both must outlive the bridge.
    MCPWorkflowBridge(mailcore::WorkflowStore& store, MCPMailBackend& backend,
                      mailcore::WorkflowMailSource& previewMail, mailcore::Clock clock,
                      std::function<bool()> aiAvailable);

    MCPWorkflowResult handle(const MCPWorkflowCall& call) override;

private:
    MCPWorkflowMailSource mail_;
    mailcore::WorkflowToolHandler handler_;
};

}  // namespace mcpkit
