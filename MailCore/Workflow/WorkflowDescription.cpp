#include "MailCore/Workflow/WorkflowDescription.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore {

namespace {

constexpr std::size_t shownLength = 40;
constexpr std::size_t shownValues = 3;

std::string quote(std::string_view text) {
    return "\"" + workflowtext::displayText(text, shownLength) + "\"";
}

// "a", "a and b", "a, b and c" (with `word` in place of "and").
std::string joinList(const std::vector<std::string>& items, const std::string& word) {
    std::string out;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) out += (i + 1 == items.size()) ? " " + word + " " : ", ";
        out += items[i];
    }
    return out;
}

std::string valueList(const std::vector<std::string>& values) {
    std::vector<std::string> shown;
    for (std::size_t i = 0; i < values.size() && i < shownValues; ++i)
        shown.push_back(quote(values[i]));
    if (values.size() > shownValues) {
        const std::size_t rest = values.size() - shownValues;
        shown.push_back(fmt::format("{} other{}", rest, rest == 1 ? "" : "s"));
    }
    return joinList(shown, "or");
}

std::string twoDigits(std::int64_t n) { return fmt::format("{:02}", n); }

std::string schedulePhrase(const WorkflowTrigger& t) {
    static const char* const dayNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                           "Thursday", "Friday", "Saturday"};
    std::set<std::int64_t> days;
    for (std::int64_t d : t.weekdays) {
        if (d >= 1 && d <= 7) days.insert(d);
    }
    std::string when;
    if (days.empty() || days.size() == 7) {
        when = "Every day";
    } else if (days == std::set<std::int64_t>{2, 3, 4, 5, 6}) {
        when = "Every weekday";
    } else if (days == std::set<std::int64_t>{1, 7}) {
        when = "Every Saturday and Sunday";
    } else {
        std::vector<std::string> names;
        for (std::int64_t d : days) names.emplace_back(dayNames[d - 1]);
        when = "Every " + joinList(names, "and");
    }
    return fmt::format("{} at {}:{}", when, twoDigits(t.hour.value_or(0)),
                       twoDigits(t.minute.value_or(0)));
}

std::string hoursPhrase(std::int64_t hours) {
    if (hours >= 24 && hours % 24 == 0) {
        const std::int64_t days = hours / 24;
        return fmt::format("{} day{}", days, days == 1 ? "" : "s");
    }
    return fmt::format("{} hour{}", hours, hours == 1 ? "" : "s");
}

std::string conditionPhrase(const WorkflowCondition& c) {
    const std::string values = valueList(c.values);
    if (c.type == "from") return "is from " + values;
    if (c.type == "from_domain") return "is from someone at " + values;
    if (c.type == "sender_outside") return "is from someone outside " + values;
    if (c.type == "to") return "is addressed to " + values;
    if (c.type == "subject") return "has " + values + " in the subject";
    if (c.type == "body") return "has " + values + " in the message text";
    if (c.type == "text") return "mentions " + values;
    if (c.type == "attachment_kind") return "has an attachment of type " + values;
    if (c.type == "in_thread") return "belongs to a conversation about " + values;
    if (c.type == "has_attachment") return "has an attachment";
    if (c.type == "unread") return "is still unread";
    if (c.type == "classified") return "looks like " + quote(c.category) + " to your AI provider";
    return "meets an unknown condition " + quote(c.type);
}

std::string actionPhrase(const WorkflowAction& a) {
    if (a.type == "apply_label") return "label it " + quote(a.label);
    if (a.type == "mark_read") return "mark it read";
    if (a.type == "star") return "star it";
    if (a.type == "remind") return "remind you about it";
    if (a.type == "notify")
        return a.message.empty() ? "notify you" : "notify you with " + quote(a.message);
    if (a.type == "show_notice")
        return "show the notice " + quote(a.title) + " above the message list";
    if (a.type == "add_to_collection") return "add it to the collection " + quote(a.collection);
    if (a.type == "draft_reply") {
        return a.instruction
                   ? "have your AI provider write a reply draft for you to review (never sent "
                     "automatically)"
                   : "save a reply draft from a fixed text for you to review (never sent "
                     "automatically)";
    }
    if (a.type == "digest") return "save a digest draft " + quote(a.title);
    if (a.type == "extract") {
        std::vector<std::string> names;
        for (const std::string& f : a.fields)
            names.push_back(workflowtext::displayText(f, shownLength));
        return "copy " + joinList(names, "and") + " into the file " +
               quote(workflowtext::displayText(a.file, 60) + ".jsonl") + " in the app's folder";
    }
    return "do something the app does not know (" + quote(a.type) + ")";
}

std::string accountsPhrase(const std::vector<std::string>& accounts, const char* preposition) {
    if (accounts.empty()) return "";
    std::vector<std::string> shown;
    for (const std::string& a : accounts) shown.push_back(workflowtext::displayText(a, 80));
    return std::string(" ") + preposition + " " + joinList(shown, "or");
}

}  // namespace

std::string_view riskName(WorkflowRisk risk) {
    switch (risk) {
        case WorkflowRisk::low:
            return "low";
        case WorkflowRisk::medium:
            return "medium";
        case WorkflowRisk::high:
            return "high";
    }
    return "high";
}

WorkflowRisk assessRisk(const WorkflowSpec& spec) {
    WorkflowRisk risk = WorkflowRisk::low;
    const auto raise = [&](WorkflowRisk to) { risk = std::max(risk, to); };
    for (const WorkflowCondition& c : spec.conditions) {
        if (c.type == "classified") raise(WorkflowRisk::medium);
    }
    for (const WorkflowAction& a : spec.actions) {
        if (a.type == "mark_read" || a.type == "draft_reply") {
            raise(WorkflowRisk::high);
        } else if (a.type == "apply_label" || a.type == "star" || a.type == "digest" ||
                   a.type == "extract") {
            raise(WorkflowRisk::medium);
        } else if (!isKnownActionType(a.type)) {
            raise(WorkflowRisk::high);
        }
    }
    return risk;
}

std::string describeWorkflow(const WorkflowSpec& spec) {
    std::vector<std::string> conditions;
    for (const WorkflowCondition& c : spec.conditions) conditions.push_back(conditionPhrase(c));
    std::string that;
    if (!conditions.empty())
        that = " that " + joinList(conditions, spec.match == "any" ? "or" : "and");

    std::vector<std::string> actions;
    for (const WorkflowAction& a : spec.actions) actions.push_back(actionPhrase(a));
    const std::string doing = actions.empty() ? "do nothing" : joinList(actions, "and");

    const WorkflowTrigger& t = spec.trigger;
    if (t.type == "new_message") {
        return "When a new message arrives" + accountsPhrase(spec.accounts, "in") + that + ": " +
               doing + ".";
    }
    if (t.type == "schedule") {
        return schedulePhrase(t) + ": " + doing + " of recent mail" +
               accountsPhrase(spec.accounts, "in") + that + ".";
    }
    if (t.type == "no_reply") {
        return "When a message you sent" + accountsPhrase(spec.accounts, "from") + that +
               " gets no reply within " + hoursPhrase(t.afterHours.value_or(0)) + ": " + doing +
               ".";
    }
    return "When " + quote(t.type) + " happens (unknown trigger)" + that + ": " + doing + ".";
}

}  // namespace mailcore
