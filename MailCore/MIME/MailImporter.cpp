#include "MailCore/MIME/MailImporter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>
#include <unordered_map>

#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/GMimeSupport.h"
#include "MailCore/MIME/MailSources.h"
#include "MailCore/MIME/MessageIngestor.h"

namespace mailcore {

namespace fs = std::filesystem;

struct MailImporter::Source {
    std::string key;    // ledger key
    std::string label;  // for failure reports
    fs::path file;      // Maildir: the message file
    std::string_view mboxData;
    std::optional<MboxMessageSource> mbox;
    MessageFlags flags;
    std::optional<Date> internalDate;
    std::uint64_t bytes = 0;
    IMAPUID uid;  // assigned when the message is new
};

struct MailImporter::FolderTarget {
    FolderID id;
    std::string path;
    std::size_t index = 0;
    std::size_t count = 0;
};

namespace {

constexpr const char* ledgerSchema =
    "CREATE TABLE IF NOT EXISTS import_sources (\n"
    "    folder_id INTEGER NOT NULL REFERENCES folders(id) ON DELETE CASCADE,\n"
    "    source_key TEXT NOT NULL,\n"
    "    uid INTEGER NOT NULL,\n"
    "    flags TEXT NOT NULL,\n"
    "    PRIMARY KEY (folder_id, source_key)) WITHOUT ROWID";

struct LedgerEntry {
    std::uint32_t uid = 0;
    std::string flags;
};

std::string flagsText(const MessageFlags& flags) {
    std::string out = std::to_string(flags.system) + "|";
    for (std::size_t i = 0; i < flags.keywords.size(); ++i) {
        if (i > 0) out += ' ';
        out += flags.keywords[i];
    }
    return out;
}

class MappedFile {
public:
    explicit MappedFile(const fs::path& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            throw MailError::storage(StorageFailureKind::ioError,
                                     "cannot read mbox " + path.string());
        struct stat st {};
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            throw MailError::storage(StorageFailureKind::ioError,
                                     "cannot read mbox " + path.string());
        }
        size_ = static_cast<std::size_t>(st.st_size);
        if (size_ > 0) {
            void* mapped = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
            if (mapped == MAP_FAILED) {
                ::close(fd);
                throw MailError::storage(StorageFailureKind::ioError,
                                         "cannot read mbox " + path.string());
            }
            data_ = mapped;
        }
        ::close(fd);
    }
    ~MappedFile() {
        if (data_ != nullptr) ::munmap(data_, size_);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::string_view view() const {
        return data_ == nullptr ? std::string_view()
                                : std::string_view(static_cast<const char*>(data_), size_);
    }

private:
    void* data_ = nullptr;
    std::size_t size_ = 0;
};

bool readWholeFile(const fs::path& path, std::string& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open file";
        return false;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size < 0) {
        error = "cannot read file";
        return false;
    }
    out.resize(static_cast<std::size_t>(size));
    if (size > 0 && !in.read(out.data(), size)) {
        error = "cannot read file";
        return false;
    }
    return true;
}

std::optional<Date> modificationTime(const fs::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return dateFromSeconds(static_cast<double>(st.st_mtim.tv_sec) +
                           static_cast<double>(st.st_mtim.tv_nsec) / 1e9);
}

struct Outcome {
    std::optional<PreparedMessage> prepared;
    std::string error;
};

}  // namespace

MailImporter::MailImporter(SQLiteMailStore& store, AccountID account, MessageParserLimits limits,
                           Clock clock)
    : store_(store), account_(std::move(account)), limits_(limits), clock_(std::move(clock)) {}

FolderID MailImporter::folderFor(const std::string& path,
                                 const std::optional<std::string>& delimiter, FolderRole role) {
    for (const auto& folder : store_.folders(account_)) {
        if (folder.path == path) return folder.id;
    }
    FolderListing listing;
    listing.path = path;
    listing.delimiter = delimiter;
    listing.serverRole = role;
    return store_.createFolder(account_, listing);
}

