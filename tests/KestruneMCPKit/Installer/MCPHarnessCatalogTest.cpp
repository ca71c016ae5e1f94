// The catalog's rows and the snippets built from them.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"
#include "KestruneMCPKit/Installer/MCPInstaller.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"

using namespace mcpkit;
using mailcore::Json;

TEST(MCPHarnessCatalogTest, RowsInOrderWithTheirFormats) {
    EXPECT_EQ(MCPHarnessCatalog::ids(),
              (std::vector<std::string>{"claude-code", "zcode", "cursor", "codex", "claude-desktop",
                                        "windsurf", "vscode"}));
    struct Row {
        std::string id;
        MCPConfigFormat format;
        std::string configPath;
    };
    std::vector<Row> rows = {
        {"claude-code", MCPConfigFormat::json({"mcpServers"}, true), ".claude.json"},
        {"zcode", MCPConfigFormat::json({"mcp", "servers"}, true), ".zcode/cli/config.json"},
        {"cursor", MCPConfigFormat::json({"mcpServers"}, false), ".cursor/mcp.json"},
        {"codex", MCPConfigFormat::toml(), ".codex/config.toml"},
        {"claude-desktop", MCPConfigFormat::json({"mcpServers"}, false),
#if defined(__APPLE__)
         "Library/Application Support/Claude/claude_desktop_config.json"},
#else
         ".config/Claude/claude_desktop_config.json"},
#endif
        {"windsurf", MCPConfigFormat::json({"mcpServers"}, false),
         ".codeium/windsurf/mcp_config.json"},
        {"vscode", MCPConfigFormat::snippetOnly(),
#if defined(__APPLE__)
         "Library/Application Support/Code/User/mcp.json"},
#else
         ".config/Code/User/mcp.json"},
#endif
    };
    for (const Row& row : rows) {
        auto spec = MCPHarnessCatalog::spec(row.id);
        ASSERT_TRUE(spec) << row.id;
        EXPECT_EQ(spec->format, row.format) << row.id;
        EXPECT_EQ(spec->configPath, row.configPath) << row.id;
        EXPECT_FALSE(spec->detectionPaths.empty()) << row.id;
        EXPECT_FALSE(spec->note.empty()) << row.id;
    }
    EXPECT_EQ(MCPHarnessCatalog::spec("claude-code")->clientHints,
              std::vector<std::string>{"claude"});
    EXPECT_EQ(MCPHarnessCatalog::spec("claude-code")->name, "Claude Code");
    EXPECT_EQ(MCPHarnessCatalog::spec("vscode")->name, "VS Code");
}

TEST(MCPHarnessCatalogTest, UnknownIdsFindNothing) {
    for (const char* id : {"", "Cursor", "cursor ", "vs-code", "claude"}) {
        EXPECT_FALSE(MCPHarnessCatalog::spec(id)) << id;
    }
}

TEST(MCPServerEntryTest, MadeWithTokenAndOptionalSocket) {
    auto plain = MCPServerEntry::make("/h", "kmt_x", std::nullopt);
    EXPECT_EQ(plain.command, "/h");
    EXPECT_TRUE(plain.args.empty());
    EXPECT_EQ(plain.env, (std::map<std::string, std::string>{{"KESTRUNE_MCP_TOKEN", "kmt_x"}}));
    auto withSocket = MCPServerEntry::make("/h", "kmt_x", std::string("/s"));
    EXPECT_EQ(withSocket.env.at("KESTRUNE_SOCKET"), "/s");
    EXPECT_EQ(
        mailcore::encodeJson(withSocket.jsonObject(true)),
        R"({"command":"/h","args":[],"env":{"KESTRUNE_MCP_TOKEN":"kmt_x","KESTRUNE_SOCKET":"/s"},"type":"stdio"})");
    EXPECT_EQ(mailcore::encodeJson(plain.jsonObject(false)),
              R"({"command":"/h","args":[],"env":{"KESTRUNE_MCP_TOKEN":"kmt_x"}})");
}

TEST(MCPHarnessCatalogTest, SnippetsForEveryFormat) {
    MCPInstaller installer("/home/u", {}, mailcore::systemClock());
    auto entry = MCPServerEntry::make("/opt/k it's", "<KESTRUNE_MCP_TOKEN>", std::nullopt);
    for (const auto& spec : MCPHarnessCatalog::all()) {
        SCOPED_TRACE(spec.id);
        MCPSnippet snippet = installer.snippet(spec, entry);
        EXPECT_EQ(snippet.file, std::filesystem::path("/home/u") / spec.configPath);
        EXPECT_EQ(snippet.note, spec.note);
        EXPECT_EQ(snippet.cliCommand.has_value(), spec.id == "claude-code");
        if (spec.format.kind == MCPConfigFormat::Kind::toml) {
            EXPECT_EQ(snippet.text, TOMLBlock::block("kestrune", entry));
        } else {
            bool typed =
                spec.format.typed || spec.format.kind == MCPConfigFormat::Kind::snippetOnly;
            EXPECT_EQ(Json::parse(snippet.text), entry.jsonObject(typed));
            EXPECT_NE(snippet.text.find("\n  \"command\": \"/opt/k it's\""), std::string::npos);
        }
    }
    EXPECT_EQ(*installer.snippet(*MCPHarnessCatalog::spec("claude-code"), entry).cliCommand,
              "claude mcp add-json --scope user kestrune "
              "'{\"command\":\"/opt/k it'\\''s\",\"args\":[],\"env\":{\"KESTRUNE_MCP_TOKEN\":\"<"
              "KESTRUNE_MCP_TOKEN>\"},\"type\":\"stdio\"}'");
}
