#include "MailCore/Store/SQLiteDatabase.h"

#include <fmt/format.h>
#include <sqlite3.h>

namespace mailcore {

SQLValue::SQLValue(Date d) : value_(secondsSince1970(d)) {}

bool SQLRow::isNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t SQLRow::int64(int column) const { return sqlite3_column_int64(statement_, column); }

double SQLRow::real(int column) const { return sqlite3_column_double(statement_, column); }

std::string SQLRow::text(int column) const {
    const auto* p = sqlite3_column_text(statement_, column);
    if (p == nullptr) return {};
    int n = sqlite3_column_bytes(statement_, column);
    return std::string(reinterpret_cast<const char*>(p), static_cast<std::size_t>(n));
}

Blob SQLRow::blob(int column) const {
    const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
    int n = sqlite3_column_bytes(statement_, column);
    if (p == nullptr || n <= 0) return {};
    return Blob(p, p + n);
}

Date SQLRow::date(int column) const { return dateFromSeconds(real(column)); }

std::optional<std::int64_t> SQLRow::optionalInt64(int column) const {
    if (isNull(column)) return std::nullopt;
    return int64(column);
}

std::optional<std::string> SQLRow::optionalText(int column) const {
    if (isNull(column)) return std::nullopt;
    return text(column);
}

std::optional<Blob> SQLRow::optionalBlob(int column) const {
    if (isNull(column)) return std::nullopt;
    return blob(column);
}

std::optional<Date> SQLRow::optionalDate(int column) const {
    if (isNull(column)) return std::nullopt;
    return date(column);
}

MailError mapSQLiteError(int code, std::string_view message) {
    std::string detail = fmt::format("sqlite {}: {}", code, message);
    switch (code & 0xff) {
        case SQLITE_PERM:
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_READONLY:
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
            return MailError::storage(StorageFailureKind::ioError, std::move(detail));
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return MailError::storage(StorageFailureKind::corrupted, std::move(detail));
        case SQLITE_FULL:
            return MailError::storage(StorageFailureKind::diskFull, std::move(detail));
        case SQLITE_CONSTRAINT:
            return MailError::storage(StorageFailureKind::constraintViolation, std::move(detail));
        case SQLITE_INTERRUPT:
            return MailError::cancelled();
        default:
            return MailError::storage(StorageFailureKind::other, std::move(detail));
    }
}

SQLiteDatabase::SQLiteDatabase(const std::string& path, bool readOnly, bool immutable)
    : readOnly_(readOnly) {
    int flags = readOnly ? (SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX)
                         : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX);
    std::string name = path;
    if (readOnly && immutable) {
        flags |= SQLITE_OPEN_URI;
        name = "file:";
        for (char c : path) {
            if (c == '%' || c == '?' || c == '#') {
                name += fmt::format("%{:02X}", static_cast<unsigned char>(c));
            } else {
                name += c;
            }
        }
        name += "?immutable=1";
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(name.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = db != nullptr ? sqlite3_errmsg(db) : "open failed";
        if (db != nullptr) {
            rc = sqlite3_extended_errcode(db);
            sqlite3_close_v2(db);
        }
        throw mapSQLiteError(rc, message);
    }
    handle_ = db;
    sqlite3_busy_timeout(handle_, 5000);
    sqlite3_extended_result_codes(handle_, 1);
}

SQLiteDatabase::~SQLiteDatabase() { close(); }

void SQLiteDatabase::close() {
    clearCache();
    if (handle_ != nullptr) {
        sqlite3_close_v2(handle_);
        handle_ = nullptr;
    }
}

void SQLiteDatabase::clearCache() {
    for (auto& entry : cache_) sqlite3_finalize(entry.second);
    cache_.clear();
}

void SQLiteDatabase::fail(int code) {
    throw mapSQLiteError(
        sqlite3_extended_errcode(handle_) != 0 ? sqlite3_extended_errcode(handle_) : code,
        sqlite3_errmsg(handle_));
}

void SQLiteDatabase::execute(const std::string& sql) {
    if (handle_ == nullptr) {
        throw MailError::storage(StorageFailureKind::ioError, "store is closed");
    }
    char* message = nullptr;
    int rc = sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        std::string text = message != nullptr ? message : "exec failed";
        sqlite3_free(message);
        throw mapSQLiteError(sqlite3_extended_errcode(handle_), text);
    }
}

