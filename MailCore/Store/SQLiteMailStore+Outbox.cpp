// The store's outbox operations: queueing, the due-items query, claims,
// completions, retries, cancellation and launch recovery. Every write is one
// "BEGIN IMMEDIATE" transaction through `write`.
#include <nlohmann/json.hpp>

#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/StorageCodec.h"

namespace mailcore {
namespace {

const std::string itemColumns =
    "SELECT seq, id, account_id, payload, state, created_at, not_before, attempt_count, "
    "last_error";

MailError storeError(std::string_view detail, StorageFailureKind kind) {
    return MailError::storage(kind, std::string(detail));
}

DecodedOutboxRow rowFrom(const SQLRow& row) {
    DecodedOutboxRow out;
    out.seq = row.int64(0);
    OutboxItem& item = out.item;
    item.id = OutboxItemID(row.text(1));
    item.accountID = AccountID(row.text(2));
    item.operation =
        OutboxOperation::fromJson(StorageCodec::decodeBytes(row.blob(3), "OutboxOperation"));
    auto state = outboxStateFromRaw(row.text(4));
    if (!state) {
        throw storeError("stored value is not decodable as OutboxItemState",
                         StorageFailureKind::other);
    }
    item.state = *state;
    item.createdAt = row.date(5);
    item.notBefore = row.date(6);
    item.attemptCount = row.int64(7);
    if (auto error = row.optionalBlob(8)) {
        item.lastError = MailError::fromJson(StorageCodec::decodeBytes(*error, "MailError"));
    }
    return out;
}

Blob encode(const OutboxOperation& operation) {
    return StorageCodec::encodeBytes(operation.toJson());
}

Blob encode(const MailError& error) { return StorageCodec::encodeBytes(error.toJson()); }

void requireAccount(SQLiteDatabase& db, const AccountID& account) {
    if (!db.scalarInt("SELECT 1 FROM accounts WHERE id = ?", {account})) {
        throw storeError(OutboxText::accountNotFound, StorageFailureKind::notFound);
    }
}

bool pendingDelete(SQLiteDatabase& db, const AccountID& account, MessageID message) {
    return db
        .scalarInt(
            "SELECT 1 FROM outbox WHERE account_id = ? AND target_message_id = ? AND kind = "
            "'delete' AND state = 'queued'",
            {account, message})
        .has_value();
}

std::vector<DecodedOutboxRow> queued(SQLiteDatabase& db, const AccountID& account,
                                     MessageID message) {
    return db.query<DecodedOutboxRow>(
        itemColumns +
            ", kind FROM outbox\nWHERE account_id = ? AND target_message_id = ? AND state = "
            "'queued' ORDER BY seq",
        {account, message}, rowFrom);
}

std::optional<DecodedOutboxRow> draftSave(SQLiteDatabase& db, const AccountID& account,
                                          const DraftID& draft) {
    return db.queryOne<DecodedOutboxRow>(
        itemColumns +
            " FROM outbox\nWHERE account_id = ? AND draft_id = ? AND kind = 'saveDraft' AND "
            "state = 'queued' ORDER BY seq LIMIT 1",
        {account, draft}, rowFrom);
}

std::optional<DecodedOutboxRow> itemByID(SQLiteDatabase& db, const OutboxItemID& id) {
    return db.queryOne<DecodedOutboxRow>(itemColumns + " FROM outbox WHERE id = ?", {id}, rowFrom);
}

void rewritePayload(SQLiteDatabase& db, const OutboxItemID& id, const OutboxOperation& op) {
    db.run("UPDATE outbox SET payload = ? WHERE id = ?", {encode(op), id});
}

std::vector<DecodedOutboxRow> due(SQLiteDatabase& db, Date now,
                                  const std::optional<AccountID>& account, int limit) {
    return db.query<DecodedOutboxRow>(
        "SELECT o.seq, o.id, o.account_id, o.payload, o.state, o.created_at, o.not_before, "
        "o.attempt_count, o.last_error\n"
        "FROM outbox o\n"
        "WHERE o.state = 'queued' AND o.not_before <= ?1 AND (?2 IS NULL OR o.account_id = ?2)\n"
        "  AND NOT EXISTS (\n"
        "    SELECT 1 FROM outbox b WHERE b.id != o.id AND b.state IN ('queued', 'inFlight')\n"
        "      AND ((o.target_message_id IS NOT NULL AND b.target_message_id = "
        "o.target_message_id)\n"
        "           OR (o.draft_id IS NOT NULL AND b.draft_id = o.draft_id))\n"
        "      AND (b.created_at < o.created_at OR (b.created_at = o.created_at AND b.seq < "
        "o.seq)))\n"
        "ORDER BY o.not_before, o.created_at, o.id LIMIT ?3",
        {now, account, limit}, rowFrom);
}

bool claim(SQLiteDatabase& db, const OutboxItemID& id) {
    return db.run(
               "UPDATE outbox SET state = 'inFlight', attempt_count = attempt_count + 1 WHERE "
               "id = ? AND state = 'queued'",
               {id}) == 1;
}

bool progress(SQLiteDatabase& db, const OutboxItemID& id, const MailError& error) {
    return db.run("UPDATE outbox SET last_error = ? WHERE id = ? AND state = 'inFlight'",
                  {encode(error), id}) == 1;
}

// "item is in flight" when the item exists, else "outbox item not found".
[[noreturn]] void failCancel(SQLiteDatabase& db, const OutboxItemID& id) {
    if (db.scalarInt("SELECT 1 FROM outbox WHERE id = ?", {id})) {
        throw storeError(OutboxText::itemInFlight, StorageFailureKind::constraintViolation);
    }
    throw storeError(OutboxText::itemNotFound, StorageFailureKind::notFound);
}

}  // namespace

OutboxItem SQLiteMailStore::enqueue(const AccountID& account, const OutboxOperation& operation,
                                    Date now, std::optional<Date> notBefore) {
    return write([&](SQLiteDatabase& db) -> OutboxItem {
        requireAccount(db, account);
        using Kind = OutboxOperation::Kind;
        if (auto target = operation.targetMessageID()) {
            if (pendingDelete(db, account, *target)) {
                throw storeError(OutboxText::pendingDelete,
                                 StorageFailureKind::constraintViolation);
            }
            if (operation.kind() == Kind::setFlags) {
                auto items = queued(db, account, *target);
                for (auto it = items.rbegin(); it != items.rend(); ++it) {
                    if (it->item.operation.kind() != Kind::setFlags) continue;
                    OutboxItem item = it->item;
                    item.operation = OutboxOperation::setFlags(
                        item.operation.message(), item.operation.flags().folded(operation.flags()));
                    rewritePayload(db, item.id, item.operation);
                    return item;
                }
            }
        }
        if (operation.kind() == Kind::saveDraft) {
            if (auto existing = draftSave(db, account, operation.draftSave().draftID)) {
                OutboxItem item = existing->item;
                item.operation = operation;
                rewritePayload(db, item.id, item.operation);
                return item;
            }
        }
        OutboxItem item;
        item.id = generateOutboxItemID();
        item.accountID = account;
        item.operation = operation;
        item.createdAt = now;
        item.notBefore = notBefore.value_or(now);
        db.run(
            "INSERT INTO outbox(id, account_id, kind, target_message_id, target_folder_id, "
            "draft_id, payload, state,\n                   created_at, not_before, "
            "attempt_count)\nVALUES (?, ?, ?, ?, ?, ?, ?, 'queued', ?, ?, 0)",
            {item.id, account, rawValue(operation.kind()), operation.targetMessageID(),
             operation.targetFolderID(), operation.draftID(), encode(operation), item.createdAt,
             item.notBefore});
        return item;
    });
}

OutboxItem SQLiteMailStore::enqueueFlags(const AccountID& account, const OutboxMessageRef& message,
                                         const FlagChange& change, Date now) {
    return enqueue(account, OutboxOperation::setFlags(message, change), now);
}

bool SQLiteMailStore::hasPendingDelete(const AccountID& account, MessageID message) {
    return read([&](SQLiteDatabase& db) { return pendingDelete(db, account, message); });
}

std::vector<DecodedOutboxRow> SQLiteMailStore::queuedItems(const AccountID& account,
                                                           MessageID message) {
    return read([&](SQLiteDatabase& db) { return queued(db, account, message); });
}

std::optional<DecodedOutboxRow> SQLiteMailStore::pendingSend(const AccountID& account,
                                                             const DraftID& draft) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<DecodedOutboxRow>(
            itemColumns +
                " FROM outbox\nWHERE account_id = ? AND draft_id = ? AND kind = 'send' AND state "
                "IN ('queued', 'inFlight') ORDER BY seq LIMIT 1",
            {account, draft}, rowFrom);
    });
}

