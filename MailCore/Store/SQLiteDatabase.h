// SQLiteDatabase: one SQLite connection with a cache of prepared statements.
// Not thread-safe by itself: SQLiteMailStore serialises every use behind its
// own lock. Every failure is thrown as MailError::storage (or
// MailError::cancelled for an interrupted statement).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Store/StoreTypes.h"

struct sqlite3;
struct sqlite3_stmt;

namespace mailcore {

using Blob = std::vector<std::uint8_t>;

// A value bound to or read from a statement: null, integer, double, text or
// blob. Constructible from every bindable type: strings bind as text, the
// integer identifiers and integers as integers, the text identifiers as
// text, dates as seconds since 1970 (double), an absent optional as null.
class SQLValue {
public:
    using Storage = std::variant<std::monostate, std::int64_t, double, std::string, Blob>;

    SQLValue() = default;
    SQLValue(std::nullptr_t) {}
    SQLValue(std::nullopt_t) {}
    SQLValue(int v) : value_(std::int64_t{v}) {}
    SQLValue(long v) : value_(std::int64_t{v}) {}
    SQLValue(long long v) : value_(static_cast<std::int64_t>(v)) {}
    SQLValue(unsigned v) : value_(std::int64_t{v}) {}
    SQLValue(unsigned long v) : value_(static_cast<std::int64_t>(v)) {}
    SQLValue(unsigned long long v) : value_(static_cast<std::int64_t>(v)) {}
    SQLValue(bool v) : value_(std::int64_t{v ? 1 : 0}) {}
    SQLValue(double v) : value_(v) {}
    SQLValue(std::string v) : value_(std::move(v)) {}
    SQLValue(std::string_view v) : value_(std::string(v)) {}
    SQLValue(const char* v) : value_(std::string(v)) {}
    SQLValue(Blob v) : value_(std::move(v)) {}
    SQLValue(Date d);
    template <class Tag, class Raw>
    SQLValue(const Identifier<Tag, Raw>& id) : SQLValue(id.value) {}
    template <class T>
    SQLValue(const std::optional<T>& v) {
        if (v) *this = SQLValue(*v);
    }

    const Storage& storage() const { return value_; }
    bool isNull() const { return std::holds_alternative<std::monostate>(value_); }

private:
    Storage value_;
};

// One result row, read by column index. Valid only inside the mapping
// function it is handed to.
class SQLRow {
public:
    explicit SQLRow(sqlite3_stmt* statement) : statement_(statement) {}

    bool isNull(int column) const;
    std::int64_t int64(int column) const;
    double real(int column) const;
    std::string text(int column) const;  // "" for null
    Blob blob(int column) const;         // empty for null
    Date date(int column) const;
    bool boolean(int column) const { return int64(column) != 0; }

    std::optional<std::int64_t> optionalInt64(int column) const;
    std::optional<std::string> optionalText(int column) const;
    std::optional<Blob> optionalBlob(int column) const;
    std::optional<Date> optionalDate(int column) const;

    template <class ID>
    ID id(int column) const {
        return ID(static_cast<decltype(ID{}.value)>(int64(column)));
    }
    template <class ID>
    std::optional<ID> optionalID(int column) const {
        if (isNull(column)) return std::nullopt;
        return id<ID>(column);
    }

private:
    sqlite3_stmt* statement_;
};

// MailError for an SQLite result code: the primary code (low 8 bits) picks
// the kind, the detail is "sqlite <extended code>: <message>".
MailError mapSQLiteError(int code, std::string_view message);

class SQLiteDatabase {
public:
    // The most statements kept prepared; one more empties the whole cache.
    static constexpr std::size_t statementCacheLimit = 256;

    // Opens (creating if needed) the database at `path` read-write, or
    // read-only when `readOnly`. ":memory:" opens a private in-memory database.
    // `immutable` (read-only only) opens a file that nobody can change, such
    // as a write-ahead-logged database in a folder that cannot be written.
    explicit SQLiteDatabase(const std::string& path, bool readOnly = false, bool immutable = false);
    ~SQLiteDatabase();
    SQLiteDatabase(const SQLiteDatabase&) = delete;
    SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

    // Runs one or more statements without parameters or results.
    void execute(const std::string& sql);

    // Prepares (or takes from the cache), binds, steps to completion; returns
    // the number of changed rows.
    std::int64_t run(const std::string& sql, const std::vector<SQLValue>& values = {});

    // Every row mapped. `map` must not use this database.
    template <class T>
    std::vector<T> query(const std::string& sql, const std::vector<SQLValue>& values,
                         const std::function<T(const SQLRow&)>& map) {
        std::vector<T> out;
        forEachRow(sql, values, [&](const SQLRow& row) {
            out.push_back(map(row));
            return true;
        });
        return out;
    }

    // The first row mapped, or nothing.
    template <class T>
    std::optional<T> queryOne(const std::string& sql, const std::vector<SQLValue>& values,
                              const std::function<T(const SQLRow&)>& map) {
        std::optional<T> out;
        forEachRow(sql, values, [&](const SQLRow& row) {
            out = map(row);
            return false;
        });
        return out;
    }

    // Steps through the rows while `visit` returns true.
    void forEachRow(const std::string& sql, const std::vector<SQLValue>& values,
                    const std::function<bool(const SQLRow&)>& visit);

    // The first column of the first row as an integer; nothing for no row or null.
    std::optional<std::int64_t> scalarInt(const std::string& sql,
                                          const std::vector<SQLValue>& values = {});

    std::int64_t lastInsertRowID() const;

    // Empties the statement cache and closes the connection; later calls fail
    // with "store is closed" (execute) or "closed" (prepare).
    void close();
    bool isOpen() const { return handle_ != nullptr; }
    bool isReadOnly() const { return readOnly_; }

    std::size_t cachedStatementCount() const { return cache_.size(); }
    // Counts statements prepared anew (cache misses); for tests.
    std::uint64_t preparedStatementCount() const { return prepareCount_; }

private:
    sqlite3_stmt* prepare(const std::string& sql);
    void bind(sqlite3_stmt* statement, const std::vector<SQLValue>& values);
    [[noreturn]] void fail(int code);
    void clearCache();

    sqlite3* handle_ = nullptr;
    bool readOnly_ = false;
    std::unordered_map<std::string, sqlite3_stmt*> cache_;
    std::uint64_t prepareCount_ = 0;
};

}  // namespace mailcore
