#include "MailCore/Store/SQLiteMailStore.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "MailCore/Store/StorageCodec.h"
#include "MailCore/Store/StorageMigrator.h"

namespace mailcore {
namespace {

MailError storageError(std::string detail, StorageFailureKind kind = StorageFailureKind::other) {
    return MailError::storage(kind, std::move(detail));
}

void restrictPermissions(const std::string& path) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::string file = path + suffix;
        ::chmod(file.c_str(), S_IRUSR | S_IWUSR);
    }
}

// Creates the directory and its missing parents with mode 0700.
bool makeDirectories(const std::filesystem::path& dir) {
    if (dir.empty()) return true;
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    if (!makeDirectories(dir.parent_path())) return false;
    return ::mkdir(dir.c_str(), S_IRWXU) == 0 || errno == EEXIST;
}

const char* const folderColumns =
    "SELECT id, account_id, path, delimiter, role, role_override, attributes, uid_validity, "
    "uid_next, highest_mod_seq, lowest_synced_uid, initial_window_complete, server_exists, "
    "last_synced_at, unread_count, total_count";

FolderRecord folderFromRow(const SQLRow& row) {
    FolderRecord f;
    f.id = row.id<FolderID>(0);
    f.accountID = AccountID(row.text(1));
    f.path = row.text(2);
    f.delimiter = row.optionalText(3);
    f.role = folderRoleFromRaw(row.text(4));
    f.roleOverride = row.boolean(5);
    f.attributes = StorageCodec::decodeStrings(row.text(6));
    f.cursor.uidValidity = row.optionalID<UIDValidity>(7);
    f.cursor.uidNext = row.optionalID<IMAPUID>(8);
    f.cursor.highestModSeq = row.optionalID<ModSeq>(9);
    f.cursor.lowestSyncedUID = row.optionalID<IMAPUID>(10);
    f.cursor.initialWindowComplete = row.boolean(11);
    f.cursor.serverExists = row.optionalInt64(12);
    f.cursor.lastSyncedAt = row.optionalDate(13);
    f.unreadCount = row.int64(14);
    f.totalCount = row.int64(15);
    return f;
}

void requireAccount(SQLiteDatabase& db, const AccountID& account) {
    if (!db.scalarInt("SELECT 1 FROM accounts WHERE id = ?", {account})) {
        throw storageError("account not found", StorageFailureKind::notFound);
    }
}

void removeFolderRows(SQLiteDatabase& db, FolderID id) {
    db.run("DELETE FROM outbox WHERE target_folder_id = ? AND state != 'inFlight'", {id});
    db.run(
        "DELETE FROM message_search WHERE rowid IN (SELECT id FROM messages WHERE folder_id = ?)",
        {id});
    db.run("DELETE FROM folders WHERE id = ?", {id});
}

}  // namespace

SQLiteMailStore::SQLiteMailStore(const StoreLocation& location, Date now) {
    std::string path = ":memory:";
    bool readOnly = false;
    if (location.filePath) {
        path = *location.filePath;
        std::filesystem::path dir = std::filesystem::path(path).parent_path();
        if (dir.empty()) dir = ".";
        if (!makeDirectories(dir)) {
            throw storageError("cannot create database directory", StorageFailureKind::ioError);
        }
        if (::access(dir.c_str(), W_OK | X_OK) != 0) {
            readOnly = true;
            if (::access(path.c_str(), R_OK) != 0) {
                throw storageError("cannot read the database in a read-only folder",
                                   StorageFailureKind::ioError);
            }
        }
    }
    auto db = std::make_unique<SQLiteDatabase>(path, readOnly);
    if (location.filePath && !readOnly) restrictPermissions(path);

    std::int64_t found = 0;
    try {
        found = db->scalarInt("PRAGMA user_version").value_or(0);
    } catch (const MailError&) {
        if (!readOnly) throw;
        // A write-ahead-logged file whose companions cannot be created in
        // this folder: nothing can change it here, so read it as immutable.
        db = std::make_unique<SQLiteDatabase>(path, true, true);
        found = db->scalarInt("PRAGMA user_version").value_or(0);
    }
    if (found > newestSchemaVersion) {
        throw storageError(fmt::format("database schema {} is newer than supported {}", found,
                                       newestSchemaVersion),
                           StorageFailureKind::schemaNewerThanSupported);
    }
    db->execute("PRAGMA foreign_keys = ON");
    if (!readOnly) {
        try {
            db->execute("PRAGMA journal_mode = WAL");
        } catch (const MailError& e) {
            // Another process holding the file: say so in plain words.
            int code = 0;
            std::sscanf(e.detail().c_str(), "sqlite %d", &code);
            if ((code & 0xff) == 5 || (code & 0xff) == 6) {
                throw storageError(e.detail() + " (database locked or busy)",
                                   StorageFailureKind::ioError);
            }
            throw;
        }
        db->execute("PRAGMA synchronous = NORMAL");
        if (location.filePath) restrictPermissions(path);
        StorageMigrator().migrate(*db, std::nullopt, now);
    } else {
        db->execute("PRAGMA query_only = ON");
    }
    db_ = std::move(db);
    readOnly_ = readOnly;
}

