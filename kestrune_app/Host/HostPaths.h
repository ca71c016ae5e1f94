// Where the application keeps its files. Without a data directory
// everything lives in ~/.local/share/kestrune; with one, under it. In both
// cases the agent-access files (policy, tokens, audit log, link socket,
// pending confirmations) live in the "mcp" subdirectory, which is where
// `kestrune-mcp --data-dir DIR` looks for them.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

struct HostPaths {
    std::filesystem::path root;       // the data directory
    std::filesystem::path mcp;        // root/mcp, private (0700)
    std::filesystem::path store;      // root/mail.sqlite
    std::filesystem::path pending;    // mcp/pending: questions waiting for the user
    std::filesystem::path answers;    // the socket `kestrune confirm` answers through
    std::filesystem::path control;    // mcp/control: requests for the running app
    std::filesystem::path workflows;  // mcp/workflows
    std::filesystem::path lock;       // mcp/kestrune.lock, held while serving

    static HostPaths make(const std::optional<std::filesystem::path>& dataDir,
                          const std::filesystem::path& home);
};

// The small request, reply, question and answer files in `pending` and
// `control`: read only when a regular file of at most 1 MiB (never through a
// link, never blocking); written atomically with mode 0600, not flushed to
// disk (they live for seconds). The read gives none otherwise.
std::optional<std::string> readControlFile(const std::filesystem::path& path);
bool writeControlFile(const std::filesystem::path& path, std::string_view data,
                      std::string* error = nullptr);

}  // namespace kestrune
