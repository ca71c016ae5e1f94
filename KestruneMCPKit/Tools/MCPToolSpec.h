// MCPToolSpec: one tool of the agent catalog, as a plain value.
#pragma once

#include <string>

namespace mcpkit {

struct MCPToolSpec {
    std::string name;         // the name the agent calls
    std::string title;        // short human title
    std::string description;  // shown to the agent in the tool list
    std::string inputSchema;  // compact JSON Schema text, handed to the agent unchanged
    std::string permission;   // the permission id that must be enabled for the tool to run
    bool writes = false;      // true for tools that change mail or state

    bool operator==(const MCPToolSpec&) const = default;
};

// The MCP tool annotations of a tool. Clients assume the worst for hints
// that are absent, so every listed tool carries all four.
struct MCPToolAnnotations {
    bool readOnlyHint = false;
    bool destructiveHint = true;
    bool idempotentHint = false;
    bool openWorldHint = true;

    bool operator==(const MCPToolAnnotations&) const = default;
};

}  // namespace mcpkit