SQLiteMailStore::~SQLiteMailStore() = default;

SQLiteDatabase& SQLiteMailStore::database() {
    if (!db_ || !db_->isOpen()) {
        throw storageError("store is closed", StorageFailureKind::ioError);
    }
    return *db_;
}

void SQLiteMailStore::close() {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    if (db_) db_->close();
}

std::int64_t SQLiteMailStore::schemaVersion() {
    return read([](SQLiteDatabase& db) { return db.scalarInt("PRAGMA user_version").value_or(0); });
}

std::vector<AppliedMigration> SQLiteMailStore::appliedMigrations() {
    return read([](SQLiteDatabase& db) {
        return db.query<AppliedMigration>(
            "SELECT version, name, applied_at FROM schema_migrations ORDER BY version", {},
            [](const SQLRow& row) {
                return AppliedMigration{row.int64(0), row.text(1), row.date(2)};
            });
    });
}

// ---- Accounts ----

void SQLiteMailStore::saveAccount(const AccountID& id, const Json& config, Date createdAt) {
    write([&](SQLiteDatabase& db) {
        db.run(
            "INSERT INTO accounts(id, config, created_at) VALUES (?, ?, ?)\n"
            "ON CONFLICT(id) DO UPDATE SET config = excluded.config, created_at = "
            "excluded.created_at",
            {id, StorageCodec::encodeBytes(config), createdAt});
    });
}

std::optional<Json> SQLiteMailStore::accountConfig(const AccountID& id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<Json>("SELECT config FROM accounts WHERE id = ?", {id},
                                 [](const SQLRow& row) {
                                     return StorageCodec::decodeBytes(row.blob(0), "AccountConfig");
                                 });
    });
}

std::vector<Json> SQLiteMailStore::accountConfigs() {
    return read([](SQLiteDatabase& db) {
        return db.query<Json>("SELECT config FROM accounts ORDER BY created_at, rowid", {},
                              [](const SQLRow& row) {
                                  return StorageCodec::decodeBytes(row.blob(0), "AccountConfig");
                              });
    });
}

bool SQLiteMailStore::accountExists(const AccountID& id) {
    return read([&](SQLiteDatabase& db) {
        return db.scalarInt("SELECT 1 FROM accounts WHERE id = ?", {id}).has_value();
    });
}

void SQLiteMailStore::removeAccount(const AccountID& id) {
    write([&](SQLiteDatabase& db) {
        db.run(
            "DELETE FROM message_search WHERE rowid IN (SELECT id FROM messages WHERE "
            "account_id = ?)",
            {id});
        db.run("DELETE FROM accounts WHERE id = ?", {id});
    });
}

// ---- Settings ----

std::optional<Blob> SQLiteMailStore::setting(const std::string& key) {
    return read([&](SQLiteDatabase& db) -> std::optional<Blob> {
        auto value =
            db.queryOne<std::optional<Blob>>("SELECT value FROM settings WHERE key = ?", {key},
                                             [](const SQLRow& row) { return row.optionalBlob(0); });
        if (!value) return std::nullopt;
        return *value;
    });
}

void SQLiteMailStore::setSetting(const std::string& key, const std::optional<Blob>& value) {
    write([&](SQLiteDatabase& db) {
        db.run(
            "INSERT INTO settings(key, value) VALUES (?, ?) ON CONFLICT(key) DO UPDATE SET "
            "value = excluded.value",
            {key, value});
    });
}

void SQLiteMailStore::removeSetting(const std::string& key) {
    write([&](SQLiteDatabase& db) { db.run("DELETE FROM settings WHERE key = ?", {key}); });
}

// ---- Folders ----

