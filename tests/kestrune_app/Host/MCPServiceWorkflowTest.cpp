// The whole path an agent takes: a link request through the agent service to
// the workflow bridge, the stored workflows and the mail backend.
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "kestrune_app/Host/MCPWorkflowBridge.h"
#include "tests/fakes/FakeMailBackend.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/ScriptedConfirmer.h"

namespace mcpkit {
namespace {

using mailcore::Json;
using mailcore::parseJson;

constexpr const char* claudeToken = "kmt_claudeclaudeclaudeclaudeclaudeclaudeclaude";
constexpr const char* codexToken = "kmt_codexcodexcodexcodexcodexcodexcodexcodex1";

class MCPServiceWorkflowTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto& dir = temp.path();
        auto tokens = std::make_shared<MCPMemoryTokenStore>();
        policy = std::make_shared<MCPPolicyStore>(dir / "state.json", tokens, clock());
        policy->registerHarness("claude", "Claude", {}, claudeToken);
        policy->registerHarness("codex", "Codex", {}, codexToken);
        policy->mutate([](MCPState& s) { s.settings.masterEnabled = true; });
        backend = testing::FakeMailBackend::withSampleMail();
        store = std::make_unique<mailcore::WorkflowStore>(dir / "workflows");
        bridge = std::make_shared<MCPWorkflowBridge>(*store, *backend, clock(),
                                                     mailcore::WorkflowLimits{},
                                                     [](mailcore::Date) { return 0L; });
        service = std::make_unique<MCPService>(
            policy, std::make_shared<MCPAuditLog>(dir / "audit.jsonl", clock()), backend,
            std::make_shared<testing::ScriptedConfirmer>(), bridge, clock());
    }
    mailcore::Clock clock() {
        return [this] { return now; };
    }

    Json call(const std::string& tool, const std::string& arguments,
              const char* token = claudeToken, const char* session = "S1") {
        Json request = {{"v", 1}, {"op", "call"}, {"token", token}, {"session", session}};
        request["client"] = {{"name", "agent"}};
        request["name"] = tool;
        request["arguments"] = parseJson(arguments);
        return parseJson(service->handleFrame(mailcore::encodeJson(request)));
    }

    linktest::TempDir temp;
    mailcore::Date now = mailcore::dateFromSeconds(1'795'255'200);
    std::shared_ptr<MCPPolicyStore> policy;
    std::shared_ptr<testing::FakeMailBackend> backend;
    std::unique_ptr<mailcore::WorkflowStore> store;
    std::shared_ptr<MCPWorkflowBridge> bridge;
    std::unique_ptr<MCPService> service;
};

const char* const reportSpec =
    R"({"spec":{"name":"Reports","trigger":{"type":"new_message"},"conditions":[{"type":"attachment_kind","values":["pdf"]}],"actions":[{"type":"apply_label","label":"Reports"}]}})";

TEST_F(MCPServiceWorkflowTest, CreateFollowsTheUsersPermissionsAndStoresAPendingWorkflow) {
    policy->mutate([](MCPState& s) { s.settings.enabledPermissions.erase("apply_label"); });
    const Json refused = call("create_workflow", reportSpec);
    EXPECT_EQ(refused["isError"], true);
    EXPECT_EQ(refused["text"],
              "The workflow is not valid: apply_label needs the apply_label permission, "
              "which this app does not have.");
    EXPECT_TRUE(store->all().empty());

    policy->mutate([](MCPState& s) { s.settings.enabledPermissions.insert("apply_label"); });
    const Json reply = call("create_workflow", reportSpec);
    ASSERT_EQ(reply["ok"], true) << reply.dump();
    EXPECT_EQ(reply["isError"], false);
    const Json answer = parseJson(reply["text"].get<std::string>());
    EXPECT_EQ(answer["message"],
              "Saved. It will not run until the user reviews and approves it in the app.");
    const auto all = store->all();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].author, "claude");
    EXPECT_EQ(all[0].authorName, "Claude");
    EXPECT_FALSE(all[0].approved);

    const Json foreign = call("pause_workflow", R"({"id":")" + all[0].id + R"("})", codexToken);
    EXPECT_EQ(foreign["isError"], true);
    EXPECT_EQ(
        foreign["text"],
        "The workflow \"Reports\" was created by another app and cannot be changed from here.");
}

TEST_F(MCPServiceWorkflowTest, PreviewSeesOnlyAccountsTheUserDidNotExclude) {
    const Json all = parseJson(call("preview_workflow", reportSpec)["text"].get<std::string>());
    EXPECT_EQ(all["matched_count"], 1);
    EXPECT_EQ(all["sample"][0]["message_id"], "m4");

    policy->mutate([](MCPState& s) { s.settings.excludedAccounts = {"work@example.org"}; });
    const Json without = parseJson(call("preview_workflow", reportSpec)["text"].get<std::string>());
    EXPECT_EQ(without["matched_count"], 0);
    // The previews showed mail, so that session's workflow changes now need
    // the user's approval; a fresh session checks the validation alone.
    const Json named = call(
        "create_workflow",
        R"({"spec":{"name":"W","trigger":{"type":"no_reply","after_hours":24},"accounts":["work@example.org"],"actions":[{"type":"remind"}]}})",
        claudeToken, "S2");
    EXPECT_EQ(named["isError"], true);
    EXPECT_EQ(named["text"],
              "The workflow is not valid: Unknown account \"work@example.org\". Use list_accounts "
              "for valid account keys.");
}

}  // namespace
}  // namespace mcpkit
