#include "MailCore/Engine/SubmissionJournal.h"

namespace mailcore {

SubmissionJournal::SubmissionJournal(SQLiteMailStore& store) : store_(store) {
    store_.write([](SQLiteDatabase& db) {
        db.execute(
            "CREATE TABLE IF NOT EXISTS submission_journal (item_id TEXT PRIMARY KEY, "
            "stage TEXT NOT NULL, message BLOB NOT NULL, updated_at REAL NOT NULL)");
    });
}

std::optional<SubmissionJournal::Entry> SubmissionJournal::entry(const OutboxItemID& item) {
    return store_.read([&](SQLiteDatabase& db) {
        return db.queryOne<Entry>(
            "SELECT stage, message FROM submission_journal WHERE item_id = ?", {item},
            [](const SQLRow& row) {
                const Blob blob = row.blob(1);
                return Entry{row.text(0) == "accepted" ? Stage::accepted : Stage::endWritten,
                             std::string(blob.begin(), blob.end())};
            });
    });
}

void SubmissionJournal::record(const OutboxItemID& item, Stage stage, const std::string& message) {
    store_.write([&](SQLiteDatabase& db) {
        db.run(
            "INSERT INTO submission_journal(item_id, stage, message, updated_at) "
            "VALUES (?, ?, ?, ?) ON CONFLICT(item_id) DO UPDATE SET stage = excluded.stage, "
            "message = excluded.message, updated_at = excluded.updated_at",
            {item, stage == Stage::accepted ? "accepted" : "endWritten",
             Blob(message.begin(), message.end()), systemClock()()});
    });
}

void SubmissionJournal::forget(const OutboxItemID& item) {
    store_.write([&](SQLiteDatabase& db) {
        db.run("DELETE FROM submission_journal WHERE item_id = ?", {item});
    });
}

void SubmissionJournal::prune() {
    store_.write([](SQLiteDatabase& db) {
        db.run("DELETE FROM submission_journal WHERE item_id NOT IN (SELECT id FROM outbox)");
    });
}

}  // namespace mailcore
