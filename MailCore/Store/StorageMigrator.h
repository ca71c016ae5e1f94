// StorageMigrator: brings a database up to the newest schema version, one
// migration per transaction. Version 1 is the base schema, version 2 the
// full-text search index, version 3 the workflow engine's ledger.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Store/SQLiteDatabase.h"

namespace mailcore {

struct Migration {
    std::int64_t version = 0;
    std::string name;
    std::function<void(SQLiteDatabase&)> body;
};

class StorageMigrator {
public:
    static constexpr std::int64_t newestVersion = 3;

    // The statements of version 1, in the order they run.
    static const std::vector<std::string>& baseSchemaStatements();
    // The statements of version 3, in the order they run.
    static const std::vector<std::string>& workflowLedgerStatements();
    // The standard list: 1 "base schema", 2 "full-text search index", 3
    // "workflow ledger".
    static std::vector<Migration> standardMigrations();

    StorageMigrator() : migrations_(standardMigrations()) {}
    explicit StorageMigrator(std::vector<Migration> migrations)
        : migrations_(std::move(migrations)) {}

    const std::vector<Migration>& migrations() const { return migrations_; }

    // Applies every migration above "PRAGMA user_version" and not above
    // `upTo` (all when none), each in its own "BEGIN IMMEDIATE" transaction.
    // A failure rolls back that migration, leaves the last committed version,
    // and throws storage(migrationFailed, "migration <v> failed: <error>").
    void migrate(SQLiteDatabase& db, std::optional<std::int64_t> upTo, Date now) const;

private:
    std::vector<Migration> migrations_;
};

}  // namespace mailcore
