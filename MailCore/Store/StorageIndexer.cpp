#include "MailCore/Store/StorageIndexer.h"

#include "MailCore/Store/StorageCodec.h"

namespace mailcore {
namespace {

void writeRow(SQLiteDatabase& db, std::int64_t id, const std::string& subject,
              const std::string& sender, const std::string& recipients,
              const std::optional<std::string>& snippet, const std::string& body) {
    db.run("DELETE FROM message_search WHERE rowid = ?", {id});
    db.run(
        "INSERT INTO message_search(rowid, subject, sender, recipients, snippet, body) VALUES "
        "(?, ?, ?, ?, ?, ?)",
        {id, subject, sender, recipients, snippet.value_or(""), body});
}

std::string recipientText(const std::vector<MailAddress>& to, const std::vector<MailAddress>& cc) {
    std::string text = StorageIndexer::addressText(to);
    std::string ccText = StorageIndexer::addressText(cc);
    if (!text.empty() && !ccText.empty()) text += ", ";
    return text + ccText;
}

}  // namespace

std::string StorageIndexer::addressText(const std::vector<MailAddress>& addresses) {
    std::string text;
    for (const auto& a : addresses) {
        if (!text.empty()) text += ", ";
        if (!a.name.empty()) {
            text += a.name;
            text += ' ';
        }
        text += a.email;
    }
    return text;
}

void StorageIndexer::index(SQLiteDatabase& db, MessageID id, const std::string& subject,
                           const std::vector<MailAddress>& from, const std::vector<MailAddress>& to,
                           const std::vector<MailAddress>& cc,
                           const std::optional<std::string>& snippet,
                           const std::optional<std::string>& body) {
    std::string bodyText;
    if (body) {
        bodyText = *body;
    } else {
        db.forEachRow("SELECT body FROM message_search WHERE rowid = ?", {id},
                      [&](const SQLRow& row) {
                          bodyText = row.text(0);
                          return false;
                      });
    }
    writeRow(db, id.value, subject, addressText(from), recipientText(to, cc), snippet, bodyText);
}

void StorageIndexer::reindex(SQLiteDatabase& db, MessageID id, const std::string& body) {
    struct Header {
        std::string subject, from, to, cc;
        std::optional<std::string> snippet;
    };
    auto header = db.queryOne<Header>(
        "SELECT subject, from_json, to_json, cc_json, snippet FROM messages WHERE id = ?", {id},
        [](const SQLRow& row) {
            return Header{row.text(0), row.text(1), row.text(2), row.text(3), row.optionalText(4)};
        });
    if (!header) return;
    writeRow(db, id.value, header->subject,
             addressText(StorageCodec::decodeAddresses(header->from)),
             recipientText(StorageCodec::decodeAddresses(header->to),
                           StorageCodec::decodeAddresses(header->cc)),
             header->snippet, body);
}

void StorageIndexer::rebuildAll(SQLiteDatabase& db) {
    struct Row {
        std::int64_t id;
        std::string subject, from, to, cc;
        std::optional<std::string> snippet;
        std::string body;
    };
    db.run("DELETE FROM message_search");
    // In pages of ids, so that a large store is never held in memory at once.
    std::int64_t after = 0;
    while (true) {
        auto rows = db.query<Row>(
            "SELECT m.id, m.subject, m.from_json, m.to_json, m.cc_json, m.snippet, "
            "COALESCE(b.text, '')\nFROM messages m LEFT JOIN bodies b ON b.message_id = m.id\n"
            "WHERE m.id > ? ORDER BY m.id LIMIT 1000",
            {after}, [](const SQLRow& row) {
                return Row{row.int64(0), row.text(1),         row.text(2), row.text(3),
                           row.text(4),  row.optionalText(5), row.text(6)};
            });
        if (rows.empty()) break;
        for (const auto& r : rows) {
            writeRow(db, r.id, r.subject, addressText(StorageCodec::decodeAddresses(r.from)),
                     recipientText(StorageCodec::decodeAddresses(r.to),
                                   StorageCodec::decodeAddresses(r.cc)),
                     r.snippet, r.body);
        }
        after = rows.back().id;
    }
}

void StorageIndexer::remove(SQLiteDatabase& db, MessageID id) {
    db.run("DELETE FROM message_search WHERE rowid = ?", {id});
}

}  // namespace mailcore
