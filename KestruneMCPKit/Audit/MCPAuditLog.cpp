#include "KestruneMCPKit/Audit/MCPAuditLog.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Audit/MCPRedactor.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit {

std::string_view MCPAuditLog::rawValue(ExportFormat format) {
    return format == ExportFormat::csv ? "csv" : "jsonLines";
}

MCPAuditLog::MCPAuditLog(std::optional<std::filesystem::path> fileURL, mailcore::Clock clock,
                         std::shared_ptr<const mailcore::PrivateFiles> files)
    : fileURL_(std::move(fileURL)), clock_(std::move(clock)), files_(std::move(files)) {
    load();
}

std::optional<MCPAuditEntry> MCPAuditLog::decode(std::string_view line) {
    mailcore::Json json;
    if (!mailcore::tryParseJson(line, json)) return std::nullopt;
    return auditEntryFromJson(json);
}

std::string MCPAuditLog::encode(const MCPAuditEntry& entry) {
    return mailcore::encodeJson(toJson(entry));
}

void MCPAuditLog::load() {
    if (!fileURL_) return;
    auto file = files_->read(*fileURL_, maxFileBytes);
    std::lock_guard guard(lock_);
    if (file.refused()) loadProblem_ = "The audit log " + fileURL_->string() + " " + file.problem;
    if (!file.ok()) return;
    const std::string& text = file.bytes;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        auto entry = decode(line);
        if (!entry) {
            ++skippedLines_;
            continue;
        }
        lines_.emplace_back(line);  // kept as read: it decodes to the entry
        items_.push_back(std::move(*entry));
        if (items_.size() > maxEntries) {
            items_.pop_front();
            lines_.pop_front();
        }
    }
    needsLineBreak_ = !text.empty() && text.back() != '\n';
}

void MCPAuditLog::rewriteLocked() {
    if (!fileURL_) return;
    std::string content;
    std::size_t size = 0;
    for (const auto& line : lines_) size += line.size() + 1;
    content.reserve(size);
    for (const auto& line : lines_) {
        content += line;
        content.push_back('\n');
    }
    std::string error;
    // Not flushed to disk: the log is rewritten often once full, and a crash
    // costs at most the newest entries.
    mailcore::WriteOptions options;
    options.durable = false;
    if (files_->writeAtomically(*fileURL_, content, &error, options)) {
        lastWriteError_ = std::nullopt;
        needsLineBreak_ = false;
    } else {
        lastWriteError_ = "Rewriting the audit log failed (" + error + ").";
    }
}

void MCPAuditLog::appendLocked(const std::string& line) {
    if (!fileURL_) return;
    std::string data;
    data.reserve(line.size() + 2);
    // After a torn or failed write, start on a fresh line so that the new
    // entry stays readable; an empty line is skipped at load.
    if (needsLineBreak_) data.push_back('\n');
    data += line;
    data.push_back('\n');
    std::string error;
    if (files_->append(*fileURL_, data, &error)) {
        lastWriteError_ = std::nullopt;
        needsLineBreak_ = false;
    } else {
        lastWriteError_ = "Appending to the audit log failed (" + error + ").";
        needsLineBreak_ = true;
    }
}

void MCPAuditLog::notify() {
    std::function<void()> callback;
    {
        std::lock_guard guard(lock_);
        callback = onChange_;
    }
    if (callback) callback();
}

namespace {

// An account is kept as written only when it is one plain address that the
// redactor finds nothing else in (printable ASCII, no token inside); any
// other text is scrubbed like the rest.
std::string accountText(std::string_view account) {
    std::string scrubbed = MCPRedactor::scrub(account, MCPAuditLog::accountLimit);
    const bool plain =
        std::all_of(account.begin(), account.end(), [](char c) { return c > 0x20 && c < 0x7F; });
    if (plain && scrubbed == "[email]") {
        return std::string(mailcore::utf8::prefix(account, MCPAuditLog::accountLimit));
    }
    return scrubbed;
}

}  // namespace

