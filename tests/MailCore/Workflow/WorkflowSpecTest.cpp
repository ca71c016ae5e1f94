// Reading specifications from any JSON value: wrong types, huge and deep
// values and invalid UTF-8 are read errors, never crashes; the canonical form
// survives a round trip.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Workflow/WorkflowPolicy.h"
#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore {
namespace {

TEST(WorkflowSpecReading, WrongTypesAreReadErrors) {
    const char* const unreadable[] = {
        "null",
        "[]",
        "\"spec\"",
        "42",
        "true",
        R"({"name":5})",
        R"({"name":["a"]})",
        R"({"note":{}})",
        R"({"trigger":"new_message"})",
        R"({"trigger":{"type":1}})",
        R"({"trigger":{"type":"schedule","hour":"7"}})",
        R"({"trigger":{"type":"schedule","hour":7.5}})",
        R"({"trigger":{"type":"schedule","hour":true}})",
        R"({"trigger":{"type":"schedule","weekdays":3}})",
        R"({"trigger":{"type":"schedule","weekdays":["mon"]}})",
        R"({"trigger":{"type":"no_reply","after_hours":"1"}})",
        R"({"accounts":"a@b.c"})",
        R"({"accounts":[1]})",
        R"({"match":false})",
        R"({"conditions":{}})",
        R"({"conditions":[1]})",
        R"({"conditions":[{"type":"from","values":"x"}]})",
        R"({"conditions":[{"type":"from","values":[null]}]})",
        R"({"conditions":[{"type":"classified","category":7}]})",
        R"({"actions":{"type":"star"}})",
        R"({"actions":["star"]})",
        R"({"actions":[{"type":"apply_label","label":3}]})",
        R"({"actions":[{"type":"draft_reply","template":[]}]})",
        R"({"actions":[{"type":"extract","fields":"a"}]})",
        R"({"actions":[{"type":"extract","fields":["a"],"file":{"x":1}}]})",
    };
    for (const char* text : unreadable) {
        EXPECT_THROW(WorkflowSpec::fromJson(parseJson(text)), WorkflowSpecReadError) << text;
    }
}

TEST(WorkflowSpecReading, AbsentAndNullMembersTakeDefaults) {
    const auto spec = WorkflowSpec::fromJson(parseJson(
        R"({"name":null,"note":null,"trigger":{"type":"schedule","hour":7.0,"minute":null},
            "match":null,"accounts":null,"conditions":null,"actions":null,"extra":{"deep":[1,2]}})"));
    EXPECT_EQ(spec.name, "");
    EXPECT_EQ(spec.match, "all");
    EXPECT_EQ(spec.trigger.hour, 7);
    EXPECT_FALSE(spec.trigger.minute.has_value());
    EXPECT_TRUE(spec.accounts.empty());
    EXPECT_TRUE(spec.actions.empty());
}

TEST(WorkflowSpecReading, HugeNumbersAreClampedAndReportedAsOutOfRange) {
    const auto spec = WorkflowSpec::fromJson(parseJson(
        R"({"name":"n","trigger":{"type":"schedule","hour":1e300,"minute":18446744073709551615,
            "weekdays":[-9223372036854775808]},"actions":[{"type":"digest","title":"t"}]})"));
    EXPECT_EQ(WorkflowPolicy::problems(spec, {"create_draft"}, std::nullopt),
              (std::vector<std::string>{"schedule hour must be 0\u201323.",
                                        "schedule minute must be 0\u201359.",
                                        "schedule weekdays must be 1 (Sunday) to 7 (Saturday)."}));
}

TEST(WorkflowSpecReading, InvalidUTF8IsAReadError) {
    for (const std::string& bad : {std::string("\xC3"), std::string("\xED\xA0\x80"),
                                   std::string("\xC0\xAF"), std::string("ok\xFF")}) {
        Json spec = Json::object();
        spec["name"] = bad;
        EXPECT_THROW(WorkflowSpec::fromJson(spec), WorkflowSpecReadError);
        Json inAction = parseJson(R"({"name":"n","actions":[{"type":"apply_label"}]})");
        inAction["actions"][0]["label"] = bad;
        EXPECT_THROW(WorkflowSpec::fromJson(inAction), WorkflowSpecReadError);
    }
}