ImportReport MailImporter::importMaildir(const fs::path& root, const ImportOptions& options) {
    if (!store_.accountExists(account_)) {
        throw MailError::storage(StorageFailureKind::notFound, "account not found");
    }
    const auto folders = findMaildirFolders(root);
    store_.write([](SQLiteDatabase& db) { db.execute(ledgerSchema); });

    ImportReport report;
    ImportProgress progress;
    progress.folderCount = folders.size();
    std::vector<std::pair<FolderTarget, std::vector<Source>>> work;
    for (std::size_t i = 0; i < folders.size(); ++i) {
        const auto& f = folders[i];
        FolderTarget target{folderFor(f.path, f.delimiter, f.role), f.path, i + 1, folders.size()};
        report.folders.push_back(target.id);
        std::vector<Source> sources;
        for (auto& m : listMaildirMessages(f.directory)) {
            Source s;
            s.key = m.uniqueName;
            s.label = m.file.string();
            std::error_code ec;
            s.bytes = fs::file_size(m.file, ec);
            if (ec) s.bytes = 0;
            s.file = std::move(m.file);
            s.flags = std::move(m.flags);
            sources.push_back(std::move(s));
        }
        progress.found += sources.size();
        work.emplace_back(std::move(target), std::move(sources));
    }
    for (auto& [target, sources] : work) {
        importSources(target, std::move(sources), options, progress, report);
    }
    return report;
}

ImportReport MailImporter::importMbox(const fs::path& file, const std::string& folderPath,
                                      const ImportOptions& options) {
    if (!store_.accountExists(account_)) {
        throw MailError::storage(StorageFailureKind::notFound, "account not found");
    }
    const MappedFile mapped(file);
    store_.write([](SQLiteDatabase& db) { db.execute(ledgerSchema); });
    const std::string_view data = mapped.view();

    ImportReport report;
    const std::size_t slash = folderPath.rfind('/');
    FolderTarget target{
        folderFor(folderPath, std::string("/"),
                  folderRoleForName(slash == std::string::npos ? folderPath
                                                               : folderPath.substr(slash + 1))),
        folderPath, 1, 1};
    report.folders.push_back(target.id);

    std::vector<Source> sources;
    std::unordered_map<std::string, int> copies;
    for (const auto& m : splitMbox(data)) {
        Source s;
        GCharPtr digest(g_compute_checksum_for_data(
            G_CHECKSUM_SHA1, reinterpret_cast<const guchar*>(data.data() + m.offset), m.length));
        const std::string hex = digest ? digest.get() : "";
        s.key = "sha1:" + hex + "#" + std::to_string(copies[hex]++);
        s.label = file.string() + "@" + std::to_string(m.offset);
        s.mboxData = data;
        s.flags = m.flags;
        s.internalDate = m.internalDate;
        s.bytes = m.length;
        s.mbox = m;
        sources.push_back(std::move(s));
    }
    ImportProgress progress;
    progress.folderCount = 1;
    progress.found = sources.size();
    importSources(target, std::move(sources), options, progress, report);
    return report;
}

