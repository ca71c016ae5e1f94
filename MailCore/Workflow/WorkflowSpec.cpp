#include "MailCore/Workflow/WorkflowSpec.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "MailCore/Common/UTF8.h"

namespace mailcore {

namespace {

// Largest magnitude kept for integers read from floating-point numbers;
// anything beyond is out of every range anyway.
constexpr double integerClamp = 1e15;

[[noreturn]] void unreadable(const std::string& member, const char* why) {
    throw WorkflowSpecReadError(member + " " + why);
}

// The member `key` of `object`, or nullptr when absent or null.
const Json* member(const Json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

std::string readText(const Json& value, const std::string& path) {
    if (!value.is_string()) unreadable(path, "is not text");
    const auto& text = value.get_ref<const std::string&>();
    if (!utf8::isValid(text)) unreadable(path, "is not valid UTF-8");
    return text;
}

std::string textMember(const Json& object, const char* key, const std::string& path) {
    const Json* value = member(object, key);
    return value ? readText(*value, path + key) : std::string();
}

std::optional<std::string> optionalTextMember(const Json& object, const char* key,
                                              const std::string& path) {
    const Json* value = member(object, key);
    if (!value) return std::nullopt;
    return readText(*value, path + key);
}

std::int64_t readInteger(const Json& value, const std::string& path) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned()) {
            const auto u = value.get<std::uint64_t>();
            return u > static_cast<std::uint64_t>(integerClamp)
                       ? static_cast<std::int64_t>(integerClamp)
                       : static_cast<std::int64_t>(u);
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        const double d = value.get<double>();
        if (!std::isfinite(d) || std::floor(d) != d) unreadable(path, "is not an integer");
        return static_cast<std::int64_t>(std::clamp(d, -integerClamp, integerClamp));
    }
    unreadable(path, "is not an integer");
}

std::optional<std::int64_t> integerMember(const Json& object, const char* key,
                                          const std::string& path) {
    const Json* value = member(object, key);
    if (!value) return std::nullopt;
    return readInteger(*value, path + key);
}

const Json* arrayMember(const Json& object, const char* key, const std::string& path) {
    const Json* value = member(object, key);
    if (value && !value->is_array()) unreadable(path + key, "is not a list");
    return value;
}

std::vector<std::string> textListMember(const Json& object, const char* key,
                                        const std::string& path) {
    std::vector<std::string> out;
    if (const Json* list = arrayMember(object, key, path)) {
        out.reserve(list->size());
        for (const Json& item : *list) out.push_back(readText(item, path + key + "[]"));
    }
    return out;
}

WorkflowTrigger readTrigger(const Json& json) {
    if (!json.is_object()) unreadable("trigger", "is not an object");
    WorkflowTrigger trigger;
    trigger.type = textMember(json, "type", "trigger.");
    trigger.hour = integerMember(json, "hour", "trigger.");
    trigger.minute = integerMember(json, "minute", "trigger.");
    if (const Json* days = arrayMember(json, "weekdays", "trigger.")) {
        trigger.weekdays.reserve(days->size());
        for (const Json& day : *days)
            trigger.weekdays.push_back(readInteger(day, "trigger.weekdays[]"));
    }
    trigger.afterHours = integerMember(json, "after_hours", "trigger.");
    return trigger;
}

WorkflowCondition readCondition(const Json& json) {
    if (!json.is_object()) unreadable("conditions[]", "is not an object");
    WorkflowCondition condition;
    condition.type = textMember(json, "type", "conditions[].");
    condition.values = textListMember(json, "values", "conditions[].");
    condition.category = textMember(json, "category", "conditions[].");
    condition.description = textMember(json, "description", "conditions[].");
    return condition;
}

WorkflowAction readAction(const Json& json) {
    if (!json.is_object()) unreadable("actions[]", "is not an object");
    const std::string path = "actions[].";
    WorkflowAction action;
    action.type = textMember(json, "type", path);
    action.label = textMember(json, "label", path);
    action.message = textMember(json, "message", path);
    action.title = textMember(json, "title", path);
    action.body = textMember(json, "body", path);
    action.collection = textMember(json, "collection", path);
    action.templateText = optionalTextMember(json, "template", path);
    action.instruction = optionalTextMember(json, "instruction", path);
    action.fields = textListMember(json, "fields", path);
    action.file = textMember(json, "file", path);
    return action;
}

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

const std::vector<std::string>& workflowValueConditionTypes() {
    static const std::vector<std::string> types = {"from", "from_domain",     "sender_outside",
                                                   "to",   "subject",         "body",
                                                   "text", "attachment_kind", "in_thread"};
    return types;
}

const std::vector<std::string>& workflowFlagConditionTypes() {
    static const std::vector<std::string> types = {"has_attachment", "unread"};
    return types;
}

const std::vector<std::string>& workflowActionTypes() {
    static const std::vector<std::string> types = {
        "apply_label", "mark_read",         "star",        "remind", "notify",
        "show_notice", "add_to_collection", "draft_reply", "digest", "extract"};
    return types;
}

bool isValueConditionType(const std::string& type) {
    return contains(workflowValueConditionTypes(), type);
}
bool isFlagConditionType(const std::string& type) {
    return contains(workflowFlagConditionTypes(), type);
}
bool isKnownConditionType(const std::string& type) {
    return isValueConditionType(type) || isFlagConditionType(type) || type == "classified";
}
bool isKnownActionType(const std::string& type) { return contains(workflowActionTypes(), type); }

WorkflowSpec WorkflowSpec::fromJson(const Json& json) {
    if (!json.is_object()) unreadable("spec", "is not an object");
    WorkflowSpec spec;
    spec.name = textMember(json, "name", "");
    spec.note = textMember(json, "note", "");
    if (const Json* trigger = member(json, "trigger")) spec.trigger = readTrigger(*trigger);
    spec.accounts = textListMember(json, "accounts", "");
    if (const Json* match = member(json, "match")) spec.match = readText(*match, "match");
    if (const Json* conditions = arrayMember(json, "conditions", "")) {
        spec.conditions.reserve(conditions->size());
        for (const Json& c : *conditions) spec.conditions.push_back(readCondition(c));
    }
    if (const Json* actions = arrayMember(json, "actions", "")) {
        spec.actions.reserve(actions->size());
        for (const Json& a : *actions) spec.actions.push_back(readAction(a));
    }
    return spec;
}

Json WorkflowSpec::toJson() const {
    Json out = Json::object();
    out["name"] = name;
    if (!note.empty()) out["note"] = note;

    Json t = Json::object();
    t["type"] = trigger.type;
    if (trigger.type == "schedule") {
        if (trigger.hour) t["hour"] = *trigger.hour;
        t["minute"] = trigger.minute.value_or(0);
        t["weekdays"] = trigger.weekdays;
    } else if (trigger.type == "no_reply") {
        if (trigger.afterHours) t["after_hours"] = *trigger.afterHours;
    }
    out["trigger"] = std::move(t);

    out["accounts"] = accounts;
    out["match"] = match;

    Json conditionList = Json::array();
    for (const WorkflowCondition& c : conditions) {
        Json j = Json::object();
        j["type"] = c.type;
        if (c.type == "classified") {
            j["category"] = c.category;
            if (!c.description.empty()) j["description"] = c.description;
        } else if (!isFlagConditionType(c.type)) {
            j["values"] = c.values;
        }
        conditionList.push_back(std::move(j));
    }
    out["conditions"] = std::move(conditionList);

    Json actionList = Json::array();
    for (const WorkflowAction& a : actions) {
        Json j = Json::object();
        j["type"] = a.type;
        if (a.type == "apply_label") {
            j["label"] = a.label;
        } else if (a.type == "notify") {
            if (!a.message.empty()) j["message"] = a.message;
        } else if (a.type == "show_notice") {
            j["title"] = a.title;
            if (!a.body.empty()) j["body"] = a.body;
        } else if (a.type == "add_to_collection") {
            j["collection"] = a.collection;
        } else if (a.type == "draft_reply") {
            if (a.templateText) j["template"] = *a.templateText;
            if (a.instruction) j["instruction"] = *a.instruction;
        } else if (a.type == "digest") {
            j["title"] = a.title;
        } else if (a.type == "extract") {
            j["fields"] = a.fields;
            j["file"] = a.file;
        }
        actionList.push_back(std::move(j));
    }
    out["actions"] = std::move(actionList);
    return out;
}

}  // namespace mailcore
