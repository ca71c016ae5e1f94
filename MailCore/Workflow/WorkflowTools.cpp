#include "MailCore/Workflow/WorkflowTools.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/Json.h"

namespace mailcore::WorkflowTools {

namespace {

// Limits of the workflow model that the schema advertises. The validator
// enforces the same numbers (and more rules than a schema can state).
constexpr int maxNameLength = 80;
constexpr int maxNoteLength = 500;
constexpr int maxConditions = 12;
constexpr int maxActions = 8;
constexpr int maxValuesPerCondition = 50;
constexpr int maxValueLength = 200;
constexpr int maxCategoryLength = 60;
constexpr int maxClassifiedDescriptionLength = 300;
constexpr int maxLabelLength = 40;
constexpr int maxNotifyLength = 200;
constexpr int maxNoticeTitleLength = 80;
constexpr int maxNoticeBodyLength = 300;
constexpr int maxTemplateLength = 5000;
constexpr int maxInstructionLength = 1000;
constexpr int maxNoReplyHours = 720;
constexpr int maxExtractFields = 20;

const char* const valueConditionKinds[] = {"from", "from_domain",     "sender_outside",
                                           "to",   "subject",         "body",
                                           "text", "attachment_kind", "in_thread"};
const char* const flagConditionKinds[] = {"has_attachment", "unread"};
const char* const plainActionKinds[] = {"mark_read", "star", "remind"};

const char* const placeholderHelp =
    "Placeholders: {{sender_name}}, {{sender_first_name}}, {{sender_email}}, {{subject}}, "
    "{{my_name}}, {{my_first_name}}.";

Json str() { return Json{{"type", "string"}}; }

Json str(int maxLength) { return Json{{"type", "string"}, {"maxLength", maxLength}}; }

Json nonEmptyStr(int maxLength) {
    return Json{{"type", "string"}, {"minLength", 1}, {"maxLength", maxLength}};
}

Json integer(int minimum, int maximum) {
    return Json{{"type", "integer"}, {"minimum", minimum}, {"maximum", maximum}};
}

Json constant(const char* value) { return Json{{"const", value}}; }

Json oneOfStrings(const char* const* begin, const char* const* end) {
    Json values = Json::array();
    for (auto it = begin; it != end; ++it) values.push_back(*it);
    return Json{{"type", "string"}, {"enum", values}};
}

// An object schema with the house key order: type, required,
// additionalProperties, properties.
Json object(std::initializer_list<const char*> required, Json properties) {
    Json schema{{"type", "object"}};
    if (required.size() > 0) {
        Json names = Json::array();
        for (const char* name : required) names.push_back(name);
        schema["required"] = names;
    }
    schema["additionalProperties"] = false;
    schema["properties"] = std::move(properties);
    return schema;
}

Json triggerSchema() {
    Json weekdays{{"type", "array"},
                  {"items", integer(1, 7)},
                  {"description", "1 = Sunday \u2026 7 = Saturday; empty = every day"}};
    Json variants = Json::array();
    variants.push_back(object({"type"}, Json{{"type", constant("new_message")}}));
    variants.push_back(object({"type", "hour"}, Json{{"type", constant("schedule")},
                                                     {"hour", integer(0, 23)},
                                                     {"minute", integer(0, 59)},
                                                     {"weekdays", weekdays}}));
    variants.push_back(
        object({"type", "after_hours"},
               Json{{"type", constant("no_reply")}, {"after_hours", integer(1, maxNoReplyHours)}}));
    return Json{{"type", "object"},
                {"oneOf", variants},
                {"description",
                 "new_message runs on each new message; schedule runs at hour:minute on the "
                 "given weekdays; no_reply runs when a thread the user wrote last got no answer "
                 "within after_hours."}};
}

Json conditionSchema() {
    Json values{{"type", "array"},
                {"items", nonEmptyStr(maxValueLength)},
                {"minItems", 1},
                {"maxItems", maxValuesPerCondition}};
    Json variants = Json::array();
    variants.push_back(object(
        {"type", "values"},
        Json{{"type", oneOfStrings(std::begin(valueConditionKinds), std::end(valueConditionKinds))},
             {"values", values}}));
    variants.push_back(
        object({"type"}, Json{{"type", oneOfStrings(std::begin(flagConditionKinds),
                                                    std::end(flagConditionKinds))}}));
    variants.push_back(
        object({"type", "category"}, Json{{"type", constant("classified")},
                                          {"category", nonEmptyStr(maxCategoryLength)},
                                          {"description", str(maxClassifiedDescriptionLength)}}));
    return Json{{"type", "object"},
                {"oneOf", variants},
                {"description",
                 "Value conditions match any of their values; has_attachment and unread take no "
                 "values; classified is judged by the user's AI provider."}};
}

Json actionSchema() {
    Json fields{{"type", "array"},
                {"items", Json{{"type", "string"}, {"pattern", "^[a-z][a-z0-9_]{0,39}$"}}},
                {"minItems", 1},
                {"maxItems", maxExtractFields},
                {"uniqueItems", true}};
    Json file{{"type", "string"},
              {"pattern", "^[A-Za-z0-9][A-Za-z0-9 _-]{0,59}$"},
              {"description",
               "A plain file name; the app appends .jsonl and keeps it in its own "
               "folder."}};
    Json noticeTitle = nonEmptyStr(maxNoticeTitleLength);
    Json templateText = nonEmptyStr(maxTemplateLength);
    templateText["description"] = placeholderHelp;

    Json variants = Json::array();
    variants.push_back(object({"type", "label"}, Json{{"type", constant("apply_label")},
                                                      {"label", nonEmptyStr(maxLabelLength)}}));
    variants.push_back(object({"type"}, Json{{"type", oneOfStrings(std::begin(plainActionKinds),
                                                                   std::end(plainActionKinds))}}));
    variants.push_back(
        object({"type"}, Json{{"type", constant("notify")}, {"message", str(maxNotifyLength)}}));
    variants.push_back(object({"type", "title"}, Json{{"type", constant("show_notice")},
                                                      {"title", noticeTitle},
                                                      {"body", str(maxNoticeBodyLength)}}));
    variants.push_back(object(
        {"type", "collection"},
        Json{{"type", constant("add_to_collection")}, {"collection", nonEmptyStr(maxNameLength)}}));
    variants.push_back(object({"type"}, Json{{"type", constant("draft_reply")},
                                             {"template", templateText},
                                             {"instruction", nonEmptyStr(maxInstructionLength)}}));
    variants.push_back(object({"type", "title"}, Json{{"type", constant("digest")},
                                                      {"title", nonEmptyStr(maxNameLength)}}));
    variants.push_back(
        object({"type", "fields", "file"},
               Json{{"type", constant("extract")}, {"fields", fields}, {"file", file}}));
    return Json{{"type", "object"},
                {"oneOf", variants},
                {"description",
                 "draft_reply takes exactly one of template or instruction. show_notice title and "
                 "body take the same placeholders as template. Workflows never send, forward, "
                 "move or delete mail."}};
}

Json buildSpecSchema() {
    Json accounts{{"type", "array"},
                  {"items", str()},
                  {"description", "Account keys from list_accounts; empty = all accounts"}};
    Json match{{"type", "string"}, {"enum", Json::array({"all", "any"})}, {"default", "all"}};
    Json conditions{{"type", "array"}, {"items", conditionSchema()}, {"maxItems", maxConditions}};
    Json actions{
        {"type", "array"}, {"items", actionSchema()}, {"minItems", 1}, {"maxItems", maxActions}};
    Json note = str(maxNoteLength);
    note["description"] = "Why you are proposing this. Shown to the user as your note.";
    return object({"name", "trigger", "actions"}, Json{{"name", nonEmptyStr(maxNameLength)},
                                                       {"note", note},
                                                       {"trigger", triggerSchema()},
                                                       {"accounts", accounts},
                                                       {"match", match},
                                                       {"conditions", conditions},
                                                       {"actions", actions}});
}

std::string schemaWith(std::initializer_list<const char*> required, Json properties) {
    return encodeJson(object(required, std::move(properties)));
}

std::vector<WorkflowToolDescriptor> buildAll() {
    const Json spec = buildSpecSchema();
    const Json id = str();
    std::vector<WorkflowToolDescriptor> tools;
    tools.push_back(
        {std::string(createWorkflow),
         "Propose a mail workflow the app runs automatically: a trigger (new_message, schedule, or "
         "no_reply), optional conditions, and actions. It does not run until the user approves it "
         "in the app. Workflows can label, star, mark read, remind, notify, show a notice above "
         "the message list, collect, save reply drafts, save digest drafts, and extract fields to "
         "a local file. They can never send, forward, move or delete mail. Use preview_workflow "
         "first to check what it would match.",
         schemaWith({"spec"}, Json{{"spec", spec}}), true});
    tools.push_back({std::string(listWorkflows),
                     "List the workflows this app created, with status (pending_approval, active, "
                     "paused) and the plain-language summary the user sees.",
                     schemaWith({}, Json::object()), false});
    tools.push_back({std::string(updateWorkflow),
                     "Replace the definition of a workflow this app created. Any change stops it "
                     "and sends it back to the user for approval.",
                     schemaWith({"id", "spec"}, Json{{"id", id}, {"spec", spec}}), true});
    tools.push_back({std::string(pauseWorkflow),
                     "Pause a workflow this app created. Only the user can resume it.",
                     schemaWith({"id"}, Json{{"id", id}}), true});
    tools.push_back({std::string(deleteWorkflow), "Delete a workflow this app created.",
                     schemaWith({"id"}, Json{{"id", id}}), true});
    tools.push_back({std::string(previewWorkflow),
                     "Check a workflow definition without saving it: validation problems, the "
                     "messages it would match now, and when it would next run.",
                     schemaWith({"spec"}, Json{{"spec", spec}}), false});
    return tools;
}

}  // namespace

const std::vector<WorkflowToolDescriptor>& all() {
    static const std::vector<WorkflowToolDescriptor> tools = buildAll();
    return tools;
}

const std::string& specSchema() {
    static const std::string text = encodeJson(buildSpecSchema());
    return text;
}

}  // namespace mailcore::WorkflowTools
