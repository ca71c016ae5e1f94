#include "MailCore/Store/StorageMigrator.h"

#include <fmt/format.h>

#include "MailCore/Store/StorageIndexer.h"

namespace mailcore {
namespace {

const char* const schemaMigrationsTable =
    "CREATE TABLE schema_migrations (\n"
    "    version INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL, applied_at REAL NOT NULL)";

const char* const ensureSchemaMigrationsTable =
    "CREATE TABLE IF NOT EXISTS schema_migrations (\n"
    "    version INTEGER PRIMARY KEY NOT NULL, name TEXT NOT NULL, applied_at REAL NOT NULL)";

const char* const searchTable =
    "CREATE VIRTUAL TABLE message_search USING fts5(\n"
    "    subject, sender, recipients, snippet, body,\n"
    "    tokenize = 'unicode61 remove_diacritics 2', prefix = '2 3')";

}  // namespace

const std::vector<std::string>& StorageMigrator::baseSchemaStatements() {
    static const std::vector<std::string> statements{
        schemaMigrationsTable,
        "CREATE TABLE accounts (\n"
        "    id TEXT PRIMARY KEY NOT NULL,\n"
        "    config BLOB NOT NULL,\n"
        "    created_at REAL NOT NULL)",
        "CREATE TABLE folders (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE,\n"
        "    path TEXT NOT NULL,\n"
        "    delimiter TEXT,\n"
        "    role TEXT NOT NULL,\n"
        "    server_role TEXT NOT NULL,\n"
        "    role_override INTEGER NOT NULL DEFAULT 0,\n"
        "    attributes TEXT NOT NULL DEFAULT '[]',\n"
        "    uid_validity INTEGER,\n"
        "    uid_next INTEGER,\n"
        "    highest_mod_seq INTEGER,\n"
        "    lowest_synced_uid INTEGER,\n"
        "    initial_window_complete INTEGER NOT NULL DEFAULT 0,\n"
        "    server_exists INTEGER,\n"
        "    last_synced_at REAL,\n"
        "    unread_count INTEGER NOT NULL DEFAULT 0,\n"
        "    total_count INTEGER NOT NULL DEFAULT 0,\n"
        "    UNIQUE (account_id, path))",
        "CREATE INDEX idx_folders_role ON folders(role, account_id)",
        "CREATE TABLE threads (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE)",
        "CREATE INDEX idx_threads_account ON threads(account_id)",
        "CREATE TABLE thread_redirects (\n"
        "    old_id INTEGER PRIMARY KEY NOT NULL,\n"
        "    new_id INTEGER NOT NULL,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE)",
        "CREATE INDEX idx_redirects_new ON thread_redirects(new_id)",
        "CREATE TABLE messages (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE,\n"
        "    folder_id INTEGER NOT NULL REFERENCES folders(id) ON DELETE CASCADE,\n"
        "    thread_id INTEGER NOT NULL REFERENCES threads(id),\n"
        "    uid INTEGER,\n"
        "    message_id_key TEXT,\n"
        "    message_id_value TEXT,\n"
        "    in_reply_to TEXT NOT NULL DEFAULT '[]',\n"
        "    refs TEXT NOT NULL DEFAULT '[]',\n"
        "    norm_subject TEXT NOT NULL DEFAULT '',\n"
        "    subject TEXT NOT NULL DEFAULT '',\n"
        "    from_json TEXT NOT NULL DEFAULT '[]',\n"
        "    to_json TEXT NOT NULL DEFAULT '[]',\n"
        "    cc_json TEXT NOT NULL DEFAULT '[]',\n"
        "    reply_to_json TEXT NOT NULL DEFAULT '[]',\n"
        "    date REAL NOT NULL,\n"
        "    internal_date REAL,\n"
        "    flags_system INTEGER NOT NULL DEFAULT 0,\n"
        "    flags_keywords TEXT NOT NULL DEFAULT '[]',\n"
        "    size INTEGER NOT NULL DEFAULT 0,\n"
        "    has_attachments INTEGER NOT NULL DEFAULT 0,\n"
        "    snippet TEXT,\n"
        "    mod_seq INTEGER,\n"
        "    body_state TEXT NOT NULL DEFAULT 'notFetched',\n"
        "    local_state TEXT NOT NULL DEFAULT 'synced')",
        "CREATE UNIQUE INDEX idx_messages_folder_uid ON messages(folder_id, uid) WHERE uid IS NOT "
        "NULL",
        "CREATE INDEX idx_messages_folder_date ON messages(folder_id, date DESC, id DESC)",
        "CREATE INDEX idx_messages_folder_state ON messages(folder_id, local_state, flags_system)",
        "CREATE INDEX idx_messages_thread ON messages(thread_id)",
        "CREATE INDEX idx_messages_account_msgid ON messages(account_id, message_id_key)",
        "CREATE INDEX idx_messages_account_subject ON messages(account_id, norm_subject)",
        "CREATE TABLE message_refs (\n"
        "    message_id INTEGER NOT NULL REFERENCES messages(id) ON DELETE CASCADE,\n"
        "    ref_key TEXT NOT NULL,\n"
        "    PRIMARY KEY (message_id, ref_key)) WITHOUT ROWID",
        "CREATE INDEX idx_refs_key ON message_refs(ref_key)",
        "CREATE TABLE participants (\n"
        "    message_id INTEGER NOT NULL REFERENCES messages(id) ON DELETE CASCADE,\n"
        "    email TEXT NOT NULL,\n"
        "    PRIMARY KEY (message_id, email)) WITHOUT ROWID",
        "CREATE INDEX idx_participants_email ON participants(email, message_id)",
        "CREATE TABLE bodies (\n"
        "    message_id INTEGER PRIMARY KEY NOT NULL REFERENCES messages(id) ON DELETE CASCADE,\n"
        "    text TEXT,\n"
        "    html TEXT,\n"
        "    structure BLOB,\n"
        "    is_truncated INTEGER NOT NULL DEFAULT 0,\n"
        "    fetched_at REAL NOT NULL,\n"
        "    bytes INTEGER NOT NULL DEFAULT 0)",
        "CREATE INDEX idx_bodies_fetched ON bodies(fetched_at, message_id)",
        "CREATE TABLE attachments (\n"
        "    message_id INTEGER NOT NULL REFERENCES messages(id) ON DELETE CASCADE,\n"
        "    part_id TEXT NOT NULL,\n"
        "    position INTEGER NOT NULL,\n"
        "    filename TEXT NOT NULL,\n"
        "    mime_type TEXT NOT NULL,\n"
        "    size INTEGER NOT NULL,\n"
        "    content_id TEXT,\n"
        "    is_inline INTEGER NOT NULL DEFAULT 0,\n"
        "    cached_path TEXT,\n"
        "    PRIMARY KEY (message_id, part_id)) WITHOUT ROWID",
        "CREATE TABLE outbox (\n"
        "    seq INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    id TEXT NOT NULL UNIQUE,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE,\n"
        "    kind TEXT NOT NULL,\n"
        "    target_message_id INTEGER,\n"
        "    target_folder_id INTEGER,\n"
        "    draft_id TEXT,\n"
        "    payload BLOB NOT NULL,\n"
        "    state TEXT NOT NULL,\n"
        "    created_at REAL NOT NULL,\n"
        "    not_before REAL NOT NULL,\n"
        "    attempt_count INTEGER NOT NULL DEFAULT 0,\n"
        "    last_error BLOB)",
        "CREATE INDEX idx_outbox_due ON outbox(state, not_before, created_at, id)",
        "CREATE INDEX idx_outbox_target ON outbox(target_message_id)",
        "CREATE INDEX idx_outbox_draft ON outbox(draft_id)",
        "CREATE INDEX idx_outbox_folder ON outbox(target_folder_id)",
        "CREATE TABLE drafts (\n"
        "    id TEXT PRIMARY KEY NOT NULL,\n"
        "    account_id TEXT NOT NULL REFERENCES accounts(id) ON DELETE CASCADE,\n"
        "    payload BLOB NOT NULL,\n"
        "    source_message_id INTEGER,\n"
        "    updated_at REAL NOT NULL)",
        "CREATE INDEX idx_drafts_account ON drafts(account_id, updated_at DESC)",
        "CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value BLOB)",
    };
    return statements;
}

const std::vector<std::string>& StorageMigrator::workflowLedgerStatements() {
    static const std::vector<std::string> statements = {
        // Per workflow: the last message it has looked at, its last scheduled
        // run, consecutive failures and why the engine paused it.
        "CREATE TABLE workflow_cursors (\n"
        "    workflow_id TEXT PRIMARY KEY NOT NULL,\n"
        "    last_message_id INTEGER NOT NULL DEFAULT 0,\n"
        "    last_scheduled_at REAL,\n"
        "    failures INTEGER NOT NULL DEFAULT 0,\n"
        "    pause_reason TEXT)",
        // What a workflow has handled once and for all: "m<message>" for new
        // mail, "t<thread>" for missing replies, "s<time>" for scheduled runs.
        "CREATE TABLE workflow_ledger (\n"
        "    workflow_id TEXT NOT NULL,\n"
        "    subject TEXT NOT NULL,\n"
        "    handled_at REAL NOT NULL,\n"
        "    PRIMARY KEY (workflow_id, subject)) WITHOUT ROWID",
        "CREATE TABLE workflow_runs (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    workflow_id TEXT NOT NULL,\n"
        "    trigger TEXT NOT NULL,\n"
        "    started_at REAL NOT NULL,\n"
        "    examined INTEGER NOT NULL DEFAULT 0,\n"
        "    matched INTEGER NOT NULL DEFAULT 0,\n"
        "    effects INTEGER NOT NULL DEFAULT 0,\n"
        "    outcome TEXT NOT NULL,\n"
        "    detail TEXT NOT NULL DEFAULT '')",
        "CREATE INDEX idx_workflow_runs ON workflow_runs(workflow_id, id DESC)",
        "CREATE TABLE workflow_effects (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    workflow_id TEXT NOT NULL,\n"
        "    at REAL NOT NULL,\n"
        "    kind TEXT NOT NULL,\n"
        "    message_id INTEGER,\n"
        "    is_draft INTEGER NOT NULL DEFAULT 0,\n"
        "    detail TEXT NOT NULL DEFAULT '')",
        "CREATE INDEX idx_workflow_effects ON workflow_effects(workflow_id, at)",
        // What workflows leave for the person: notices, notifications,
        // reminders and collection entries.
        "CREATE TABLE workflow_outputs (\n"
        "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
        "    workflow_id TEXT NOT NULL,\n"
        "    kind TEXT NOT NULL,\n"
        "    message_id INTEGER,\n"
        "    title TEXT NOT NULL DEFAULT '',\n"
        "    body TEXT NOT NULL DEFAULT '',\n"
        "    created_at REAL NOT NULL,\n"
        "    due_at REAL)",
        "CREATE INDEX idx_workflow_outputs ON workflow_outputs(kind, created_at)",
        // The AI provider's verdicts, one per message and condition.
        "CREATE TABLE ai_judgements (\n"
        "    message_id INTEGER NOT NULL,\n"
        "    condition_key TEXT NOT NULL,\n"
        "    verdict INTEGER NOT NULL,\n"
        "    reason TEXT NOT NULL DEFAULT '',\n"
        "    judged_at REAL NOT NULL,\n"
        "    PRIMARY KEY (message_id, condition_key)) WITHOUT ROWID",
    };
    return statements;
}

std::vector<Migration> StorageMigrator::standardMigrations() {
    return {
        Migration{1, "base schema",
                  [](SQLiteDatabase& db) {
                      for (const auto& statement : baseSchemaStatements()) db.execute(statement);
                  }},
        Migration{2, "full-text search index",
                  [](SQLiteDatabase& db) {
                      db.execute(searchTable);
                      StorageIndexer::rebuildAll(db);
                  }},
        Migration{3, "workflow ledger",
                  [](SQLiteDatabase& db) {
                      for (const auto& statement : workflowLedgerStatements())
                          db.execute(statement);
                  }},
    };
}

void StorageMigrator::migrate(SQLiteDatabase& db, std::optional<std::int64_t> upTo,
                              Date now) const {
    if (!db.isOpen()) throw MailError::storage(StorageFailureKind::ioError, "store is closed");
    std::int64_t current = db.scalarInt("PRAGMA user_version").value_or(0);
    for (const auto& migration : migrations_) {
        if (migration.version <= current) continue;
        if (upTo && migration.version > *upTo) break;
        try {
            db.execute("BEGIN IMMEDIATE");
            try {
                // Version 1 creates the table itself, on a fresh file only.
                if (migration.version != 1) db.execute(ensureSchemaMigrationsTable);
                migration.body(db);
                db.run("INSERT INTO schema_migrations(version, name, applied_at) VALUES (?, ?, ?)",
                       {migration.version, migration.name, now});
                db.execute(fmt::format("PRAGMA user_version = {}", migration.version));
                db.execute("COMMIT");
            } catch (...) {
                try {
                    if (db.isOpen()) db.execute("ROLLBACK");
                } catch (const MailError&) {
                }
                throw;
            }
        } catch (const MailError& error) {
            throw MailError::storage(
                StorageFailureKind::migrationFailed,
                fmt::format("migration {} failed: {}", migration.version, error.what()));
        }
        current = migration.version;
    }
}

}  // namespace mailcore
