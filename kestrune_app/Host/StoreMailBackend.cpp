#include "kestrune_app/Host/StoreMailBackend.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "KestruneMCPKit/Service/MCPService.h"
#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Store/SearchExpression.h"
#include "kestrune_app/Host/MailIngest.h"

namespace kestrune {

using namespace mailcore;
using mcpkit::MCPToolError;

namespace {

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

// The folder id agents use: its role, or its path when it has none.
std::string agentFolderID(const FolderRecord& f) {
    return f.role == FolderRole::custom ? f.path : std::string(rawValue(f.role));
}

std::string likePattern(const std::string& text) {
    std::string out = "%";
    for (char c : asciiLower(text)) {  // SQLite's lower() folds ASCII only
        if (c == '%' || c == '_' || c == '\\') out += '\\';
        out += c;
    }
    return out + "%";
}

// The unread and sender filters of a search, over the columns of `alias`.
std::string agentFilters(const mcpkit::MCPSearchQuery& query, const std::string& alias,
                         std::vector<SQLValue>& values) {
    std::string sql;
    if (query.unreadOnly) sql += " AND (" + alias + "flags_system & 17) = 0";
    if (query.from && !query.from->empty()) {
        sql += " AND lower(" + alias + "from_json) LIKE ? ESCAPE '\\'";
        values.emplace_back(likePattern(*query.from));
    }
    return sql;
}

}  // namespace

StoreMailBackend::StoreMailBackend(std::shared_ptr<SQLiteMailStore> store, Clock clock,
                                   SendPath sending)
    : store_(std::move(store)), clock_(std::move(clock)), sending_(std::move(sending)) {}

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
    return agentFolderID(*f);
}

