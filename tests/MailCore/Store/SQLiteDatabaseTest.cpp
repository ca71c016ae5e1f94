#include <gtest/gtest.h>
#include <sqlite3.h>

#include "MailCore/Store/SQLiteDatabase.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::TempDir;

TEST(SQLiteDatabaseTest, MapsResultCodesToStorageKinds) {
    struct Case {
        int code;
        std::optional<StorageFailureKind> kind;  // none: cancelled
    };
    const Case cases[] = {
        {SQLITE_PERM, StorageFailureKind::ioError},
        {SQLITE_BUSY, StorageFailureKind::ioError},
        {SQLITE_LOCKED, StorageFailureKind::ioError},
        {SQLITE_READONLY, StorageFailureKind::ioError},
        {SQLITE_IOERR_WRITE, StorageFailureKind::ioError},
        {SQLITE_CANTOPEN, StorageFailureKind::ioError},
        {SQLITE_CORRUPT, StorageFailureKind::corrupted},
        {SQLITE_NOTADB, StorageFailureKind::corrupted},
        {SQLITE_FULL, StorageFailureKind::diskFull},
        {SQLITE_CONSTRAINT_UNIQUE, StorageFailureKind::constraintViolation},
        {SQLITE_INTERRUPT, std::nullopt},
        {SQLITE_ERROR, StorageFailureKind::other},
        {SQLITE_MISMATCH, StorageFailureKind::other},
    };
    for (const auto& c : cases) {
        MailError e = mapSQLiteError(c.code, "boom");
        if (!c.kind) {
            EXPECT_EQ(e, MailError::cancelled());
            continue;
        }
        EXPECT_EQ(e.errorCase(), MailError::Case::storage) << c.code;
        EXPECT_EQ(e.storageKind(), *c.kind) << c.code;
        EXPECT_EQ(e.detail(), "sqlite " + std::to_string(c.code) + ": boom");
    }
}

TEST(SQLiteDatabaseTest, RejectsWrongNumberOfValues) {
    SQLiteDatabase db(":memory:");
    db.execute("CREATE TABLE t (a, b, c, d)");
    try {
        db.run("INSERT INTO t VALUES (?, ?, ?, ?)", {1, 2, 3});
        FAIL() << "no error";
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "bind count mismatch: 3 for 4");
    }
    // The statement stays usable with the right count.
    EXPECT_EQ(db.run("INSERT INTO t VALUES (?, ?, ?, ?)", {1, 2, 3, 4}), 1);
}

TEST(SQLiteDatabaseTest, BindsEveryValueKindAndReadsItBack) {
    SQLiteDatabase db(":memory:");
    db.execute("CREATE TABLE t (i, d, s, b, n, dt, id, txt)");
    std::optional<std::int64_t> absent;
    Blob bytes{0, 1, 2, 255};
    db.run("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
           {std::int64_t{1} << 40, 2.5, std::string("caf\xc3\xa9\0x", 7), bytes, absent,
            dateFromSeconds(1234.5), MessageID(77), AccountID("acc")});
    bool seen = false;
    db.forEachRow("SELECT i, d, s, b, n, dt, id, txt, typeof(dt), typeof(txt) FROM t", {},
                  [&](const SQLRow& row) {
                      EXPECT_EQ(row.int64(0), std::int64_t{1} << 40);
                      EXPECT_DOUBLE_EQ(row.real(1), 2.5);
                      EXPECT_EQ(row.text(2), std::string("caf\xc3\xa9\0x", 7));
                      EXPECT_EQ(row.blob(3), bytes);
                      EXPECT_TRUE(row.isNull(4));
                      EXPECT_FALSE(row.optionalInt64(4).has_value());
                      EXPECT_DOUBLE_EQ(secondsSince1970(row.date(5)), 1234.5);
                      EXPECT_EQ(row.id<MessageID>(6), MessageID(77));
                      EXPECT_EQ(row.text(7), "acc");
                      EXPECT_EQ(row.text(8), "real");
                      EXPECT_EQ(row.text(9), "text");
                      seen = true;
                      return true;
                  });
    EXPECT_TRUE(seen);
}

TEST(SQLiteDatabaseTest, EmptiesTheWholeCacheWhenTheLimitIsReached) {
    SQLiteDatabase db(":memory:");
    for (int i = 0; i < 256; ++i) db.scalarInt("SELECT " + std::to_string(i));
    EXPECT_EQ(db.cachedStatementCount(), 256u);
    EXPECT_EQ(db.preparedStatementCount(), 256u);
    db.scalarInt("SELECT 0");  // cached: no new prepare
    EXPECT_EQ(db.preparedStatementCount(), 256u);

    EXPECT_EQ(db.scalarInt("SELECT 256"), 256);  // the 257th
    EXPECT_EQ(db.cachedStatementCount(), 1u);
    EXPECT_EQ(db.scalarInt("SELECT 0"), 0);  // prepared anew
    EXPECT_EQ(db.preparedStatementCount(), 258u);
    EXPECT_EQ(db.cachedStatementCount(), 2u);
}

TEST(SQLiteDatabaseTest, ReportsFailuresWithTheLibraryMessage) {
    SQLiteDatabase db(":memory:");
    db.execute("CREATE TABLE t (a PRIMARY KEY)");
    db.run("INSERT INTO t VALUES (1)");
    try {
        db.run("INSERT INTO t VALUES (1)");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.storageKind(), StorageFailureKind::constraintViolation);
        EXPECT_EQ(e.detail(), "sqlite 1555: UNIQUE constraint failed: t.a");
    }
    try {
        db.run("SELEC 1");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.storageKind(), StorageFailureKind::other);
        EXPECT_EQ(e.detail(), "sqlite 1: near \"SELEC\": syntax error");
    }
    try {
        db.execute("NOT SQL");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "sqlite 1: near \"NOT\": syntax error");
    }
}

TEST(SQLiteDatabaseTest, ClosedConnectionRefusesWork) {
    SQLiteDatabase db(":memory:");
    db.close();
    try {
        db.execute("SELECT 1");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e, MailError::storage(StorageFailureKind::ioError, "store is closed"));
    }
    try {
        db.run("SELECT 1");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "closed");
    }
}

TEST(SQLiteDatabaseTest, OpeningANonDatabaseFileIsCorruption) {
    TempDir dir;
    std::string path = dir.file("junk.db");
    FILE* f = std::fopen(path.c_str(), "wb");
    std::string junk(4096, 'x');
    std::fwrite(junk.data(), 1, junk.size(), f);
    std::fclose(f);
    SQLiteDatabase db(path);
    try {
        db.scalarInt("PRAGMA user_version");
        FAIL();
    } catch (const MailError& e) {
        EXPECT_EQ(e.storageKind(), StorageFailureKind::corrupted);
        EXPECT_EQ(e.detail(), "sqlite 26: file is not a database");
    }
}

}  // namespace
}  // namespace mailcore
