// Validation of workflow specifications: every rule with its exact message,
// and the order in which problems are listed.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Workflow/WorkflowPolicy.h"

namespace mailcore {
namespace {

const std::vector<std::string> allPermissions = {
    "list_accounts", "list_folders", "search_messages", "read_message",    "mark_read",
    "create_draft",  "apply_label",  "send_message",    "manage_workflows"};
const std::vector<std::string> accounts = {"anna@example.com", "work@example.org"};

std::string forbidden(const std::string& type) {
    return "\"" + type +
           "\" is not available to workflows. Workflows never send, forward, move or delete mail; "
           "use draft_reply to prepare a message for the user.";
}

std::string unknownPlaceholder(const std::string& field, const std::string& name) {
    return field + " uses the unknown placeholder {{" + name +
           "}}. Use {{sender_name}}, {{sender_first_name}}, {{sender_email}}, {{subject}}, "
           "{{my_name}} or {{my_first_name}}.";
}

struct Case {
    const char* name;
    const char* spec;
    std::vector<std::string> expected;
};

std::vector<std::string> problemsOf(const std::string& specText,
                                    const std::vector<std::string>& granted = allPermissions,
                                    const std::optional<std::vector<std::string>>& known = accounts,
                                    const WorkflowLimits& limits = {}) {
    return WorkflowPolicy::problems(WorkflowSpec::fromJson(parseJson(specText)), granted, known,
                                    limits);
}

class WorkflowPolicyRules : public ::testing::TestWithParam<Case> {};

TEST_P(WorkflowPolicyRules, ListsExactlyTheseProblems) {
    const Case& c = GetParam();
    EXPECT_EQ(problemsOf(c.spec), c.expected) << c.spec;
}

const Case cases[] = {
    {"ValidEveryKind",
     R"({"name":"Everything","note":"Line one\nLine two","trigger":{"type":"new_message"},
         "accounts":["anna@example.com","WORK@example.org"],"match":"any",
         "conditions":[{"type":"from","values":["a@b.c"]},{"type":"from_domain","values":["b.c"]},
           {"type":"sender_outside","values":["example.com"]},{"type":"to","values":["me"]},
           {"type":"subject","values":["x"]},{"type":"body","values":["y"]},
           {"type":"text","values":["z"]},{"type":"attachment_kind","values":["pdf"]},
           {"type":"in_thread","values":["plans"]},{"type":"has_attachment"},{"type":"unread"},
           {"type":"classified","category":"newsletter","description":"Bulk mail"}],
         "actions":[{"type":"apply_label","label":"L"},{"type":"mark_read"},{"type":"star"},
           {"type":"remind"},{"type":"notify","message":"New mail"},
           {"type":"show_notice","title":"From {{sender_name}}","body":"About {{ subject }}"},
           {"type":"add_to_collection","collection":"Receipts"},
           {"type":"extract","fields":["amount","due_date"],"file":"Invoices 2026"}]})",
     {}},
    {"ValidScheduleDigest",
     R"({"name":"Morning","trigger":{"type":"schedule","hour":7,"minute":30,"weekdays":[2,3,4,5,6]},
         "actions":[{"type":"digest","title":"Morning digest"}]})",
     {}},
    {"ValidNoReplyTemplate",
     R"J({"name":"Follow up","trigger":{"type":"no_reply","after_hours":720},
         "actions":[{"type":"draft_reply","template":"Hi {{sender_first_name}},\n\nAny news on {{subject}}?\n{{my_first_name}} ({{my_name}}, {{sender_email}})"}]})J",
     {}},
    {"NewMessageWithoutConditions",
     R"({"name":"All","trigger":{"type":"new_message"},"actions":[{"type":"star"}]})",
     {"A new_message workflow needs at least one condition; workflows cannot act on all incoming "
      "mail."}},
    {"ScheduleWithDraftReply",
     R"({"name":"S","trigger":{"type":"schedule","hour":8},
         "actions":[{"type":"digest","title":"D"},{"type":"draft_reply","instruction":"Be brief"}]})",
     {"A schedule workflow may only contain digest actions.",
      "actions[1]: draft_reply cannot run on a schedule."}},
    {"DigestOnNoReplyAndEmptyTemplate",
     R"({"name":"D","trigger":{"type":"no_reply","after_hours":5},
         "actions":[{"type":"digest","title":"D"},{"type":"draft_reply","template":"  "}]})",
     {"actions[0]: digest needs a schedule trigger.", "actions[1].template must not be empty."}},
    {"DraftReplyWithBothAndWithNeither",
     R"({"name":"D","trigger":{"type":"no_reply","after_hours":5},
         "actions":[{"type":"draft_reply","template":"a","instruction":"b"},{"type":"draft_reply"}]})",
     {"At most one draft_reply action per workflow.",
      "actions[0]: set exactly one of template or instruction.",
      "actions[1]: set exactly one of template or instruction."}},
    {"UnknownPlaceholders",
     R"({"name":"N","trigger":{"type":"new_message"},"conditions":[{"type":"unread"}],
         "actions":[{"type":"draft_reply","template":"Dear {{ recipient }}, {{subject}} {{Sender_Name}}"},
                    {"type":"show_notice","title":"Hi {{ name }}","body":"{{date}}"}]})",
     {unknownPlaceholder("actions[0].template", "recipient"),
      unknownPlaceholder("actions[0].template", "Sender_Name"),
      unknownPlaceholder("actions[1].title", "name"),
      unknownPlaceholder("actions[1].body", "date")}},
    {"BracesThatAreNotPlaceholders",
     R"({"name":"N","trigger":{"type":"no_reply","after_hours":5},
         "actions":[{"type":"draft_reply","template":"{{ }} {{a-b}} {x} {{{subject}}}"}]})",
     {}},
    {"UnknownTrigger",
     R"({"name":"T","trigger":{"type":"hourly"},"actions":[{"type":"star"}]})",
     {"Unknown trigger type \"hourly\". Use new_message, schedule or no_reply."}},
    {"MissingTrigger",
     R"({"name":"T","actions":[{"type":"star"}]})",
     {"Unknown trigger type \"\". Use new_message, schedule or no_reply."}},
    {"UnknownConditionAndAction",
     R"({"name":"T","trigger":{"type":"new_message"},"conditions":[{"type":"older_than","values":["3"]}],
         "actions":[{"type":"translate"}]})",
     {"Unknown condition type \"older_than\"", "Unknown action type \"translate\""}},
    {"ForbiddenActions",
     R"({"name":"T","trigger":{"type":"new_message"},"conditions":[{"type":"unread"}],
         "actions":[{"type":"send"},{"type":"forward"},{"type":"move"},{"type":"delete"},
                    {"type":"move_to_folder"},{"type":"auto_reply"}]})",
     {forbidden("send"), forbidden("forward"), forbidden("move"), forbidden("delete"),
      forbidden("move_to_folder"), forbidden("auto_reply")}},
    {"ScheduleOutOfRange",
     R"({"name":"S","trigger":{"type":"schedule","hour":24,"minute":60,"weekdays":[0,8]},
         "actions":[{"type":"digest","title":"D"}]})",
     {"schedule hour must be 0\u201323.", "schedule minute must be 0\u201359.",
      "schedule weekdays must be 1 (Sunday) to 7 (Saturday)."}},
    {"ScheduleWithoutHourAndDigestWithoutTitle",
     R"({"name":"S","trigger":{"type":"schedule","minute":5},"actions":[{"type":"digest"}]})",
     {"schedule hour must be 0\u201323.", "actions[0].title must not be empty."}},
    {"ScheduleNegativeHourAndMinute",
     R"({"name":"S","trigger":{"type":"schedule","hour":-1,"minute":-1},"actions":[{"type":"digest","title":"D"}]})",
     {"schedule hour must be 0\u201323.", "schedule minute must be 0\u201359."}},
    {"NoReplyAboveTheMaximumAndNoActions",
     R"({"name":"N","trigger":{"type":"no_reply","after_hours":721},"match":"some","actions":[]})",
     {"no_reply after_hours must be 1\u2013720.", "match must be \"all\" or \"any\".",
      "At least one action is required."}},
    {"NoReplyZeroAndBlankName",
     R"({"name":" ","trigger":{"type":"no_reply","after_hours":0},"actions":[{"type":"remind"}]})",
     {"name must not be empty.", "no_reply after_hours must be 1\u2013720."}},
    {"NoReplyWithoutHoursAndNoName",
     R"({"trigger":{"type":"no_reply"},"actions":[{"type":"remind"}]})",
     {"name must not be empty.", "no_reply after_hours must be 1\u2013720."}},
    {"ControlCharacters",
     R"({"name":"A\u0007B","note":"ok\nfine\u001b","trigger":{"type":"new_message"},
         "conditions":[{"type":"from","values":["x\ty"]}],
         "actions":[{"type":"apply_label","label":"L\u202eevil"},{"type":"notify","message":"a\nb"},
                    {"type":"draft_reply","template":"Hi\r\n\tthere\u0000"}]})",
     {"name must not contain control characters.", "note must not contain control characters.",
      "conditions[0].values must not contain control characters.",
      "actions[0].label must not contain control characters.",
      "actions[1].message must not contain control characters.",
      "actions[2].template must not contain control characters."}},
    {"AccountsRepeatedAndUnknown",
     R"({"name":"A","trigger":{"type":"no_reply","after_hours":1},
         "accounts":["anna@example.com","Anna@Example.com","bob@example.net"],"actions":[{"type":"remind"}]})",
     {"accounts must not repeat.",
      "Unknown account \"bob@example.net\". Use list_accounts for valid account keys."}},
    {"ValueConditionProblems",
     R"({"name":"V","trigger":{"type":"new_message"},
         "conditions":[{"type":"from"},{"type":"subject","values":["ok"," "]},{"type":"unread","values":["x"]},
                       {"type":"classified","category":"","description":"d"}],
         "actions":[{"type":"star"}]})",
     {"conditions[0].values must have at least one value.",
      "conditions[1].values must not be blank.", "conditions[2] (unread) takes no values.",
      "conditions[3].category must not be empty."}},
    {"ActionFieldsRequiredAndDigestOnNewMessage",
     R"({"name":"F","trigger":{"type":"new_message"},"conditions":[{"type":"unread"}],
         "actions":[{"type":"apply_label"},{"type":"show_notice"},{"type":"add_to_collection"},
                    {"type":"digest","title":"D"}]})",
     {"actions[0].label must not be empty.", "actions[1].title must not be empty.",
      "actions[2].collection must not be empty.", "actions[3]: digest needs a schedule trigger."}},
    {"ExtractRules",
     R"({"name":"E","trigger":{"type":"new_message"},"conditions":[{"type":"unread"}],
         "actions":[{"type":"extract","fields":["amount","amount","Due","9x"],"file":"../etc/passwd"},
                    {"type":"extract","fields":[],"file":"ok"},
                    {"type":"extract","fields":["a"],"file":"name.jsonl"}]})",
     {"actions[0].fields must not repeat.",
      "actions[0].fields: \"Due\" is not a valid name; use a lower-case letter, then up to 39 "
      "lower-case letters, digits or _.",
      "actions[0].fields: \"9x\" is not a valid name; use a lower-case letter, then up to 39 "
      "lower-case letters, digits or _.",
      "actions[0].file must be a plain name of up to 60 letters, digits, spaces, _ or -, starting "
      "with a letter or digit; the app adds .jsonl.",
      "actions[1].fields must have 1 to 20 names.",
      "actions[2].file must be a plain name of up to 60 letters, digits, spaces, _ or -, starting "
      "with a letter or digit; the app adds .jsonl."}},
    {"OrderFollowsFields",
     R"({"actions":[{"type":"send"}],"conditions":[{"type":"nope"}],"match":"x",
         "accounts":["zed@example.com"],"trigger":{"type":"never"},"note":"\u0001","name":""})",
     {"name must not be empty.", "note must not contain control characters.",
      "Unknown trigger type \"never\". Use new_message, schedule or no_reply.",
      "Unknown account \"zed@example.com\". Use list_accounts for valid account keys.",
      "match must be \"all\" or \"any\".", "Unknown condition type \"nope\"", forbidden("send")}},
};

