#include "MailCore/Workflow/WorkflowPolicy.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/PCRE2Pattern.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore::WorkflowPolicy {

namespace {

using utf8::characterCount;
using workflowtext::hasControlCharacters;
using workflowtext::isBlank;

// Fixed bounds of fields that WorkflowLimits does not carry.
constexpr std::size_t maxCategoryLength = 60;
constexpr std::size_t maxDescriptionLength = 300;
constexpr std::size_t maxNotifyLength = 200;
constexpr std::size_t maxNoticeTitleLength = 80;
constexpr std::size_t maxNoticeBodyLength = 300;
// How much of an agent's text is quoted back inside a problem.
constexpr std::size_t quotedLength = 60;

const PCRE2Pattern& placeholderPattern() {
    static const PCRE2Pattern pattern(R"(\{\{\s*([A-Za-z0-9_]+)\s*\}\})");
    return pattern;
}
const PCRE2Pattern& fieldNamePattern() {
    static const PCRE2Pattern pattern(R"(^[a-z][a-z0-9_]{0,39}\z)");
    return pattern;
}
const PCRE2Pattern& fileNamePattern() {
    static const PCRE2Pattern pattern(R"(^[A-Za-z0-9][A-Za-z0-9 _-]{0,59}\z)");
    return pattern;
}

std::string quoted(std::string_view text) {
    return "\"" + workflowtext::displayText(text, quotedLength) + "\"";
}

std::size_t asSize(int limit) { return limit < 0 ? 0 : static_cast<std::size_t>(limit); }

// Collects problems, dropping exact repeats but keeping the first order.
class Problems {
public:
    void add(std::string problem) {
        if (seen_.insert(problem).second) list_.push_back(std::move(problem));
    }
    std::vector<std::string> take() { return std::move(list_); }

private:
    std::vector<std::string> list_;
    std::set<std::string> seen_;
};

// The checks every free-text field gets: required, length, control characters.
void checkText(Problems& out, const std::string& field, const std::string& text, bool required,
               std::size_t maxLength, bool multiLine) {
    if (required && isBlank(text)) {
        out.add(field + " must not be empty.");
    } else if (characterCount(text) > maxLength) {
        out.add(fmt::format("{} must be at most {} characters.", field, maxLength));
    }
    if (hasControlCharacters(text, multiLine)) {
        out.add(field + " must not contain control characters.");
    }
}

void checkPlaceholders(Problems& out, const std::string& field, const std::string& text) {
    for (const std::string& name : placeholderNames(text)) {
        const auto& known = knownPlaceholders();
        if (std::find(known.begin(), known.end(), name) != known.end()) continue;
        out.add(fmt::format(
            "{} uses the unknown placeholder {{{{{}}}}}. Use {{{{sender_name}}}}, "
            "{{{{sender_first_name}}}}, {{{{sender_email}}}}, {{{{subject}}}}, {{{{my_name}}}} or "
            "{{{{my_first_name}}}}.",
            field, workflowtext::displayText(name, quotedLength)));
    }
}

void checkTrigger(Problems& out, const WorkflowTrigger& trigger, const WorkflowLimits& limits) {
    if (trigger.type == "new_message") return;
    if (trigger.type == "schedule") {
        if (!trigger.hour || *trigger.hour < 0 || *trigger.hour > 23) {
            out.add("schedule hour must be 0\u201323.");
        }
        if (trigger.minute && (*trigger.minute < 0 || *trigger.minute > 59)) {
            out.add("schedule minute must be 0\u201359.");
        }
        for (std::int64_t day : trigger.weekdays) {
            if (day < 1 || day > 7) {
                out.add("schedule weekdays must be 1 (Sunday) to 7 (Saturday).");
                break;
            }
        }
        return;
    }
    if (trigger.type == "no_reply") {
        if (!trigger.afterHours || *trigger.afterHours < 1 ||
            *trigger.afterHours > limits.maxNoReplyHours) {
            out.add(fmt::format("no_reply after_hours must be 1\u2013{}.", limits.maxNoReplyHours));
        }
        return;
    }
    out.add("Unknown trigger type " + quoted(trigger.type) +
            ". Use new_message, schedule or no_reply.");
}

void checkAccounts(Problems& out, const std::vector<std::string>& accounts,
                   const std::optional<std::vector<std::string>>& knownAccounts) {
    std::set<std::string> seen;
    bool repeated = false;
    for (const std::string& account : accounts) {
        if (!seen.insert(asciiLower(account)).second) repeated = true;
    }
    if (repeated) out.add("accounts must not repeat.");
    if (!knownAccounts) return;
    std::set<std::string> known;
    for (const std::string& account : *knownAccounts) known.insert(asciiLower(account));
    for (const std::string& account : accounts) {
        if (known.count(asciiLower(account))) continue;
        out.add("Unknown account " + quoted(account) +
                ". Use list_accounts for valid account keys.");
    }
}

void checkConditions(Problems& out, const WorkflowSpec& spec, const WorkflowLimits& limits) {
    if (spec.conditions.size() > asSize(limits.maxConditions)) {
        out.add(fmt::format("At most {} conditions are allowed.", limits.maxConditions));
    }
    if (spec.trigger.type == "new_message" && spec.conditions.empty()) {
        out.add(
            "A new_message workflow needs at least one condition; workflows cannot act on all "
            "incoming mail.");
    }
    for (std::size_t i = 0; i < spec.conditions.size(); ++i) {
        const WorkflowCondition& c = spec.conditions[i];
        const std::string at = fmt::format("conditions[{}]", i);
        if (isValueConditionType(c.type)) {
            const std::string field = at + ".values";
            if (c.values.empty()) {
                out.add(field + " must have at least one value.");
            } else if (c.values.size() > asSize(limits.maxValuesPerCondition)) {
                out.add(fmt::format("{} must have at most {} values.", field,
                                    limits.maxValuesPerCondition));
            }
            for (const std::string& value : c.values) {
                if (isBlank(value)) {
                    out.add(field + " must not be blank.");
                } else if (characterCount(value) > asSize(limits.maxValueLength)) {
                    out.add(fmt::format("{} must be at most {} characters each.", field,
                                        limits.maxValueLength));
                }
                if (hasControlCharacters(value, false)) {
                    out.add(field + " must not contain control characters.");
                }
            }
        } else if (isFlagConditionType(c.type)) {
            if (!c.values.empty()) out.add(at + " (" + c.type + ") takes no values.");
        } else if (c.type == "classified") {
            checkText(out, at + ".category", c.category, true, maxCategoryLength, false);
            checkText(out, at + ".description", c.description, false, maxDescriptionLength, true);
        } else {
            out.add("Unknown condition type " + quoted(c.type));
        }
    }
}

void checkExtract(Problems& out, const std::string& at, const WorkflowAction& a,
                  const WorkflowLimits& limits) {
    if (a.fields.empty() || a.fields.size() > asSize(limits.maxExtractFields)) {
        out.add(fmt::format("{}.fields must have 1 to {} names.", at, limits.maxExtractFields));
    }
    std::set<std::string> seen;
    bool repeated = false;
    for (const std::string& field : a.fields) {
        if (!seen.insert(field).second) repeated = true;
    }
    if (repeated) out.add(at + ".fields must not repeat.");
    for (const std::string& field : a.fields) {
        if (fieldNamePattern().contains(field)) continue;
        out.add(at + ".fields: " + quoted(field) +
                " is not a valid name; use a lower-case letter, then up to 39 lower-case letters, "
                "digits or _.");
    }
    if (!fileNamePattern().contains(a.file)) {
        out.add(at +
                ".file must be a plain name of up to 60 letters, digits, spaces, _ or -, starting "
                "with a letter or digit; the app adds .jsonl.");
    }
}

void checkAction(Problems& out, std::size_t index, const WorkflowAction& a,
                 const WorkflowSpec& spec, const std::vector<std::string>& grantedTools,
                 const WorkflowLimits& limits) {
    const std::string at = fmt::format("actions[{}]", index);
    const std::string& trigger = spec.trigger.type;
    if (a.type == "apply_label") {
        checkText(out, at + ".label", a.label, true, asSize(limits.maxLabelLength), false);
    } else if (a.type == "mark_read" || a.type == "star" || a.type == "remind") {
        // no fields
    } else if (a.type == "notify") {
        checkText(out, at + ".message", a.message, false, maxNotifyLength, false);
    } else if (a.type == "show_notice") {
        checkText(out, at + ".title", a.title, true, maxNoticeTitleLength, false);
        checkPlaceholders(out, at + ".title", a.title);
        checkText(out, at + ".body", a.body, false, maxNoticeBodyLength, true);
        checkPlaceholders(out, at + ".body", a.body);
    } else if (a.type == "add_to_collection") {
        checkText(out, at + ".collection", a.collection, true, asSize(limits.maxNameLength), false);
    } else if (a.type == "draft_reply") {
        if (trigger == "schedule") out.add(at + ": draft_reply cannot run on a schedule.");
        if (a.templateText.has_value() == a.instruction.has_value()) {
            out.add(at + ": set exactly one of template or instruction.");
        }
        if (a.templateText) {
            checkText(out, at + ".template", *a.templateText, true,
                      asSize(limits.maxTemplateLength), true);
            checkPlaceholders(out, at + ".template", *a.templateText);
        }
        if (a.instruction) {
            checkText(out, at + ".instruction", *a.instruction, true,
                      asSize(limits.maxInstructionLength), true);
        }
    } else if (a.type == "digest") {
        if (trigger == "new_message" || trigger == "no_reply") {
            out.add(at + ": digest needs a schedule trigger.");
        }
        checkText(out, at + ".title", a.title, true, asSize(limits.maxNameLength), false);
    } else if (a.type == "extract") {
        checkExtract(out, at, a, limits);
    } else if (isForbiddenActionType(a.type)) {
        out.add(quoted(a.type) +
                " is not available to workflows. Workflows never send, forward, move or delete "
                "mail; use draft_reply to prepare a message for the user.");
        return;
    } else {
        out.add("Unknown action type " + quoted(a.type));
        return;
    }
    if (const auto permission = permissionForAction(a.type)) {
        if (std::find(grantedTools.begin(), grantedTools.end(), *permission) ==
            grantedTools.end()) {
            out.add(a.type + " needs the " + *permission +
                    " permission, which this app does not have.");
        }
    }
}

void checkActions(Problems& out, const WorkflowSpec& spec,
                  const std::vector<std::string>& grantedTools, const WorkflowLimits& limits) {
    if (spec.actions.empty()) out.add("At least one action is required.");
    if (spec.actions.size() > asSize(limits.maxActions)) {
        out.add(fmt::format("At most {} actions are allowed.", limits.maxActions));
    }
    if (spec.trigger.type == "schedule") {
        const bool onlyDigests =
            std::all_of(spec.actions.begin(), spec.actions.end(), [](const WorkflowAction& a) {
                return a.type == "digest" || !isKnownActionType(a.type);
            });
        if (!onlyDigests) out.add("A schedule workflow may only contain digest actions.");
    }
    const auto drafts =
        std::count_if(spec.actions.begin(), spec.actions.end(),
                      [](const WorkflowAction& a) { return a.type == "draft_reply"; });
    if (drafts > 1) out.add("At most one draft_reply action per workflow.");
    for (std::size_t i = 0; i < spec.actions.size(); ++i) {
        checkAction(out, i, spec.actions[i], spec, grantedTools, limits);
    }
}

}  // namespace

