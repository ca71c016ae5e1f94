#include "MailCore/Workflow/WorkflowMatcher.h"

#include <fmt/format.h>

#include <cstring>
#include <ctime>
#include <set>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore::WorkflowMatcher {

namespace {

constexpr std::int64_t secondsPerDay = 86400;

// Mail text compares by its Unicode case fold: "RÉSUMÉ" contains "résumé".
// The haystack is folded already.
bool containsText(const std::string& folded, const std::string& needle) {
    const std::string n = foldCase(needle);
    // The C library's search skips ahead where std::string::find stops at
    // every occurrence of the needle's first letter; it matters on bodies.
    return ::memmem(folded.data(), folded.size(), n.data(), n.size()) != nullptr;
}

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return "";
    const auto last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

std::string domainOf(const std::string& address) {
    const auto at = address.rfind('@');
    return at == std::string::npos ? "" : address.substr(at + 1);
}

// "example.com" from "@Example.com", "anna@example.com" or "example.com".
std::string domainValue(const std::string& value) {
    std::string v = asciiLower(trimmed(value));
    if (v.find('@') != std::string::npos) v = domainOf(v);
    while (!v.empty() && v.front() == '.') v.erase(v.begin());
    return v;
}

bool domainIsWithin(const std::string& domain, const std::string& parent) {
    if (parent.empty() || domain.empty()) return false;
    if (domain == parent) return true;
    return domain.size() > parent.size() + 1 &&
           domain.compare(domain.size() - parent.size(), parent.size(), parent) == 0 &&
           domain[domain.size() - parent.size() - 1] == '.';
}

std::string threadSubject(const std::string& subject) {
    std::string s = trimmed(subject);
    for (bool changed = true; changed;) {
        changed = false;
        for (std::string_view prefix : {"re:", "fwd:", "fw:", "aw:", "wg:"}) {
            if (startsWithNoCase(s, 0, prefix)) {
                s = trimmed(std::string_view(s).substr(prefix.size()));
                changed = true;
                break;
            }
        }
    }
    return s;
}

bool attachmentIsKind(const WorkflowMailAttachment& attachment, const std::string& value) {
    std::string kind = asciiLower(trimmed(value));
    while (!kind.empty() && kind.front() == '.') kind.erase(kind.begin());
    if (kind.empty()) return false;
    const std::string type = asciiLower(attachment.type);
    if (type == kind) return true;
    const auto slash = type.find('/');
    if (slash != std::string::npos) {
        if (type.compare(0, slash, kind) == 0 && slash == kind.size()) return true;
        if (type.substr(slash + 1) == kind) return true;
    }
    const std::string name = asciiLower(attachment.name);
    const auto dot = name.rfind('.');
    return dot != std::string::npos && name.substr(dot + 1) == kind;
}

bool anyValue(const WorkflowCondition& c, const std::function<bool(const std::string&)>& test) {
    for (const std::string& value : c.values) {
        if (!workflowtext::isBlank(value) && test(value)) return true;
    }
    return false;
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

std::int64_t toSeconds(Date date) {
    return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

}  // namespace

std::string senderAddress(const std::string& from) {
    const auto open = from.rfind('<');
    const auto close = from.rfind('>');
    if (open != std::string::npos && close != std::string::npos && close > open) {
        return asciiLower(trimmed(std::string_view(from).substr(open + 1, close - open - 1)));
    }
    return asciiLower(trimmed(from));
}

const std::string& FoldedMessage::from() {
    if (!from_) from_ = foldCase(message_.from);
    return *from_;
}

const std::string& FoldedMessage::subject() {
    if (!subject_) subject_ = foldCase(message_.subject);
    return *subject_;
}

const std::string& FoldedMessage::body() {
    if (!body_) body_ = foldCase(message_.bodyText.empty() ? message_.snippet : message_.bodyText);
    return *body_;
}

const std::vector<std::string>& FoldedMessage::to() {
    if (!to_) {
        to_.emplace();
        for (const std::string& r : message_.to) to_->push_back(foldCase(r));
    }
    return *to_;
}

const std::vector<std::string>& FoldedMessage::threadSubjects() {
    if (!threadSubjects_) {
        threadSubjects_.emplace();
        threadSubjects_->push_back(foldCase(threadSubject(message_.subject)));
        for (const std::string& s : message_.threadSubjects)
            threadSubjects_->push_back(foldCase(threadSubject(s)));
    }
    return *threadSubjects_;
}

std::optional<bool> conditionMatches(const WorkflowCondition& c, const WorkflowMailMessage& m) {
    FoldedMessage folded(m);
    return conditionMatches(c, folded);
}

std::optional<bool> conditionMatches(const WorkflowCondition& c, FoldedMessage& f) {
    const WorkflowMailMessage& m = f.message();
    if (c.type == "from") {
        return anyValue(c,
                        [&](const std::string& v) { return containsText(f.from(), trimmed(v)); });
    }
    if (c.type == "from_domain") {
        const std::string domain = domainOf(senderAddress(m.from));
        return anyValue(
            c, [&](const std::string& v) { return domainIsWithin(domain, domainValue(v)); });
    }
    if (c.type == "sender_outside") {
        const std::string domain = domainOf(senderAddress(m.from));
        return !anyValue(
            c, [&](const std::string& v) { return domainIsWithin(domain, domainValue(v)); });
    }
    if (c.type == "to") {
        return anyValue(c, [&](const std::string& v) {
            for (const std::string& r : f.to()) {
                if (containsText(r, trimmed(v))) return true;
            }
            return false;
        });
    }
    if (c.type == "subject") {
        return anyValue(
            c, [&](const std::string& v) { return containsText(f.subject(), trimmed(v)); });
    }
    if (c.type == "body") {
        return anyValue(c,
                        [&](const std::string& v) { return containsText(f.body(), trimmed(v)); });
    }
    if (c.type == "text") {
        return anyValue(c, [&](const std::string& v) {
            return containsText(f.subject(), trimmed(v)) || containsText(f.body(), trimmed(v));
        });
    }
    if (c.type == "attachment_kind") {
        return anyValue(c, [&](const std::string& v) {
            for (const auto& a : m.attachments) {
                if (attachmentIsKind(a, v)) return true;
            }
            return false;
        });
    }
    if (c.type == "in_thread") {
        return anyValue(c, [&](const std::string& v) {
            for (const std::string& subject : f.threadSubjects())
                if (containsText(subject, trimmed(v))) return true;
            return false;
        });
    }
    if (c.type == "has_attachment") return m.hasAttachment || !m.attachments.empty();
    if (c.type == "unread") return m.unread;
    return std::nullopt;
}

bool matches(const WorkflowSpec& spec, const WorkflowMailMessage& message) {
    FoldedMessage folded(message);
    bool judged = false;
    bool any = false;
    bool all = true;
    for (const WorkflowCondition& c : spec.conditions) {
        const auto result = conditionMatches(c, folded);
        if (!result) continue;
        judged = true;
        any = any || *result;
        all = all && *result;
    }
    if (!judged) return true;
    return spec.match == "any" ? any : all;
}

bool matches(const WorkflowSpec& spec, FoldedMessage& folded, const MatchContext& context) {
    const WorkflowMailMessage& message = folded.message();
    const bool any = spec.match == "any";
    bool sawClassified = false;
    for (const WorkflowCondition& c : spec.conditions) {
        if (c.type == "classified") {
            sawClassified = true;
            continue;
        }
        bool result = conditionMatches(c, folded).value_or(false);
        if (result && c.type == "sender_outside") {
            const std::string sender = senderAddress(message.from);
            for (const std::string& own : context.ownAddresses)
                if (sender == own) result = false;
        }
        if (any && result) return true;
        if (!any && !result) return false;
    }
    if (sawClassified) {
        for (const WorkflowCondition& c : spec.conditions) {
            if (c.type != "classified") continue;
            const bool result = context.classified && context.classified(c);
            if (any && result) return true;
            if (!any && !result) return false;
        }
    }
    // All: every condition held (none at all matches). Any: none held.
    return !any || spec.conditions.empty();
}

UTCOffset localUTCOffset() {
    return [](Date date) -> long {
        const std::time_t t = std::chrono::system_clock::to_time_t(date);
        std::tm local{};
        if (!localtime_r(&t, &local)) return 0;
        return local.tm_gmtoff;
    };
}

std::optional<Date> nextRun(const WorkflowTrigger& trigger, Date now, const UTCOffset& offset) {
    if (trigger.type != "schedule" || !trigger.hour || *trigger.hour < 0 || *trigger.hour > 23) {
        return std::nullopt;
    }
    const std::int64_t minute = trigger.minute.value_or(0);
    if (minute < 0 || minute > 59) return std::nullopt;
    std::set<std::int64_t> days;
    for (std::int64_t d : trigger.weekdays) {
        if (d < 1 || d > 7) return std::nullopt;
        days.insert(d);
    }
    const std::int64_t nowSeconds = toSeconds(now);
    const std::int64_t localNow = nowSeconds + offset(now);
    const std::int64_t today = floorDiv(localNow, secondsPerDay);
    for (std::int64_t d = 0; d <= 8; ++d) {
        const std::int64_t day = today + d;
        const std::int64_t weekday = ((day + 4) % 7 + 7) % 7 + 1;  // 1970-01-01 was a Thursday (5)
        if (!days.empty() && !days.count(weekday)) continue;
        const std::int64_t local = day * secondsPerDay + *trigger.hour * 3600 + minute * 60;
        // Use the offset in force at the candidate time (daylight saving changes).
        std::int64_t utc = local - offset(now);
        utc = local - offset(Date(std::chrono::seconds(utc)));
        if (utc > nowSeconds) return Date(std::chrono::seconds(utc));
    }
    return std::nullopt;
}

std::string localTimestamp(Date date, const UTCOffset& offset) {
    const long off = offset(date);
    const std::int64_t local = toSeconds(date) + off;
    const std::int64_t day = floorDiv(local, secondsPerDay);
    const std::int64_t secs = local - day * secondsPerDay;
    // Civil date from days since 1970-01-01 (Howard Hinnant's algorithm).
    const std::int64_t z = day + 719468;
    const std::int64_t era = floorDiv(z, 146097);
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const std::int64_t dayOfMonth = doy - (153 * mp + 2) / 5 + 1;
    const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const std::int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    const long absOff = off < 0 ? -off : off;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{:02}:{:02}", year, month, dayOfMonth,
                       secs / 3600, (secs / 60) % 60, secs % 60, off < 0 ? '-' : '+', absOff / 3600,
                       (absOff / 60) % 60);
}

}  // namespace mailcore::WorkflowMatcher
