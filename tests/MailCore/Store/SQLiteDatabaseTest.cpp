// The SQLite connection under the store: error mapping, binding, the
// statement cache; and the coding of stored lists.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "MailCore/Store/SQLiteDatabase.h"
#include "MailCore/Store/StorageCodec.h"
#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using K = StorageFailureKind;

TEST(SQLiteDatabaseTest, MapsResultCodesToStorageKinds) {
    const std::pair<K, std::vector<int>> groups[] = {
        {K::ioError,
         {SQLITE_PERM, SQLITE_BUSY, SQLITE_LOCKED, SQLITE_READONLY, SQLITE_IOERR_WRITE,
          SQLITE_CANTOPEN}},
        {K::corrupted, {SQLITE_CORRUPT, SQLITE_NOTADB}},
        {K::diskFull, {SQLITE_FULL}},
        {K::constraintViolation, {SQLITE_CONSTRAINT_UNIQUE}},
        {K::other, {SQLITE_ERROR, SQLITE_MISMATCH}},
    };
    for (const auto& [kind, codes] : groups) {
        for (int code : codes) {
            EXPECT_EQ(mapSQLiteError(code, "boom"),
                      MailError::storage(kind, "sqlite " + std::to_string(code) + ": boom"));
        }
    }
    EXPECT_EQ(mapSQLiteError(SQLITE_INTERRUPT, "boom"), MailError::cancelled());
}

TEST(SQLiteDatabaseTest, FailuresCarryTheLibraryMessageAndLeaveTheConnectionUsable) {
    SQLiteDatabase db(":memory:");
    db.execute("CREATE TABLE t (a PRIMARY KEY, b)");
    db.run("INSERT INTO t VALUES (1, 1)");
    const std::pair<std::function<void()>, MailError> cases[] = {
        {[&] { db.run("INSERT INTO t VALUES (?, ?)", {2}); },
         MailError::storage(K::other, "bind count mismatch: 1 for 2")},
        {[&] { db.run("INSERT INTO t VALUES (1, 2)"); },
         MailError::storage(K::constraintViolation, "sqlite 1555: UNIQUE constraint failed: t.a")},
        {[&] { db.run("SELEC 1"); },
         MailError::storage(K::other, "sqlite 1: near \"SELEC\": syntax error")},
        {[&] { db.execute("NOT SQL"); },
         MailError::storage(K::other, "sqlite 1: near \"NOT\": syntax error")},
    };
    for (const auto& [call, expected] : cases) {
        try {
            call();
            ADD_FAILURE() << expected.what();
        } catch (const MailError& e) {
            EXPECT_EQ(e, expected);
        }
    }
    EXPECT_EQ(db.run("INSERT INTO t VALUES (?, ?)", {2, 2}), 1);
    db.close();
    EXPECT_EQ(testing::errorDetail([&] { db.execute("SELECT 1"); }), "store is closed");
    EXPECT_EQ(testing::errorDetail([&] { db.run("SELECT 1"); }), "closed");

    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("junk.db"), std::string(4096, 'x'));
    SQLiteDatabase junk(dir.file("junk.db"));
    try {
        junk.scalarInt("PRAGMA user_version");
        ADD_FAILURE();
    } catch (const MailError& e) {
        EXPECT_EQ(e, MailError::storage(K::corrupted, "sqlite 26: file is not a database"));
    }
}

TEST(SQLiteDatabaseTest, BindsEveryValueKindAndReadsItBack) {
    SQLiteDatabase db(":memory:");
    db.execute("CREATE TABLE t (i, d, s, b, n, dt, id, txt)");
    std::optional<std::int64_t> absent;
    Blob bytes{0, 1, 2, 255};
    const std::string text("caf\xc3\xa9\0x", 7);
    db.run("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
           {std::int64_t{1} << 40, 2.5, text, bytes, absent, dateFromSeconds(1234.5), MessageID(77),
            AccountID("acc")});
    int rows = 0;
    db.forEachRow("SELECT i, d, s, b, n, dt, id, txt, typeof(dt), typeof(txt) FROM t", {},
                  [&](const SQLRow& row) {
                      EXPECT_EQ(row.int64(0), std::int64_t{1} << 40);
                      EXPECT_DOUBLE_EQ(row.real(1), 2.5);
                      EXPECT_EQ(row.text(2), text);
                      EXPECT_EQ(row.blob(3), bytes);
                      EXPECT_TRUE(row.isNull(4));
                      EXPECT_FALSE(row.optionalInt64(4).has_value());
                      EXPECT_DOUBLE_EQ(secondsSince1970(row.date(5)), 1234.5);
                      EXPECT_EQ(row.id<MessageID>(6), MessageID(77));
                      EXPECT_EQ(row.text(7), "acc");
                      EXPECT_EQ(row.text(8), "real");
                      EXPECT_EQ(row.text(9), "text");
                      ++rows;
                      return true;
                  });
    EXPECT_EQ(rows, 1);
}

TEST(SQLiteDatabaseTest, EmptiesTheWholeCacheWhenTheLimitIsReached) {
    SQLiteDatabase db(":memory:");
    for (int i = 0; i < 256; ++i) db.scalarInt("SELECT " + std::to_string(i));
    db.scalarInt("SELECT 0");  // cached: no new prepare
    EXPECT_EQ(db.cachedStatementCount(), 256u);
    EXPECT_EQ(db.preparedStatementCount(), 256u);
    EXPECT_EQ(db.scalarInt("SELECT 256"), 256);  // the 257th
    EXPECT_EQ(db.cachedStatementCount(), 1u);
    EXPECT_EQ(db.scalarInt("SELECT 0"), 0);  // prepared anew
    EXPECT_EQ(db.preparedStatementCount(), 258u);
    EXPECT_EQ(db.cachedStatementCount(), 2u);
}

TEST(StorageCodecTest, RoundTripsListsAndNamesTheTypeOfWhatItCannotDecode) {
    std::vector<std::string> keywords{"$Forwarded", "caf\xc3\xa9", ""};
    EXPECT_EQ(StorageCodec::decodeStrings(StorageCodec::encodeString(keywords)), keywords);
    std::vector<MailAddress> people{{"Zo\xc3\xab \"Z\" Smith", "zoe@example.com"}, {"", "a@b"}};
    EXPECT_EQ(StorageCodec::decodeAddresses(StorageCodec::encodeString(people)), people);
    EXPECT_EQ(StorageCodec::encodeString(std::vector<std::string>{}), "[]");
    // A missing or null name reads as empty.
    EXPECT_EQ(StorageCodec::decodeAddresses(R"([{"email":"x@y","name":null}])"),
              (std::vector<MailAddress>{{"", "x@y"}}));

    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { StorageCodec::decodeStrings("{\"a\":1}"); }, "Array<String>"},
        {[] { StorageCodec::decodeAddresses("[{\"name\":\"x\"}]"); }, "Array<MailAddress>"},
        {[] {
             StorageCodec::decodeBytes({0xff, 0x00}, "OutboxOperation");
         },
         "OutboxOperation"},
    };
    for (const auto& [decode, type] : cases) {
        try {
            decode();
            ADD_FAILURE() << type;
        } catch (const MailError& e) {
            EXPECT_EQ(e, MailError::storage(K::other, "stored value is not decodable as " + type));
        }
    }
}

}  // namespace
}  // namespace mailcore