std::vector<mcpkit::MCPFolder> StoreMailBackend::folders(const std::string& account) {
    if (!store_->accountExists(AccountID(account)))
        throw MCPToolError("Unknown account. Use an address from list_accounts.");
    std::vector<mcpkit::MCPFolder> out;
    for (const auto& f : store_->folders(AccountID(account))) {
        out.push_back({agentFolderID(f), f.path, f.unreadCount});
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
                if (agentFolderID(f) == *query.folder || f.path == *query.folder) folder = f.id;
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

    if (const auto expression = SearchExpression::build(query.text)) {
        // One ranked query over every scope, weighted as the store's own
        // search, with the filters in SQL so that the total counts every
        // match. Only the page's ids are read; rows follow by id.
        std::string where =
            "message_search MATCH ? AND m.local_state != 'pendingDelete' AND (m.flags_system & 8) "
            "= 0 AND (";
        std::vector<SQLValue> values{*expression};
        for (std::size_t i = 0; i < scopes.size(); ++i) {
            where += i ? " OR " : "";
            where +=
                scopes[i].second ? "(m.account_id = ? AND m.folder_id = ?)" : "m.account_id = ?";
            values.emplace_back(scopes[i].first);
            if (scopes[i].second) values.emplace_back(*scopes[i].second);
        }
        where += ")" + agentFilters(query, "m.", values);
        // CROSS JOIN keeps the full-text index as the outer loop: driven
        // from messages, SQLite would run the match once per message.
        const std::string matches =
            " FROM message_search CROSS JOIN messages m ON m.id = message_search.rowid WHERE " +
            where;
        std::vector<SQLValue> pageValues = values;
        pageValues.emplace_back(limit);
        pageValues.emplace_back(offset);
        std::vector<MessageID> ids;
        store_->read([&](SQLiteDatabase& db) {
            ids = db.query<MessageID>("SELECT m.id" + matches +
                                          " ORDER BY bm25(message_search, 10.0, 6.0, 3.0, 4.0, "
                                          "1.0), m.date DESC, m.id DESC"
                                          " LIMIT ? OFFSET ?",
                                      pageValues,
                                      [](const SQLRow& row) { return row.id<MessageID>(0); });
            page.total = db.scalarInt("SELECT COUNT(*)" + matches, values).value_or(0);
        });
        for (const auto& id : ids)
            if (auto row = store_->message(id)) page.results.push_back(summary(*row, std::nullopt));
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
    std::vector<SQLValue> filterValues;
    const std::string filter =
        "local_state != 'pendingDelete'" + agentFilters(query, "", filterValues);
    std::string sql;
    std::vector<SQLValue> values;
    for (const auto& f : folders) {
        if (!sql.empty()) sql += " UNION ALL ";
        sql += "SELECT id, date FROM (SELECT id, date FROM messages WHERE folder_id = ? AND " +
               filter + " ORDER BY date DESC, id DESC LIMIT ?)";
        values.emplace_back(f.id.value);
        values.insert(values.end(), filterValues.begin(), filterValues.end());
        values.emplace_back(offset + limit);
    }
    sql += " ORDER BY date DESC, id DESC LIMIT ? OFFSET ?";
    values.emplace_back(limit);
    values.emplace_back(offset);
    std::vector<MessageID> ids;
    store_->read([&](SQLiteDatabase& db) {
        ids = db.query<MessageID>(sql, values,
                                  [](const SQLRow& row) { return row.id<MessageID>(0); });
        if (filterValues.empty()) {
            // Without a sender filter the folders' own counts are the total.
            for (const auto& f : folders)
                page.total += query.unreadOnly ? f.unreadCount : f.totalCount;
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
        if (body->text && !body->text->empty())
            m.bodyText = *body->text;
        else if (body->html)
            m.bodyText = *body->html;
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
    kick(fields->accountID.value);
}

namespace {

// A new Message-ID in the account's domain.
InternetMessageID newMessageID(const std::string& account) {
    const auto at = account.rfind('@');
    const std::string domain = at == std::string::npos ? "kestrune.local" : account.substr(at + 1);
    return *InternetMessageID::normalizing(makeUUID() + "@" + domain);
}

// The agent's message as the outgoing message of `account`; a draft's
// Message-ID and reply headers stay.
void fill(OutgoingMessage& out, const mcpkit::MCPOutgoing& in, const HostAccount& account) {
    out.from = {{account.label == account.email ? "" : account.label, account.email}};
    out.to = parsedAddresses(in.to);
    out.cc = parsedAddresses(in.cc);
    out.subject = in.subject;
    out.textBody = in.body;
    if (!out.messageID) out.messageID = newMessageID(account.email);
}

// The draft as the agent service sees it, with everything else that a send
// of it carries (shown to the user before it goes out).
mcpkit::MCPOutgoing agentView(const DraftRecord& draft, const std::string& handle) {
    mcpkit::MCPOutgoing out;
    out.account = draft.accountID.value;
    out.to = bare(draft.message.to);
    out.cc = bare(draft.message.cc);
    out.subject = draft.message.subject;
    out.body = draft.message.textBody;
    mcpkit::MCPDraftExtras extras;
    extras.id = handle;
    extras.bcc = bare(draft.message.bcc);
    extras.replyTo = bare(draft.message.replyTo);
    if (draft.message.htmlBody) extras.htmlCharacters = draft.message.htmlBody->size();
    out.fromDraft = std::move(extras);
    return out;
}

}  // namespace

std::string StoreMailBackend::draftHandle(const DraftID& id) { return "d" + id.value; }

std::optional<DraftID> StoreMailBackend::draftID(const std::string& handle) {
    if (handle.size() != 37 || handle[0] != 'd') return std::nullopt;
    for (std::size_t i = 1; i < handle.size(); ++i) {
        const char c = handle[i];
        if (!std::isxdigit(static_cast<unsigned char>(c)) && c != '-') return std::nullopt;
    }
    return DraftID(handle.substr(1));
}

void StoreMailBackend::kick(const std::string& account) {
    if (sending_.outbox) sending_.outbox->kickOutbox(AccountID(account));
}

void StoreMailBackend::keepDraft(const DraftRecord& draft) {
    store_->write([&](SQLiteDatabase&) {
        store_->saveDraft(draft);
        store_->enqueue(draft.accountID, OutboxOperation::saveDraft(draft.id, draft.message),
                        clock_());
    });
    kick(draft.accountID.value);
}

std::string StoreMailBackend::saveDraft(const mcpkit::MCPOutgoing& outgoing,
                                        const std::optional<std::string>& inReplyTo) {
    const auto account = hostAccount(*store_, outgoing.account);
    if (!account) throw MCPToolError("Unknown account. Use an address from list_accounts.");
    DraftRecord draft;
    draft.id = DraftID(makeUUID());
    draft.accountID = AccountID(account->email);
    draft.updatedAt = clock_();
    fill(draft.message, outgoing, *account);
    if (inReplyTo) {
        const auto original = messageID(*inReplyTo);
        const auto fields = original ? store_->messageFields(*original) : std::nullopt;
        if (!fields || fields->accountID.value != account->email)
            throw MCPToolError("Message not found.");
        draft.sourceMessageID = *original;
        const auto& parent = fields->threading;
        if (parent.messageID) {
            draft.message.inReplyTo = {*parent.messageID};
            draft.message.references =
                parent.references.empty() ? parent.inReplyTo : parent.references;
            draft.message.references.push_back(*parent.messageID);
        }
    }
    keepDraft(draft);
    return draftHandle(draft.id);
}

std::optional<DraftRecord> StoreMailBackend::draftRecord(
    const std::string& handle, const std::optional<std::string>& account) {
    if (const auto id = draftID(handle)) {
        auto record = store_->draft(*id);
        if (!record || (account && record->accountID.value != *account)) return std::nullopt;
        return record;
    }
    // A message filed in a Drafts folder.
    const auto mid = messageID(handle);
    const auto fields = mid ? store_->messageFields(*mid) : std::nullopt;
    if (!fields || (account && fields->accountID.value != *account)) return std::nullopt;
    const auto folder = store_->folder(fields->folderID);
    if (!folder || folder->role != FolderRole::drafts) return std::nullopt;
    DraftRecord record;
    record.id = DraftID(makeUUID());
    record.accountID = fields->accountID;
    record.updatedAt = clock_();
    auto& m = record.message;
    m.messageID = fields->threading.messageID;
    m.from = fields->from;
    m.to = fields->to;
    m.cc = fields->cc;
    m.replyTo = fields->replyTo;
    m.subject = fields->subject;
    m.inReplyTo = fields->threading.inReplyTo;
    m.references = fields->threading.references;
    if (auto body = store_->body(*mid)) m.textBody = body->text.value_or("");
    // A copy saved from a draft record sends as that draft.
    if (m.messageID) {
        for (auto& saved : store_->drafts(fields->accountID)) {
            if (saved.message.messageID &&
                saved.message.messageID->normalizedKey() == m.messageID->normalizedKey())
                return saved;
        }
    }
    return record;
}

std::optional<mcpkit::MCPOutgoing> StoreMailBackend::draft(const std::string& id) {
    const auto record = draftRecord(id, std::nullopt);
    if (!record) return std::nullopt;
    return agentView(*record, id);
}

mcpkit::MCPSendDelivery StoreMailBackend::send(const mcpkit::MCPOutgoing& message,
                                               const std::optional<std::string>& draftHandle) {
    const auto account = hostAccount(*store_, message.account);
    if (!account) throw MCPToolError("Unknown account. Use an address from list_accounts.");
    const auto& outbox = sending_.outbox;
    if (!outbox) return mcpkit::MCPSendDelivery::failed;
    const auto draft = draftHandle ? draftRecord(*draftHandle, account->email) : std::nullopt;
    if (draftHandle && !draft) throw MCPToolError("Draft not found.");

    OutboxSend send;
    if (draft) {
        send.message = draft->message;
        send.draftID = draft->id;
    }
    fill(send.message, message, *account);
    const AccountID accountID(account->email);
    // Kept as a draft when the send does not go out: the user's message is
    // never lost.
    auto keep = [&](const OutboxSend& s) {
        DraftRecord kept;
        kept.id = s.draftID.value_or(DraftID(makeUUID()));
        kept.accountID = accountID;
        kept.message = s.message;
        kept.sourceMessageID = draft ? draft->sourceMessageID : std::nullopt;
        kept.updatedAt = clock_();
        keepDraft(kept);
    };

    const auto item = outbox->enqueueSend(accountID, send);
    bool undone = false;
    auto takeBack = [&] {
        if (undone) return true;
        try {
            // The answer may arrive a moment after the window's end; a send
            // that has not started yet can still be taken back.
            keep(outbox->cancelSend(item.id, sending_.undoWindow + 1.0));
            undone = true;
        } catch (const MailError&) {
            // Too late: the send is on its way.
        }
        return undone;
    };
    const auto end = sending_.holdForUndo ? sending_.holdForUndo(message, takeBack)
                                          : SendPath::HoldEnd::windowOver;
    if (end == SendPath::HoldEnd::stopped && takeBack()) return mcpkit::MCPSendDelivery::failed;
    if (undone) return mcpkit::MCPSendDelivery::undone;
    // The window is over: the send is released and due now.
    outbox->releaseSend(item.id);
    outbox->drainOutbox(accountID, sending_.sendWait);
    const auto row = store_->outboxItem(item.id);
    if (!row) return mcpkit::MCPSendDelivery::sent;
    if (row->item.state != OutboxItemState::inFlight) {
        // Failed for good, or waiting for a later retry: take it back so
        // that it cannot go out after the agent was told it failed.
        try {
            store_->cancel(item.id);
            keep(row->item.operation.sendPayload());
        } catch (const MailError&) {
            // Started meanwhile; its outcome is not known here.
        }
    }
    return mcpkit::MCPSendDelivery::failed;
}

}  // namespace kestrune
