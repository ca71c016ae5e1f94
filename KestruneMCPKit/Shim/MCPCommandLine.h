// MCPCommandLine: the helper's option mode. Given the arguments after the
// program name, either returns none (no arguments: the caller serves MCP on
// stdio) or runs the option and returns the process exit status.
//
// For now it knows only --version; every other argument is a usage error
// (status 64). The harness listing and installation options replace this.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace mcpkit::MCPCommandLine {

// `selfPath`: the helper's own executable path (written into harness
// configurations). `out` and `err` each take one line without its line feed.
std::optional<int> run(const std::vector<std::string>& args, const std::string& selfPath,
                       std::function<void(const std::string&)> out,
                       std::function<void(const std::string&)> err);

}  // namespace mcpkit::MCPCommandLine
