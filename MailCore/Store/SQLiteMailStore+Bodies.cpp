// Bodies, attachments and body eviction.
#include <map>

#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/StorageCodec.h"
#include "MailCore/Store/StorageIndexer.h"

namespace mailcore {
namespace {

void saveBodyRows(SQLiteDatabase& db, MessageID id, const StoredBody& body) {
    auto snippet = db.queryOne<std::optional<std::string>>(
        "SELECT snippet FROM messages WHERE id = ?", {id},
        [](const SQLRow& row) { return row.optionalText(0); });
    if (!snippet) {
        throw MailError::storage(StorageFailureKind::notFound, "message not found");
    }
    db.run(
        "INSERT INTO bodies(message_id, text, html, structure, is_truncated, fetched_at, bytes) "
        "VALUES (?, ?, ?, ?, ?, ?, ?)\nON CONFLICT(message_id) DO UPDATE SET text = "
        "excluded.text, html = excluded.html, structure = excluded.structure,\n    "
        "is_truncated = excluded.is_truncated, fetched_at = excluded.fetched_at, bytes = "
        "excluded.bytes",
        {id, body.text, body.html, body.structure, body.isTruncated, body.fetchedAt, body.bytes});
    db.run("UPDATE messages SET body_state = ? WHERE id = ?",
           {body.isTruncated ? "partial" : "complete", id});
    if (!snippet->has_value() && body.text) {
        // A preview: the first 200 bytes of the text with white space collapsed,
        // cut at a character boundary.
        std::string preview;
        bool space = false;
        for (char c : *body.text) {
            if (preview.size() >= 200) break;
            if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
                space = !preview.empty();
                continue;
            }
            if (space) preview += ' ';
            space = false;
            preview += c;
        }
        while (!preview.empty() && (static_cast<unsigned char>(preview.back()) & 0xC0) == 0x80) {
            preview.pop_back();
        }
        if (!preview.empty() && static_cast<unsigned char>(preview.back()) >= 0xC0) {
            preview.pop_back();
        }
        db.run("UPDATE messages SET snippet = ? WHERE id = ?", {preview, id});
    }
    StorageIndexer::reindex(db, id, body.text.value_or(""));
}

}  // namespace

void SQLiteMailStore::saveBody(MessageID id, const StoredBody& body) {
    write([&](SQLiteDatabase& db) { saveBodyRows(db, id, body); });
}

void SQLiteMailStore::saveBodies(const std::vector<std::pair<MessageID, StoredBody>>& bodies) {
    write([&](SQLiteDatabase& db) {
        for (const auto& [id, body] : bodies) saveBodyRows(db, id, body);
    });
}

std::optional<StoredBody> SQLiteMailStore::body(MessageID id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<StoredBody>(
            "SELECT text, html, structure, is_truncated, fetched_at FROM bodies WHERE message_id = "
            "?",
            {id}, [](const SQLRow& row) {
                StoredBody b;
                b.text = row.optionalText(0);
                b.html = row.optionalText(1);
                b.structure = row.optionalBlob(2);
                b.isTruncated = row.boolean(3);
                b.fetchedAt = row.date(4);
                return b;
            });
    });
}

void SQLiteMailStore::replaceAttachments(MessageID id,
                                         const std::vector<AttachmentInfo>& attachments) {
    write([&](SQLiteDatabase& db) {
        if (!db.scalarInt("SELECT 1 FROM messages WHERE id = ?", {id})) {
            throw MailError::storage(StorageFailureKind::notFound, "message not found");
        }
        std::map<std::string, std::optional<std::string>> cached;
        db.forEachRow("SELECT part_id, cached_path FROM attachments WHERE message_id = ?", {id},
                      [&](const SQLRow& row) {
                          cached[row.text(0)] = row.optionalText(1);
                          return true;
                      });
        db.run("DELETE FROM attachments WHERE message_id = ?", {id});
        std::int64_t position = 0;
        for (const auto& a : attachments) {
            std::optional<std::string> path = a.cachedPath;
            if (!path) {
                if (auto it = cached.find(a.partID.value); it != cached.end()) path = it->second;
            }
            db.run(
                "INSERT OR REPLACE INTO attachments(message_id, part_id, position, filename, "
                "mime_type, size, content_id, is_inline, cached_path)\nVALUES (?, ?, ?, ?, ?, "
                "?, ?, ?, ?)",
                {id, a.partID, position++, a.filename, a.mimeType, a.size, a.contentID, a.isInline,
                 path});
        }
    });
}

