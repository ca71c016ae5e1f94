// kestrune-mcp's option mode: one maintenance command for a harness (list,
// print a configuration, report status, install, uninstall, generate a token)
// and its exit status. Without arguments there is no status and the caller
// serves MCP on standard input and output.
//
// Exit statuses: 0 success; 1 an install or uninstall failure (or an
// unusable data directory); 2 a harness that cannot be installed
// automatically; 64 a usage error (unknown command, a first argument that is
// not an option, a missing or unknown harness). No command starts the server.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"

namespace mcpkit::MCPCommandLine {

// The usage text, ending with the ids of every catalog harness joined by ", ".
const std::string& usage();

// The token written into a printed configuration when none is given.
inline constexpr const char* placeholderToken = "<KESTRUNE_MCP_TOKEN>";

// `args` are the arguments without the program name; `selfPath` is the
// helper's own path, written into harness configurations unless --command
// names another. `out` and `err` each take one line of text without its line
// feed (a line may hold several, separated by line feeds). `now` names the
// backups of configuration files.
std::optional<int> run(const std::vector<std::string>& args, const std::string& selfPath,
                       std::function<void(const std::string&)> out,
                       std::function<void(const std::string&)> err,
                       mailcore::Clock now = mailcore::systemClock());

}  // namespace mcpkit::MCPCommandLine
