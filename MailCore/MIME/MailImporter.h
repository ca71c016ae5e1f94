// MailImporter: imports local mail (a Maildir tree, an mbox file) into one
// account of the store.
//
// Imports are idempotent and resumable. Each message filed is recorded in
// the import ledger (the table import_sources, kept in the store's database
// next to the messages) in the same transaction that files it, under a key
// that survives renames: the Maildir unique name, or for mbox the SHA-1 of
// the message text with a counter for identical copies. A second import of
// the same source files nothing new (it only brings changed Maildir flags
// up to date); an interrupted import continues where it stopped. Messages
// get UIDs in source order (file name order for Maildir, which follows
// delivery time), counting up from the folder's highest UID.
//
// Parsing runs on worker threads; filing runs on the caller's thread in
// batches, one transaction each, bounded in count and bytes so that memory
// stays bounded whatever the source.
//
// Thread-safety: one import at a time per MailImporter; the store may be
// used by others meanwhile (it serialises its own operations).
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/MIME/MessageParser.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

struct ImportProgress {
    std::string folder;           // the folder being imported
    std::size_t folderIndex = 0;  // 1-based
    std::size_t folderCount = 0;
    std::size_t found = 0;     // messages found in the folders listed so far
    std::size_t imported = 0;  // filed by this import
    std::size_t skipped = 0;   // filed by an earlier import
    std::size_t failed = 0;
};

struct ImportFailure {
    std::string source;  // file path, or "<mbox path>@<offset>"
    std::string reason;
};

struct ImportReport {
    std::size_t imported = 0;
    std::size_t skipped = 0;
    std::size_t flagsUpdated = 0;
    std::size_t failed = 0;
    std::vector<ImportFailure> failures;  // the first 100
    std::vector<FolderID> folders;        // every folder the source maps to
};

struct ImportOptions {
    std::size_t batchSize = 500;                          // messages per transaction
    std::size_t batchBytes = 32 * 1024 * 1024;            // raw bytes per transaction
    unsigned workers = 0;                                 // parsing threads; 0: one per core
    std::function<void(const ImportProgress&)> progress;  // after each batch
};

class MailImporter {
public:
    // The account must exist in the store.
    MailImporter(SQLiteMailStore& store, AccountID account, MessageParserLimits limits = {},
                 Clock clock = systemClock());

    // Every folder of the Maildir tree at `root` (see MailSources.h).
    // Throws MailError (the root cannot be read, "account not found", storage
    // failures); a message that cannot be read or parsed is reported in the
    // result and the import goes on.
    ImportReport importMaildir(const std::filesystem::path& root,
                               const ImportOptions& options = {});

    // One mbox file into the folder `folderPath` (created if missing, its
    // role guessed from the name).
    ImportReport importMbox(const std::filesystem::path& file, const std::string& folderPath,
                            const ImportOptions& options = {});

private:
    struct Source;
    struct FolderTarget;
    FolderID folderFor(const std::string& path, const std::optional<std::string>& delimiter,
                       FolderRole role);
    void importSources(const FolderTarget& target, std::vector<Source> sources,
                       const ImportOptions& options, ImportProgress& progress,
                       ImportReport& report);

    SQLiteMailStore& store_;
    AccountID account_;
    MessageParserLimits limits_;
    Clock clock_;
};

}  // namespace mailcore
