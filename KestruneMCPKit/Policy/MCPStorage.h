// Where the agent service keeps its files: the private data directory with
// "state.json" (policy), "tokens.json" (harness tokens) and "audit.jsonl"
// (audit log), and the path of the link socket.
//
// On Linux the tokens always live in the file store in the data directory
// (mode 0600); the macOS build keeps them in the keychain when no data
// directory is given.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "KestruneMCPKit/Policy/MCPPolicyStore.h"

namespace mcpkit {

struct MCPStorage {
    std::filesystem::path base;
    std::filesystem::path socketPath;
    std::shared_ptr<MCPPolicyStore> policy;
    std::filesystem::path auditURL;

    // `base` is MCPPaths::baseDirectory(dataDir, home) (the subdirectory "mcp"
    // of a given data directory, else the home's default location), created
    // with mode 0700 when missing and checked to be a private directory owned
    // by the user. The socket path is `socketOverride` when given, else
    // MCPPaths::socketURL(base). Existing state, token and audit files lose
    // any group or other permission bits. `interactiveKeychain` only matters
    // where a keychain store exists. Throws MCPSocketError::insecureDirectory
    // or std::filesystem::filesystem_error when the directory is unusable.
    static MCPStorage open(const std::optional<std::filesystem::path>& dataDir,
                           const std::optional<std::filesystem::path>& socketOverride,
                           const std::filesystem::path& home, bool interactiveKeychain = false,
                           mailcore::Clock clock = mailcore::systemClock());
};

}  // namespace mcpkit
