// The TOML block and the line-preserving editor, checked against Python's
// tomllib for every text it produces.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Installer/MCPInstallError.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"
#include "tests/fakes/TestFiles.h"

using namespace mcpkit;
using mailcore::Json;
using testfiles::readTOMLWithPython;

namespace {

MCPServerEntry sampleEntry() {
    return MCPServerEntry::make("/opt/kestrune/bin/kestrune-mcp", "kmt_new",
                                std::string("/run/k.sock"));
}

Json expectedTOMLEntry(const MCPServerEntry& entry) {
    Json env = Json::object();
    for (const auto& [key, value] : entry.env) env[key] = value;
    return Json{{"command", entry.command}, {"args", entry.args}, {"env", env}};
}

// The document without our entry (and without an mcp_servers table left empty).
Json withoutOurs(Json document) {
    if (document.contains("mcp_servers")) {
        document["mcp_servers"].erase("kestrune");
        if (document["mcp_servers"].empty()) document.erase("mcp_servers");
    }
    return document;
}

bool sameIgnoringOrder(const Json& a, const Json& b) {
    return nlohmann::json::parse(a.dump()) == nlohmann::json::parse(b.dump());
}

}  // namespace

TEST(TOMLBlockTest, BlockIsWrittenExactly) {
    EXPECT_EQ(TOMLBlock::block("kestrune", sampleEntry()),
              "[mcp_servers.kestrune]\n"
              "command = \"/opt/kestrune/bin/kestrune-mcp\"\n"
              "args = []\n"
              "\n"
              "[mcp_servers.kestrune.env]\n"
              "KESTRUNE_MCP_TOKEN = \"kmt_new\"\n"
              "KESTRUNE_SOCKET = \"/run/k.sock\"\n");

    MCPServerEntry withArgs = MCPServerEntry::make("/h", "t", std::nullopt);
    withArgs.args = {"--a", "b c"};
    EXPECT_EQ(TOMLBlock::block("kestrune", withArgs),
              "[mcp_servers.kestrune]\ncommand = \"/h\"\nargs = [\"--a\", \"b c\"]\n\n"
              "[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"t\"\n");
}

TEST(TOMLBlockTest, QuotedValuesReadBackIdenticallyInPython) {
    MCPServerEntry entry =
        MCPServerEntry::make("C:\\Program Files\\\"quoted\" kestrune\ttab\nline\x01\x7f",
                             "kmt_\xC3\xA9\xF0\x9F\x93\xAE", std::string("/tmp/a'b.sock"));
    entry.args = {"", "\\", "\"\"\""};
    Json parsed = readTOMLWithPython({TOMLBlock::block("kestrune", entry)}).front();
    EXPECT_EQ(parsed["mcp_servers"]["kestrune"], expectedTOMLEntry(entry));
}

TEST(TOMLBlockTest, QuoteRefusesTextThatIsNotUTF8) {
    try {
        TOMLBlock::quote("/bad\xff");
        FAIL() << "expected an error";
    } catch (const MCPInstallError& error) {
        EXPECT_EQ(error, MCPInstallError::io("could not serialize"));
    }
}

struct EditCase {
    const char* label;
    std::string original;
    // The exact text after installing sampleEntry().
    std::string installed;
    // The exact text after removing from the installed text.
    std::string removed;
};

class TOMLEditTest : public ::testing::TestWithParam<EditCase> {};

const std::string block = TOMLBlock::block("kestrune", sampleEntry());

std::string crlf(const std::string& text) {
    std::string out;
    for (char ch : text) out += ch == '\n' ? std::string("\r\n") : std::string(1, ch);
    return out;
}

const std::string handWritten =
    "# Codex settings\n"
    "model = \"o3\"   # trailing comment\n"
    "approval_policy = 'on-request'\n"
    "started = 1979-05-27 07:32:00Z\n"
    "\n"
    "[mcp_servers.github]\n"
    "command = \"npx\"\n"
    "args = [\n"
    "  \"-y\",   # one per line\n"
    "  \"@modelcontextprotocol/server-github\",\n"
    "]\n"
    "env = { GITHUB_TOKEN = \"abc\" }\n"
    "\n"
    "[profiles.fast]\n"
    "model=\"o4-mini\"\n"
    "notes = \"\"\"\n"
    "[mcp_servers.kestrune]\n"
    "command = \"not a real table\"\n"
    "\"\"\"\n"
    "  [ 'mcp_servers' . \"kestrune-other\" ]\n"
    "command = 'x'\n";

