#include "kestrune_app/Host/StoreMailBackend.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Service/MCPService.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Store/SearchExpression.h"
#include "kestrune_app/Host/MailIngest.h"

namespace kestrune {

using namespace mailcore;
using mcpkit::MCPToolError;

namespace {

// Search results gathered per account before filtering and paging.
constexpr int searchWindow = 1000;

std::string lower(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string displayAddress(const MailAddress& a) {
    return a.name.empty() ? a.email : a.name + " <" + a.email + ">";
}

std::vector<std::string> bare(const std::vector<MailAddress>& list) {
    std::vector<std::string> out;
    for (const auto& a : list) out.push_back(a.email);
    return out;
}

std::vector<MailAddress> parsedAddresses(const std::vector<std::string>& list) {
    std::vector<MailAddress> out;
    for (const auto& a : list) out.push_back({"", a});
    return out;
}

bool fromMatches(const std::optional<MailAddress>& from, const std::string& wanted) {
    if (wanted.empty()) return true;
    if (!from) return false;
    const std::string w = lower(wanted);
    return lower(from->email).find(w) != std::string::npos ||
           lower(from->name).find(w) != std::string::npos;
}

std::string likePattern(const std::string& text) {
    std::string out = "%";
    for (char c : lower(text)) {
        if (c == '%' || c == '_' || c == '\\') out += '\\';
        out += c;
    }
    return out + "%";
}

}  // namespace

StoreMailBackend::StoreMailBackend(std::shared_ptr<SQLiteMailStore> store, Clock clock,
                                   UndoHold holdForUndo)
    : store_(std::move(store)), clock_(std::move(clock)), holdForUndo_(std::move(holdForUndo)) {}

std::string StoreMailBackend::handle(MessageID id) { return "m" + std::to_string(id.value); }

std::optional<MessageID> StoreMailBackend::messageID(const std::string& handle) {
    if (handle.size() < 2 || handle.size() > 19 || handle[0] != 'm') return std::nullopt;
    std::int64_t value = 0;
    for (std::size_t i = 1; i < handle.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(handle[i]))) return std::nullopt;
        value = value * 10 + (handle[i] - '0');
    }
    if (value <= 0) return std::nullopt;
    return MessageID(value);
}

