#include <gtest/gtest.h>

#include "KestruneMCPKit/Tools/MCPTools.h"
#include "ServiceFixture.h"

namespace mcpkit::testing {
namespace {

using mailcore::Json;
using namespace std::chrono_literals;

class MCPServiceRespondTest : public ServiceFixture {};

TEST_F(MCPServiceRespondTest, MalformedRequestsAreBadRequests) {
    for (const char* text :
         {"not json", "[]", "42", R"({"op":"hello"})", R"({"v":1})", R"({"v":1,"op":7})"}) {
        const Json reply = mailcore::parseJson(service->handleFrame(text));
        EXPECT_EQ(reply,
                  (Json{{"ok", false}, {"code", "bad_request"}, {"error", "Malformed request."}}))
            << text;
    }
}

TEST_F(MCPServiceRespondTest, RefusalsComeInTheWrittenOrderAndAreAudited) {
    auto reply = service->respond(request("hello", "kmt_unknown"));
    EXPECT_EQ(reply["code"], "refused");
    EXPECT_EQ(reply["error"], "Unknown or revoked token");
    EXPECT_EQ(lastAudit().harness, "unknown");
    EXPECT_EQ(lastAudit().result, MCPResult::refused);
    EXPECT_EQ(lastAudit().tool, "handshake");

    policy->mutate([](MCPState& s) {
        s.settings.masterEnabled = false;
        s.harness("claude")->allowed = false;
    });
    for (const char* op : {"hello", "tools_list", "call", "bye"}) {
        reply = service->respond(request(op));
        EXPECT_EQ(reply["error"], "Agent access is switched off") << op;
    }
    policy->mutate([](MCPState& s) { s.settings.masterEnabled = true; });
    reply = service->respond(request("hello"));
    EXPECT_EQ(reply["error"], "App is not allowed");
    EXPECT_EQ(lastAudit().harness, "Claude");
}

TEST_F(MCPServiceRespondTest, HelloBindsTheClientNameAndAnotherNameIsRefused) {
    auto reply = service->respond(request("hello"));
    EXPECT_EQ(reply["ok"], true);
    EXPECT_EQ(reply["greeting"], "connected as Claude");
    EXPECT_EQ(policy->snapshot().harness("claude")->boundClientName, "claude-ai");
    EXPECT_TRUE(policy->snapshot().harness("claude")->lastSeen.has_value());

    auto impostor = request("call");
    const std::string longName(200, 'x');
    impostor["client"]["name"] = longName;
    reply = service->respond(impostor);
    EXPECT_EQ(reply["code"], "refused");
    EXPECT_EQ(reply["error"], "Client name does not match this registration (announced \"" +
                                  std::string(120, 'x') + "\")");
}

TEST_F(MCPServiceRespondTest, ToolsListShowsOnlyEnabledPermissions) {
    auto names = [&] {
        std::vector<std::string> out;
        const Json reply = service->respond(request("tools_list"));
        for (const auto& t : reply["tools"]) {
            out.push_back(t["name"]);
        }
        return out;
    };
    auto listed = names();
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "send_message"), 0);

    settings([](MCPSettings& s) { s.enabledPermissions = {"send_message", "read_message"}; });
    EXPECT_EQ(names(), (std::vector<std::string>{"read_message", "send_message"}));
    const Json tool = service->respond(request("tools_list"))["tools"][0];
    EXPECT_TRUE(tool["inputSchema"].is_object());
}

TEST_F(MCPServiceRespondTest, UnknownOperationsAnswerAndByeOrClearingForgetsSessions) {
    EXPECT_EQ(service->respond(request("dance"))["error"], "Unknown operation.");
    call("search_messages", {{"query", "report"}});
    EXPECT_EQ(service->mailInfluencedSessions(), 1);
    EXPECT_EQ(service->respond(request("bye"))["ok"], true);
    EXPECT_EQ(service->mailInfluencedSessions(), 0);

    // Clearing a harness forgets its sessions and no other harness's.
    call("read_message", {{"message_id", "m3"}}, "A");
    call("read_message", {{"message_id", "m3"}}, "B");
    EXPECT_EQ(service->mailInfluencedSessions(), 2);
    service->clearMailInfluence(std::string("codex"));
    EXPECT_EQ(service->mailInfluencedSessions(), 2);
    service->clearMailInfluence(std::string("claude"));
    EXPECT_EQ(service->mailInfluencedSessions(), 0);
}

TEST_F(MCPServiceRespondTest, RefusalLoggingIsCappedAtThirtyPerMinute) {
    const auto before = audit->entries().size();
    for (int i = 0; i < 45; ++i) {
        EXPECT_EQ(service->respond(request("call", "kmt_stolen"))["code"], "refused");
    }
    EXPECT_EQ(audit->entries().size() - before, 30u);
    now += 60s;
    service->respond(request("call", "kmt_stolen"));
    EXPECT_EQ(audit->entries().size() - before, 31u);
}

TEST_F(MCPServiceRespondTest, TheSixtyFirstCallInAMinuteIsRateLimited) {
    for (int i = 0; i < 60; ++i) {
        ASSERT_EQ(callRaw("list_accounts", Json::object())["ok"], true) << i;
        now += 500ms;
    }
    auto reply = callRaw("list_accounts", Json::object());
    EXPECT_EQ(reply["code"], "rate_limited");
    EXPECT_EQ(reply["error"], "Too many requests. Slow down and try again in a minute.");
    EXPECT_EQ(lastAudit().result, MCPResult::rateLimited);
    EXPECT_EQ(lastAudit().summary, "request rate cap exceeded");
    // The other harness has its own budget.
    EXPECT_EQ(callRaw("list_accounts", Json::object(), otherToken)["ok"], true);
    now += 30s;  // 60 s after the first call
    EXPECT_EQ(callRaw("list_accounts", Json::object())["ok"], true);
}

