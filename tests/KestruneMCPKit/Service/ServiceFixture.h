// A whole agent service over in-memory doubles: a policy store on a real
// temporary state file, an audit log, the sample mail backend, a scripted
// user and a stepping clock.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "tests/fakes/FakeMailBackend.h"
#include "tests/fakes/RecordingWorkflows.h"
#include "tests/fakes/ScriptedConfirmer.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit::testing {

class ServiceFixture : public ::testing::Test {
protected:
    static constexpr const char* token = "kmt_claudeclaudeclaudeclaudeclaudeclaudeclaude";
    static constexpr const char* otherToken = "kmt_codexcodexcodexcodexcodexcodexcodexcodex1";

    void SetUp() override {
        temp.emplace();  // a test that calls SetUp again starts in a fresh directory
        dir = temp->path();
        tokens = std::make_shared<MCPMemoryTokenStore>();
        policy = std::make_shared<MCPPolicyStore>(dir / "state.json", tokens, clock());
        policy->registerHarness("claude", "Claude", {"claude-ai"}, token);
        policy->registerHarness("codex", "Codex", {}, otherToken);
        policy->mutate([](MCPState& s) { s.settings.masterEnabled = true; });
        audit = std::make_shared<MCPAuditLog>(dir / "audit.jsonl", clock());
        backend = FakeMailBackend::withSampleMail();
        confirmer = std::make_shared<ScriptedConfirmer>();
        workflows = std::make_shared<RecordingWorkflows>();
        service =
            std::make_unique<MCPService>(policy, audit, backend, confirmer, workflows, clock());
    }

    mailcore::Clock clock() {
        return [this] { return now; };
    }

    void settings(const std::function<void(MCPSettings&)>& change) {
        policy->mutate([&](MCPState& s) { change(s.settings); });
    }

    mailcore::Json request(const std::string& op, const char* tok = token,
                           const std::string& session = "S1") {
        return {{"v", 1},
                {"op", op},
                {"token", tok},
                {"client", {{"name", "claude-ai"}, {"version", "1.0"}}},
                {"session", session}};
    }

    mailcore::Json callRaw(const std::string& tool, const mailcore::Json& arguments,
                           const char* tok = token, const std::string& session = "S1") {
        auto r = request("call", tok, session);
        r["name"] = tool;
        r["arguments"] = arguments;
        return service->respond(r);
    }

    struct ToolAnswer {
        std::string text;
        bool isError = false;
        mailcore::Json json;  // text parsed when it is JSON
    };

    ToolAnswer call(const std::string& tool,
                    const mailcore::Json& arguments = mailcore::Json::object(),
                    const std::string& session = "S1") {
        auto reply = callRaw(tool, arguments, token, session);
        EXPECT_EQ(reply["ok"], true) << reply.dump();
        ToolAnswer a;
        a.text = reply.value("text", "");
        a.isError = reply.value("isError", false);
        mailcore::tryParseJson(a.text, a.json);
        return a;
    }

    MCPAuditEntry lastAudit() {
        auto entries = audit->entries();
        EXPECT_FALSE(entries.empty());
        return entries.empty() ? MCPAuditEntry{} : entries.back();
    }

    std::optional<testfiles::TempDir> temp;
    std::filesystem::path dir;
    mailcore::Date now = mailcore::dateFromSeconds(1'790'000'000);
    std::shared_ptr<MCPMemoryTokenStore> tokens;
    std::shared_ptr<MCPPolicyStore> policy;
    std::shared_ptr<MCPAuditLog> audit;
    std::shared_ptr<FakeMailBackend> backend;
    std::shared_ptr<ScriptedConfirmer> confirmer;
    std::shared_ptr<RecordingWorkflows> workflows;
    std::unique_ptr<MCPService> service;
};

}  // namespace mcpkit::testing