std::string StoreMailBackend::isoDate(Date date) {
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

std::vector<mcpkit::MCPAccount> StoreMailBackend::accounts() {
    std::vector<mcpkit::MCPAccount> out;
    for (const auto& a : hostAccounts(*store_)) out.push_back({a.email, a.label});
    return out;
}

std::string StoreMailBackend::folderKey(FolderID id) {
    auto f = store_->folder(id);
    if (!f) return "";
    return f->role == FolderRole::custom ? f->path : std::string(rawValue(f->role));
}

std::vector<mcpkit::MCPFolder> StoreMailBackend::folders(const std::string& account) {
    if (!store_->accountExists(AccountID(account)))
        throw MCPToolError("Unknown account. Use an address from list_accounts.");
    std::vector<mcpkit::MCPFolder> out;
    for (const auto& f : store_->folders(AccountID(account))) {
        out.push_back({f.role == FolderRole::custom ? f.path : std::string(rawValue(f.role)), f.path,
                       f.unreadCount});
    }
    return out;
}

mcpkit::MCPMessageSummary StoreMailBackend::summary(const MessageListRow& row,
                                                    const std::optional<std::string>& snippet) {
    mcpkit::MCPMessageSummary s;
    s.id = handle(row.id);
    s.account = row.accountID.value;
    s.folder = folderKey(row.folderID);
    s.from = row.from ? displayAddress(*row.from) : "";
    s.subject = row.subject;
    s.date = isoDate(row.date);
    s.snippet = snippet.value_or(row.snippet.value_or(""));
    s.unread = row.flags.isUnread();
    return s;
}

mcpkit::MCPSearchPage StoreMailBackend::search(const mcpkit::MCPSearchQuery& query) {
    // The accounts that exist, each with the folder asked for.
    std::vector<std::pair<AccountID, std::optional<FolderID>>> scopes;
    for (const auto& email : query.accounts) {
        const AccountID account(email);
        if (!store_->accountExists(account)) continue;
        std::optional<FolderID> folder;
        if (query.folder) {
            for (const auto& f : store_->folders(account)) {
                const std::string key =
                    f.role == FolderRole::custom ? f.path : std::string(rawValue(f.role));
                if (key == *query.folder || f.path == *query.folder) folder = f.id;
            }
            if (!folder) continue;
        }
        scopes.emplace_back(account, folder);
    }
    if (query.folder && scopes.empty() && !query.accounts.empty())
        throw MCPToolError("Unknown folder. Use an id from list_folders.");

    const std::int64_t limit = std::clamp<std::int64_t>(query.limit, 1, 1000);
    const std::int64_t offset = std::max<std::int64_t>(query.offset, 0);
    mcpkit::MCPSearchPage page;
    if (scopes.empty()) return page;

    const std::string from = query.from.value_or("");
    if (SearchExpression::build(query.text)) {
        std::vector<SearchHit> hits;
        for (const auto& [account, folder] : scopes) {
            for (auto& hit : store_->search(SearchQuery{query.text, account, folder, false,
                                                        searchWindow})) {
                if (hit.row.localState == LocalState::pendingDelete) continue;
                if (query.unreadOnly && !hit.row.flags.isUnread()) continue;
                if (!fromMatches(hit.row.from, from)) continue;
                hits.push_back(std::move(hit));
            }
        }
        std::stable_sort(hits.begin(), hits.end(), [](const SearchHit& a, const SearchHit& b) {
            if (a.rank != b.rank) return a.rank < b.rank;
            return a.row.date > b.row.date;
        });
        page.total = static_cast<std::int64_t>(hits.size());
        for (std::int64_t i = offset; i < page.total && i < offset + limit; ++i) {
            page.results.push_back(summary(hits[static_cast<std::size_t>(i)].row, std::nullopt));
        }
        return page;
    }

    // No query text: the newest messages, filtered as asked. Each folder is
    // read newest first through its date index and the folders' heads are
    // merged, so the cost follows the page, not the mailbox.
    std::vector<FolderRecord> folders;
    for (const auto& [account, folder] : scopes) {
        for (auto& f : store_->folders(account))
            if (!folder || f.id == *folder) folders.push_back(std::move(f));
    }
    if (folders.empty()) return page;
    std::string filter = "local_state != 'pendingDelete'";
    std::vector<SQLValue> filterValues;
    if (query.unreadOnly) filter += " AND (flags_system & 17) = 0";
    if (!from.empty()) {
        filter += " AND lower(from_json) LIKE ? ESCAPE '\\'";
        filterValues.emplace_back(likePattern(from));
    }
    std::string sql;
    std::vector<SQLValue> values;
    for (const auto& f : folders) {
        if (!sql.empty()) sql += " UNION ALL ";
        sql += "SELECT id, date FROM (SELECT id, date FROM messages WHERE folder_id = ? AND " + filter +
               " ORDER BY date DESC, id DESC LIMIT ?)";
        values.emplace_back(f.id.value);
        values.insert(values.end(), filterValues.begin(), filterValues.end());
        values.emplace_back(offset + limit);
    }
    sql += " ORDER BY date DESC, id DESC LIMIT ? OFFSET ?";
    values.emplace_back(limit);
    values.emplace_back(offset);
    std::vector<MessageID> ids;
    store_->read([&](SQLiteDatabase& db) {
        ids = db.query<MessageID>(sql, values, [](const SQLRow& row) { return row.id<MessageID>(0); });
        if (from.empty()) {
            // The folders keep their counts.
            for (const auto& f : folders) page.total += query.unreadOnly ? f.unreadCount : f.totalCount;
        } else {
            std::string in;
            std::vector<SQLValue> countValues;
            for (const auto& f : folders) {
                in += in.empty() ? "?" : ", ?";
                countValues.emplace_back(f.id.value);
            }
            countValues.insert(countValues.end(), filterValues.begin(), filterValues.end());
            page.total = db.scalarInt("SELECT COUNT(*) FROM messages WHERE folder_id IN (" + in +
                                          ") AND " + filter,
                                      countValues)
                             .value_or(0);
        }
    });
    for (const auto& id : ids) {
        if (auto row = store_->message(id)) page.results.push_back(summary(*row, std::nullopt));
    }
    return page;
}

std::optional<mcpkit::MCPMessage> StoreMailBackend::message(
    const std::string& id, const std::optional<std::string>& account) {
    const auto mid = messageID(id);
    if (!mid) return std::nullopt;
    const auto row = store_->message(*mid);
    if (!row || row->localState == LocalState::pendingDelete) return std::nullopt;
    if (account && row->accountID.value != *account) return std::nullopt;
    const auto fields = store_->messageFields(*mid);
    if (!fields) return std::nullopt;
    mcpkit::MCPMessage m;
    m.id = id;
    m.account = row->accountID.value;
    m.from = row->from ? displayAddress(*row->from) : "";
    m.to = bare(fields->to);
    m.cc = bare(fields->cc);
    m.date = isoDate(row->date);
    m.subject = row->subject;
    if (auto body = store_->body(*mid)) {
        if (body->text && !body->text->empty()) m.bodyText = *body->text;
        else if (body->html) m.bodyText = *body->html;
    } else {
        m.bodyText = row->snippet.value_or("");
    }
    for (const auto& a : store_->attachments(*mid)) {
        if (a.isInline) continue;
        m.attachments.push_back({a.filename.empty() ? "attachment" : a.filename, a.mimeType});
    }
    return m;
}

MessageID StoreMailBackend::requireMessage(const std::string& id, const std::string& account) {
    const auto mid = messageID(id);
    const auto row = mid ? store_->message(*mid) : std::nullopt;
    if (!row || row->accountID.value != account) throw MCPToolError("Message not found.");
    return *mid;
}

void StoreMailBackend::setRead(const std::string& id, const std::string& account, bool read) {
    const MessageID mid = requireMessage(id, account);
    store_->write([&](SQLiteDatabase&) {
        auto flags = store_->message(mid)->flags;
        FlagChange change;
        (read ? change.addSystem : change.removeSystem) = MessageFlags::seen;
        store_->setLocalFlags(mid, change.appliedTo(flags));
        queueFlags(mid, change);
    });
}

void StoreMailBackend::applyLabel(const std::string& id, const std::string& account,
                                  const std::optional<std::string>& label,
                                  const std::optional<bool>& star) {
    const MessageID mid = requireMessage(id, account);
    store_->write([&](SQLiteDatabase&) {
        auto flags = store_->message(mid)->flags;
        FlagChange change;
        if (label && !label->empty()) change.addKeywords.push_back(*label);
        if (star) (*star ? change.addSystem : change.removeSystem) = MessageFlags::flagged;
        store_->setLocalFlags(mid, change.appliedTo(flags));
        queueFlags(mid, change);
    });
}

void StoreMailBackend::queueFlags(MessageID id, const FlagChange& change) {
    const auto fields = store_->messageFields(id);
    if (!fields) throw MCPToolError("Message not found.");
    OutboxMessageRef ref;
    ref.messageID = id;
    ref.folderID = fields->folderID;
    ref.uid = fields->uid;
    ref.internetMessageID = fields->threading.messageID;
    store_->enqueueFlags(fields->accountID, ref, change, clock_());
}

MessageID StoreMailBackend::fileLocal(const mcpkit::MCPOutgoing& out, FolderRole role,
                                      const std::optional<std::string>& inReplyTo) {
    const auto account = hostAccount(*store_, out.account);
    if (!account) throw MCPToolError("Unknown account. Use an address from list_accounts.");
    const Date now = clock_();
    MessageIndexFields f;
    f.accountID = AccountID(out.account);
    f.folderID = folderWithRole(*store_, out.account, role);
    std::string replyHeader;
    if (inReplyTo) {
        const auto original = messageID(*inReplyTo);
        const auto fields = original ? store_->messageFields(*original) : std::nullopt;
        if (!fields || fields->accountID.value != out.account) throw MCPToolError("Message not found.");
        if (fields->threading.messageID) replyHeader = "<" + fields->threading.messageID->value() + ">";
    }
    f.threading = ThreadingKeys::fromHeaders("<" + makeUUID() + "@kestrune.local>", replyHeader,
                                             replyHeader, out.subject);
    f.subject = out.subject;
    f.from = {{account->label == account->email ? "" : account->label, account->email}};
    f.to = parsedAddresses(out.to);
    f.cc = parsedAddresses(out.cc);
    f.date = now;
    f.internalDate = now;
    f.flags.system = MessageFlags::seen | (role == FolderRole::drafts ? std::int64_t{MessageFlags::draft} : std::int64_t{0});
    f.size = static_cast<std::int64_t>(out.body.size());
    f.snippet = out.body.substr(0, 200);
    StoredBody body;
    body.text = out.body;
    body.fetchedAt = now;
    body.bytes = f.size;
    return store_->write([&](SQLiteDatabase&) {
        const MessageID id = store_->upsertSync({f}).front();
        store_->saveBody(id, body);
        return id;
    });
}

std::string StoreMailBackend::saveDraft(const mcpkit::MCPOutgoing& outgoing,
                                        const std::optional<std::string>& inReplyTo) {
    return handle(fileLocal(outgoing, FolderRole::drafts, inReplyTo));
}

std::optional<mcpkit::MCPOutgoing> StoreMailBackend::draft(const std::string& id) {
    const auto mid = messageID(id);
    const auto fields = mid ? store_->messageFields(*mid) : std::nullopt;
    if (!fields) return std::nullopt;
    const auto folder = store_->folder(fields->folderID);
    if (!folder || folder->role != FolderRole::drafts) return std::nullopt;
    mcpkit::MCPOutgoing out;
    out.account = fields->accountID.value;
    out.to = bare(fields->to);
    out.cc = bare(fields->cc);
    out.subject = fields->subject;
    if (auto body = store_->body(*mid)) out.body = body->text.value_or("");
    return out;
}

mcpkit::MCPSendDelivery StoreMailBackend::send(const mcpkit::MCPOutgoing& message,
                                               const std::optional<std::string>& draftID) {
    const auto account = hostAccount(*store_, message.account);
    if (!account) throw MCPToolError("Unknown account. Use an address from list_accounts.");
    if (holdForUndo_ && holdForUndo_(message)) {
        // Undone: the message stays (or is kept) in Drafts.
        if (!draftID || !draft(*draftID)) fileLocal(message, FolderRole::drafts, std::nullopt);
        return mcpkit::MCPSendDelivery::undone;
    }
    if (!account->demo) return mcpkit::MCPSendDelivery::failed;
    store_->write([&](SQLiteDatabase&) {
        fileLocal(message, FolderRole::sent, std::nullopt);
        if (draftID && draft(*draftID)) store_->purgeMessage(*messageID(*draftID));
    });
    return mcpkit::MCPSendDelivery::sent;
}

}  // namespace kestrune