TEST_F(MCPServiceRespondTest, PipelineChecksToolPermissionAndSizeBeforeRunning) {
    auto a = call("delete_everything");
    EXPECT_EQ(a.text, "Unknown tool.");
    EXPECT_TRUE(a.isError);
    EXPECT_EQ(lastAudit().summary, "unknown tool");

    a = call("send_message", {{"to", {"bob@example.com"}}, {"account", "me@example.com"}});
    EXPECT_EQ(a.text,
              "This permission is turned off in Kestrune. Ask the user to enable it under Agent "
              "access.");
    EXPECT_EQ(lastAudit().result, MCPResult::denied);
    EXPECT_EQ(lastAudit().summary, "permission is off");
    EXPECT_TRUE(confirmer->sends().empty());

    settings([](MCPSettings& s) { s.limits.maxArgumentBytes = 100; });
    a = call("search_messages", {{"query", std::string(200, 'q')}});
    EXPECT_EQ(a.text, "Arguments are too large.");
    EXPECT_EQ(backend->searchCount(), 0);
}

TEST_F(MCPServiceRespondTest, FailuresAndOversizedResultsBecomeErrorsWithoutBackendText) {
    backend->failing = true;
    for (const auto& [tool, args] :
         std::vector<std::pair<std::string, Json>>{{"list_accounts", Json::object()},
                                                   {"search_messages", {{"query", "x"}}},
                                                   {"read_message", {{"message_id", "m1"}}}}) {
        const auto a = call(tool, args);
        EXPECT_TRUE(a.isError) << tool;
        EXPECT_EQ(a.text, "The request failed.") << tool;
        EXPECT_EQ(lastAudit().summary, "failed");
        EXPECT_EQ(lastAudit().result, MCPResult::error);
    }
    backend->failing = false;
    settings([](MCPSettings& s) { s.limits.maxResultBytes = 300; });
    const auto a = call("read_message", {{"message_id", "m2"}});
    EXPECT_TRUE(a.isError);
    EXPECT_EQ(a.text,
              "The result is too large. Narrow the request (fewer results, a smaller page).");
}

// One entry per request; an audit log that cannot write never fails one.
TEST_F(MCPServiceRespondTest, EveryRequestLeavesOneAuditEntry) {
    const auto before = audit->entries().size();
    service->respond(request("hello"));
    service->respond(request("tools_list"));
    call("list_accounts");
    call("read_message", {{"message_id", "nope"}});
    EXPECT_EQ(audit->entries().size() - before, 4u);
    const auto e = lastAudit();
    EXPECT_EQ(e.tool, "read_message");
    EXPECT_EQ(e.result, MCPResult::error);
    EXPECT_EQ(e.summary, "Message not found.");

    auto brokenAudit = std::make_shared<MCPAuditLog>(dir / "no-such-dir" / "audit.jsonl", clock());
    MCPService s(policy, brokenAudit, backend, confirmer, workflows, clock());
    auto r = request("call");
    r["name"] = "list_accounts";
    r["arguments"] = Json::object();
    EXPECT_EQ(s.respond(r)["isError"], false);
}

// Agent-supplied text on its way to the audit log: each row is an attack;
// no entry may hold the other harness's token or a control character.
TEST_F(MCPServiceRespondTest, AgentTextReachesTheAuditOnlyScrubbed) {
    const std::vector<std::pair<std::string, Json>> attacks = {
        {"list_folders", {{"account", otherToken}}},
        {"list_folders", {{"account", "x\n2026-01-01T00:00:00Z  Codex  send_message  ok"}}},
        {"search_messages", {{"account", "a\x1b[2J@b.co"}}},
        {std::string("tool\x1b[31m ") + otherToken, Json::object()},
    };
    for (const auto& [tool, args] : attacks) {
        callRaw(tool, args);
        const auto e = lastAudit();
        for (const std::string& field : {e.harness, e.tool, e.account, e.summary}) {
            EXPECT_EQ(field.find("codexcodex"), std::string::npos) << field;
            for (unsigned char c : field) EXPECT_GE(c, 0x20) << field;
        }
        EXPECT_EQ(e.account, "none") << tool;
    }
    // A client name carrying a token, in the refusal that names it.
    auto hello = request("hello");
    hello["client"]["name"] = std::string("evil\n") + otherToken;
    service->respond(hello);
    EXPECT_EQ(lastAudit().summary.find("codexcodex"), std::string::npos);
}

// A flood of handshakes is answered but logged at most 30 times a minute per
// harness, so it cannot push earlier entries out of the log.
TEST_F(MCPServiceRespondTest, AHandshakeFloodCannotEvictOtherEntries) {
    call("list_accounts");
    const auto first = lastAudit().id;
    for (int i = 0; i < 200; ++i) EXPECT_EQ(service->respond(request("hello"))["ok"], true);
    const auto entries = audit->entries();
    EXPECT_EQ(std::count_if(entries.begin(), entries.end(),
                            [](const MCPAuditEntry& e) { return e.tool == "handshake"; }),
              30);
    EXPECT_TRUE(std::any_of(entries.begin(), entries.end(),
                            [&](const MCPAuditEntry& e) { return e.id == first; }));
}

}  // namespace
}  // namespace mcpkit::testing
