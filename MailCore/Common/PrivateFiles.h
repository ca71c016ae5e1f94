// PrivateFiles: the one way the application and the agent side touch the
// small files that hold private state (policy, tokens, audit log, workflows,
// harness configurations). Reads open the path itself, never a symbolic link
// it names, without blocking (a FIFO or device is refused, not waited on),
// and accept only a regular file up to a size the caller states. Writes go to
// a new temporary file (mode 0600 unless stated) beside the target and
// replace it atomically: a reader sees the old content or the new, never a
// mix. Appends never follow a symbolic link and never block either.
//
// Every operation reports failure by its result with a short reason and never
// throws. The system implementation is stateless and thread-safe; callers
// serialise writes to one file. Tests substitute a fault-injecting fake.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

// What identifies one version of a file: an atomic replacement gives a new
// inode, an in-place edit a new size or modification time.
struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::timespec modified{};
    mode_t mode = 0;  // type and permission bits

    bool operator==(const FileStamp& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec && mode == other.mode;
    }
};

struct FileRead {
    enum class Status { ok, missing, refused };
    Status status = Status::missing;
    std::string bytes;               // the whole content when ok
    std::string problem;             // why it was refused: "is a symbolic link", ...
    std::optional<FileStamp> stamp;  // of the file that was read, when ok

    bool ok() const { return status == Status::ok; }
    bool missing() const { return status == Status::missing; }
    bool refused() const { return status == Status::refused; }
};

struct WriteOptions {
    mode_t mode = 0600;
    bool durable = true;  // flush the data and the directory to disk
    // Called just before the replacement; a text refuses it (the target stays
    // untouched, the temporary file is removed, the text becomes the error).
    std::function<std::optional<std::string>()> beforeReplace;
};

class PrivateFiles {
public:
    virtual ~PrivateFiles() = default;

    // The file at `path` when it is a regular file of at most `maxBytes`.
    // missing when nothing is there (or a directory above it is missing);
    // refused with a problem text for a symbolic link ("is a symbolic link"),
    // anything but a regular file ("is not a regular file"), a file over the
    // bound ("is larger than N MiB"/"KiB"/"bytes") or a failed open or read
    // ("cannot be read (<reason>)").
    virtual FileRead read(const std::filesystem::path& path, std::size_t maxBytes) const = 0;

    // The stamp of the entry at `path` itself (a link is not followed), or
    // none when nothing is there.
    virtual std::optional<FileStamp> stamp(const std::filesystem::path& path) const = 0;

    // Replaces `path` with `data` as described above. The stamp of the new
    // file, or none with `error` set (when given) and `path` untouched.
    virtual std::optional<FileStamp> writeAtomically(const std::filesystem::path& path,
                                                     std::string_view data, std::string* error,
                                                     const WriteOptions& options) const = 0;

    // Appends `data` with one write (O_APPEND), creating the file with mode
    // 0600 when missing. Refuses a symbolic link or anything but a regular
    // file. False with `error` set (when given) on failure.
    virtual bool append(const std::filesystem::path& path, std::string_view data,
                        std::string* error) const = 0;

    std::optional<FileStamp> writeAtomically(const std::filesystem::path& path,
                                             std::string_view data,
                                             std::string* error = nullptr) const {
        return writeAtomically(path, data, error, WriteOptions{});
    }
};

// The implementation over the operating system's files.
std::shared_ptr<const PrivateFiles> systemFiles();

// "4 MiB", "512 KiB", "100 bytes": how refusals state a bound.
std::string describeSize(std::size_t bytes);

// Removes group and other permission bits from an existing regular file (a
// link is left alone); nothing when it is missing.
void restrictToOwner(const std::filesystem::path& path);

}  // namespace mailcore