INSTANTIATE_TEST_SUITE_P(Rules, WorkflowPolicyRules, ::testing::ValuesIn(cases),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(WorkflowPolicy, FieldLimitsAtAndBeyondTheirBounds) {
    const auto with = [](const std::string& name, const std::string& note, int conditions,
                         int values, const std::string& value, int actions,
                         const std::string& label) {
        nlohmann::ordered_json spec = {{"name", name}, {"note", note}};
        spec["trigger"] = {{"type", "new_message"}};
        spec["conditions"] = nlohmann::ordered_json::array();
        for (int i = 0; i < conditions; ++i) {
            spec["conditions"].push_back(
                {{"type", "subject"}, {"values", std::vector<std::string>(values, value)}});
        }
        spec["actions"] = nlohmann::ordered_json::array();
        for (int i = 0; i < actions; ++i)
            spec["actions"].push_back({{"type", "apply_label"}, {"label", label}});
        return WorkflowPolicy::problems(WorkflowSpec::fromJson(spec), allPermissions, accounts, {});
    };
    // "é" is one character of two bytes: limits count characters.
    const std::string e = "\xC3\xA9";
    auto repeat = [](const std::string& s, int n) {
        std::string out;
        for (int i = 0; i < n; ++i) out += s;
        return out;
    };
    EXPECT_TRUE(
        with(repeat(e, 80), repeat(e, 500), 12, 50, repeat(e, 200), 8, repeat(e, 40)).empty());
    std::vector<std::string> expected = {"name must be at most 80 characters.",
                                         "note must be at most 500 characters.",
                                         "At most 12 conditions are allowed."};
    for (int i = 0; i < 13; ++i) {
        const std::string field = "conditions[" + std::to_string(i) + "].values";
        expected.push_back(field + " must have at most 50 values.");
        expected.push_back(field + " must be at most 200 characters each.");
    }
    expected.push_back("At most 8 actions are allowed.");
    for (int i = 0; i < 9; ++i) {
        expected.push_back("actions[" + std::to_string(i) +
                           "].label must be at most 40 characters.");
    }
    EXPECT_EQ(with(repeat(e, 81), repeat(e, 501), 13, 51, repeat(e, 201), 9, repeat(e, 41)),
              expected);
}

TEST(WorkflowPolicy, TextLimitsOfActionsAndClassified) {
    const std::string spec = R"({"name":"T","trigger":{"type":"no_reply","after_hours":3},
        "conditions":[{"type":"classified","category":")" +
                             std::string(61, 'c') + R"(","description":")" + std::string(301, 'd') +
                             R"("}],
        "actions":[{"type":"notify","message":")" +
                             std::string(201, 'm') + R"("},
                   {"type":"show_notice","title":")" +
                             std::string(81, 't') + R"(","body":")" + std::string(301, 'b') + R"("},
                   {"type":"add_to_collection","collection":")" +
                             std::string(81, 'k') + R"("},
                   {"type":"draft_reply","instruction":")" +
                             std::string(1001, 'i') + R"("}]})";
    EXPECT_EQ(problemsOf(spec), (std::vector<std::string>{
                                    "conditions[0].category must be at most 60 characters.",
                                    "conditions[0].description must be at most 300 characters.",
                                    "actions[0].message must be at most 200 characters.",
                                    "actions[1].title must be at most 80 characters.",
                                    "actions[1].body must be at most 300 characters.",
                                    "actions[2].collection must be at most 80 characters.",
                                    "actions[3].instruction must be at most 1000 characters."}));
    const std::string longTemplate = R"({"name":"T","trigger":{"type":"no_reply","after_hours":3},
        "actions":[{"type":"draft_reply","template":")" +
                                     std::string(5001, 'x') + R"("}]})";
    EXPECT_EQ(problemsOf(longTemplate),
              std::vector<std::string>{"actions[0].template must be at most 5000 characters."});
}