void SQLiteMailStore::recomputeFolderCounts(SQLiteDatabase& db, FolderID folder) {
    db.run(
        "UPDATE folders SET\n"
        "  total_count = (SELECT COUNT(*) FROM messages WHERE folder_id = folders.id\n"
        "                 AND local_state != 'pendingDelete' AND (flags_system & 8) = 0),\n"
        "  unread_count = (SELECT COUNT(*) FROM messages WHERE folder_id = folders.id\n"
        "                 AND local_state != 'pendingDelete' AND (flags_system & 8) = 0 AND "
        "(flags_system & 17) = 0)\n"
        "WHERE id = ?",
        {folder});
}

FolderID SQLiteMailStore::createFolder(const AccountID& account, const FolderListing& listing) {
    return write([&](SQLiteDatabase& db) {
        requireAccount(db, account);
        db.run(
            "INSERT INTO folders(account_id, path, delimiter, role, server_role, attributes) "
            "VALUES (?, ?, ?, ?, ?, ?)",
            {account, listing.path, listing.delimiter, rawValue(listing.serverRole),
             rawValue(listing.serverRole), StorageCodec::encodeString(listing.attributes)});
        return FolderID(db.lastInsertRowID());
    });
}

std::vector<FolderRecord> SQLiteMailStore::applyFolderListing(
    const AccountID& account, const std::vector<FolderListing>& listing) {
    return write([&](SQLiteDatabase& db) {
        requireAccount(db, account);
        struct Known {
            FolderID id;
            bool roleOverride;
        };
        std::map<std::string, Known> known;
        db.forEachRow("SELECT id, path, role_override FROM folders WHERE account_id = ?", {account},
                      [&](const SQLRow& row) {
                          known.emplace(row.text(1), Known{row.id<FolderID>(0), row.boolean(2)});
                          return true;
                      });
        std::set<std::string> listed;
        for (const auto& l : listing) {
            listed.insert(l.path);
            std::string attributes = StorageCodec::encodeString(l.attributes);
            auto it = known.find(l.path);
            if (it == known.end()) {
                db.run(
                    "INSERT INTO folders(account_id, path, delimiter, role, server_role, "
                    "attributes) VALUES (?, ?, ?, ?, ?, ?)",
                    {account, l.path, l.delimiter, rawValue(l.serverRole), rawValue(l.serverRole),
                     attributes});
            } else if (it->second.roleOverride) {
                db.run(
                    "UPDATE folders SET delimiter = ?, attributes = ?, server_role = ? WHERE "
                    "id = ?",
                    {l.delimiter, attributes, rawValue(l.serverRole), it->second.id});
            } else {
                db.run(
                    "UPDATE folders SET delimiter = ?, attributes = ?, server_role = ?, role = "
                    "? WHERE id = ?",
                    {l.delimiter, attributes, rawValue(l.serverRole), rawValue(l.serverRole),
                     it->second.id});
            }
        }
        bool removed = false;
        for (const auto& [path, k] : known) {
            if (listed.count(path) == 0) {
                removeFolderRows(db, k.id);
                removed = true;
            }
        }
        if (removed) cleanUpAccountThreads(db, account);
        return db.query<FolderRecord>(
            std::string(folderColumns) + " FROM folders WHERE account_id = ? ORDER BY id",
            {account}, folderFromRow);
    });
}

std::optional<FolderRecord> SQLiteMailStore::folder(FolderID id) {
    return read([&](SQLiteDatabase& db) {
        return db.queryOne<FolderRecord>(std::string(folderColumns) + " FROM folders WHERE id = ?",
                                         {id}, folderFromRow);
    });
}

std::vector<FolderRecord> SQLiteMailStore::folders(const AccountID& account) {
    return read([&](SQLiteDatabase& db) {
        return db.query<FolderRecord>(
            std::string(folderColumns) + " FROM folders WHERE account_id = ? ORDER BY id",
            {account}, folderFromRow);
    });
}

void SQLiteMailStore::setFolderRole(FolderID id, FolderRole role) {
    write([&](SQLiteDatabase& db) {
        if (db.run("UPDATE folders SET role = ?, role_override = 1 WHERE id = ?",
                   {rawValue(role), id}) == 0) {
            throw storageError("folder not found", StorageFailureKind::notFound);
        }
    });
}

