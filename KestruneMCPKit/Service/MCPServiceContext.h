// Internal to MCPService: the state of one tool call and the argument
// readers shared by the tool bodies. Not part of the public interface.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Service/MCPService.h"

namespace mcpkit {

struct MCPService::CallContext {
    MCPHarnessRecord harness;
    MCPSettings settings;
    std::string session;
    std::string sessionKey;
    std::string tool;
    const MCPToolSpec* spec = nullptr;
    mailcore::Json args = mailcore::Json::object();
    std::string account = "none";  // for the audit entry
    std::string summary;
    MCPResult result = MCPResult::ok;
    bool failed = false;  // set by a tool that answers with an error text without throwing
};

namespace args {

// Each reader throws MCPToolError with the common argument texts
// ("'to' must be a list of strings.", ...).
std::optional<std::string> optionalString(const mailcore::Json& args, const std::string& name,
                                          std::size_t maxCharacters);
std::string requiredString(const mailcore::Json& args, const std::string& name,
                           std::size_t maxCharacters, bool allowEmpty = false);
std::optional<bool> optionalBool(const mailcore::Json& args, const std::string& name);
std::optional<std::int64_t> optionalInteger(const mailcore::Json& args, const std::string& name);
std::optional<std::vector<std::string>> optionalStringList(const mailcore::Json& args,
                                                           const std::string& name,
                                                           std::size_t maxItems);

// Whole-match of the recipient pattern.
bool isValidRecipient(const std::string& address);

}  // namespace args
}  // namespace mcpkit