MCPAuditEntry MCPAuditLog::record(std::string_view harness, std::string_view tool,
                                  std::string_view account, MCPResult result,
                                  std::string_view summary, std::optional<bool> mailInfluenced) {
    MCPAuditEntry entry;
    entry.harness = MCPRedactor::scrub(harness, harnessLimit);
    entry.tool = MCPRedactor::scrub(tool, toolLimit);
    entry.account = accountText(account);
    entry.result = result;
    entry.summary = MCPRedactor::scrub(summary, summaryLimit);
    entry.mailInfluenced = mailInfluenced;
    {
        std::lock_guard guard(lock_);
        entry.time = auditTime(clock_());
        entry.id = mailcore::makeUUID();
        std::string line = encode(entry);
        items_.push_back(entry);
        lines_.push_back(line);
        if (items_.size() > maxEntries) {
            while (items_.size() > maxEntries) {
                items_.pop_front();
                lines_.pop_front();
            }
            rewriteLocked();
        } else {
            appendLocked(line);
        }
    }
    notify();
    return entry;
}

std::vector<MCPAuditEntry> MCPAuditLog::entries() const {
    std::lock_guard guard(lock_);
    return {items_.begin(), items_.end()};
}

std::vector<MCPAuditEntry> MCPAuditLog::filtered(const MCPAuditFilter& filter) const {
    std::lock_guard guard(lock_);
    std::vector<MCPAuditEntry> out;
    for (const auto& entry : items_) {
        if (filter.matches(entry)) out.push_back(entry);
    }
    return out;
}

void MCPAuditLog::prune(std::optional<std::int64_t> retentionDays) {
    if (!retentionDays) return;
    bool changed = false;
    {
        std::lock_guard guard(lock_);
        // Clamped so that the cutoff stays representable; a negative period
        // counts as zero.
        const std::int64_t days = std::clamp<std::int64_t>(*retentionDays, 0, 73000);
        const mailcore::Date cutoff = clock_() - std::chrono::seconds(days * 86400);
        std::deque<MCPAuditEntry> keptItems;
        std::deque<std::string> keptLines;
        for (std::size_t i = 0; i < items_.size(); ++i) {
            if (items_[i].time < cutoff) continue;
            keptItems.push_back(std::move(items_[i]));
            keptLines.push_back(std::move(lines_[i]));
        }
        changed = keptItems.size() != items_.size();
        items_ = std::move(keptItems);
        lines_ = std::move(keptLines);
        if (changed) rewriteLocked();
    }
    if (changed) notify();
}

void MCPAuditLog::clear() {
    {
        std::lock_guard guard(lock_);
        items_.clear();
        lines_.clear();
        rewriteLocked();
    }
    notify();
}

std::string MCPAuditLog::timeString(mailcore::Date date) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return buffer;
}

namespace {

std::string csvField(std::string_view value) {
    std::string field;
    if (!value.empty() && (value[0] == '=' || value[0] == '+' || value[0] == '-' ||
                           value[0] == '@' || value[0] == '\t' || value[0] == '\r')) {
        field.push_back('\'');
    }
    field += value;
    if (field.find_first_of(",\"\r\n") == std::string::npos) return field;
    std::string quoted = "\"";
    for (char c : field) {
        if (c == '"') quoted.push_back('"');
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

}  // namespace

std::string MCPAuditLog::exportEntries(const MCPAuditFilter& filter, ExportFormat format) const {
    std::string out;
    if (format == ExportFormat::csv)
        out = "time,harness,tool,account,result,summary,mail_influenced\r\n";
    std::lock_guard guard(lock_);
    for (std::size_t i = 0; i < items_.size(); ++i) {
        const auto& e = items_[i];
        if (!filter.matches(e)) continue;
        if (format == ExportFormat::jsonLines) {
            out += lines_[i];
            out.push_back('\n');
            continue;
        }
        out += timeString(e.time);
        for (std::string_view field :
             {std::string_view(e.harness), std::string_view(e.tool), std::string_view(e.account),
              mcpkit::rawValue(e.result), std::string_view(e.summary)}) {
            out.push_back(',');
            out += csvField(field);
        }
        out.push_back(',');
        if (e.mailInfluenced) out += *e.mailInfluenced ? "true" : "false";
        out += "\r\n";
    }
    return out;
}

void MCPAuditLog::setOnChange(std::function<void()> onChange) {
    std::lock_guard guard(lock_);
    onChange_ = std::move(onChange);
}

std::optional<std::string> MCPAuditLog::lastWriteError() const {
    std::lock_guard guard(lock_);
    return lastWriteError_;
}

std::size_t MCPAuditLog::skippedLinesAtLoad() const {
    std::lock_guard guard(lock_);
    return skippedLines_;
}

std::optional<std::string> MCPAuditLog::loadProblem() const {
    std::lock_guard guard(lock_);
    return loadProblem_;
}

}  // namespace mcpkit