void SQLiteMailStore::resetFolderRole(FolderID id) {
    write([&](SQLiteDatabase& db) {
        if (db.run("UPDATE folders SET role = server_role, role_override = 0 WHERE id = ?", {id}) ==
            0) {
            throw storageError("folder not found", StorageFailureKind::notFound);
        }
    });
}

void SQLiteMailStore::removeFolder(FolderID id) {
    write([&](SQLiteDatabase& db) {
        auto account =
            db.queryOne<AccountID>("SELECT account_id FROM folders WHERE id = ?", {id},
                                   [](const SQLRow& row) { return AccountID(row.text(0)); });
        if (!account) return;
        removeFolderRows(db, id);
        cleanUpAccountThreads(db, *account);
    });
}

void SQLiteMailStore::renameFolder(FolderID id, const FolderListing& listing) {
    write([&](SQLiteDatabase& db) {
        if (db.run("UPDATE folders SET path = ?, delimiter = ?, attributes = ?, server_role = ?, "
                   "role = CASE WHEN role_override = 1 THEN role ELSE ? END WHERE id = ?",
                   {listing.path, listing.delimiter, StorageCodec::encodeString(listing.attributes),
                    rawValue(listing.serverRole), rawValue(listing.serverRole), id}) == 0) {
            throw storageError("folder not found", StorageFailureKind::notFound);
        }
    });
}

void SQLiteMailStore::saveSyncCursor(FolderID id, const FolderSyncCursor& c) {
    write([&](SQLiteDatabase& db) {
        if (db.run("UPDATE folders SET uid_validity = ?, uid_next = ?, highest_mod_seq = ?, "
                   "lowest_synced_uid = ?,\n    initial_window_complete = ?, server_exists = ?, "
                   "last_synced_at = ? WHERE id = ?",
                   {c.uidValidity, c.uidNext, c.highestModSeq, c.lowestSyncedUID,
                    c.initialWindowComplete, c.serverExists, c.lastSyncedAt, id}) == 0) {
            throw storageError("folder not found", StorageFailureKind::notFound);
        }
    });
}

void SQLiteMailStore::cleanUpAccountThreads(SQLiteDatabase& db, const AccountID& account) {
    db.run(
        "DELETE FROM thread_redirects WHERE account_id = ? AND new_id IN (\n"
        "    SELECT t.id FROM threads t WHERE t.account_id = ? AND NOT EXISTS (SELECT 1 FROM "
        "messages m WHERE m.thread_id = t.id))",
        {account, account});
    db.run(
        "DELETE FROM threads WHERE account_id = ? AND NOT EXISTS (SELECT 1 FROM messages m "
        "WHERE m.thread_id = threads.id)",
        {account});
}

void SQLiteMailStore::resetFolder(FolderID id, UIDValidity newUIDValidity) {
    write([&](SQLiteDatabase& db) {
        auto f = db.queryOne<FolderRecord>(
            std::string(folderColumns) + " FROM folders WHERE id = ?", {id}, folderFromRow);
        if (!f) throw storageError("folder not found", StorageFailureKind::notFound);
        db.run(
            "DELETE FROM outbox WHERE state != 'inFlight' AND target_message_id IN (SELECT id "
            "FROM messages WHERE folder_id = ? AND uid IS NOT NULL)",
            {id});
        db.run(
            "UPDATE drafts SET source_message_id = NULL WHERE source_message_id IN (SELECT id "
            "FROM messages WHERE folder_id = ? AND uid IS NOT NULL)",
            {id});
        db.run(
            "DELETE FROM message_search WHERE rowid IN (SELECT id FROM messages WHERE folder_id "
            "= ? AND uid IS NOT NULL)",
            {id});
        db.run("DELETE FROM messages WHERE folder_id = ? AND uid IS NOT NULL", {id});
        cleanUpAccountThreads(db, f->accountID);
        FolderSyncCursor cursor;
        cursor.uidValidity = newUIDValidity;
        db.run(
            "UPDATE folders SET uid_validity = ?, uid_next = ?, highest_mod_seq = ?, "
            "lowest_synced_uid = ?,\n    initial_window_complete = ?, server_exists = ?, "
            "last_synced_at = ? WHERE id = ?",
            {cursor.uidValidity, cursor.uidNext, cursor.highestModSeq, cursor.lowestSyncedUID,
             cursor.initialWindowComplete, cursor.serverExists, cursor.lastSyncedAt, id});
        recomputeFolderCounts(db, id);
    });
}

}  // namespace mailcore