TEST(WorkflowSpecReading, DeepNestingIsAReadErrorOrIgnored) {
    // As deep as parsing accepts (deeper text never becomes a value).
    const std::size_t depth = maxJsonDepth - 3;
    std::string deep;
    for (std::size_t i = 0; i < depth; ++i) deep += "[";
    for (std::size_t i = 0; i < depth; ++i) deep += "]";
    EXPECT_THROW(WorkflowSpec::fromJson(parseJson(R"({"name":"n","conditions":)" + deep + "}")),
                 WorkflowSpecReadError);
    EXPECT_THROW(
        WorkflowSpec::fromJson(parseJson(R"({"name":"n","trigger":{"weekdays":)" + deep + "}}")),
        WorkflowSpecReadError);
    EXPECT_EQ(
        WorkflowSpec::fromJson(parseJson(R"({"name":"n","unknown":)" + deep + R"(,"note":"x"})"))
            .name,
        "n");
}

TEST(WorkflowSpecReading, HugeArraysAreReadAndReportedOnce) {
    Json spec = parseJson(R"({"name":"n","trigger":{"type":"new_message"}})");
    Json conditions = Json::array();
    for (int i = 0; i < 20000; ++i) conditions.push_back(parseJson(R"({"type":"unread"})"));
    spec["conditions"] = conditions;
    Json actions = Json::array();
    for (int i = 0; i < 20000; ++i) actions.push_back(parseJson(R"({"type":"remind"})"));
    spec["actions"] = actions;
    EXPECT_EQ(WorkflowPolicy::problems(WorkflowSpec::fromJson(spec), {}, std::nullopt),
              (std::vector<std::string>{"At most 12 conditions are allowed.",
                                        "At most 8 actions are allowed."}));
}

TEST(WorkflowSpecReading, CanonicalFormKeepsOnlyTheMembersAKindUses) {
    const auto spec = WorkflowSpec::fromJson(parseJson(
        R"({"name":"N","trigger":{"type":"new_message","hour":3},"conditions":[
              {"type":"unread","values":["x"]},{"type":"from","values":["a"],"category":"c"},
              {"type":"classified","category":"bills","values":["v"]}],
            "actions":[{"type":"star","label":"x"},{"type":"draft_reply","template":"t","title":"x"},
              {"type":"extract","fields":["a"],"file":"f","label":"q"}],"bogus":1})"));
    EXPECT_EQ(
        encodeJson(spec.toJson()),
        R"({"name":"N","trigger":{"type":"new_message"},"accounts":[],"match":"all",)"
        R"("conditions":[{"type":"unread"},{"type":"from","values":["a"]},)"
        R"({"type":"classified","category":"bills"}],"actions":[{"type":"star"},)"
        R"({"type":"draft_reply","template":"t"},{"type":"extract","fields":["a"],"file":"f"}]})");
}

TEST(WorkflowSpecReading, RoundTripOfAValidSpecIsStable) {
    const char* text =
        R"({"name":"Morning","note":"why","trigger":{"type":"schedule","hour":7,"minute":5,"weekdays":[2,6]},)"
        R"("accounts":["a@b.c"],"match":"any","conditions":[{"type":"subject","values":["x","y"]}],)"
        R"("actions":[{"type":"digest","title":"D"}]})";
    const auto once = WorkflowSpec::fromJson(parseJson(text)).toJson();
    EXPECT_EQ(encodeJson(once), text);
    EXPECT_EQ(encodeJson(WorkflowSpec::fromJson(once).toJson()), text);
}

}  // namespace
}  // namespace mailcore