TEST(WorkflowPolicy, LimitsComeFromWorkflowLimits) {
    WorkflowLimits limits;
    limits.maxNameLength = 3;
    limits.maxNoReplyHours = 48;
    limits.maxExtractFields = 1;
    const std::string spec = R"({"name":"Four","trigger":{"type":"no_reply","after_hours":49},
        "actions":[{"type":"extract","fields":["a","b"],"file":"f"}]})";
    EXPECT_EQ(problemsOf(spec, allPermissions, accounts, limits),
              (std::vector<std::string>{"name must be at most 3 characters.",
                                        "no_reply after_hours must be 1\u201348.",
                                        "actions[0].fields must have 1 to 1 names."}));
}

TEST(WorkflowPolicy, ActionsNeedTheHarnessPermission) {
    const std::string spec = R"({"name":"P","trigger":{"type":"new_message"},
        "conditions":[{"type":"unread"}],
        "actions":[{"type":"apply_label","label":"L"},{"type":"star"},{"type":"mark_read"},
                   {"type":"draft_reply","instruction":"Say thanks"},{"type":"remind"},
                   {"type":"notify"},{"type":"extract","fields":["a"],"file":"f"}]})";
    EXPECT_EQ(problemsOf(spec, {"manage_workflows"}),
              (std::vector<std::string>{
                  "apply_label needs the apply_label permission, which this app does not have.",
                  "star needs the apply_label permission, which this app does not have.",
                  "mark_read needs the mark_read permission, which this app does not have.",
                  "draft_reply needs the create_draft permission, which this app does not have."}));
    EXPECT_TRUE(
        problemsOf(spec, {"manage_workflows", "apply_label", "mark_read", "create_draft"}).empty());

    const std::string digest = R"({"name":"D","trigger":{"type":"schedule","hour":6},
        "actions":[{"type":"digest","title":"D"}]})";
    EXPECT_EQ(problemsOf(digest, {"manage_workflows"}),
              std::vector<std::string>{
                  "digest needs the create_draft permission, which this app does not have."});
}