std::optional<DecodedOutboxRow> SQLiteMailStore::queuedDraftSave(const AccountID& account,
                                                                 const DraftID& draft) {
    return read([&](SQLiteDatabase& db) { return draftSave(db, account, draft); });
}

void SQLiteMailStore::rewriteOutboxPayload(const OutboxItemID& id,
                                           const OutboxOperation& operation) {
    write([&](SQLiteDatabase& db) { rewritePayload(db, id, operation); });
}

std::vector<DecodedOutboxRow> SQLiteMailStore::dueItems(Date now,
                                                        const std::optional<AccountID>& account,
                                                        int limit) {
    return read([&](SQLiteDatabase& db) { return due(db, now, account, limit); });
}

bool SQLiteMailStore::markInFlight(const OutboxItemID& id) {
    return write([&](SQLiteDatabase& db) { return claim(db, id); });
}

std::optional<DecodedOutboxRow> SQLiteMailStore::claimNextDue(
    Date now, const std::optional<AccountID>& account, int scanLimit) {
    return write([&](SQLiteDatabase& db) -> std::optional<DecodedOutboxRow> {
        for (auto& row : due(db, now, account, scanLimit)) {
            if (!claim(db, row.item.id)) continue;
            row.item.state = OutboxItemState::inFlight;
            row.item.attemptCount += 1;
            return row;
        }
        return std::nullopt;
    });
}