const std::string existingInMiddle =
    "model = \"o3\"\n"
    "\n"
    "[mcp_servers.kestrune]\n"
    "command = \"/old/kestrune-mcp\"\n"
    "args = [\"--old\"]\n"
    "\n"
    "# the token\n"
    "[mcp_servers.kestrune.env]\n"
    "KESTRUNE_MCP_TOKEN = \"kmt_old\"\n"
    "KESTRUNE_SOCKET = '/tmp/old.sock'\n"
    "\n"
    "# other server below\n"
    "[mcp_servers.other]\n"
    "command = \"other\"\n";

INSTANTIATE_TEST_SUITE_P(
    Files, TOMLEditTest,
    ::testing::Values(
        EditCase{"Empty", "", block, ""},
        EditCase{"HandWrittenFileGetsBlockAppended", handWritten, handWritten + "\n" + block,
                 handWritten},
        EditCase{"FileWithoutFinalLineFeed", "model = \"o3\"", "model = \"o3\"\n\n" + block,
                 "model = \"o3\"\n"},
        EditCase{"FileEndingInBlankLine", "model = \"o3\"\n\n", "model = \"o3\"\n\n" + block,
                 "model = \"o3\"\n"},
        EditCase{"ExistingTablesReplacedInPlace", existingInMiddle,
                 "model = \"o3\"\n\n" + block +
                     "\n# other server below\n[mcp_servers.other]\ncommand = \"other\"\n",
                 "model = \"o3\"\n\n# other server below\n[mcp_servers.other]\ncommand = "
                 "\"other\"\n"},
        EditCase{"SplitTablesJoinedAtTheFirst",
                 "[mcp_servers.kestrune]\ncommand = \"/old\"\n\n[mcp_servers.other]\ncommand = "
                 "\"o\"\n\n[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"kmt_old\"\n",
                 block + "\n[mcp_servers.other]\ncommand = \"o\"\n",
                 "[mcp_servers.other]\ncommand = \"o\"\n"},
        EditCase{"ExistingTableAtEndWithoutLineFeed",
                 "[a]\nx = 1\n\n[mcp_servers . \"kestrune\"]\ncommand = \"x\"",
                 "[a]\nx = 1\n\n" + block, "[a]\nx = 1\n"},
        EditCase{"OursInlineEnvAndSubtables",
                 "[mcp_servers.kestrune]\ncommand = \"x\"\nenv = { KESTRUNE_MCP_TOKEN = \"o\" "
                 "}\n[mcp_servers.kestrune.extra]\nk = 1\n# kept\n[z]\n",
                 block + "# kept\n[z]\n", "# kept\n[z]\n"},
        EditCase{"CRLFFileGetsCRLFLines", "model = \"o3\"\r\n",
                 "model = \"o3\"\r\n\r\n" + crlf(block), "model = \"o3\"\r\n"}),
    [](const auto& param) { return std::string(param.param.label); });

TEST_P(TOMLEditTest, InstallAndRemoveTouchOnlyOurTables) {
    const EditCase& c = GetParam();
    std::string installed = TOMLBlock::install(c.original, "kestrune", block);
    EXPECT_EQ(installed, c.installed);

    // Installing again changes nothing; the entry reads back.
    EXPECT_EQ(TOMLBlock::install(installed, "kestrune", block), installed);
    auto found = TOMLBlock::read(installed, "kestrune");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->command, sampleEntry().command);
    EXPECT_EQ(found->args, sampleEntry().args);
    EXPECT_EQ(found->env, sampleEntry().env);

    auto removed = TOMLBlock::remove(installed, "kestrune");
    ASSERT_TRUE(removed);
    EXPECT_EQ(*removed, c.removed);
    EXPECT_FALSE(TOMLBlock::remove(*removed, "kestrune"));

    // Python reads what we wrote and finds our entry, and the rest of the
    // document is what it was, after install and after removal.
    auto documents = readTOMLWithPython({c.original, installed, *removed});
    const Json& before = documents[0];
    const Json& after = documents[1];
    const Json& cleaned = documents[2];
    EXPECT_EQ(after["mcp_servers"]["kestrune"], expectedTOMLEntry(sampleEntry()));
    EXPECT_TRUE(sameIgnoringOrder(withoutOurs(before), withoutOurs(after))) << before.dump() << "\n"
                                                                            << after.dump();
    EXPECT_FALSE(cleaned.contains("mcp_servers") && cleaned["mcp_servers"].contains("kestrune"));
    EXPECT_TRUE(sameIgnoringOrder(withoutOurs(before), cleaned));
}

