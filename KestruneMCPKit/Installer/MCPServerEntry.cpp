#include "KestruneMCPKit/Installer/MCPServerEntry.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/MCP.h"

namespace mcpkit {

MCPServerEntry MCPServerEntry::make(const std::string& helper, const std::string& token,
                                    const std::optional<std::string>& socket) {
    MCPServerEntry entry;
    entry.command = helper;
    entry.env[std::string(MCP::tokenEnv)] = token;
    if (socket) entry.env[std::string(MCP::socketEnv)] = *socket;
    return entry;
}

mailcore::Json MCPServerEntry::jsonObject(bool typed) const {
    mailcore::Json object = mailcore::Json::object();
    object["command"] = command;
    object["args"] = args;
    mailcore::Json envObject = mailcore::Json::object();
    for (const auto& [key, value] : env) envObject[key] = value;
    object["env"] = std::move(envObject);
    if (typed) object["type"] = "stdio";
    return object;
}

}  // namespace mcpkit
