#include "MailCore/Workflow/WorkflowStoreMail.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Workflow/WorkflowMatcher.h"
#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore {

namespace {

std::string addressText(const MailAddress& a) {
    return a.name.empty() ? a.email : a.name + " <" + a.email + ">";
}

std::string isoDate(Date date) {
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return buffer;
}

}  // namespace

std::string WorkflowStoreMail::handle(MessageID id) { return "m" + std::to_string(id.value); }

std::optional<MessageID> WorkflowStoreMail::messageID(const std::string& handle) {
    if (handle.size() < 2 || handle[0] != 'm') return std::nullopt;
    std::int64_t value = 0;
    const auto [end, error] =
        std::from_chars(handle.data() + 1, handle.data() + handle.size(), value);
    if (error != std::errc() || end != handle.data() + handle.size() || value <= 0)
        return std::nullopt;
    return MessageID(value);
}

std::optional<WorkflowMailMessage> WorkflowStoreMail::load(MessageID id, Parts parts) {
    const auto row = store_.message(id);
    const auto fields = row ? store_.messageFields(id) : std::nullopt;
    if (!row || !fields) return std::nullopt;
    WorkflowMailMessage m;
    m.id = handle(id);
    m.account = row->accountID.value;
    if (const auto folder = store_.folder(row->folderID)) m.folder = folder->path;
    if (!fields->from.empty()) m.from = addressText(fields->from.front());
    for (const auto& a : fields->to) m.to.push_back(a.email);
    for (const auto& a : fields->cc) m.to.push_back(a.email);
    m.subject = row->subject;
    m.date = isoDate(row->date);
    m.sentAt = row->date;
    m.snippet = row->snippet.value_or("");
    m.unread = row->flags.isUnread();
    m.hasAttachment = row->hasAttachments;
    if (parts.body) {
        if (const auto body = store_.body(id)) {
            if (body->text && !body->text->empty())
                m.bodyText = *body->text;
            else if (body->html)
                m.bodyText = AIContentSanitizer::stripHTML(*body->html);
        }
    }
    if (parts.attachments && row->hasAttachments) {
        for (const auto& a : store_.attachments(id))
            if (!a.isInline) m.attachments.push_back({a.filename, a.mimeType});
    }
    if (parts.thread) {
        // The distinct subjects only: a long conversation has few of them.
        m.threadSubjects = store_.read([&](SQLiteDatabase& db) {
            return db.query<std::string>(
                "SELECT DISTINCT subject FROM messages WHERE thread_id = ? AND id != ?",
                {row->threadID, id}, [](const SQLRow& r) { return r.text(0); });
        });
    }
    return m;
}

std::vector<WorkflowMailMessage> WorkflowStoreMail::recentMessages(
    const std::vector<std::string>& accounts, int limit) {
    std::vector<MessageListRow> rows;
    for (const std::string& account : accounts) {
        MessageQuery query;
        query.accountID = AccountID(account);
        query.pageSize = std::max(1, limit);
        const auto page = store_.messages(query);
        rows.insert(rows.end(), page.rows.begin(), page.rows.end());
    }
    std::sort(rows.begin(), rows.end(), [](const MessageListRow& a, const MessageListRow& b) {
        return a.date != b.date ? a.date > b.date : a.id.value > b.id.value;
    });
    std::vector<WorkflowMailMessage> out;
    for (const auto& row : rows) {
        if (static_cast<int>(out.size()) >= limit) break;
        if (auto m = load(row.id)) out.push_back(std::move(*m));
    }
    return out;
}

std::optional<std::vector<WorkflowMailMessage>> WorkflowStoreMail::unansweredThreads(
    const std::vector<std::string>& accounts, Date cutoff, int limit) {
    const auto own = ownAddresses();
    const Date since = cutoff - noReplyLookback;
    std::vector<std::pair<Date, MessageID>> found;
    for (const std::string& account : accounts) {
        const auto rows = store_.read([&](SQLiteDatabase& db) {
            return db.query<std::pair<Date, MessageID>>(
                "SELECT m.date, m.id, m.thread_id FROM messages m JOIN (\n"
                "  SELECT thread_id, MAX(date) AS last FROM messages\n"
                "  WHERE account_id = ?1 AND local_state != 'pendingDelete'\n"
                "    AND (flags_system & 24) = 0\n"
                "    AND folder_id NOT IN (SELECT id FROM folders WHERE account_id = ?1\n"
                "                          AND role IN ('trash', 'junk', 'drafts'))\n"
                "  GROUP BY thread_id) t ON t.thread_id = m.thread_id AND t.last = m.date\n"
                "WHERE m.account_id = ?1 AND m.local_state != 'pendingDelete'\n"
                "  AND (m.flags_system & 24) = 0 AND t.last <= ?2 AND t.last >= ?3\n"
                "ORDER BY m.date DESC, m.id DESC",
                {AccountID(account), cutoff, since}, [](const SQLRow& r) {
                    return std::pair<Date, MessageID>(r.date(0), r.id<MessageID>(1));
                });
        });
        found.insert(found.end(), rows.begin(), rows.end());
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first > b.first : a.second.value > b.second.value;
    });
    std::vector<WorkflowMailMessage> out;
    std::set<std::int64_t> threads;
    for (const auto& [date, id] : found) {
        if (static_cast<int>(out.size()) >= limit) break;
        const auto row = store_.message(id);
        if (!row || !threads.insert(row->threadID.value).second) continue;
        auto m = load(id);
        if (!m) continue;
        const std::string sender = WorkflowMatcher::senderAddress(m->from);
        if (std::find(own.begin(), own.end(), sender) == own.end()) continue;
        out.push_back(std::move(*m));
    }
    return out;
}

std::vector<std::string> WorkflowStoreMail::accountKeys() {
    return store_.read([](SQLiteDatabase& db) {
        return db.query<std::string>("SELECT id FROM accounts ORDER BY created_at, rowid", {},
                                     [](const SQLRow& r) { return r.text(0); });
    });
}

std::vector<std::string> WorkflowStoreMail::ownAddresses() {
    std::vector<std::string> out;
    auto add = [&](const std::string& address) {
        const std::string lower = asciiLower(address);
        if (lower.find('@') != std::string::npos &&
            std::find(out.begin(), out.end(), lower) == out.end())
            out.push_back(lower);
    };
    for (const auto& key : accountKeys()) add(key);
    for (const auto& config : store_.accountConfigs()) {
        if (!config.is_object()) continue;
        const auto email = config.find("email");
        if (email != config.end() && email->is_string()) add(email->get<std::string>());
    }
    return out;
}

}  // namespace mailcore
