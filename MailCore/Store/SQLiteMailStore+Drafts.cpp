// The store's local drafts.
#include <nlohmann/json.hpp>

#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/StorageCodec.h"

namespace mailcore {
namespace {

DraftRecord draftFrom(const SQLRow& row) {
    DraftRecord d;
    d.id = DraftID(row.text(0));
    d.accountID = AccountID(row.text(1));
    d.message =
        OutgoingMessage::fromJson(StorageCodec::decodeBytes(row.blob(2), "OutgoingMessage"));
    d.sourceMessageID = row.optionalID<MessageID>(3);
    d.updatedAt = row.date(4);
    return d;
}

}  // namespace

void SQLiteMailStore::saveDraft(const DraftRecord& draft) {
    write([&](SQLiteDatabase& db) {
        if (!db.scalarInt("SELECT 1 FROM accounts WHERE id = ?", {draft.accountID})) {
            throw MailError::storage(StorageFailureKind::notFound,
                                     std::string(OutboxText::accountNotFound));
        }
        db.run(
            "INSERT INTO drafts(id, account_id, payload, source_message_id, updated_at) VALUES "
            "(?, ?, ?, ?, ?)\nON CONFLICT(id) DO UPDATE SET account_id = excluded.account_id, "
            "payload = excluded.payload,\n    source_message_id = excluded.source_message_id, "
            "updated_at = excluded.updated_at",
            {draft.id, draft.accountID, StorageCodec::encodeBytes(draft.message.toJson()),
             draft.sourceMessageID, draft.updatedAt});
    });
}

std::optional<DraftRecord> SQLiteMailStore::draft(const DraftID& id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<DraftRecord>(
            "SELECT id, account_id, payload, source_message_id, updated_at FROM drafts WHERE id = "
            "?",
            {id}, draftFrom);
    });
}

std::vector<DraftRecord> SQLiteMailStore::drafts(const std::optional<AccountID>& account) {
    return read([&](SQLiteDatabase& db) {
        return db.query<DraftRecord>(
            "SELECT id, account_id, payload, source_message_id, updated_at FROM drafts\nWHERE "
            "(?1 IS NULL OR account_id = ?1) ORDER BY updated_at DESC, id",
            {account}, draftFrom);
    });
}

void SQLiteMailStore::deleteDraft(const DraftID& id) {
    write([&](SQLiteDatabase& db) { db.run("DELETE FROM drafts WHERE id = ?", {id}); });
}

}  // namespace mailcore
