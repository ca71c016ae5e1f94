// Filing messages: upsertSync with threading, server flag updates, removal,
// local moves and deletes.
#include <algorithm>
#include <set>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Store/MessageRows.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/StorageCodec.h"
#include "MailCore/Store/StorageIndexer.h"

namespace mailcore {
namespace {

// The most addresses placed in one "IN (...)" list of the subject fallback.
constexpr std::size_t maxParticipantsInQuery = 50;

MailError storageError(std::string detail, StorageFailureKind kind = StorageFailureKind::other) {
    return MailError::storage(kind, std::move(detail));
}

std::vector<std::string> participantsOf(const MessageIndexFields& f) {
    std::vector<std::string> out;
    for (const auto* list : {&f.from, &f.to, &f.cc, &f.replyTo}) {
        for (const auto& a : *list) {
            if (a.email.empty()) continue;
            std::string email = asciiLower(a.email);
            if (std::find(out.begin(), out.end(), email) == out.end()) out.push_back(email);
        }
    }
    return out;
}

std::string idListJSON(const std::vector<InternetMessageID>& ids) {
    std::vector<std::string> values;
    values.reserve(ids.size());
    for (const auto& id : ids) values.push_back(id.value());
    return StorageCodec::encodeString(values);
}

std::string placeholders(std::size_t n) {
    std::string out;
    for (std::size_t i = 0; i < n; ++i) out += i == 0 ? "?" : ", ?";
    return out;
}

void writeReferencesAndParticipants(SQLiteDatabase& db, MessageID id,
                                    const std::vector<std::string>& refKeys,
                                    const std::vector<std::string>& participants) {
    db.run("DELETE FROM message_refs WHERE message_id = ?", {id});
    for (const auto& key : refKeys) {
        db.run("INSERT OR IGNORE INTO message_refs(message_id, ref_key) VALUES (?, ?)", {id, key});
    }
    db.run("DELETE FROM participants WHERE message_id = ?", {id});
    for (const auto& email : participants) {
        db.run("INSERT OR IGNORE INTO participants(message_id, email) VALUES (?, ?)", {id, email});
    }
}

struct StoredCopy {
    MessageID id;
    ThreadID threadID;
    std::int64_t flagsSystem;
    std::string flagsKeywords;
    std::optional<std::int64_t> modSeq;
    std::string bodyState;
    std::optional<std::string> snippet;
};

bool hasPendingFlagChange(SQLiteDatabase& db, MessageID id) {
    return db
        .scalarInt(
            "SELECT 1 FROM outbox WHERE target_message_id = ? AND kind = 'setFlags' AND "
            "state IN ('queued', 'inFlight') LIMIT 1",
            {id})
        .has_value();
}

}  // namespace

ThreadID SQLiteMailStore::resolveThread(SQLiteDatabase& db, ThreadID id) {
    if (db.scalarInt("SELECT 1 FROM threads WHERE id = ?", {id})) return id;
    if (auto target = db.scalarInt("SELECT new_id FROM thread_redirects WHERE old_id = ?", {id})) {
        return ThreadID(*target);
    }
    throw storageError("thread not found", StorageFailureKind::notFound);
}

ThreadID SQLiteMailStore::resolveThread(ThreadID id) {
    return read([&](SQLiteDatabase& db) { return resolveThread(db, id); });
}

void SQLiteMailStore::mergeThreads(SQLiteDatabase& db, const std::set<std::int64_t>& absorbed,
                                   ThreadID into, const AccountID& account) {
    for (std::int64_t old : absorbed) {
        if (old == into.value) continue;
        db.run("UPDATE messages SET thread_id = ? WHERE thread_id = ?", {into, old});
        db.run("UPDATE thread_redirects SET new_id = ? WHERE new_id = ?", {into, old});
        db.run(
            "INSERT OR REPLACE INTO thread_redirects(old_id, new_id, account_id) VALUES (?, ?, ?)",
            {old, into, account});
        db.run("DELETE FROM threads WHERE id = ?", {old});
    }
}

void SQLiteMailStore::setSubjectFallbackForRepliesOnly(bool on) {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    subjectFallbackForRepliesOnly_ = on;
}

ThreadID SQLiteMailStore::assignThread(SQLiteDatabase& db, const MessageIndexFields& f,
                                       const std::vector<std::string>& participants,
                                       bool subjectFallbackForRepliesOnly) {
    std::set<std::int64_t> candidates;
    auto collect = [&](const std::string& sql, const std::string& key) {
        db.forEachRow(sql, {f.accountID, key}, [&](const SQLRow& row) {
            candidates.insert(row.int64(0));
            return true;
        });
    };
    const std::string byMessageID =
        "SELECT DISTINCT thread_id FROM messages WHERE account_id = ? AND message_id_key = ?";
    // Messages that share a reference with this one belong to one
    // conversation even when the message they refer to is not stored
    // (siblings of a missing parent, or of one in an unsynced folder).
    const std::string bySharedReference =
        "SELECT DISTINCT m.thread_id FROM message_refs r JOIN messages m ON m.id = "
        "r.message_id\nWHERE m.account_id = ? AND r.ref_key = ?";
    for (const auto& key : f.threading.referenceKeys()) {
        collect(byMessageID, key);
        collect(bySharedReference, key);
    }
    if (f.threading.messageID) {
        std::string own = f.threading.messageID->normalizedKey();
        collect(byMessageID, own);
        collect(bySharedReference, own);
    }
    if (!candidates.empty()) {
        ThreadID survivor(*candidates.begin());
        if (candidates.size() > 1) mergeThreads(db, candidates, survivor, f.accountID);
        return survivor;
    }

    // Subject fallback. The message joins the thread with the same
    // normalised subject that shares the most participants with it (the
    // newest on a tie); at least one must be shared, and two when the
    // message has two or more, so that an address found on nearly every
    // message (the mailbox owner's) cannot bridge unrelated conversations.
    const std::string& subject = f.threading.normalizedSubject;
    bool allowed = !subjectFallbackForRepliesOnly || ThreadingKeys::hasReplyPrefix(f.subject);
    if (allowed && !subject.empty() && !participants.empty()) {
        std::size_t n = std::min(participants.size(), maxParticipantsInQuery);
        std::vector<SQLValue> values{f.accountID, subject};
        for (std::size_t i = 0; i < n; ++i) values.emplace_back(participants[i]);
        std::int64_t needed = n >= 2 ? 2 : 1;
        auto found = db.queryOne<std::pair<std::int64_t, std::int64_t>>(
            "SELECT m.thread_id, COUNT(DISTINCT p.email) AS shared FROM messages m\n"
            "JOIN participants p ON p.message_id = m.id\n"
            "WHERE m.account_id = ? AND m.norm_subject = ? AND p.email IN (" +
                placeholders(n) +
                ")\nGROUP BY m.thread_id ORDER BY shared DESC, MAX(m.date) DESC, m.thread_id "
                "LIMIT 1",
            values, [](const SQLRow& row) { return std::make_pair(row.int64(0), row.int64(1)); });
        if (found && found->second >= needed) return ThreadID(found->first);
    }
    db.run("INSERT INTO threads(account_id) VALUES (?)", {f.accountID});
    return ThreadID(db.lastInsertRowID());
}

std::vector<MessageID> SQLiteMailStore::upsertSync(const std::vector<MessageIndexFields>& batch) {
    return write([&](SQLiteDatabase& db) {
        std::vector<MessageID> ids;
        ids.reserve(batch.size());
        std::set<std::int64_t> touched;
        for (const auto& f : batch) {
            std::optional<StoredCopy> stored;
            if (f.uid) {
                stored = db.queryOne<StoredCopy>(
                    "SELECT id, thread_id, flags_system, flags_keywords, mod_seq, body_state, "
                    "snippet FROM messages WHERE folder_id = ? AND uid = ?",
                    {f.folderID, f.uid}, [](const SQLRow& row) {
                        return StoredCopy{row.id<MessageID>(0), row.id<ThreadID>(1),  row.int64(2),
                                          row.text(3),          row.optionalInt64(4), row.text(5),
                                          row.optionalText(6)};
                    });
            }
            auto participants = participantsOf(f);
            auto refKeys = f.threading.referenceKeys();
            std::optional<std::string> idKey, idValue;
            if (f.threading.messageID) {
                idKey = f.threading.messageID->normalizedKey();
                idValue = f.threading.messageID->value();
            }
            std::string keywords = StorageCodec::encodeString(f.flags.keywords);
            // The header columns, in the order both statements below list
            // them; flags and snippet are filled in per case.
            auto headerValues = [&](std::int64_t flagsSystem, const std::string& flagsKeywords,
                                    const std::optional<std::string>& snippet) {
                return std::vector<SQLValue>{f.uid,
                                             idKey,
                                             idValue,
                                             idListJSON(f.threading.inReplyTo),
                                             idListJSON(f.threading.references),
                                             f.threading.normalizedSubject,
                                             f.subject,
                                             StorageCodec::encodeString(f.from),
                                             StorageCodec::encodeString(f.to),
                                             StorageCodec::encodeString(f.cc),
                                             StorageCodec::encodeString(f.replyTo),
                                             f.date,
                                             f.internalDate,
                                             flagsSystem,
                                             flagsKeywords,
                                             f.size,
                                             f.hasAttachments,
                                             snippet,
                                             f.modSeq};
            };
            MessageID id;
            if (!stored) {
                ThreadID thread = assignThread(db, f, participants, subjectFallbackForRepliesOnly_);
                std::vector<SQLValue> values{f.accountID, f.folderID, thread};
                auto header = headerValues(f.flags.system, keywords, f.snippet);
                values.insert(values.end(), header.begin(), header.end());
                db.run(
                    "INSERT INTO messages(account_id, folder_id, thread_id, uid, message_id_key, "
                    "message_id_value, in_reply_to, refs,\n    norm_subject, subject, from_json, "
                    "to_json, cc_json, reply_to_json, date, internal_date, flags_system,\n    "
                    "flags_keywords, size, has_attachments, snippet, mod_seq, body_state, "
                    "local_state)\nVALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                    "?, ?, ?, ?, 'notFetched', 'synced')",
                    values);
                id = MessageID(db.lastInsertRowID());
            } else {
                id = stored->id;
                const bool keepLocalFlags = hasPendingFlagChange(db, id);
                auto values = headerValues(keepLocalFlags ? stored->flagsSystem : f.flags.system,
                                           keepLocalFlags ? stored->flagsKeywords : keywords,
                                           f.snippet ? f.snippet : stored->snippet);
                values.emplace_back(id);
                db.run(
                    "UPDATE messages SET uid = ?, message_id_key = ?, message_id_value = ?, "
                    "in_reply_to = ?, refs = ?,\n    norm_subject = ?, subject = ?, from_json = "
                    "?, to_json = ?, cc_json = ?, reply_to_json = ?,\n    date = ?, internal_date "
                    "= ?, flags_system = ?, flags_keywords = ?, size = ?, has_attachments = ?,\n  "
                    "  snippet = ?, mod_seq = ? WHERE id = ?",
                    values);
            }
            writeReferencesAndParticipants(db, id, refKeys, participants);
            StorageIndexer::index(db, id, f.subject, f.from, f.to, f.cc,
                                  f.snippet ? f.snippet : (stored ? stored->snippet : std::nullopt),
                                  std::nullopt);
            touched.insert(f.folderID.value);
            ids.push_back(id);
        }
        for (auto folder : touched) recomputeFolderCounts(db, FolderID(folder));
        return ids;
    });
}