std::vector<AttachmentInfo> SQLiteMailStore::attachments(MessageID id) {
    return read([&](SQLiteDatabase& db) {
        return db.query<AttachmentInfo>(
            "SELECT part_id, filename, mime_type, size, content_id, is_inline, cached_path FROM "
            "attachments\nWHERE message_id = ? ORDER BY position",
            {id}, [](const SQLRow& row) {
                return AttachmentInfo{PartID(row.text(0)), row.text(1),         row.text(2),
                                      row.int64(3),        row.optionalText(4), row.boolean(5),
                                      row.optionalText(6)};
            });
    });
}

void SQLiteMailStore::setAttachmentCachedPath(MessageID id, const PartID& part,
                                              const std::optional<std::string>& path) {
    write([&](SQLiteDatabase& db) {
        db.run("UPDATE attachments SET cached_path = ? WHERE message_id = ? AND part_id = ?",
               {path, id, part});
    });
}

std::vector<std::pair<ThreadID, std::vector<AttachmentInfo>>> SQLiteMailStore::threadAttachments() {
    return read([](SQLiteDatabase& db) {
        std::vector<std::pair<ThreadID, std::vector<AttachmentInfo>>> out;
        std::map<std::int64_t, std::size_t> index;
        db.forEachRow(
            "SELECT m.thread_id, a.part_id, a.filename, a.mime_type, a.size, a.content_id, "
            "a.cached_path\nFROM attachments a JOIN messages m ON m.id = a.message_id\nWHERE "
            "a.is_inline = 0 AND m.local_state != 'pendingDelete'\nORDER BY m.date DESC, "
            "a.position",
            {}, [&](const SQLRow& row) {
                std::int64_t thread = row.int64(0);
                auto it = index.find(thread);
                if (it == index.end()) {
                    it = index.emplace(thread, out.size()).first;
                    out.emplace_back(ThreadID(thread), std::vector<AttachmentInfo>{});
                }
                out[it->second].second.push_back(
                    AttachmentInfo{PartID(row.text(1)), row.text(2), row.text(3), row.int64(4),
                                   row.optionalText(5), false, row.optionalText(6)});
                return true;
            });
        return out;
    });
}

std::int64_t SQLiteMailStore::bodyBytes() {
    return read([](SQLiteDatabase& db) {
        return db.scalarInt("SELECT COALESCE(SUM(bytes), 0) FROM bodies").value_or(0);
    });
}

std::int64_t SQLiteMailStore::evictBodies(const BodyEvictionPolicy& policy) {
    return write([&](SQLiteDatabase& db) {
        std::string keep = policy.keepFlagged ? " AND (m.flags_system & 4) = 0" : "";
        std::vector<std::pair<std::int64_t, std::int64_t>> victims;
        auto pick = [&](const std::string& condition, const std::vector<SQLValue>& values) {
            return db.query<std::pair<std::int64_t, std::int64_t>>(
                "SELECT b.message_id, b.bytes FROM bodies b JOIN messages m ON m.id = b.message_id "
                "WHERE " +
                    condition,
                values,
                [](const SQLRow& row) { return std::make_pair(row.int64(0), row.int64(1)); });
        };
        auto evict = [&](std::int64_t id) {
            db.run("DELETE FROM bodies WHERE message_id = ?", {id});
            db.run("UPDATE messages SET body_state = 'notFetched' WHERE id = ?", {id});
        };
        std::int64_t removed = 0;
        if (policy.fetchedBefore) {
            for (const auto& [id, bytes] :
                 pick("b.fetched_at < ?" + keep + " ORDER BY b.fetched_at, b.message_id",
                      {*policy.fetchedBefore})) {
                evict(id);
                ++removed;
            }
        }
        if (policy.maxTotalBytes) {
            std::int64_t total =
                db.scalarInt("SELECT COALESCE(SUM(bytes), 0) FROM bodies").value_or(0);
            if (total > *policy.maxTotalBytes) {
                for (const auto& [id, bytes] :
                     pick("1 = 1" + keep + " ORDER BY b.fetched_at, b.message_id", {})) {
                    if (total <= *policy.maxTotalBytes) break;
                    evict(id);
                    total -= bytes;
                    ++removed;
                }
            }
        }
        return removed;
    });
}

}  // namespace mailcore
