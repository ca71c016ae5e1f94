// WorkflowSpec: the workflow an agent proposes (the `spec` object of the
// workflow tools): a trigger, the accounts it watches, optional conditions
// and the actions the app runs by itself once the user has approved it.
//
// fromJson reads any JSON value. It is lenient about absent or null members
// (they take their empty or default values, which validation then reports)
// and strict about types: a member of the wrong type, a non-integral number
// where an integer belongs, or text that is not valid UTF-8 throws
// WorkflowSpecReadError. Unknown members are ignored. Kinds (trigger,
// condition and action types) are kept as written; WorkflowPolicy judges them.
// toJson writes the canonical form: only the members that the kind uses.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mailcore {

// The value cannot be read as a workflow specification (wrong type or
// invalid UTF-8). what() names the member, for logs; agents get a fixed text.
class WorkflowSpecReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct WorkflowTrigger {
    std::string type;                    // "new_message", "schedule" or "no_reply"
    std::optional<std::int64_t> hour;    // schedule: 0-23, required
    std::optional<std::int64_t> minute;  // schedule: 0-59, default 0
    std::vector<std::int64_t> weekdays;  // schedule: 1 = Sunday ... 7 = Saturday; empty = every day
    std::optional<std::int64_t> afterHours;  // no_reply: `after_hours`, required
};

struct WorkflowCondition {
    std::string type;
    std::vector<std::string> values;  // value conditions
    std::string category;             // classified
    std::string description;          // classified
};

struct WorkflowAction {
    std::string type;
    std::string label;                        // apply_label
    std::string message;                      // notify
    std::string title;                        // show_notice, digest
    std::string body;                         // show_notice
    std::string collection;                   // add_to_collection
    std::optional<std::string> templateText;  // draft_reply `template`
    std::optional<std::string> instruction;   // draft_reply
    std::vector<std::string> fields;          // extract
    std::string file;                         // extract
};

struct WorkflowSpec {
    std::string name;
    std::string note;
    WorkflowTrigger trigger;
    std::vector<std::string> accounts;  // empty = all accounts
    std::string match = "all";          // "all" or "any"
    std::vector<WorkflowCondition> conditions;
    std::vector<WorkflowAction> actions;

    static WorkflowSpec fromJson(const Json& json);
    Json toJson() const;
};

// The condition and action kinds, in the order of the workflow model.
const std::vector<std::string>& workflowValueConditionTypes();  // from ... in_thread
const std::vector<std::string>& workflowFlagConditionTypes();   // has_attachment, unread
const std::vector<std::string>& workflowActionTypes();          // apply_label ... extract

bool isValueConditionType(const std::string& type);
bool isFlagConditionType(const std::string& type);
bool isKnownConditionType(const std::string& type);
bool isKnownActionType(const std::string& type);

}  // namespace mailcore