void MailImporter::importSources(const FolderTarget& target, std::vector<Source> sources,
                                 const ImportOptions& options, ImportProgress& progress,
                                 ImportReport& report) {
    progress.folder = target.path;
    progress.folderIndex = target.index;
    const FolderID folder = target.id;

    // What earlier imports filed, and where this one's UIDs start.
    std::unordered_map<std::string, LedgerEntry> ledger;
    std::uint32_t highest = 0;
    store_.read([&](SQLiteDatabase& db) {
        db.forEachRow(
            "SELECT source_key, uid, flags FROM import_sources WHERE folder_id = ?", {folder},
            [&](const SQLRow& row) {
                ledger[row.text(0)] = {static_cast<std::uint32_t>(row.int64(1)), row.text(2)};
                return true;
            });
        const auto inMessages =
            db.scalarInt("SELECT MAX(uid) FROM messages WHERE folder_id = ?", {folder});
        const auto inLedger =
            db.scalarInt("SELECT MAX(uid) FROM import_sources WHERE folder_id = ?", {folder});
        highest =
            static_cast<std::uint32_t>(std::max(inMessages.value_or(0), inLedger.value_or(0)));
    });

    std::vector<Source> pending;
    std::vector<FlagUpdate> flagUpdates;
    std::vector<std::pair<std::string, std::string>> flagRewrites;
    for (auto& s : sources) {
        const auto known = ledger.find(s.key);
        if (known == ledger.end()) {
            s.uid = IMAPUID(++highest);
            pending.push_back(std::move(s));
            continue;
        }
        ++report.skipped;
        ++progress.skipped;
        const std::string flags = flagsText(s.flags);
        if (!s.mbox && known->second.flags != flags) {
            flagUpdates.push_back({IMAPUID(known->second.uid), s.flags, std::nullopt});
            flagRewrites.emplace_back(s.key, flags);
        }
    }
    sources.clear();
    if (!flagUpdates.empty()) {
        store_.write([&](SQLiteDatabase& db) {
            store_.applyServerFlags(folder, flagUpdates);
            for (const auto& [key, flags] : flagRewrites) {
                db.run("UPDATE import_sources SET flags = ? WHERE folder_id = ? AND source_key = ?",
                       {flags, folder, key});
            }
        });
        report.flagsUpdated += flagUpdates.size();
    }

    // Batches bounded by count and bytes.
    std::vector<std::pair<std::size_t, std::size_t>> batches;
    for (std::size_t begin = 0; begin < pending.size();) {
        std::size_t end = begin;
        std::uint64_t bytes = 0;
        while (end < pending.size() && end - begin < std::max<std::size_t>(options.batchSize, 1) &&
               (end == begin || bytes + pending[end].bytes <= options.batchBytes)) {
            bytes += pending[end].bytes;
            ++end;
        }
        batches.emplace_back(begin, end);
        begin = end;
    }

    const unsigned workers =
        options.workers != 0 ? options.workers : std::max(1u, std::thread::hardware_concurrency());
    const MessageParser parser(limits_);
    const Date now = clock_();
    auto parseOne = [&](const Source& s) {
        Outcome outcome;
        try {
            std::string raw;
            std::optional<Date> internalDate = s.internalDate;
            if (s.mbox) {
                raw = mboxMessageText(s.mboxData, *s.mbox);
            } else {
                if (!readWholeFile(s.file, raw, outcome.error)) return outcome;
                if (!internalDate) internalDate = modificationTime(s.file);
            }
            const ParsedMessage parsed = parser.parse(raw);
            IncomingMessage incoming{folder, s.uid, s.flags, internalDate, std::nullopt};
            outcome.prepared = prepareMessage(parsed, account_, incoming, now);
        } catch (const MailError& e) {
            outcome.error = e.detail();
        } catch (const std::exception& e) {
            outcome.error = e.what();
        }
        return outcome;
    };
    auto parseBatch = [&](std::pair<std::size_t, std::size_t> range) {
        std::vector<Outcome> outcomes(range.second - range.first);
        std::atomic<std::size_t> next{0};
        auto run = [&] {
            for (std::size_t i = next++; i < outcomes.size(); i = next++) {
                outcomes[i] = parseOne(pending[range.first + i]);
            }
        };
        const unsigned threads =
            std::min<unsigned>(workers, static_cast<unsigned>(outcomes.size()));
        if (threads <= 1) {
            run();
        } else {
            std::vector<std::thread> pool;
            for (unsigned t = 0; t < threads; ++t) pool.emplace_back(run);
            for (auto& t : pool) t.join();
        }
        return outcomes;
    };

    MessageIngestor ingestor(store_, limits_, clock_);
    std::future<std::vector<Outcome>> next;
    if (!batches.empty()) next = std::async(std::launch::async, parseBatch, batches[0]);
    for (std::size_t b = 0; b < batches.size(); ++b) {
        std::vector<Outcome> outcomes = next.get();
        // Parse the next batch while this one is filed.
        if (b + 1 < batches.size())
            next = std::async(std::launch::async, parseBatch, batches[b + 1]);
        std::vector<PreparedMessage> batch;
        std::vector<const Source*> filed;
        for (std::size_t i = 0; i < outcomes.size(); ++i) {
            const Source& s = pending[batches[b].first + i];
            if (outcomes[i].prepared) {
                batch.push_back(std::move(*outcomes[i].prepared));
                filed.push_back(&s);
            } else {
                ++report.failed;
                ++progress.failed;
                if (report.failures.size() < 100)
                    report.failures.push_back({s.label, outcomes[i].error});
            }
        }
        try {
            ingestor.file(std::move(batch), [&](SQLiteDatabase& db, const std::vector<MessageID>&) {
                for (const Source* s : filed) {
                    db.run(
                        "INSERT OR REPLACE INTO import_sources(folder_id, source_key, uid, flags) "
                        "VALUES (?, ?, ?, ?)",
                        {folder, s->key, s->uid, flagsText(s->flags)});
                }
            });
        } catch (...) {
            if (next.valid()) next.wait();  // the workers read `pending`
            throw;
        }
        report.imported += filed.size();
        progress.imported += filed.size();
        if (options.progress) options.progress(progress);
    }
    if (batches.empty() && options.progress) options.progress(progress);
}

}  // namespace mailcore
