// The entry that makes a harness start kestrune-mcp: the helper's path, its
// arguments and its environment. Stored in every configuration file under
// the name "kestrune".
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mcpkit {

// The entry's name inside every harness configuration file.
inline constexpr const char* kMCPEntryName = "kestrune";

struct MCPServerEntry {
    std::string command;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;

    // command = helper, no arguments, env KESTRUNE_MCP_TOKEN = token, plus
    // KESTRUNE_SOCKET = socket when a socket path is given.
    static MCPServerEntry make(const std::string& helper, const std::string& token,
                               const std::optional<std::string>& socket);

    // The JSON object of the entry: "command", "args", "env", and
    // "type": "stdio" when `typed`.
    mailcore::Json jsonObject(bool typed) const;

    bool operator==(const MCPServerEntry&) const = default;
};

}  // namespace mcpkit
