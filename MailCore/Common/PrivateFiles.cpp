#include "MailCore/Common/PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "MailCore/Common/Random.h"

namespace fs = std::filesystem;

namespace mailcore {

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

std::string withReason(const char* what, int err) {
    return std::string(what) + " (" + std::strerror(err) + ")";
}

FileStamp stampOf(const struct stat& st) {
    FileStamp s;
    s.device = st.st_dev;
    s.inode = st.st_ino;
    s.size = st.st_size;
#if defined(__APPLE__)
    s.modified = st.st_mtimespec;
#else
    s.modified = st.st_mtim;
#endif
    s.mode = st.st_mode;
    return s;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string temporaryName(const fs::path& path) {
    static const char hex[] = "0123456789abcdef";
    std::string name = ".";
    name += path.filename().string();
    name += ".tmp-";
    for (auto b : randomBytes(6)) {
        name.push_back(hex[b >> 4]);
        name.push_back(hex[b & 0x0F]);
    }
    return name;
}

void syncDirectory(const fs::path& dir) {
    Descriptor fd(::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() >= 0) ::fsync(fd.get());
}

// The problem text for a failed open of an existing path that must be a
// regular file, or none when the path is simply missing.
std::optional<std::string> openProblem(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            return std::nullopt;
        case ELOOP:
        case EMLINK:  // some systems report O_NOFOLLOW on a link this way
            return "is a symbolic link";
        case ENXIO:  // a FIFO without a reader, a socket
        case EISDIR:
            return "is not a regular file";
        default:
            return withReason("cannot be read", err);
    }
}

class SystemFiles final : public PrivateFiles {
public:
    FileRead read(const fs::path& path, std::size_t maxBytes) const override {
        FileRead result;
        Descriptor fd(
            ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (fd.get() < 0) {
            if (auto problem = openProblem(errno)) {
                result.status = FileRead::Status::refused;
                result.problem = std::move(*problem);
            }
            return result;
        }
        result.status = FileRead::Status::refused;
        struct stat st {};
        if (::fstat(fd.get(), &st) != 0) {
            result.problem = withReason("cannot be read", errno);
            return result;
        }
        if (!S_ISREG(st.st_mode)) {
            result.problem = "is not a regular file";
            return result;
        }
        const std::string tooLarge = "is larger than " + describeSize(maxBytes);
        if (static_cast<std::uintmax_t>(st.st_size) > maxBytes) {
            result.problem = tooLarge;
            return result;
        }
        // Read one byte past the bound so that a file that grew since fstat
        // is still refused.
        std::string bytes(static_cast<std::size_t>(st.st_size) + 1, '\0');
        std::size_t done = 0;
        for (;;) {
            if (done == bytes.size()) {
                if (bytes.size() > maxBytes) {
                    result.problem = tooLarge;
                    return result;
                }
                bytes.resize(std::min(bytes.size() * 2 + 4096, maxBytes + 1));
            }
            const ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
            if (n < 0) {
                if (errno == EINTR) continue;
                result.problem = withReason("cannot be read", errno);
                return result;
            }
            if (n == 0) break;
            done += static_cast<std::size_t>(n);
        }
        if (done > maxBytes) {
            result.problem = tooLarge;
            return result;
        }
        bytes.resize(done);
        result.status = FileRead::Status::ok;
        result.bytes = std::move(bytes);
        result.stamp = stampOf(st);
        return result;
    }

    std::optional<FileStamp> stamp(const fs::path& path) const override {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
        return stampOf(st);
    }

    std::optional<FileStamp> writeAtomically(const fs::path& path, std::string_view data,
                                             std::string* error,
                                             const WriteOptions& options) const override {
        auto fail = [&](std::string reason) -> std::optional<FileStamp> {
            if (error) *error = std::move(reason);
            return std::nullopt;
        };
        fs::path temporary;
        try {
            temporary = path.parent_path() / temporaryName(path);
        } catch (const std::exception&) {
            return fail("random source unavailable");
        }
        Descriptor fd(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0) return fail(withReason("cannot create a temporary file", errno));
        struct stat st {};
        const char* failed = nullptr;
        if (::fchmod(fd.get(), options.mode) != 0) {
            failed = "cannot set the file mode";
        } else if (!writeAll(fd.get(), data)) {
            failed = "cannot write";
        } else if (options.durable && ::fsync(fd.get()) != 0) {
            failed = "cannot flush to disk";
        } else if (::fstat(fd.get(), &st) != 0) {
            failed = "cannot read the file's status";
        } else if (::close(fd.release()) != 0) {
            failed = "cannot write";
        }
        const int err = errno;
        if (failed) {
            ::unlink(temporary.c_str());
            return fail(withReason(failed, err));
        }
        if (options.beforeReplace) {
            if (auto refusal = options.beforeReplace()) {
                ::unlink(temporary.c_str());
                return fail(std::move(*refusal));
            }
        }
        if (::rename(temporary.c_str(), path.c_str()) != 0) {
            const int renameError = errno;
            ::unlink(temporary.c_str());
            return fail(withReason("cannot replace the file", renameError));
        }
        if (options.durable) syncDirectory(path.parent_path());
        return stampOf(st);
    }

    bool append(const fs::path& path, std::string_view data, std::string* error) const override {
        Descriptor fd(::open(
            path.c_str(),
            O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0600));
        struct stat st {};
        std::optional<std::string> problem;
        if (fd.get() < 0) {
            const int err = errno;
            problem = openProblem(err);
            if (!problem) problem = withReason("cannot be opened", err);
        } else if (::fstat(fd.get(), &st) != 0) {
            problem = withReason("cannot be opened", errno);
        } else if (!S_ISREG(st.st_mode)) {
            problem = "is not a regular file";
        } else if (!writeAll(fd.get(), data)) {
            problem = withReason("cannot write", errno);
        }
        if (problem && error) *error = std::move(*problem);
        return !problem;
    }
};

}  // namespace

std::shared_ptr<const PrivateFiles> systemFiles() {
    static const auto files = std::make_shared<const SystemFiles>();
    return files;
}

std::string describeSize(std::size_t bytes) {
    constexpr std::size_t kib = 1024;
    constexpr std::size_t mib = kib * kib;
    if (bytes >= mib && bytes % mib == 0) return std::to_string(bytes / mib) + " MiB";
    if (bytes >= kib && bytes % kib == 0) return std::to_string(bytes / kib) + " KiB";
    return std::to_string(bytes) + " bytes";
}

void restrictToOwner(const fs::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    if ((st.st_mode & 0077) != 0) ::chmod(path.c_str(), st.st_mode & 0700);
}

}  // namespace mailcore
