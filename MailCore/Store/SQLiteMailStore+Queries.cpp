// Message lists (plain and thread-collapsed, with cursor paging), the
// messages of a thread, and ranked full-text search.
#include <algorithm>

#include "MailCore/Store/MessageRows.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/SearchExpression.h"

namespace mailcore {
namespace {

// The list conditions on table alias `a`, joined with " AND "; their values
// are appended to `values` in order.
std::string listConditions(const std::string& a, const MessageQuery& q,
                           std::vector<SQLValue>& values) {
    std::vector<std::string> parts{a + ".local_state != 'pendingDelete'",
                                   "(" + a + ".flags_system & 8) = 0"};
    if (q.accountID) {
        parts.push_back(a + ".account_id = ?");
        values.emplace_back(*q.accountID);
    }
    if (q.folderID) {
        parts.push_back(a + ".folder_id = ?");
        values.emplace_back(*q.folderID);
    } else if (q.role) {
        if (q.accountID) {
            parts.push_back(
                a + ".folder_id IN (SELECT id FROM folders WHERE role = ? AND account_id = ?)");
            values.emplace_back(rawValue(*q.role));
            values.emplace_back(*q.accountID);
        } else {
            parts.push_back(a + ".folder_id IN (SELECT id FROM folders WHERE role = ?)");
            values.emplace_back(rawValue(*q.role));
        }
    } else {
        parts.push_back(
            a + ".folder_id NOT IN (SELECT id FROM folders WHERE role IN ('trash', 'junk'))");
    }
    if (q.attachmentsOnly) parts.push_back(a + ".has_attachments = 1");
    if (q.unreadOnly) parts.push_back("(" + a + ".flags_system & 17) = 0");
    if (q.flaggedOnly) parts.push_back("(" + a + ".flags_system & 4) != 0");
    std::string out;
    for (const auto& p : parts) {
        if (!out.empty()) out += " AND ";
        out += p;
    }
    return out;
}

}  // namespace

MessagePage SQLiteMailStore::messages(const MessageQuery& q) {
    int pageSize = std::clamp(q.pageSize, 1, 1000);
    std::vector<SQLValue> values;
    std::string sql = std::string("SELECT ") + storerows::listColumns;
    if (q.collapseThreads) {
        sql += ",\n  (SELECT COUNT(*) FROM messages g WHERE g.thread_id = m.thread_id AND " +
               listConditions("g", q, values) +
               "),\n  (SELECT COUNT(*) FROM messages g WHERE g.thread_id = m.thread_id AND " +
               listConditions("g", q, values) + " AND (g.flags_system & 17) = 0)";
    }
    sql += "\nFROM messages m\nWHERE " + listConditions("m", q, values);
    if (q.cursor) {
        // The trailing bound repeats the page condition in a form the date
        // index can seek to, so a deep page costs what a first page costs.
        sql += " AND (m.date < ? OR (m.date = ? AND m.id < ?)) AND m.date <= ?";
        values.emplace_back(q.cursor->date);
        values.emplace_back(q.cursor->date);
        values.emplace_back(q.cursor->id);
        values.emplace_back(q.cursor->date);
    }
    if (q.collapseThreads) {
        sql += "\n  AND NOT EXISTS (SELECT 1 FROM messages n WHERE n.thread_id = m.thread_id AND " +
               listConditions("n", q, values) +
               "\n                  AND (n.date > m.date OR (n.date = m.date AND n.id > m.id)))"
               "\nORDER BY m.date DESC, m.id DESC LIMIT ?";
    } else {
        sql += " ORDER BY m.date DESC, m.id DESC LIMIT ?";
    }
    values.emplace_back(pageSize);

    MessagePage page;
    page.rows = read([&](SQLiteDatabase& db) {
        return db.query<MessageListRow>(sql, values, [&](const SQLRow& row) {
            MessageListRow r = storerows::listRow(row);
            if (q.collapseThreads) {
                r.threadMessageCount = row.int64(12);
                r.threadUnreadCount = row.int64(13);
            }
            return r;
        });
    });
    if (static_cast<int>(page.rows.size()) == pageSize) {
        page.nextCursor = PageCursor{page.rows.back().date, page.rows.back().id};
    }
    return page;
}

std::vector<MessageListRow> SQLiteMailStore::threadMessages(ThreadID thread) {
    return read([&](SQLiteDatabase& db) {
        ThreadID current = resolveThread(db, thread);
        return db.query<MessageListRow>(
            std::string("SELECT ") + storerows::listColumns +
                " FROM messages m WHERE m.thread_id = ? AND m.local_state != 'pendingDelete' AND "
                "(m.flags_system & 8) = 0 ORDER BY m.date ASC, m.id ASC LIMIT 500",
            {current}, storerows::listRow);
    });
}

std::vector<SearchHit> SQLiteMailStore::search(const SearchQuery& q) {
    auto expression = SearchExpression::build(q.text);
    if (!expression) return {};
    std::vector<SQLValue> values{*expression};
    std::string sql =
        std::string("SELECT ") + storerows::listColumns +
        ",\n       bm25(message_search, 10.0, 6.0, 3.0, 4.0, 1.0) AS score,\n       "
        "snippet(message_search, -1, '\u2039', '\u203a', '\u2026', 12)\nFROM message_search JOIN "
        "messages m ON m.id = message_search.rowid\nWHERE message_search MATCH ? AND "
        "m.local_state != 'pendingDelete' AND (m.flags_system & 8) = 0";
    if (q.accountID) {
        sql += " AND m.account_id = ?";
        values.emplace_back(*q.accountID);
    }
    if (q.folderID) {
        sql += " AND m.folder_id = ?";
        values.emplace_back(*q.folderID);
    }
    if (q.attachmentsOnly) sql += " AND m.has_attachments = 1";
    sql += " ORDER BY score, m.date DESC, m.id DESC LIMIT ?";
    values.emplace_back(std::clamp(q.limit, 1, 1000));
    return read([&](SQLiteDatabase& db) {
        return db.query<SearchHit>(sql, values, [](const SQLRow& row) {
            SearchHit hit;
            hit.row = storerows::listRow(row);
            hit.rank = row.real(12);
            hit.excerpt = row.optionalText(13);
            return hit;
        });
    });
}

}  // namespace mailcore
