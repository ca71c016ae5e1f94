#include "KestruneMCPKit/Shim/MCPCommandLine.h"

#include "KestruneMCPKit/Link/MCP.h"

namespace mcpkit::MCPCommandLine {

std::optional<int> run(const std::vector<std::string>& args, const std::string& /*selfPath*/,
                       std::function<void(const std::string&)> out,
                       std::function<void(const std::string&)> err) {
    if (args.empty()) return std::nullopt;
    if (args.size() == 1 && (args[0] == "--version" || args[0] == "-V")) {
        out(std::string("kestrune-mcp ") + std::string(MCP::serverVersion));
        return 0;
    }
    err("kestrune-mcp: unknown option " + args[0] +
        ". Run it without arguments to serve MCP on "
        "standard input and output, or with --version.");
    return 64;
}

}  // namespace mcpkit::MCPCommandLine
