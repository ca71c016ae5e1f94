// The tool catalog agents see and the handler and validator behind it agree:
// every catalog tool is handled, and the kinds and limits the spec schema
// advertises are the ones validation accepts.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/Workflow/WorkflowPolicy.h"
#include "MailCore/Workflow/WorkflowToolHandler.h"
#include "MailCore/Workflow/WorkflowTools.h"
#include "tests/fakes/LinkTestSupport.h"

namespace mailcore {
namespace {

// Every `const` and `enum` value of the `type` property across a oneOf.
std::set<std::string> kindsIn(const Json& oneOfSchema) {
    std::set<std::string> kinds;
    for (const Json& variant : oneOfSchema.at("oneOf")) {
        const Json& type = variant.at("properties").at("type");
        if (type.contains("const")) kinds.insert(type["const"].get<std::string>());
        if (type.contains("enum")) {
            for (const Json& v : type["enum"]) kinds.insert(v.get<std::string>());
        }
    }
    return kinds;
}

TEST(WorkflowCatalog, EveryCatalogToolIsHandled) {
    linktest::TempDir temp;
    WorkflowStore store(temp.path() / "w");
    WorkflowToolHandler handler(store, nullptr, systemClock());
    ASSERT_EQ(WorkflowToolHandler::toolNames().size(), 6u);
    for (const WorkflowToolDescriptor& tool : WorkflowTools::all()) {
        const auto answer = handler.handle({"h", "H", {}, std::nullopt}, tool.name, Json::object());
        EXPECT_EQ(answer.text.find("Unknown workflow tool"), std::string::npos) << tool.name;
    }
}

TEST(WorkflowCatalog, SchemaKindsAreTheValidatorsKinds) {
    const Json schema = parseJson(WorkflowTools::specSchema());
    const Json& properties = schema.at("properties");

    std::set<std::string> conditionKinds(workflowValueConditionTypes().begin(),
                                         workflowValueConditionTypes().end());
    conditionKinds.insert(workflowFlagConditionTypes().begin(), workflowFlagConditionTypes().end());
    conditionKinds.insert("classified");
    EXPECT_EQ(kindsIn(properties.at("conditions").at("items")), conditionKinds);

    const std::set<std::string> actionKinds(workflowActionTypes().begin(),
                                            workflowActionTypes().end());
    EXPECT_EQ(kindsIn(properties.at("actions").at("items")), actionKinds);
    EXPECT_EQ(kindsIn(properties.at("trigger")),
              (std::set<std::string>{"new_message", "schedule", "no_reply"}));
}

TEST(WorkflowCatalog, SchemaLimitsAreTheValidatorsLimits) {
    const WorkflowLimits limits;
    const Json schema = parseJson(WorkflowTools::specSchema());
    const Json& p = schema.at("properties");
    EXPECT_EQ(p.at("name").at("maxLength"), limits.maxNameLength);
    EXPECT_EQ(p.at("note").at("maxLength"), limits.maxNoteLength);
    EXPECT_EQ(p.at("conditions").at("maxItems"), limits.maxConditions);
    EXPECT_EQ(p.at("actions").at("maxItems"), limits.maxActions);

    // Each action variant's text limits, checked against what validation says
    // one character beyond them.
    for (const Json& variant : p.at("actions").at("items").at("oneOf")) {
        const Json& props = variant.at("properties");
        if (!props.at("type").contains("const")) continue;
        const std::string kind = props["type"]["const"].get<std::string>();
        for (const auto& item : props.items()) {
            if (item.key() == "type" || !item.value().contains("maxLength")) continue;
            const int max = item.value()["maxLength"].get<int>();
            Json action = Json::object();
            action["type"] = kind;
            if (kind == "show_notice") action["title"] = "t";
            action[item.key()] = std::string(static_cast<std::size_t>(max) + 1, 'x');
            Json spec = parseJson(R"({"name":"n","trigger":{"type":"no_reply","after_hours":2}})");
            if (kind == "digest") spec["trigger"] = parseJson(R"({"type":"schedule","hour":1})");
            spec["actions"] = Json::array({action});
            const auto problems = WorkflowPolicy::problems(
                WorkflowSpec::fromJson(spec), {"apply_label", "mark_read", "create_draft"},
                std::nullopt);
            const std::string expected = "actions[0]." + item.key() + " must be at most " +
                                         std::to_string(max) + " characters.";
            EXPECT_NE(std::find(problems.begin(), problems.end(), expected), problems.end())
                << kind << "." << item.key();
        }
    }
}

}  // namespace
}  // namespace mailcore
