#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"

namespace mcpkit::MCPHarnessCatalog {

namespace {

#if defined(__APPLE__)
constexpr const char* claudeDesktopDir = "Library/Application Support/Claude";
constexpr const char* vscodeDir = "Library/Application Support/Code";
#else
constexpr const char* claudeDesktopDir = ".config/Claude";
constexpr const char* vscodeDir = ".config/Code";
#endif

std::vector<MCPHarnessSpec> makeCatalog() {
    const std::string claudeDesktop = claudeDesktopDir;
    const std::string vscode = vscodeDir;
    return {
        {"claude-code",
         "Claude Code",
         ".claude.json",
         MCPConfigFormat::json({"mcpServers"}, true),
         {".claude.json", ".claude", ".local/bin/claude"},
         {},
         {"claude"},
         "User-scope entry in ~/.claude.json. Equivalent: claude mcp add-json --scope user."},
        {"zcode",
         "ZCode",
         ".zcode/cli/config.json",
         MCPConfigFormat::json({"mcp", "servers"}, true),
         {".zcode"},
         {"ZCode.app"},
         {},
         "Entry under mcp.servers in ~/.zcode/cli/config.json."},
        {"cursor",
         "Cursor",
         ".cursor/mcp.json",
         MCPConfigFormat::json({"mcpServers"}, false),
         {".cursor"},
         {"Cursor.app"},
         {"cursor"},
         "Global MCP file ~/.cursor/mcp.json."},
        {"codex",
         "Codex",
         ".codex/config.toml",
         MCPConfigFormat::toml(),
         {".codex"},
         {},
         {"codex"},
         "[mcp_servers.kestrune] tables in ~/.codex/config.toml."},
        {"claude-desktop",
         "Claude Desktop",
         claudeDesktop + "/claude_desktop_config.json",
         MCPConfigFormat::json({"mcpServers"}, false),
         {claudeDesktop},
         {"Claude.app"},
         {"claude"},
         "Restart Claude Desktop after installing."},
        {"windsurf",
         "Windsurf",
         ".codeium/windsurf/mcp_config.json",
         MCPConfigFormat::json({"mcpServers"}, false),
         {".codeium/windsurf"},
         {"Windsurf.app"},
         {"windsurf"},
         "Config location unverified against this version."},
        {"vscode",
         "VS Code",
         vscode + "/User/mcp.json",
         MCPConfigFormat::snippetOnly(),
         {vscode},
         {"Visual Studio Code.app"},
         {},
         "Add via the MCP: Add Server command or paste into mcp.json (uses a servers key)."},
    };
}

}  // namespace

const std::vector<MCPHarnessSpec>& all() {
    static const std::vector<MCPHarnessSpec> catalog = makeCatalog();
    return catalog;
}

std::optional<MCPHarnessSpec> spec(std::string_view id) {
    for (const auto& row : all()) {
        if (row.id == id) return row;
    }
    return std::nullopt;
}

std::vector<std::string> ids() {
    std::vector<std::string> out;
    for (const auto& row : all()) out.push_back(row.id);
    return out;
}

}  // namespace mcpkit::MCPHarnessCatalog
