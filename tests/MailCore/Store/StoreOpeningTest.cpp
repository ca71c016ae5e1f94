#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Store/StorageMigrator.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::at;
using testing::TempDir;

std::int64_t countRows(SQLiteDatabase& db, const std::string& table) {
    return db.scalarInt("SELECT COUNT(*) FROM " + table).value_or(-1);
}

std::string fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(StoreOpeningTest, FreshFileReachesTheNewestVersion) {
    TempDir dir;
    std::string path = dir.file("nested/deeper/mail.db");
    SQLiteMailStore store(StoreLocation::file(path), at(500));
    EXPECT_EQ(store.schemaVersion(), 2);
    auto applied = store.appliedMigrations();
    ASSERT_EQ(applied.size(), 2u);
    EXPECT_EQ(applied[0].version, 1);
    EXPECT_EQ(applied[0].name, "base schema");
    EXPECT_EQ(applied[1].name, "full-text search index");
    EXPECT_DOUBLE_EQ(secondsSince1970(applied[1].appliedAt), 500);

    store.read([](SQLiteDatabase& db) {
        // Version 1's 30 statements: 13 tables and 17 indexes; version 2
        // adds message_search.
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name "
                               "NOT LIKE 'sqlite_%' AND name NOT LIKE 'message_search_%'"),
                  14);
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index' AND name "
                               "LIKE 'idx_%'"),
                  17);
        EXPECT_EQ(db.scalarInt("PRAGMA foreign_keys"), 1);
        EXPECT_EQ(db.scalarInt("PRAGMA synchronous"), 1);  // NORMAL
        auto mode = db.queryOne<std::string>("PRAGMA journal_mode", {},
                                             [](const SQLRow& r) { return r.text(0); });
        EXPECT_EQ(mode, "wal");
    });
    EXPECT_EQ(StorageMigrator::baseSchemaStatements().size(), 30u);

    // The directory is private, the database and its companions 0600.
    struct stat st {};
    ASSERT_EQ(::stat((dir.path() / "nested").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    store.saveAccount(AccountID("a"), Json::object(), at(1));  // makes -wal and -shm exist
    for (const char* suffix : {"", "-wal", "-shm"}) {
        ASSERT_EQ(::stat((path + suffix).c_str(), &st), 0) << suffix;
        EXPECT_EQ(st.st_mode & 0777, 0600u) << suffix;
    }
}

TEST(StoreOpeningTest, ReopeningKeepsDataAndRunsNoMigration) {
    TempDir dir;
    std::string path = dir.file("mail.db");
    {
        SQLiteMailStore store(StoreLocation::file(path), at(1));
        store.saveAccount(AccountID("a"), Json{{"name", "Work"}}, at(2));
    }
    SQLiteMailStore store(StoreLocation::file(path), at(99));
    EXPECT_EQ(store.appliedMigrations().back().appliedAt, at(1));
    EXPECT_EQ(store.accountConfig(AccountID("a")), (Json{{"name", "Work"}}));
}

TEST(StoreOpeningTest, VersionOneFileIsMigratedWithItsSearchIndexBuilt) {
    TempDir dir;
    std::string path = dir.file("mail.db");
    {
        SQLiteDatabase db(path);
        StorageMigrator().migrate(db, 1, at(10));
        ASSERT_EQ(db.scalarInt("PRAGMA user_version"), 1);
        db.execute(
            "INSERT INTO accounts VALUES ('a', x'7b7d', 1);"
            "INSERT INTO folders(account_id, path, role, server_role) VALUES ('a', 'INBOX', "
            "'inbox', 'inbox');"
            "INSERT INTO threads(account_id) VALUES ('a');"
            "INSERT INTO messages(account_id, folder_id, thread_id, uid, subject, from_json, date) "
            "VALUES ('a', 1, 1, 1, 'Quarterly budget', '[{\"name\":\"Ann\",\"email\":"
            "\"ann@example.com\"}]', 100);"
            "INSERT INTO messages(account_id, folder_id, thread_id, uid, subject, date) VALUES "
            "('a', 1, 1, 2, 'Other', 200);"
            "INSERT INTO bodies(message_id, text, fetched_at) VALUES (2, 'the walrus speaks', 5);");
        EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE name = "
                               "'message_search'"),
                  0);
    }
    SQLiteMailStore store(StoreLocation::file(path), at(20));
    EXPECT_EQ(store.schemaVersion(), 2);
    auto applied = store.appliedMigrations();
    ASSERT_EQ(applied.size(), 2u);
    EXPECT_EQ(applied[0].appliedAt, at(10));
    EXPECT_EQ(applied[1].appliedAt, at(20));
    auto hits = store.search(SearchQuery{"budget", {}, {}, false, 10});
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].row.id, MessageID(1));
    EXPECT_EQ(store.search(SearchQuery{"ann", {}, {}, false, 10}).size(), 1u);
    hits = store.search(SearchQuery{"walrus", {}, {}, false, 10});
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].row.id, MessageID(2));
}