TEST(TOMLBlockTest, ReadsEntriesWrittenByHand) {
    struct Case {
        std::string text;
        std::optional<std::string> command;
        std::optional<std::vector<std::string>> args;
        std::optional<std::map<std::string, std::string>> env;
    };
    std::vector<Case> cases = {
        {"[mcp_servers.kestrune]\ncommand = '/a'\nargs = [ \"x\", 'y' ]\nenv.KESTRUNE_MCP_TOKEN = "
         "\"t\"\n",
         "/a", std::vector<std::string>{"x", "y"},
         std::map<std::string, std::string>{{"KESTRUNE_MCP_TOKEN", "t"}}},
        {"[mcp_servers.kestrune]\ncommand = 42\nenv = { A = \"1\", B = \"2\" }\n", std::nullopt,
         std::nullopt, std::map<std::string, std::string>{{"A", "1"}, {"B", "2"}}},
        {"[mcp_servers.kestrune]\ncommand = \"\"\"\n/multi\\\n   line\"\"\"\nargs = [1]\n"
         "[mcp_servers.kestrune.env]\nA = 1\n",
         "/multiline", std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        auto found = TOMLBlock::read(c.text, "kestrune");
        ASSERT_TRUE(found) << c.text;
        EXPECT_EQ(found->command, c.command) << c.text;
        EXPECT_EQ(found->args, c.args) << c.text;
        EXPECT_EQ(found->env, c.env) << c.text;
    }
    EXPECT_FALSE(TOMLBlock::read("[mcp_servers.kestrunex]\ncommand = \"/a\"\n", "kestrune"));
}

TEST(TOMLBlockTest, RefusesShapesItCannotEditLineByLine) {
    const std::string formText =
        "the kestrune entry is written in a form this installer does not edit; use the snippet";
    const std::string syntaxText = "not a TOML file this installer can edit; use the snippet";
    struct Case {
        std::string text;
        std::string reason;
        bool removeRefused;  // false: remove finds nothing to remove
    };
    std::vector<Case> cases = {
        {"[mcp_servers]\nkestrune = { command = \"x\" }\n", formText, true},
        {"mcp_servers.kestrune.command = \"x\"\n", formText, true},
        {"[mcp_servers]\nkestrune.env.A = \"x\"\n", formText, true},
        {"[[mcp_servers.kestrune]]\ncommand = \"x\"\n", formText, true},
        {"mcp_servers = { kestrune = { command = \"x\" } }\n", formText, true},
        {"mcp_servers = { github = { command = \"x\" } }\n", formText, false},
        {"[[mcp_servers]]\nname = \"x\"\n", formText, false},
        {"[unclosed\n", syntaxText, true},
        {"key = \"unterminated\n", syntaxText, true},
        {"a = [1,\n", syntaxText, true},
        {"= 1\n", syntaxText, true},
        {"a = 1 b = 2\n", syntaxText, true},
        {"a = \"\"\"never closed\n\n", syntaxText, true},
        {"a = 1\rb = 2\n", syntaxText, true},
        {"a = \"\\q\"\n", syntaxText, true},
        {"a = \"\\uD800\"\n", syntaxText, true},
        {std::string(100, '[') + "\n", syntaxText, true},
        {"a = " + std::string(100, '[') + std::string(100, ']') + "\n", syntaxText, true},
    };
    for (const Case& c : cases) {
        try {
            TOMLBlock::install(c.text, "kestrune", block);
            ADD_FAILURE() << "install accepted: " << c.text;
        } catch (const MCPInstallError& error) {
            EXPECT_EQ(error, MCPInstallError::unreadable(c.reason)) << c.text;
        }
        if (c.removeRefused) {
            EXPECT_THROW(TOMLBlock::remove(c.text, "kestrune"), MCPInstallError) << c.text;
        } else {
            EXPECT_FALSE(TOMLBlock::remove(c.text, "kestrune")) << c.text;
        }
    }
}