void SQLiteMailStore::complete(const OutboxItemID& id) {
    write([&](SQLiteDatabase& db) { db.run("DELETE FROM outbox WHERE id = ?", {id}); });
}

void SQLiteMailStore::retryLater(const OutboxItemID& id, Date notBefore, const MailError& error,
                                 bool counts) {
    write([&](SQLiteDatabase& db) {
        db.run(
            "UPDATE outbox SET state = 'queued', not_before = ?, last_error = ?,\n    "
            "attempt_count = CASE WHEN ? THEN attempt_count ELSE MAX(0, attempt_count - 1) END "
            "WHERE id = ?",
            {notBefore, encode(error), counts, id});
    });
}

void SQLiteMailStore::failPermanently(const OutboxItemID& id, const MailError& error, bool counts) {
    write([&](SQLiteDatabase& db) {
        db.run(
            "UPDATE outbox SET state = 'failed', last_error = ?,\n    attempt_count = CASE WHEN "
            "? THEN attempt_count ELSE MAX(0, attempt_count - 1) END WHERE id = ?",
            {encode(error), counts, id});
    });
}

bool SQLiteMailStore::release(const OutboxItemID& id, Date notBefore) {
    return write([&](SQLiteDatabase& db) {
        return db.run(
                   "UPDATE outbox SET state = 'queued', not_before = ?, attempt_count = MAX(0, "
                   "attempt_count - 1)\nWHERE id = ? AND state = 'inFlight'",
                   {notBefore, id}) == 1;
    });
}

bool SQLiteMailStore::recordProgress(const OutboxItemID& id, const MailError& error) {
    return write([&](SQLiteDatabase& db) { return progress(db, id, error); });
}

bool SQLiteMailStore::retryFailed(const OutboxItemID& id, Date now) {
    return write([&](SQLiteDatabase& db) {
        if (!db.scalarInt("SELECT 1 FROM outbox WHERE id = ?", {id})) {
            throw storeError(OutboxText::itemNotFound, StorageFailureKind::notFound);
        }
        return db.run(
                   "UPDATE outbox SET state = 'queued', attempt_count = 0, not_before = ?, "
                   "last_error = NULL WHERE id = ? AND state = 'failed'",
                   {now, id}) == 1;
    });
}

void SQLiteMailStore::reschedule(const OutboxItemID& id, Date notBefore) {
    write([&](SQLiteDatabase& db) {
        db.run("UPDATE outbox SET not_before = ? WHERE id = ?", {notBefore, id});
    });
}

void SQLiteMailStore::cancel(const OutboxItemID& id) {
    write([&](SQLiteDatabase& db) {
        if (db.run("DELETE FROM outbox WHERE id = ? AND state != 'inFlight'", {id}) == 0) {
            failCancel(db, id);
        }
    });
}

std::vector<DecodedOutboxRow> SQLiteMailStore::recoverInFlight() {
    return write([&](SQLiteDatabase& db) {
        auto rows = db.query<DecodedOutboxRow>(
            itemColumns + " FROM outbox WHERE state = 'inFlight' ORDER BY seq", {}, rowFrom);
        for (auto& row : rows) {
            if (row.item.operation.kind() != OutboxOperation::Kind::send) continue;
            progress(db, row.item.id, mayHaveBeenSentError());
            row.item.lastError = mayHaveBeenSentError();
        }
        db.run("UPDATE outbox SET state = 'queued' WHERE state = 'inFlight'");
        for (auto& row : rows) row.item.state = OutboxItemState::queued;
        return rows;
    });
}

std::optional<DecodedOutboxRow> SQLiteMailStore::outboxItem(const OutboxItemID& id) {
    return read([&](SQLiteDatabase& db) { return itemByID(db, id); });
}

std::vector<DecodedOutboxRow> SQLiteMailStore::outboxItems(
    const std::optional<AccountID>& account) {
    return read([&](SQLiteDatabase& db) {
        return db.query<DecodedOutboxRow>(
            itemColumns +
                " FROM outbox WHERE (?1 IS NULL OR account_id = ?1) ORDER BY created_at, seq",
            {account}, rowFrom);
    });
}

std::vector<DecodedOutboxRow> SQLiteMailStore::outboxItemsTargeting(FolderID folder) {
    return read([&](SQLiteDatabase& db) {
        return db.query<DecodedOutboxRow>(
            itemColumns +
                " FROM outbox WHERE target_folder_id = ? AND state IN ('queued', 'failed', "
                "'inFlight')",
            {folder}, rowFrom);
    });
}

void SQLiteMailStore::convertSendToDraft(const OutboxItemID& id, const DraftRecord& draft) {
    write([&](SQLiteDatabase& db) {
        if (db.run("DELETE FROM outbox WHERE id = ? AND state != 'inFlight'", {id}) == 0) {
            failCancel(db, id);
        }
        saveDraft(draft);  // joins this transaction
    });
}

}  // namespace mailcore