TEST(StoreOpeningTest, NewerSchemaIsRefusedAndLeftUntouched) {
    TempDir dir;
    std::string path = dir.file("mail.db");
    {
        SQLiteDatabase db(path);
        db.execute("CREATE TABLE future (x); PRAGMA user_version = 3;");
    }
    std::string before = fileBytes(path);
    try {
        SQLiteMailStore store(StoreLocation::file(path));
        FAIL() << "opened";
    } catch (const MailError& e) {
        EXPECT_EQ(e, MailError::storage(StorageFailureKind::schemaNewerThanSupported,
                                        "database schema 3 is newer than supported 2"));
    }
    EXPECT_EQ(fileBytes(path), before);
    SQLiteDatabase db(path);
    EXPECT_EQ(db.scalarInt("PRAGMA user_version"), 3);
    EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE name = 'accounts'"), 0);
}

TEST(StoreOpeningTest, FailedMigrationLeavesTheLastCommittedVersion) {
    TempDir dir;
    SQLiteDatabase db(dir.file("mail.db"));
    auto migrations = StorageMigrator::standardMigrations();
    migrations[1].body = [](SQLiteDatabase& d) {
        d.execute("CREATE TABLE half_done (x)");
        d.execute("INSERT INTO no_such_table VALUES (1)");
    };
    try {
        StorageMigrator(migrations).migrate(db, std::nullopt, at(1));
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.storageKind(), StorageFailureKind::migrationFailed);
        EXPECT_EQ(e.detail(),
                  "migration 2 failed: storage(other): sqlite 1: no such table: no_such_table");
    }
    EXPECT_EQ(db.scalarInt("PRAGMA user_version"), 1);
    EXPECT_EQ(countRows(db, "schema_migrations"), 1);
    EXPECT_EQ(db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE name = 'half_done'"), 0);
    // The standard migrator picks up from there.
    StorageMigrator().migrate(db, std::nullopt, at(2));
    EXPECT_EQ(db.scalarInt("PRAGMA user_version"), 2);
}

TEST(StoreOpeningTest, MigratingAClosedConnectionFails) {
    SQLiteDatabase db(":memory:");
    db.close();
    try {
        StorageMigrator().migrate(db, std::nullopt, at(1));
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e, MailError::storage(StorageFailureKind::ioError, "store is closed"));
    }
}

TEST(StoreOpeningTest, UncreatableDirectoryIsReported) {
    TempDir dir;
    std::string blocker = dir.file("plain-file");
    std::ofstream(blocker) << "x";
    try {
        SQLiteMailStore store(StoreLocation::file(blocker + "/sub/mail.db"));
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "cannot create database directory");
    }
}

// Runs `check` in a child process without root's right to write anywhere;
// the child's exit status is the number of the first failed expectation.
int runUnprivileged(const std::function<int()>& check) {
    pid_t pid = ::fork();
    if (pid == 0) {
        if (::geteuid() == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(100);
        }
        ::_exit(check());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

TEST(StoreOpeningTest, ReadOnlyFolderGivesAReadOnlyStore) {
    TempDir dir;
    ::chmod(dir.path().c_str(), 0755);
    std::string folder = dir.file("ro");
    std::string path = folder + "/mail.db";
    {
        SQLiteMailStore store(StoreLocation::file(path));
        store.saveAccount(AccountID("a"), Json{{"name", "Work"}}, at(2));
    }
    ::chmod(path.c_str(), 0644);
    ::chmod(folder.c_str(), 0555);
    int status = runUnprivileged([&]() -> int {
        try {
            SQLiteMailStore store(StoreLocation::file(path));
            if (!store.isReadOnly()) return 1;
            if (store.accountConfig(AccountID("a")) != Json{{"name", "Work"}}) return 2;
            try {
                store.saveAccount(AccountID("b"), Json::object(), at(3));
                return 3;
            } catch (const MailError&) {
            }
        } catch (const MailError& e) {
            std::fprintf(stderr, "%s\n", e.what());
            return 4;
        }
        try {
            SQLiteMailStore store(StoreLocation::file(folder + "/missing.db"));
            return 5;
        } catch (const MailError& e) {
            if (e.detail() != "cannot read the database in a read-only folder") return 6;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace mailcore
