// One row of the harness catalog: where a harness keeps its MCP server
// configuration, in which format, and how to tell that it is installed.
// Plain values; safe to copy and share between threads.
#pragma once

#include <string>
#include <vector>

namespace mcpkit {

struct MCPConfigFormat {
    enum class Kind { json, toml, snippetOnly };

    Kind kind = Kind::snippetOnly;
    // json: the members followed from the root to the object that holds the
    // "kestrune" entry.
    std::vector<std::string> keyPath;
    // json: the entry carries "type": "stdio".
    bool typed = false;

    static MCPConfigFormat json(std::vector<std::string> keyPath, bool typed) {
        return {Kind::json, std::move(keyPath), typed};
    }
    static MCPConfigFormat toml() { return {Kind::toml, {}, false}; }
    static MCPConfigFormat snippetOnly() { return {Kind::snippetOnly, {}, false}; }

    bool operator==(const MCPConfigFormat&) const = default;
};

struct MCPHarnessSpec {
    std::string id;          // the command-line name
    std::string name;        // display name
    std::string configPath;  // relative to the user's home
    MCPConfigFormat format;
    std::vector<std::string> detectionPaths;  // relative to the home
    std::vector<std::string> detectionApps;   // bundle names in the application directories
    std::vector<std::string> clientHints;     // lower-case client-name words
    std::string note;                         // one line shown with the snippet

    bool operator==(const MCPHarnessSpec&) const = default;
};

}  // namespace mcpkit
