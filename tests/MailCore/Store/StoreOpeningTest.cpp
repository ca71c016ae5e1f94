// Opening a store file: schema creation and migration, refusal of newer or
// broken files, file permissions, read-only folders.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MailCore/Store/StorageMigrator.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testfiles::TempDir;
using testing::at;
using testing::errorDetail;

std::int64_t count(SQLiteDatabase& db, const std::string& from) {
    return db.scalarInt("SELECT COUNT(*) FROM " + from).value_or(-1);
}

TEST(StoreOpeningTest, FreshFileReachesTheNewestVersionPrivatelyAndReopensAsIs) {
    TempDir dir;
    std::string path = dir.file("nested/deeper/mail.db");
    {
        SQLiteMailStore store(StoreLocation::file(path), at(500));
        EXPECT_EQ(store.schemaVersion(), 3);
        auto applied = store.appliedMigrations();
        ASSERT_EQ(applied.size(), 3u);
        EXPECT_EQ(applied[0].version, 1);
        EXPECT_EQ(applied[0].name, "base schema");
        EXPECT_EQ(applied[1].name, "full-text search index");
        EXPECT_EQ(applied[1].appliedAt, at(500));
        EXPECT_EQ(applied[2].name, "workflow ledger");
        store.read([](SQLiteDatabase& db) {
            EXPECT_EQ(db.scalarInt("PRAGMA foreign_keys"), 1);
            EXPECT_EQ(db.scalarInt("PRAGMA synchronous"), 1);  // NORMAL
            EXPECT_EQ(db.queryOne<std::string>("PRAGMA journal_mode", {},
                                               [](const SQLRow& r) { return r.text(0); }),
                      "wal");
        });
        store.saveAccount(AccountID("a"), Json{{"name", "Work"}}, at(2));  // makes -wal and -shm
        // The directory is private, the database and its companions 0600.
        struct stat st {};
        ASSERT_EQ(::stat((dir.path() / "nested").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        for (const char* suffix : {"", "-wal", "-shm"}) {
            ASSERT_EQ(::stat((path + suffix).c_str(), &st), 0) << suffix;
            EXPECT_EQ(st.st_mode & 0777, 0600u) << suffix;
        }
    }
    SQLiteMailStore store(StoreLocation::file(path), at(99));
    EXPECT_EQ(store.appliedMigrations().back().appliedAt, at(500));  // no migration ran
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
        EXPECT_EQ(count(db, "sqlite_master WHERE name = 'message_search'"), 0);
    }
    SQLiteMailStore store(StoreLocation::file(path), at(20));
    EXPECT_EQ(store.schemaVersion(), 3);
    auto applied = store.appliedMigrations();
    ASSERT_EQ(applied.size(), 3u);
    EXPECT_EQ(applied[0].appliedAt, at(10));
    EXPECT_EQ(applied[1].appliedAt, at(20));
    const std::pair<const char*, int> searches[] = {{"budget", 1}, {"ann", 1}, {"walrus", 2}};
    for (auto [text, id] : searches) {
        auto hits = store.search(SearchQuery{text, {}, {}, false, 10});
        ASSERT_EQ(hits.size(), 1u) << text;
        EXPECT_EQ(hits[0].row.id, MessageID(id)) << text;
    }
}

TEST(StoreOpeningTest, NewerSchemaIsRefusedAndLeftUntouched) {
    TempDir dir;
    std::string path = dir.file("mail.db");
    SQLiteDatabase(path).execute("CREATE TABLE future (x); PRAGMA user_version = 4;");
    std::string before = testfiles::readFile(path);
    try {
        SQLiteMailStore store(StoreLocation::file(path));
        FAIL() << "opened";
    } catch (const MailError& e) {
        EXPECT_EQ(e, MailError::storage(StorageFailureKind::schemaNewerThanSupported,
                                        "database schema 4 is newer than supported 3"));
    }
    EXPECT_EQ(testfiles::readFile(path), before);
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
    EXPECT_EQ(count(db, "schema_migrations"), 1);
    EXPECT_EQ(count(db, "sqlite_master WHERE name = 'half_done'"), 0);
    // The standard migrator picks up from there.
    StorageMigrator().migrate(db, std::nullopt, at(2));
    EXPECT_EQ(db.scalarInt("PRAGMA user_version"), 3);
    db.close();
    EXPECT_EQ(errorDetail([&] { StorageMigrator().migrate(db, std::nullopt, at(3)); }),
              "store is closed");
}

// Runs `check` in a child process without root's right to write anywhere;
// the child's exit status is the number of the first failed expectation.
int runUnprivileged(const std::function<int()>& check) {
    pid_t pid = ::fork();
    if (pid == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(100);
        ::_exit(check());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

TEST(StoreOpeningTest, UnwritableFoldersGiveAReadOnlyStoreOrAClearError) {
    TempDir dir;
    testfiles::writeFile(dir.file("plain-file"), "x");
    EXPECT_EQ(errorDetail([&] {
                  SQLiteMailStore store(StoreLocation::file(dir.file("plain-file/sub/mail.db")));
              }),
              "cannot create database directory");

    ::chmod(dir.path().c_str(), 0755);
    std::string folder = dir.file("ro");
    std::string path = folder + "/mail.db";
    SQLiteMailStore(StoreLocation::file(path))
        .saveAccount(AccountID("a"), Json{{"name", "Work"}}, at(2));
    ::chmod(path.c_str(), 0644);
    ::chmod(folder.c_str(), 0555);
    int status = runUnprivileged([&]() -> int {
        try {
            SQLiteMailStore store(StoreLocation::file(path));
            if (!store.isReadOnly()) return 1;
            if (store.accountConfig(AccountID("a")) != Json{{"name", "Work"}}) return 2;
            if (errorDetail([&] { store.saveAccount(AccountID("b"), Json::object(), at(3)); }) ==
                "no error")
                return 3;
        } catch (const MailError& e) {
            std::fprintf(stderr, "%s\n", e.what());
            return 4;
        }
        if (errorDetail([&] { SQLiteMailStore s(StoreLocation::file(folder + "/missing.db")); }) !=
            "cannot read the database in a read-only folder")
            return 5;
        return 0;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace mailcore