void SQLiteMailStore::applyServerFlags(FolderID folder, const std::vector<FlagUpdate>& updates) {
    write([&](SQLiteDatabase& db) {
        for (const auto& u : updates) {
            auto id = db.scalarInt("SELECT id FROM messages WHERE folder_id = ? AND uid = ?",
                                   {folder, u.uid});
            if (!id) continue;
            if (hasPendingFlagChange(db, MessageID(*id))) {
                db.run("UPDATE messages SET mod_seq = ? WHERE id = ?", {u.modSeq, *id});
            } else {
                db.run(
                    "UPDATE messages SET flags_system = ?, flags_keywords = ?, mod_seq = ? "
                    "WHERE id = ?",
                    {u.flags.system, StorageCodec::encodeString(u.flags.keywords), u.modSeq, *id});
            }
        }
        recomputeFolderCounts(db, folder);
    });
}

void SQLiteMailStore::setLocalFlags(MessageID id, const MessageFlags& flags) {
    write([&](SQLiteDatabase& db) {
        auto folder = db.scalarInt("SELECT folder_id FROM messages WHERE id = ?", {id});
        if (!folder) throw storageError("message not found", StorageFailureKind::notFound);
        db.run("UPDATE messages SET flags_system = ?, flags_keywords = ? WHERE id = ?",
               {flags.system, StorageCodec::encodeString(flags.keywords), id});
        recomputeFolderCounts(db, FolderID(*folder));
    });
}

