// Reading and writing the agent-access files that hold secrets or private
// state (tokens, policy state, audit log). Writes create files with mode 0600
// and replace whole files atomically: a reader sees the old content or the
// new, never a mix. Every function reports failure by its result and never
// throws. Stateless and thread-safe; callers serialise writes to one file.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace mcpkit::MCPPrivateFile {

// What identifies one version of a file: an atomic replacement gives a new
// inode, an in-place edit a new size or modification time.
struct Stamp {
    ino_t inode = 0;
    off_t size = 0;
    std::timespec modified{};

    bool operator==(const Stamp& other) const {
        return inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

// The whole content, or none when the file is missing or cannot be read.
std::optional<std::string> read(const std::filesystem::path& path);

// The stamp of the file at `path`, or none when it does not exist.
std::optional<Stamp> stamp(const std::filesystem::path& path);

// Writes `data` to a new temporary file beside `path` (mode 0600), flushes it
// to disk when `durable`, renames it over `path`, then sets mode 0600 on
// `path`. On success
// returns the stamp of the written file; on failure leaves `path` untouched,
// removes the temporary file and returns none with `error` set to a short
// description (when given).
std::optional<Stamp> writeAtomically(const std::filesystem::path& path, std::string_view data,
                                     std::string* error = nullptr, bool durable = true);

// Appends `data` at the end of `path` with one write (O_APPEND), creating the
// file with mode 0600 when missing. False (and `error` set) on failure.
bool append(const std::filesystem::path& path, std::string_view data, std::string* error = nullptr);

// Removes group and other permission bits from an existing file; nothing when
// it is missing.
void restrictToOwner(const std::filesystem::path& path);

}  // namespace mcpkit::MCPPrivateFile
