// The audit log: one entry for every request that reaches the agent service,
// kept in memory (oldest first, at most maxEntries) and in "audit.jsonl", one
// JSON object per line. Every text passes MCPRedactor before it is stored.
//
// Files: recording appends one line; only when the log goes past maxEntries
// are the oldest entries dropped and the whole file rewritten (atomically,
// mode 0600). prune() and clear() rewrite the file. Lines that cannot be
// decoded are skipped at load. A failed write never fails the caller: the
// entry stays in memory and the failure shows in lastWriteError().
//
// Thread-safe: entries and the file are touched only under one lock; the
// change callback runs after the lock is released, so it may read entries().
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Audit/MCPAuditEntry.h"
#include "KestruneMCPKit/Audit/MCPResult.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Common/PrivateFiles.h"

namespace mcpkit {

class MCPAuditLog {
public:
    static constexpr std::size_t maxEntries = 20000;
    static constexpr std::size_t harnessLimit = 60;
    static constexpr std::size_t toolLimit = 60;
    static constexpr std::size_t accountLimit = 120;
    static constexpr std::size_t summaryLimit = 200;
    // A log file larger than this is not loaded.
    static constexpr std::size_t maxFileBytes = 64 * 1024 * 1024;

    enum class ExportFormat { jsonLines, csv };
    // "jsonLines", "csv".
    static std::string_view rawValue(ExportFormat format);

    // `fileURL` none keeps the log in memory only. Reads the file if present.
    explicit MCPAuditLog(
        std::optional<std::filesystem::path> fileURL,
        mailcore::Clock clock = mailcore::systemClock(),
        std::shared_ptr<const mailcore::PrivateFiles> files = mailcore::systemFiles());

    MCPAuditLog(const MCPAuditLog&) = delete;
    MCPAuditLog& operator=(const MCPAuditLog&) = delete;

    // One line of the file; none when it is not a complete entry.
    static std::optional<MCPAuditEntry> decode(std::string_view line);
    // The line of an entry, without the line feed.
    static std::string encode(const MCPAuditEntry& entry);

    // Stores a new entry: time from the clock, a fresh id, `harness` and `tool`
    // scrubbed to 60 characters, `account` kept (cut to 120 characters) when it
    // is one plain address and otherwise scrubbed to 120, `summary` scrubbed to
    // 200. Never throws because of the file.
    MCPAuditEntry record(std::string_view harness, std::string_view tool, std::string_view account,
                         MCPResult result, std::string_view summary,
                         std::optional<bool> mailInfluenced);

    std::vector<MCPAuditEntry> entries() const;
    std::vector<MCPAuditEntry> filtered(const MCPAuditFilter& filter) const;

    // Drops entries older than now minus retentionDays × 86400 s (a negative
    // period counts as zero, one beyond 73000 days as 73000); none keeps all.
    void prune(std::optional<std::int64_t> retentionDays);

    // Drops every entry and empties the file.
    void clear();

    // The filtered entries, oldest first: JSON lines as in the file, or CSV
    // with the header "time,harness,tool,account,result,summary,mail_influenced"
    // and lines ended by CR LF. CSV fields holding a comma, a double quote or a
    // line break are quoted with inner quotes doubled; a field starting with
    // =, +, -, @, tab or CR gets a leading apostrophe so that spreadsheets do
    // not run it as a formula; mail_influenced is "true", "false" or empty when
    // unknown.
    std::string exportEntries(const MCPAuditFilter& filter, ExportFormat format) const;

    // 2026-01-31T08:15:00Z (UTC, whole seconds).
    static std::string timeString(mailcore::Date date);

    void setOnChange(std::function<void()> onChange);

    // The last failure to write the file, cleared by the next successful write.
    std::optional<std::string> lastWriteError() const;
    // How many lines of the file could not be decoded at load.
    std::size_t skippedLinesAtLoad() const;
    // Why the file was not loaded (a link, not a regular file, too large).
    std::optional<std::string> loadProblem() const;

private:
    void load();
    void rewriteLocked();
    void appendLocked(const std::string& line);
    void notify();

    const std::optional<std::filesystem::path> fileURL_;
    const mailcore::Clock clock_;
    const std::shared_ptr<const mailcore::PrivateFiles> files_;

    mutable std::mutex lock_;
    std::deque<MCPAuditEntry> items_;            // guarded by lock_
    std::deque<std::string> lines_;              // guarded by lock_; the line of items_[i]
    bool needsLineBreak_ = false;                // guarded by lock_; file lacks a final LF
    std::function<void()> onChange_;             // guarded by lock_
    std::optional<std::string> lastWriteError_;  // guarded by lock_
    std::size_t skippedLines_ = 0;               // guarded by lock_
    std::optional<std::string> loadProblem_;     // guarded by lock_
};

}  // namespace mcpkit