std::vector<std::string> problems(const WorkflowSpec& spec,
                                  const std::vector<std::string>& grantedTools,
                                  const std::optional<std::vector<std::string>>& knownAccounts,
                                  const WorkflowLimits& limits) {
    Problems out;
    checkText(out, "name", spec.name, true, asSize(limits.maxNameLength), false);
    if (characterCount(spec.note) > asSize(limits.maxNoteLength)) {
        out.add(fmt::format("note must be at most {} characters.", limits.maxNoteLength));
    }
    if (hasControlCharacters(spec.note, true)) out.add("note must not contain control characters.");
    checkTrigger(out, spec.trigger, limits);
    checkAccounts(out, spec.accounts, knownAccounts);
    if (spec.match != "all" && spec.match != "any") out.add("match must be \"all\" or \"any\".");
    checkConditions(out, spec, limits);
    checkActions(out, spec, grantedTools, limits);
    return out.take();
}

std::optional<std::string> permissionForAction(const std::string& actionType) {
    if (actionType == "apply_label" || actionType == "star") return "apply_label";
    if (actionType == "mark_read") return "mark_read";
    if (actionType == "draft_reply" || actionType == "digest") return "create_draft";
    return std::nullopt;
}

bool isForbiddenActionType(const std::string& actionType) {
    if (isKnownActionType(actionType)) return false;
    static const std::set<std::string> words = {
        "send",  "forward",  "fwd",    "move",  "delete",    "trash", "archive", "expunge",
        "purge", "redirect", "bounce", "reply", "autoreply", "junk",  "spam"};
    const std::string lower = asciiLower(actionType);
    std::size_t start = 0;
    while (start <= lower.size()) {
        std::size_t end = lower.find_first_of("_- .", start);
        if (end == std::string::npos) end = lower.size();
        if (words.count(lower.substr(start, end - start))) return true;
        start = end + 1;
    }
    return false;
}

std::vector<std::string> placeholderNames(std::string_view text) {
    return placeholderPattern().groups(text, 1);
}

const std::vector<std::string>& knownPlaceholders() {
    static const std::vector<std::string> names = {
        "sender_name", "sender_first_name", "sender_email", "subject", "my_name", "my_first_name"};
    return names;
}

}  // namespace mailcore::WorkflowPolicy