void SQLiteMailStore::deleteThreadIfEmpty(SQLiteDatabase& db, ThreadID thread) {
    if (db.scalarInt("SELECT 1 FROM messages WHERE thread_id = ?", {thread})) return;
    db.run("DELETE FROM thread_redirects WHERE new_id = ?", {thread});
    db.run("DELETE FROM threads WHERE id = ?", {thread});
}

void SQLiteMailStore::removeMessagesWhere(SQLiteDatabase& db, const std::string& condition,
                                          const std::vector<SQLValue>& values) {
    std::set<std::int64_t> threads, folders;
    db.forEachRow("SELECT thread_id, folder_id FROM messages WHERE " + condition, values,
                  [&](const SQLRow& row) {
                      threads.insert(row.int64(0));
                      folders.insert(row.int64(1));
                      return true;
                  });
    if (threads.empty()) return;
    db.run(
        "DELETE FROM outbox WHERE state != 'inFlight' AND target_message_id IN (SELECT id FROM "
        "messages WHERE " +
            condition + ")",
        values);
    db.run(
        "UPDATE drafts SET source_message_id = NULL WHERE source_message_id IN (SELECT id FROM "
        "messages WHERE " +
            condition + ")",
        values);
    db.run("DELETE FROM message_search WHERE rowid IN (SELECT id FROM messages WHERE " + condition +
               ")",
           values);
    db.run("DELETE FROM messages WHERE " + condition, values);
    for (auto t : threads) deleteThreadIfEmpty(db, ThreadID(t));
    for (auto f : folders) recomputeFolderCounts(db, FolderID(f));
}

