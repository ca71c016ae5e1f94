// MCPService: the application's answer to every agent-link request.
//
// One instance serves every connection. For each frame it authenticates the
// harness by its token, applies the user's switches, permissions and limits,
// runs the tool against the host's mail backend, tracks whether the session
// has read mail, asks the user to confirm sends and risky writes, and writes
// one audit entry. It never sends mail on its own.
//
// Thread-safe: requests run concurrently on the callers' threads. The policy
// store, audit log, rate limiters and taint tracker guard their own state;
// the service holds no lock across a backend call or a confirmation, so a
// call waiting for the user blocks no other call.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Policy/MCPRateLimiter.h"
#include "KestruneMCPKit/Taint/MCPConfirmation.h"
#include "KestruneMCPKit/Taint/MCPTaintTracker.h"
#include "KestruneMCPKit/Tools/MCPMailBackend.h"
#include "KestruneMCPKit/Tools/MCPWorkflowHandling.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"

namespace mcpkit {

// A tool-level failure whose message is shown to the agent as an error result.
class MCPToolError : public std::exception {
public:
    explicit MCPToolError(std::string message) : message_(std::move(message)) {}
    const std::string& message() const { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

class MCPService {
public:
    MCPService(std::shared_ptr<MCPPolicyStore> policy, std::shared_ptr<MCPAuditLog> audit,
               std::shared_ptr<MCPMailBackend> backend,
               std::shared_ptr<MCPSendConfirming> confirmer,
               std::shared_ptr<MCPWorkflowHandling> workflows,
               mailcore::Clock clock = mailcore::systemClock());

    // Decodes one link request from a frame body, answers it and returns the
    // encoded reply (compact JSON, no line feed).
    std::string handleFrame(std::string_view data);

    // The dispatcher: always answers, never throws.
    mailcore::Json respond(const mailcore::Json& request);

    // Forgets the mail-read state of every session of one harness, or of all
    // harnesses (the user reset or revoked a harness).
    void clearMailInfluence(const std::optional<std::string>& harness);

    // Sessions currently marked as having read mail.
    int mailInfluencedSessions();

private:
    struct CallContext;

    mailcore::Json refuse(const std::string& harnessLabel, const std::string& label,
                          const std::string& text);
    mailcore::Json call(const MCPHarnessRecord& harness, const MCPState& state,
                        const mailcore::Json& request);
    mailcore::Json finish(CallContext& ctx, const std::string& text, bool isError);
    void audit(const std::string& harness, const std::string& tool, const std::string& account,
               MCPResult result, const std::string& summary, std::optional<bool> influenced);

    std::string run(CallContext& ctx);
    std::string workflowCall(CallContext& ctx);

    // Tool bodies.
    std::string listAccounts(CallContext& ctx);
    std::string listFolders(CallContext& ctx);
    std::string searchMessages(CallContext& ctx);
    std::string readMessage(CallContext& ctx);
    std::string markRead(CallContext& ctx);
    std::string applyLabel(CallContext& ctx);
    std::string createDraft(CallContext& ctx);
    std::string sendMessage(CallContext& ctx);

    std::vector<MCPAccount> allowedAccounts(const CallContext& ctx);
    std::string requireAccount(CallContext& ctx, const std::string& account);
    MCPMessage requireHandle(CallContext& ctx, const std::string& id);
    void gateLabelWrite(CallContext& ctx);
    void confirmIfMailInfluenced(CallContext& ctx, const std::string& reason);

    std::shared_ptr<MCPPolicyStore> policy_;
    std::shared_ptr<MCPAuditLog> audit_;
    std::shared_ptr<MCPMailBackend> backend_;
    std::shared_ptr<MCPSendConfirming> confirmer_;
    std::shared_ptr<MCPWorkflowHandling> workflows_;
    mailcore::Clock clock_;
    MCPRateLimiter limiter_;
    MCPRateLimiter refusedLimiter_;
    MCPTaintTracker taint_;
};

}  // namespace mcpkit
