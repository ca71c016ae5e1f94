#include "KestruneMCPKit/Link/MCPPrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "MailCore/Common/Random.h"

namespace fs = std::filesystem;

namespace mcpkit::MCPPrivateFile {

namespace {

void setError(std::string* error, const char* operation, int err) {
    if (error) *error = std::string(operation) + ": " + std::strerror(err);
}

Stamp stampOf(const struct stat& st) {
    Stamp s;
    s.inode = st.st_ino;
    s.size = st.st_size;
#if defined(__APPLE__)
    s.modified = st.st_mtimespec;
#else
    s.modified = st.st_mtim;
#endif
    return s;
}

bool writeAll(int fd, std::string_view data) {
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

std::string temporaryName(const fs::path& path) {
    auto bytes = mailcore::randomBytes(6);
    static const char hex[] = "0123456789abcdef";
    std::string suffix;
    for (auto b : bytes) {
        suffix.push_back(hex[b >> 4]);
        suffix.push_back(hex[b & 0x0F]);
    }
    // Built by appending: g++ 12 reports a false -Wrestrict on "." + string.
    std::string name = ".";
    name += path.filename().string();
    name += ".tmp-";
    name += suffix;
    return name;
}

}  // namespace

std::optional<std::string> read(const fs::path& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return out;
}

std::optional<Stamp> stamp(const fs::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return stampOf(st);
}

std::optional<Stamp> writeAtomically(const fs::path& path, std::string_view data,
                                     std::string* error, bool durable) {
    fs::path temporary;
    try {
        temporary = path.parent_path() / temporaryName(path);
    } catch (const std::exception&) {
        if (error) *error = "random source unavailable";
        return std::nullopt;
    }
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        setError(error, "create", errno);
        return std::nullopt;
    }
    struct stat st {};
    bool ok = writeAll(fd, data);
    int err = errno;
    const char* failed = "write";
    if (ok && durable && ::fsync(fd) != 0) {
        ok = false;
        err = errno;
        failed = "fsync";
    }
    if (ok && ::fstat(fd, &st) != 0) {
        ok = false;
        err = errno;
        failed = "stat";
    }
    ::close(fd);
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
        failed = "rename";
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        setError(error, failed, err);
        return std::nullopt;
    }
    ::chmod(path.c_str(), 0600);
    return stampOf(st);
}

bool append(const fs::path& path, std::string_view data, std::string* error) {
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        setError(error, "open", errno);
        return false;
    }
    bool ok = writeAll(fd, data);
    int err = errno;
    ::close(fd);
    if (!ok) setError(error, "write", err);
    return ok;
}

void restrictToOwner(const fs::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    if ((st.st_mode & 0077) != 0) ::chmod(path.c_str(), st.st_mode & 0700);
}

}  // namespace mcpkit::MCPPrivateFile
