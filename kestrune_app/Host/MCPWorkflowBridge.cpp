// MCPWorkflowCall holds its arguments by value: the full JSON type comes first.
#include "kestrune_app/Host/MCPWorkflowBridge.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "MailCore/Common/CaseFolding.h"

namespace mcpkit {

namespace {

using mailcore::Date;

// Days since 1970-01-01 of a civil date (Howard Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, std::int64_t m, std::int64_t d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// A small cursor over date text.
class Scanner {
public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool atEnd() const { return pos_ >= text_.size(); }
    void skipSpaces() {
        while (!atEnd() && (text_[pos_] == ' ' || text_[pos_] == '\t')) ++pos_;
    }
    bool take(char c) {
        if (atEnd() || text_[pos_] != c) return false;
        ++pos_;
        return true;
    }
    std::optional<char> peek() const {
        return atEnd() ? std::nullopt : std::optional<char>(text_[pos_]);
    }
    // Exactly `min` to `max` digits.
    std::optional<int> number(std::size_t min, std::size_t max) {
        std::size_t end = pos_;
        while (end < text_.size() && end - pos_ < max &&
               std::isdigit(static_cast<unsigned char>(text_[end]))) {
            ++end;
        }
        if (end - pos_ < min) return std::nullopt;
        int value = 0;
        std::from_chars(text_.data() + pos_, text_.data() + end, value);
        pos_ = end;
        return value;
    }
    std::string_view word() {
        const std::size_t start = pos_;
        while (!atEnd() && std::isalpha(static_cast<unsigned char>(text_[pos_]))) ++pos_;
        return text_.substr(start, pos_ - start);
    }

private:
    std::string_view text_;
    std::size_t pos_ = 0;
};

bool validTime(int year, int month, int day, int hour, int minute, int second) {
    return year >= 1900 && year <= 9999 && month >= 1 && month <= 12 && day >= 1 && day <= 31 &&
           hour <= 23 && minute <= 59 && second <= 60;
}

Date makeDate(int year, int month, int day, int hour, int minute, int second, int offsetSeconds) {
    const std::int64_t seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 +
                                 minute * 60 + second - offsetSeconds;
    return Date(std::chrono::seconds(seconds));
}

// "Z", "+01:00", "+0100", "-05", or nothing (UTC).
std::optional<int> zoneOffset(Scanner& s) {
    s.skipSpaces();
    if (s.atEnd() || s.take('Z') || s.take('z')) return 0;
    const std::string_view name = s.word();
    if (name == "UT" || name == "UTC" || name == "GMT") return 0;
    if (!name.empty()) return std::nullopt;
    int sign = 0;
    if (s.take('+'))
        sign = 1;
    else if (s.take('-'))
        sign = -1;
    else
        return std::nullopt;
    const auto hours = s.number(2, 2);
    if (!hours) return std::nullopt;
    s.take(':');
    const int minutes = s.number(2, 2).value_or(0);
    if (*hours > 23 || minutes > 59) return std::nullopt;
    return sign * (*hours * 3600 + minutes * 60);
}

std::optional<Date> parseISO(std::string_view text) {
    Scanner s(text);
    const auto year = s.number(4, 4);
    if (!year || !s.take('-')) return std::nullopt;
    const auto month = s.number(2, 2);
    if (!month || !s.take('-')) return std::nullopt;
    const auto day = s.number(2, 2);
    if (!day || !(s.take('T') || s.take(' '))) return std::nullopt;
    const auto hour = s.number(2, 2);
    if (!hour || !s.take(':')) return std::nullopt;
    const auto minute = s.number(2, 2);
    if (!minute) return std::nullopt;
    int second = 0;
    if (s.take(':')) {
        const auto sec = s.number(2, 2);
        if (!sec) return std::nullopt;
        second = *sec;
        if (s.take('.')) s.number(1, 9);
    }
    const auto offset = zoneOffset(s);
    s.skipSpaces();
    if (!offset || !s.atEnd() || !validTime(*year, *month, *day, *hour, *minute, second)) {
        return std::nullopt;
    }
    return makeDate(*year, *month, *day, *hour, *minute, second, *offset);
}

std::optional<Date> parseInternet(std::string_view text) {
    static constexpr std::array<std::string_view, 12> months = {
        "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
    Scanner s(text);
    s.skipSpaces();
    if (s.peek() && std::isalpha(static_cast<unsigned char>(*s.peek()))) {
        s.word();  // day name
        if (!s.take(',')) return std::nullopt;
        s.skipSpaces();
    }
    const auto day = s.number(1, 2);
    s.skipSpaces();
    const std::string monthName = mailcore::asciiLower(s.word());
    int month = 0;
    for (std::size_t i = 0; i < months.size(); ++i) {
        if (monthName == months[i]) month = static_cast<int>(i) + 1;
    }
    s.skipSpaces();
    const auto year = s.number(4, 4);
    s.skipSpaces();
    const auto hour = s.number(2, 2);
    if (!day || month == 0 || !year || !hour || !s.take(':')) return std::nullopt;
    const auto minute = s.number(2, 2);
    if (!minute) return std::nullopt;
    int second = 0;
    if (s.take(':')) second = s.number(2, 2).value_or(99);
    const auto offset = zoneOffset(s);
    s.skipSpaces();
    if (!offset || !validTime(*year, month, *day, *hour, *minute, second)) return std::nullopt;
    return makeDate(*year, month, *day, *hour, *minute, second, *offset);
}

}  // namespace

std::optional<Date> MCPWorkflowMailSource::parseDate(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    if (text.empty()) return std::nullopt;
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error == std::errc() && end == text.data() + text.size() && std::isfinite(seconds) &&
        std::fabs(seconds) < 1e12) {
        return mailcore::dateFromSeconds(seconds);
    }
    if (auto iso = parseISO(text)) return iso;
    return parseInternet(text);
}

std::vector<mailcore::WorkflowMailMessage> MCPWorkflowMailSource::recentMessages(
    const std::vector<std::string>& accounts, int limit) {
    std::vector<mailcore::WorkflowMailMessage> out;
    if (accounts.empty() || limit <= 0) return out;
    MCPSearchQuery query;
    query.accounts = accounts;
    query.limit = limit;
    query.offset = 0;
    const MCPSearchPage page = backend_.search(query);
    for (const MCPMessageSummary& summary : page.results) {
        if (static_cast<int>(out.size()) >= limit) break;
        // The backend answers for the accounts asked; anything else is left out.
        if (std::find(accounts.begin(), accounts.end(), summary.account) == accounts.end())
            continue;
        mailcore::WorkflowMailMessage m;
        m.id = summary.id;
        m.account = summary.account;
        m.folder = summary.folder;
        m.from = summary.from;
        m.subject = summary.subject;
        m.date = summary.date;
        m.sentAt = parseDate(summary.date);
        m.snippet = summary.snippet;
        m.unread = summary.unread;
        std::optional<MCPMessage> full;
        try {
            full = backend_.message(summary.id, summary.account);
        } catch (const std::exception&) {
            full.reset();
        }
        if (full && full->account == summary.account) {
            m.to = full->to;
            m.to.insert(m.to.end(), full->cc.begin(), full->cc.end());
            m.bodyText = full->bodyText;
            for (const MCPAttachment& a : full->attachments)
                m.attachments.push_back({a.name, a.type});
            m.hasAttachment = !m.attachments.empty();
        }
        out.push_back(std::move(m));
    }
    return out;
}

MCPWorkflowBridge::MCPWorkflowBridge(mailcore::WorkflowStore& store, MCPMailBackend& backend,
                                     mailcore::Clock clock, mailcore::WorkflowLimits limits,
                                     mailcore::WorkflowMatcher::UTCOffset utcOffset)
    : mail_(backend), handler_(store, &mail_, std::move(clock), limits, std::move(utcOffset)) {}

MCPWorkflowBridge::MCPWorkflowBridge(mailcore::WorkflowStore& store, MCPMailBackend& backend,
                                     mailcore::WorkflowMailSource& previewMail,
                                     mailcore::Clock clock, std::function<bool()> aiAvailable)
    : mail_(backend), handler_(store, &previewMail, std::move(clock)) {
    handler_.setAIAvailable(std::move(aiAvailable));
}

MCPWorkflowResult MCPWorkflowBridge::handle(const MCPWorkflowCall& call) {
    mailcore::WorkflowCaller caller;
    caller.harnessID = call.harnessID;
    caller.harnessName = call.harnessName;
    caller.grantedTools = call.grantedPermissions;
    caller.knownAccounts = call.allowedAccounts;
    const mailcore::WorkflowToolAnswer answer = handler_.handle(caller, call.tool, call.arguments);
    return {answer.text, answer.isError, answer.summary};
}

}  // namespace mcpkit
