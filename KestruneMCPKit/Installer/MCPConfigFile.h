// Reading and writing harness configuration files safely: size, type and
// encoding checks before anything is parsed; symbolic links followed to the
// file they name (the link itself is never replaced); a backup next to the
// configured path before every change; atomic replacement through a
// temporary file in the target's directory. Stateless; safe to call from any
// thread, but two writers of one file at the same time are not coordinated
// beyond the check that the file did not change since it was read.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/PrivateFiles.h"

namespace mcpkit::MCPConfigFile {

// Configuration files larger than this are refused unread.
inline constexpr std::size_t maxBytes = 32 * 1024 * 1024;

// Throws MCPInstallError::unreadable("not readable as UTF-8") or
// unreadable("not a text file (contains NUL bytes)").
void checkText(std::string_view bytes);

// A configuration file as it was read.
struct Snapshot {
    std::filesystem::path path;    // the configured path (may be a link)
    std::filesystem::path target;  // the file that holds the content
    bool exists = false;
    std::string bytes;
    // Identity at the time of reading, checked again before replacing.
    mailcore::FileStamp stamp;
};

// Reads the file at `path`, following symbolic links. A missing file gives a
// snapshot with `exists` false. Throws MCPInstallError::unreadable with
// "cannot read file", "not a regular file", "file is larger than 32 MiB",
// "not readable as UTF-8" or "not a text file (contains NUL bytes)".
Snapshot read(const std::filesystem::path& path);

// Replaces the snapshot's target with `bytes` atomically (mode 0600 for a new
// file; an existing file keeps its owner bits and loses group and other
// access, since it now holds a token). Missing parent directories are created
// with mode 0700. Throws MCPInstallError::io when the file changed since it was
// read or any step fails; the target is then untouched.
void replace(const Snapshot& snapshot, std::string_view bytes);

// "yyyyMMdd-HHmmss" of `date` in local time.
std::string backupStamp(mailcore::Date date);

// Writes `bytes` to a new file, mode 0600, next to `path`, named after it with
// ".kestrune-backup-" and the stamp of `now` (a "-N" suffix when that name is
// taken). Returns the backup's path; throws MCPInstallError::io on failure.
std::filesystem::path writeBackup(const std::filesystem::path& path, std::string_view bytes,
                                  mailcore::Date now);

// Deletes the oldest backups of `path` beyond the newest `keep`. Files that do
// not carry a backup name of `path` are never touched; failures are ignored.
void pruneBackups(const std::filesystem::path& path, std::size_t keep);

}  // namespace mcpkit::MCPConfigFile