TEST(WorkflowPolicy, AccountCheckIsSkippedWithoutKnownAccounts) {
    const std::string spec = R"({"name":"A","trigger":{"type":"no_reply","after_hours":1},
        "accounts":["nobody@nowhere","nobody@nowhere"],"actions":[{"type":"remind"}]})";
    EXPECT_EQ(problemsOf(spec, allPermissions, std::nullopt),
              std::vector<std::string>{"accounts must not repeat."});
    EXPECT_EQ(
        problemsOf(spec, allPermissions, std::vector<std::string>{}),
        (std::vector<std::string>{
            "accounts must not repeat.",
            "Unknown account \"nobody@nowhere\". Use list_accounts for valid account keys."}));
}

TEST(WorkflowPolicy, QuotedAgentTextIsCutAndCleaned) {
    const std::string spec = R"({"name":"Q","trigger":{"type":")" + std::string(500, 'z') +
                             R"(\n"},"actions":[{"type":"remind"}]})";
    const auto problems = problemsOf(spec);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0], "Unknown trigger type \"" + std::string(60, 'z') +
                               " \u2026 441 more characters\". Use new_message, schedule or "
                               "no_reply.");
}

TEST(WorkflowPolicy, ForbiddenKindsAreRecognisedByTheirWords) {
    for (const char* type : {"send", "SEND_MESSAGE", "forward-message", "move_to_folder", "trash",
                             "archive", "delete_message", "auto_reply", "reply_all", "mark_spam"}) {
        EXPECT_TRUE(WorkflowPolicy::isForbiddenActionType(type)) << type;
    }
    for (const char* type : {"sender", "translate", "apply_label", "draft_reply", "removal", ""}) {
        EXPECT_FALSE(WorkflowPolicy::isForbiddenActionType(type)) << type;
    }
}

TEST(WorkflowPolicy, PlaceholderNamesAreFoundWithSurroundingSpace) {
    EXPECT_EQ(WorkflowPolicy::placeholderNames("{{a}} {{ b_2 }} {{\u00a0c\u2003}} {{d e}} {{}}"),
              (std::vector<std::string>{"a", "b_2", "c"}));
    EXPECT_TRUE(WorkflowPolicy::placeholderNames(std::string("{{\xff}}")).empty());
}

}  // namespace
}  // namespace mailcore
