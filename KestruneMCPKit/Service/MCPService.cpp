#include "KestruneMCPKit/Service/MCPService.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Service/MCPServiceContext.h"
#include "KestruneMCPKit/Tools/MCPTools.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit {

using mailcore::Json;

namespace {

constexpr std::int64_t refusalLogsPerMinute = 30;
// Handshakes are answered without a limit but logged at most this often per
// harness, so that a flood of them cannot push other entries out of the log.
constexpr std::int64_t handshakeLogsPerMinute = 30;

Json failure(const char* code, const std::string& text) {
    Json reply = Json::object();
    reply["ok"] = false;
    reply["code"] = code;
    reply["error"] = text;
    return reply;
}

std::string stringMember(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it != object.end() && it->is_string()) return it->get<std::string>();
    return {};
}

}  // namespace

MCPService::MCPService(std::shared_ptr<MCPPolicyStore> policy, std::shared_ptr<MCPAuditLog> audit,
                       std::shared_ptr<MCPMailBackend> backend,
                       std::shared_ptr<MCPSendConfirming> confirmer,
                       std::shared_ptr<MCPWorkflowHandling> workflows, mailcore::Clock clock)
    : policy_(std::move(policy)),
      audit_(std::move(audit)),
      backend_(std::move(backend)),
      confirmer_(std::move(confirmer)),
      workflows_(std::move(workflows)),
      clock_(std::move(clock)),
      limiter_(clock_),
      refusedLimiter_(clock_),
      taint_(clock_) {}

std::string MCPService::handleFrame(std::string_view data) {
    Json request;
    if (!mailcore::tryParseJson(data, request)) request = nullptr;
    return mailcore::encodeJson(respond(request));
}

void MCPService::audit(const std::string& harness, const std::string& tool,
                       const std::string& account, MCPResult result, const std::string& summary,
                       std::optional<bool> influenced) {
    try {
        audit_->record(harness, tool, account, result, summary, influenced);
    } catch (...) {
        // The audit log never fails a request.
    }
}

Json MCPService::refuse(const std::string& harnessLabel, const std::string& label,
                        const std::string& text) {
    if (refusedLimiter_.allow("refused", refusalLogsPerMinute)) {
        audit(harnessLabel, label, "none", MCPResult::refused, text, std::nullopt);
    }
    return failure("refused", text);
}

Json MCPService::respond(const Json& request) {
    try {
        if (!request.is_object() || !request.contains("v") || !request.contains("op") ||
            !request["op"].is_string()) {
            if (refusedLimiter_.allow("refused", refusalLogsPerMinute)) {
                audit("unknown", "bad_request", "none", MCPResult::error, "malformed request",
                      std::nullopt);
            }
            return failure("bad_request", "Malformed request.");
        }
        const std::string op = request["op"].get<std::string>();
        policy_->reloadIfChanged();
        const std::string token = stringMember(request, "token");
        std::string label = op;
        if (op == "call") label = stringMember(request, "name");
        if (op == "hello") label = "handshake";
        if (op == "tools_list") label = "tools/list";

        const auto harness = policy_->harness(token);
        if (!harness) return refuse("unknown", label, "Unknown or revoked token");
        const MCPState state = policy_->snapshot();
        if (!state.settings.masterEnabled) {
            return refuse(harness->name, label, "Agent access is switched off");
        }
        if (!harness->allowed) return refuse(harness->name, label, "App is not allowed");
        std::string clientName;
        if (auto it = request.find("client"); it != request.end() && it->is_object()) {
            clientName = stringMember(*it, "name");
        }
        if (harness->boundClientName && *harness->boundClientName != clientName) {
            return refuse(harness->name, label,
                          "Client name does not match this registration (announced \"" +
                              std::string(mailcore::utf8::prefix(clientName, 120)) + "\")");
        }
        const std::string session = stringMember(request, "session");

        if (op == "hello") {
            if (!clientName.empty()) policy_->bindClientName(clientName, harness->id);
            policy_->touch(harness->id, clock_());
            if (refusedLimiter_.allow("handshake:" + harness->id, handshakeLogsPerMinute)) {
                audit(harness->name, label, "none", MCPResult::ok, "connected", std::nullopt);
            }
            Json reply = Json::object();
            reply["ok"] = true;
            reply["greeting"] = "connected as " + harness->name;
            reply["server"] = {{"name", MCP::serverName}, {"version", MCP::serverVersion}};
            return reply;
        }
        if (op == "tools_list") {
            if (!limiter_.allow(harness->id, state.settings.limits.requestsPerMinute)) {
                audit(harness->name, label, "none", MCPResult::rateLimited,
                      "request rate cap exceeded", std::nullopt);
                return failure("rate_limited",
                               "Too many requests. Slow down and try again in a minute.");
            }
            std::vector<MCPToolSpec> enabled;
            for (const auto& spec : MCPTools::all()) {
                if (state.settings.enabledPermissions.contains(spec.permission)) {
                    enabled.push_back(spec);
                }
            }
            audit(harness->name, label, "none", MCPResult::ok,
                  std::to_string(enabled.size()) + " tools", std::nullopt);
            Json reply = Json::object();
            reply["ok"] = true;
            reply["tools"] = MCPTools::listing(enabled);
            return reply;
        }
        if (op == "call") return call(*harness, state, request);
        if (op == "bye") {
            taint_.forget(MCPTaintTracker::key(harness->id, session));
            audit(harness->name, "bye", "none", MCPResult::ok, "session ended", std::nullopt);
            return Json{{"ok", true}};
        }
        return failure("bad_request", "Unknown operation.");
    } catch (...) {
        // Nothing above should throw; if the state or the log fail in an
        // unexpected way the agent still gets an answer.
        return failure("bad_request", "The request failed.");
    }
}

