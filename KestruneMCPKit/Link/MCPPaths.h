// Where the agent-access files and the link socket live. The helper and the
// application both derive the socket path through socketURL, so that every
// installed harness configuration finds the running application.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace mcpkit::MCPPaths {

// `dataDir`/mcp when a data directory is given, otherwise
// `home`/.local/share/kestrune/mcp.
std::filesystem::path baseDirectory(const std::optional<std::filesystem::path>& dataDir,
                                    const std::filesystem::path& home);

// `base`/kestrune.sock when that path is at most 100 bytes; otherwise
// /tmp/kestrune-<uid>-<hash>/kestrune.sock, where <hash> is the lower-case
// hexadecimal of a 64-bit FNV-1a variant over the base path (see .cpp).
std::filesystem::path socketURL(const std::filesystem::path& base);
std::filesystem::path socketURL(const std::filesystem::path& base, unsigned userID);

// The hash used by the fallback socket path.
unsigned long long fallbackHash(const std::string& basePath);

// The user's home directory: $HOME when set and not empty, else the
// password database entry of the real user.
std::filesystem::path homeDirectory();

// Creates `dir` (with parents, mode 0700) and checks that it is a real
// directory (not a symbolic link) owned by the real user; group and other
// permission bits are removed. Throws MCPSocketError::insecureDirectory, or
// std::filesystem::filesystem_error when creation fails.
void preparePrivateDirectory(const std::filesystem::path& dir);

}  // namespace mcpkit::MCPPaths
