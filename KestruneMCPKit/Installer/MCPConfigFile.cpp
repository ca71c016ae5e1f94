#include "KestruneMCPKit/Installer/MCPConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "KestruneMCPKit/Installer/MCPInstallError.h"
#include "MailCore/Common/PrivateFiles.h"
#include "MailCore/Common/UTF8.h"

namespace fs = std::filesystem;

namespace mcpkit::MCPConfigFile {

namespace {

constexpr int maxLinkHops = 40;
constexpr std::string_view backupMarker = ".kestrune-backup-";

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// Follows symbolic links from `path` to the path that holds the content
// (which may not exist yet). Throws unreadable on a loop.
fs::path resolveLinks(const fs::path& path) {
    fs::path current = path;
    for (int hop = 0; hop < maxLinkHops; ++hop) {
        struct stat st {};
        if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return current;
        std::error_code ec;
        fs::path next = fs::read_symlink(current, ec);
        if (ec) throw MCPInstallError::unreadable("cannot read file");
        current = next.is_absolute() ? next : current.parent_path() / next;
    }
    throw MCPInstallError::unreadable("cannot read file");
}

bool writeAll(int fd, std::string_view bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Creates the missing directories above `dir`, each with mode 0700.
void createDirectories(const fs::path& dir) {
    std::error_code ec;
    if (dir.empty() || fs::is_directory(dir, ec)) return;
    createDirectories(dir.parent_path());
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        throw MCPInstallError::io("could not create " + dir.string() + ": " + std::strerror(errno));
    }
}

// The sort key of a backup name of `base` ("<base>.kestrune-backup-<stamp>[-N]"),
// or nothing for any other name.
std::optional<std::pair<std::string, unsigned long>> backupKey(const std::string& name,
                                                               const std::string& base) {
    std::string prefix = base + std::string(backupMarker);
    if (name.size() < prefix.size() || name.compare(0, prefix.size(), prefix) != 0) {
        return std::nullopt;
    }
    std::string rest = name.substr(prefix.size());
    if (rest.size() < 15) return std::nullopt;
    for (std::size_t i = 0; i < 15; ++i) {
        bool digit = rest[i] >= '0' && rest[i] <= '9';
        if (i == 8 ? rest[i] != '-' : !digit) return std::nullopt;
    }
    unsigned long suffix = 0;
    if (rest.size() > 15) {
        if (rest[15] != '-' || rest.size() == 16 || rest.size() > 24) return std::nullopt;
        for (std::size_t i = 16; i < rest.size(); ++i) {
            if (rest[i] < '0' || rest[i] > '9') return std::nullopt;
            suffix = suffix * 10 + static_cast<unsigned long>(rest[i] - '0');
        }
    }
    return std::make_pair(rest.substr(0, 15), suffix);
}

}  // namespace

void checkText(std::string_view bytes) {
    if (!mailcore::utf8::isValid(bytes)) throw MCPInstallError::unreadable("not readable as UTF-8");
    if (bytes.find('\0') != std::string_view::npos) {
        throw MCPInstallError::unreadable("not a text file (contains NUL bytes)");
    }
}

Snapshot read(const fs::path& path) {
    Snapshot snapshot;
    snapshot.path = path;
    snapshot.target = resolveLinks(path);

    // Never blocks: a FIFO or device is refused, not waited on.
    auto file = mailcore::systemFiles()->read(snapshot.target, maxBytes);
    if (file.missing()) return snapshot;
    if (file.refused()) {
        if (file.problem == "is not a regular file") {
            throw MCPInstallError::unreadable("not a regular file");
        }
        if (file.problem.starts_with("is larger than")) {
            throw MCPInstallError::unreadable("file is larger than 32 MiB");
        }
        throw MCPInstallError::unreadable("cannot read file");
    }
    checkText(file.bytes);
    snapshot.exists = true;
    snapshot.stamp = *file.stamp;
    snapshot.bytes = std::move(file.bytes);
    return snapshot;
}

void replace(const Snapshot& snapshot, std::string_view bytes) {
    const fs::path& target = snapshot.target;
    fs::path dir = target.parent_path();
    if (dir.empty()) dir = ".";
    createDirectories(dir);

    mailcore::WriteOptions options;
    // A new file holds a token: owner only. An existing one keeps its owner
    // bits and loses group and other access.
    options.mode =
        snapshot.exists ? static_cast<mode_t>((snapshot.stamp.mode & 0700) | 0600) : 0600;
    // Refuse to replace a file that someone else changed since it was read.
    options.beforeReplace = [&]() -> std::optional<std::string> {
        auto now = mailcore::systemFiles()->stamp(target);
        bool same = snapshot.exists ? now == snapshot.stamp : !now;
        if (same) return std::nullopt;
        return target.string() + " changed while it was being edited; nothing was written";
    };
    std::string error;
    if (!mailcore::systemFiles()->writeAtomically(target, bytes, &error, options)) {
        if (error.ends_with("nothing was written")) throw MCPInstallError::io(error);
        throw MCPInstallError::io("could not write " + target.string() + ": " + error);
    }
}

std::string backupStamp(mailcore::Date date) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

fs::path writeBackup(const fs::path& path, std::string_view bytes, mailcore::Date now) {
    fs::path dir = path.parent_path();
    std::string base = path.filename().string() + std::string(backupMarker) + backupStamp(now);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        fs::path candidate = dir / (attempt == 0 ? base : base + "-" + std::to_string(attempt));
        FileDescriptor fd(
            ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (fd.get() < 0) {
            if (errno == EEXIST) continue;
            throw MCPInstallError::io("could not write the backup " + candidate.string() + ": " +
                                      std::strerror(errno));
        }
        if (!writeAll(fd.get(), bytes) || ::fsync(fd.get()) != 0) {
            int saved = errno;
            ::unlink(candidate.c_str());
            throw MCPInstallError::io("could not write the backup " + candidate.string() + ": " +
                                      std::strerror(saved));
        }
        return candidate;
    }
    throw MCPInstallError::io("could not write the backup: too many backups in one second");
}

void pruneBackups(const fs::path& path, std::size_t keep) {
    fs::path dir = path.parent_path();
    if (dir.empty()) dir = ".";
    std::string base = path.filename().string();
    std::vector<std::tuple<std::string, unsigned long, fs::path>> backups;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        auto key = backupKey(name, base);
        if (!key) continue;
        std::error_code typeError;
        if (!it->is_regular_file(typeError) || it->is_symlink(typeError)) continue;
        backups.emplace_back(key->first, key->second, it->path());
    }
    if (backups.size() <= keep) return;
    std::sort(backups.begin(), backups.end());
    for (std::size_t i = 0; i + keep < backups.size(); ++i) {
        std::error_code removeError;
        fs::remove(std::get<2>(backups[i]), removeError);
    }
}

}  // namespace mcpkit::MCPConfigFile
