#include "KestruneMCPKit/Link/MCPPaths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "KestruneMCPKit/Link/MCPSocketError.h"

namespace fs = std::filesystem;

namespace mcpkit::MCPPaths {

fs::path baseDirectory(const std::optional<fs::path>& dataDir, const fs::path& home) {
    if (dataDir) return *dataDir / "mcp";
    return home / ".local/share/kestrune/mcp";
}

unsigned long long fallbackHash(const std::string& basePath) {
    // Deliberately not the published FNV offset basis: the start value is
    // fixed so that the application and every installed configuration
    // derive the same path.
    unsigned long long hash = 1469598103934665603ULL;
    for (unsigned char byte : basePath) {
        hash ^= byte;
        hash *= 0x100000001B3ULL;
    }
    return hash;
}

fs::path socketURL(const fs::path& base, unsigned userID) {
    fs::path candidate = base / "kestrune.sock";
    if (candidate.string().size() <= 100) return candidate;
    char name[64];
    std::snprintf(name, sizeof name, "kestrune-%u-%llx", userID, fallbackHash(base.string()));
    return fs::path("/tmp") / name / "kestrune.sock";
}

fs::path socketURL(const fs::path& base) {
    return socketURL(base, static_cast<unsigned>(getuid()));
}

fs::path homeDirectory() {
    const char* home = std::getenv("HOME");
    if (home && *home) return home;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/";
}

namespace {

bool isPrivateDirectory(const fs::path& dir, bool requireNoGroupOther) {
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) return false;
    if (st.st_uid != getuid()) return false;
    if (requireNoGroupOther && (st.st_mode & 0077) != 0) return false;
    return true;
}

// Creates `dir` and any missing parents with mode 0700 (before the umask).
// Throws std::filesystem::filesystem_error as the creation fails.
void createPrivateDirectories(const fs::path& dir) {
    if (dir.empty()) return;
    struct stat st {};
    if (::lstat(dir.c_str(), &st) == 0) return;
    if (errno != ENOENT) {
        throw fs::filesystem_error("cannot inspect directory", dir,
                                   std::error_code(errno, std::generic_category()));
    }
    const fs::path parent = dir.parent_path();
    if (parent != dir) createPrivateDirectories(parent);
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        throw fs::filesystem_error("cannot create directory", dir,
                                   std::error_code(errno, std::generic_category()));
    }
}

}  // namespace

void preparePrivateDirectory(const fs::path& dir) {
    createPrivateDirectories(dir);
    if (!isPrivateDirectory(dir, false)) throw MCPSocketError::insecureDirectory(dir.string());
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0) throw MCPSocketError::insecureDirectory(dir.string());
    if ((st.st_mode & 0077) != 0) {
        ::chmod(dir.c_str(), 0700);
        if (!isPrivateDirectory(dir, true)) throw MCPSocketError::insecureDirectory(dir.string());
    }
}

}  // namespace mcpkit::MCPPaths