Json MCPService::call(const MCPHarnessRecord& harness, const MCPState& state, const Json& request) {
    CallContext ctx;
    ctx.harness = harness;
    ctx.settings = state.settings;
    ctx.session = stringMember(request, "session");
    ctx.sessionKey = MCPTaintTracker::key(harness.id, ctx.session);
    ctx.tool = stringMember(request, "name");
    if (auto it = request.find("arguments"); it != request.end() && it->is_object()) {
        ctx.args = *it;
    }

    taint_.touch(ctx.sessionKey);
    if (!limiter_.allow(harness.id, ctx.settings.limits.requestsPerMinute)) {
        audit(harness.name, ctx.tool, "none", MCPResult::rateLimited, "request rate cap exceeded",
              taint_.snapshot(ctx.sessionKey).mailInfluenced);
        return failure("rate_limited", "Too many requests. Slow down and try again in a minute.");
    }
    const auto spec = MCPTools::spec(ctx.tool);
    if (!spec) {
        ctx.result = MCPResult::error;
        ctx.summary = "unknown tool";
        return finish(ctx, "Unknown tool.", true);
    }
    ctx.spec = &*spec;
    if (!ctx.settings.enabledPermissions.contains(spec->permission)) {
        ctx.result = MCPResult::denied;
        ctx.summary = "permission is off";
        return finish(ctx,
                      "This permission is turned off in Kestrune. Ask the user to enable it "
                      "under Agent access.",
                      true);
    }
    if (mailcore::encodeJson(ctx.args).size() >
        static_cast<std::size_t>(ctx.settings.limits.maxArgumentBytes)) {
        ctx.result = MCPResult::error;
        ctx.summary = "arguments too large";
        return finish(ctx, "Arguments are too large.", true);
    }

    std::string text;
    bool isError = false;
    try {
        text = MCPTools::workflowNames().contains(ctx.tool) ? workflowCall(ctx) : run(ctx);
        isError = ctx.failed;
    } catch (const MCPToolError& e) {
        if (ctx.result == MCPResult::ok) ctx.result = MCPResult::error;
        if (ctx.summary.empty()) ctx.summary = e.message();
        text = e.message();
        isError = true;
    } catch (...) {
        ctx.result = MCPResult::error;
        ctx.summary = "failed";
        text = "The request failed.";
        isError = true;
    }
    if (text.size() > static_cast<std::size_t>(ctx.settings.limits.maxResultBytes)) {
        ctx.result = MCPResult::error;
        ctx.summary = "result too large";
        text = "The result is too large. Narrow the request (fewer results, a smaller page).";
        isError = true;
    }
    return finish(ctx, text, isError);
}

Json MCPService::finish(CallContext& ctx, const std::string& text, bool isError) {
    audit(ctx.harness.name, ctx.tool, ctx.account, ctx.result, ctx.summary,
          taint_.snapshot(ctx.sessionKey).mailInfluenced);
    Json reply = Json::object();
    reply["ok"] = true;
    reply["text"] = text;
    reply["isError"] = isError;
    return reply;
}

void MCPService::clearMailInfluence(const std::optional<std::string>& harness) {
    taint_.clear(harness);
}

int MCPService::mailInfluencedSessions() { return taint_.taintedSessionCount(); }

}  // namespace mcpkit