sqlite3_stmt* SQLiteDatabase::prepare(const std::string& sql) {
    if (auto it = cache_.find(sql); it != cache_.end()) return it->second;
    if (handle_ == nullptr) {
        throw MailError::storage(StorageFailureKind::ioError, "closed");
    }
    sqlite3_stmt* statement = nullptr;
    int rc =
        sqlite3_prepare_v2(handle_, sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr);
    if (rc != SQLITE_OK || statement == nullptr) {
        if (statement != nullptr) sqlite3_finalize(statement);
        if (rc == SQLITE_OK) {
            throw MailError::storage(StorageFailureKind::other, "sqlite 0: empty statement");
        }
        fail(rc);
    }
    ++prepareCount_;
    if (cache_.size() >= statementCacheLimit) clearCache();
    cache_.emplace(sql, statement);
    return statement;
}

void SQLiteDatabase::bind(sqlite3_stmt* statement, const std::vector<SQLValue>& values) {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    int expected = sqlite3_bind_parameter_count(statement);
    if (static_cast<int>(values.size()) != expected) {
        throw MailError::storage(
            StorageFailureKind::other,
            fmt::format("bind count mismatch: {} for {}", values.size(), expected));
    }
    for (int i = 0; i < expected; ++i) {
        const auto& v = values[static_cast<std::size_t>(i)].storage();
        int rc = SQLITE_OK;
        int index = i + 1;
        if (const auto* n = std::get_if<std::int64_t>(&v)) {
            rc = sqlite3_bind_int64(statement, index, *n);
        } else if (const auto* d = std::get_if<double>(&v)) {
            rc = sqlite3_bind_double(statement, index, *d);
        } else if (const auto* s = std::get_if<std::string>(&v)) {
            rc = sqlite3_bind_text64(statement, index, s->data(), s->size(), SQLITE_TRANSIENT,
                                     SQLITE_UTF8);
        } else if (const auto* b = std::get_if<Blob>(&v)) {
            rc = sqlite3_bind_blob64(statement, index, b->data(), b->size(), SQLITE_TRANSIENT);
        } else {
            rc = sqlite3_bind_null(statement, index);
        }
        if (rc != SQLITE_OK) fail(rc);
    }
}

namespace {

// Resets a statement when leaving scope, so that no read stays open.
struct ResetGuard {
    sqlite3_stmt* statement;
    ~ResetGuard() {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
};

}  // namespace

std::int64_t SQLiteDatabase::run(const std::string& sql, const std::vector<SQLValue>& values) {
    sqlite3_stmt* statement = prepare(sql);
    bind(statement, values);
    ResetGuard guard{statement};
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
    }
    if (rc != SQLITE_DONE) fail(rc);
    return sqlite3_changes64(handle_);
}

void SQLiteDatabase::forEachRow(const std::string& sql, const std::vector<SQLValue>& values,
                                const std::function<bool(const SQLRow&)>& visit) {
    sqlite3_stmt* statement = prepare(sql);
    bind(statement, values);
    ResetGuard guard{statement};
    SQLRow row(statement);
    while (true) {
        int rc = sqlite3_step(statement);
        if (rc == SQLITE_DONE) return;
        if (rc != SQLITE_ROW) fail(rc);
        if (!visit(row)) return;
    }
}

std::optional<std::int64_t> SQLiteDatabase::scalarInt(const std::string& sql,
                                                      const std::vector<SQLValue>& values) {
    std::optional<std::int64_t> out;
    forEachRow(sql, values, [&](const SQLRow& row) {
        out = row.optionalInt64(0);
        return false;
    });
    return out;
}

std::int64_t SQLiteDatabase::lastInsertRowID() const {
    return handle_ != nullptr ? sqlite3_last_insert_rowid(handle_) : 0;
}

}  // namespace mailcore