void SQLiteMailStore::removeMessages(FolderID folder, const std::vector<IMAPUID>& uids) {
    write([&](SQLiteDatabase& db) {
        for (const auto& uid : uids) {
            removeMessagesWhere(db, "folder_id = ? AND uid = ?", {folder, uid});
        }
    });
}

void SQLiteMailStore::purgeMessage(MessageID id) {
    write([&](SQLiteDatabase& db) { removeMessagesWhere(db, "id = ?", {id}); });
}

std::optional<MessageListRow> SQLiteMailStore::message(MessageID id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<MessageListRow>(
            std::string("SELECT ") + storerows::listColumns + " FROM messages m WHERE m.id = ?",
            {id}, storerows::listRow);
    });
}

std::optional<MessageIndexFields> SQLiteMailStore::messageFields(MessageID id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<MessageIndexFields>(
            "SELECT account_id, folder_id, uid, message_id_value, in_reply_to, refs, norm_subject, "
            "subject, from_json, to_json, cc_json, reply_to_json, date, internal_date, "
            "flags_system, flags_keywords, size, has_attachments, snippet, mod_seq FROM messages "
            "WHERE id = ?",
            {id}, [](const SQLRow& row) {
                MessageIndexFields f;
                f.accountID = AccountID(row.text(0));
                f.folderID = row.id<FolderID>(1);
                f.uid = row.optionalID<IMAPUID>(2);
                if (auto v = row.optionalText(3)) {
                    f.threading.messageID = InternetMessageID::normalizing(*v);
                }
                for (const auto& s : StorageCodec::decodeStrings(row.text(4))) {
                    if (auto mid = InternetMessageID::normalizing(s)) {
                        f.threading.inReplyTo.push_back(*mid);
                    }
                }
                for (const auto& s : StorageCodec::decodeStrings(row.text(5))) {
                    if (auto mid = InternetMessageID::normalizing(s)) {
                        f.threading.references.push_back(*mid);
                    }
                }
                f.threading.normalizedSubject = row.text(6);
                f.subject = row.text(7);
                f.from = StorageCodec::decodeAddresses(row.text(8));
                f.to = StorageCodec::decodeAddresses(row.text(9));
                f.cc = StorageCodec::decodeAddresses(row.text(10));
                f.replyTo = StorageCodec::decodeAddresses(row.text(11));
                f.date = row.date(12);
                f.internalDate = row.optionalDate(13);
                f.flags.system = row.int64(14);
                f.flags.keywords = StorageCodec::decodeStrings(row.text(15));
                f.size = row.int64(16);
                f.hasAttachments = row.boolean(17);
                f.snippet = row.optionalText(18);
                f.modSeq = row.optionalID<ModSeq>(19);
                return f;
            });
    });
}

