#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "KestruneMCPKit/Tools/MCPMailBackend.h"
#include "KestruneMCPKit/Tools/MCPTools.h"
#include "MailCore/Workflow/WorkflowTools.h"

namespace {

using mailcore::Json;
using namespace mcpkit;

// The catalog's texts are reviewed where they are written; what is checked
// here are the rules every entry must follow. The workflow spec schema is
// checked against the validator in the workflow catalog test.
TEST(MCPToolsTest, EveryToolHasAClosedSchemaItsPermissionAndItsWriteFlag) {
    const std::set<std::string> readOnly{"list_accounts", "list_folders",   "search_messages",
                                         "read_message",  "list_workflows", "preview_workflow"};
    for (const MCPToolSpec& tool : MCPTools::all()) {
        SCOPED_TRACE(tool.name);
        const bool isWorkflow = MCPTools::workflowNames().contains(tool.name);
        EXPECT_EQ(tool.permission, isWorkflow ? "manage_workflows" : tool.name);
        EXPECT_EQ(tool.writes, !readOnly.contains(tool.name));
        EXPECT_FALSE(tool.title.empty());
        EXPECT_FALSE(tool.description.empty());
        const Json schema = mailcore::parseJson(tool.inputSchema);
        EXPECT_EQ(schema["type"], "object");
        EXPECT_EQ(schema["additionalProperties"], false);
        for (const Json& name : schema.value("required", Json::array()))
            EXPECT_TRUE(schema["properties"].contains(name.get<std::string>())) << name;
        if (schema["properties"].contains("spec")) {
            EXPECT_EQ(mailcore::encodeJson(schema["properties"]["spec"]),
                      mailcore::WorkflowTools::specSchema());
        }
    }
}

TEST(MCPToolsTest, SpecNamedIsAnExactCaseSensitiveLookup) {
    EXPECT_EQ(MCPTools::spec("send_message")->permission, "send_message");
    EXPECT_EQ(MCPTools::spec("preview_workflow")->permission, "manage_workflows");
    for (const char* name :
         {"List_Accounts", "PREVIEW_WORKFLOW", "manage_workflows", "list_accounts ", ""})
        EXPECT_FALSE(MCPTools::spec(name)) << name;
}

TEST(MCPToolsTest, ListingFormCarriesSchemaAndAllFourHints) {
    // The hints follow from what each tool does: only sending reaches people
    // outside; sending, rewriting and deleting a workflow cannot be taken
    // back; calls that create something new each time are not idempotent.
    const std::set<std::string> destructive{"send_message", "update_workflow", "delete_workflow"};
    const std::set<std::string> createsEachCall{"create_draft", "send_message", "create_workflow"};
    const Json listing = MCPTools::staticListing();
    ASSERT_TRUE(listing.is_array());
    ASSERT_EQ(listing.size(), MCPTools::all().size());
    for (std::size_t i = 0; i < listing.size(); ++i) {
        const Json& tool = listing[i];
        const std::string name = MCPTools::all()[i].name;
        SCOPED_TRACE(name);
        const auto spec = MCPTools::spec(name);
        ASSERT_TRUE(spec);
        std::vector<std::string> keys;
        for (auto it = tool.begin(); it != tool.end(); ++it) keys.push_back(it.key());
        EXPECT_EQ(keys, (std::vector<std::string>{"name", "title", "description", "inputSchema",
                                                  "annotations"}));
        EXPECT_EQ(tool["name"], spec->name);
        EXPECT_EQ(tool["title"], spec->title);
        EXPECT_EQ(tool["description"], spec->description);
        EXPECT_EQ(mailcore::encodeJson(tool["inputSchema"]), spec->inputSchema);
        EXPECT_EQ(tool["annotations"], (Json{{"readOnlyHint", !spec->writes},
                                             {"destructiveHint", destructive.contains(name)},
                                             {"idempotentHint", !createsEachCall.contains(name)},
                                             {"openWorldHint", name == "send_message"}}));
    }
}

TEST(MCPToolsTest, AnUnknownToolGetsTheWorstCaseHintsAndAnUnreadableSchemaIsReplaced) {
    MCPToolSpec spec{"future_tool", "Future", "d", "{not json", "future_tool", true};
    EXPECT_EQ(MCPTools::annotations(spec), (MCPToolAnnotations{false, true, false, true}));
    const Json form = MCPTools::listingForm(spec);
    EXPECT_EQ(form["inputSchema"], (Json{{"type", "object"}}));
    spec.writes = false;
    EXPECT_TRUE(MCPTools::annotations(spec).readOnlyHint);
}

TEST(MCPMailBackendRecordsTest, RecordsRoundTripThroughJsonByFieldNameAndRefuseWrongShapes) {
    MCPMessage message{"m1",
                       "a@example.com",
                       "Bob <b@example.com>",
                       {"a@example.com"},
                       {"c@example.com", "d@example.com"},
                       "2026-01-02",
                       "Hi \xC3\xA9",
                       "body\ntext",
                       {{"x.pdf", "application/pdf"}}};
    Json json = message;
    EXPECT_EQ(json["bodyText"], "body\ntext");
    EXPECT_EQ(json["attachments"][0]["type"], "application/pdf");
    EXPECT_EQ(json.get<MCPMessage>(), message);

    MCPSearchQuery query{
        {"a@example.com"}, "invoice", std::string("inbox"), std::nullopt, true, 25, 50};
    Json q = query;
    EXPECT_FALSE(q.contains("from"));
    EXPECT_EQ(q["folder"], "inbox");
    EXPECT_EQ(q.get<MCPSearchQuery>(), query);

    MCPSearchPage page{{{"m1", "a@example.com", "inbox", "Bob", "Hi", "d", "s", true}}, 7};
    EXPECT_EQ(Json(page).get<MCPSearchPage>(), page);
    MCPOutgoing out{"a@example.com", {"b@example.com"}, {}, "S", "B"};
    EXPECT_EQ(Json(out).get<MCPOutgoing>(), out);
    MCPFolder folder{"inbox", "Inbox", 3};
    EXPECT_EQ(Json(folder).get<MCPFolder>(), folder);
    MCPAccount account{"a@example.com", "Work"};
    EXPECT_EQ(Json(account).get<MCPAccount>(), account);
    // A wrong shape throws instead of guessing.
    EXPECT_ANY_THROW(mailcore::parseJson(R"({"email":1,"label":"x"})").get<MCPAccount>());
    EXPECT_ANY_THROW(mailcore::parseJson(R"({"id":"x","name":"y"})").get<MCPFolder>());
}

}  // namespace