void SQLiteMailStore::moveLocally(MessageID id, FolderID destination) {
    write([&](SQLiteDatabase& db) {
        auto source = db.queryOne<std::pair<std::string, std::int64_t>>(
            "SELECT account_id, folder_id FROM messages WHERE id = ?", {id},
            [](const SQLRow& row) { return std::make_pair(row.text(0), row.int64(1)); });
        if (!source) throw storageError("message not found", StorageFailureKind::notFound);
        auto target =
            db.queryOne<std::string>("SELECT account_id FROM folders WHERE id = ?", {destination},
                                     [](const SQLRow& row) { return row.text(0); });
        if (!target) throw storageError("folder not found", StorageFailureKind::notFound);
        if (*target != source->first) throw storageError("cannot move across accounts");
        db.run(
            "UPDATE messages SET folder_id = ?, uid = NULL, local_state = 'pendingMove' WHERE "
            "id = ?",
            {destination, id});
        recomputeFolderCounts(db, FolderID(source->second));
        recomputeFolderCounts(db, destination);
    });
}

void SQLiteMailStore::bindMovedMessage(MessageID id, FolderID folder, IMAPUID uid) {
    write([&](SQLiteDatabase& db) {
        auto thread = db.scalarInt("SELECT thread_id FROM messages WHERE id = ?", {id});
        if (!thread) throw storageError("message not found", StorageFailureKind::notFound);
        if (!db.scalarInt("SELECT 1 FROM folders WHERE id = ?", {folder})) {
            throw storageError("folder not found", StorageFailureKind::notFound);
        }
        struct Duplicate {
            MessageID id;
            ThreadID thread;
            std::int64_t flags;
            std::string keywords;
            std::optional<std::int64_t> modSeq;
        };
        auto dup = db.queryOne<Duplicate>(
            "SELECT id, thread_id, flags_system, flags_keywords, mod_seq FROM messages WHERE "
            "folder_id = ? AND uid = ? AND id != ?",
            {folder, uid, id}, [](const SQLRow& row) {
                return Duplicate{row.id<MessageID>(0), row.id<ThreadID>(1), row.int64(2),
                                 row.text(3), row.optionalInt64(4)};
            });
        if (dup) {
            db.run(
                "UPDATE messages SET flags_system = ?, flags_keywords = ?, mod_seq = ?, "
                "thread_id = ? WHERE id = ?",
                {dup->flags, dup->keywords, dup->modSeq, dup->thread, id});
            db.run(
                "UPDATE bodies SET message_id = ? WHERE message_id = ? AND NOT EXISTS (SELECT 1 "
                "FROM bodies WHERE message_id = ?)",
                {id, dup->id, id});
            db.run("UPDATE OR IGNORE attachments SET message_id = ? WHERE message_id = ?",
                   {id, dup->id});
            db.run(
                "UPDATE messages SET body_state = (SELECT body_state FROM messages WHERE id = ?) "
                "WHERE id = ? AND body_state = 'notFetched'",
                {dup->id, id});
            removeMessagesWhere(db, "id = ?", {dup->id});
            if (dup->thread.value != *thread) deleteThreadIfEmpty(db, ThreadID(*thread));
        }
        db.run("UPDATE messages SET folder_id = ?, uid = ?, local_state = 'synced' WHERE id = ?",
               {folder, uid, id});
        recomputeFolderCounts(db, folder);
    });
}

void SQLiteMailStore::deleteLocally(MessageID id) {
    write([&](SQLiteDatabase& db) {
        auto folder = db.scalarInt("SELECT folder_id FROM messages WHERE id = ?", {id});
        if (!folder) throw storageError("message not found", StorageFailureKind::notFound);
        db.run("UPDATE messages SET local_state = 'pendingDelete' WHERE id = ?", {id});
        recomputeFolderCounts(db, FolderID(*folder));
    });
}

}  // namespace mailcore
