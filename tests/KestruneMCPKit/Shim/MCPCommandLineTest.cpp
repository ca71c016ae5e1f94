// Every option of kestrune-mcp's command line against a temporary home and
// data directory, checking exact output, exit statuses, the app's state and
// the files written.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "KestruneMCPKit/Shim/MCPCommandLine.h"
#include "KestruneMCPKit/Tokens/MCPToken.h"
#include "MailCore/Common/Json.h"
#include "tests/fakes/TestFiles.h"

namespace fs = std::filesystem;
using mailcore::Json;
using namespace mcpkit;
using namespace testfiles;

namespace {

const std::string helper = "/opt/kestrune/kestrune-mcp";
const std::string knownHarnesses =
    "claude-code, zcode, cursor, codex, claude-desktop, windsurf, vscode";
const std::string unknownHarness = "Unknown or missing harness. Known: " + knownHarnesses;
const std::string placeholderNote =
    "Note: the token is a placeholder. Use the app's Connect button, or --install, to create a "
    "real one.";

struct Outcome {
    std::optional<int> status;
    std::vector<std::string> out;
    std::vector<std::string> err;
};

class MCPCommandLineTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    // Runs the command line with --home and --data-dir pointing into the
    // temporary directory (unless `isolated` is false).
    Outcome run(std::vector<std::string> args, bool isolated = true) {
        if (isolated) {
            args.insert(args.end(), {"--home", home().string(), "--data-dir", dataDir().string()});
        }
        Outcome outcome;
        outcome.status = MCPCommandLine::run(
            args, helper, [&](const std::string& line) { outcome.out.push_back(line); },
            [&](const std::string& line) { outcome.err.push_back(line); }, [this] { return now; });
        return outcome;
    }

    fs::path home() const { return root.path() / "home"; }
    fs::path dataDir() const { return root.path() / "data"; }
    fs::path config(const std::string& id) const {
        return home() / MCPHarnessCatalog::spec(id)->configPath;
    }

    // The app's view: the registered record and its stored token.
    std::optional<MCPHarnessRecord> registered(const std::string& id) {
        MCPStorage storage = MCPStorage::open(dataDir(), std::nullopt, home());
        MCPState state = storage.policy->snapshot();
        if (const MCPHarnessRecord* record = state.harness(id)) return *record;
        return std::nullopt;
    }
    std::optional<std::string> storedToken(const std::string& id) {
        return MCPStorage::open(dataDir(), std::nullopt, home()).policy->tokens().token(id);
    }

    testfiles::TempDir root;
    mailcore::Date now = mailcore::dateFromSeconds(1767225600);  // 2026-01-01 00:00:00 UTC
};

TEST_F(MCPCommandLineTest, UsageVersionAndUsageErrors) {
    const std::string& usage = MCPCommandLine::usage();

    struct Case {
        std::vector<std::string> args;
        std::optional<int> status;
        std::vector<std::string> out;
        std::vector<std::string> err;
    };
    const std::vector<Case> cases = {
        {{}, std::nullopt, {}, {}},
        {{"--help"}, 0, {usage}, {}},
        {{"--help", "--install", "cursor"}, 0, {usage}, {}},
        {{"--version"}, 0, {"kestrune-mcp 0.1.0"}, {}},
        {{"--version", "extra"}, 0, {"kestrune-mcp 0.1.0"}, {}},
        // Anything not beginning with "--" is refused at once, silently.
        {{"status"}, 64, {}, {}},
        {{"install", "--install", "cursor"}, 64, {}, {}},
        {{"-h"}, 64, {}, {}},
        {{"-"}, 64, {}, {}},
        {{""}, 64, {}, {}},
        {{"--bogus"}, 64, {}, {usage}},
        {{"--"}, 64, {}, {usage}},
        {{"--VERSION"}, 64, {}, {usage}},
    };
    for (const Case& c : cases) {
        Outcome o = run(c.args, false);
        EXPECT_EQ(o.status, c.status) << ::testing::PrintToString(c.args);
        EXPECT_EQ(o.out, c.out) << ::testing::PrintToString(c.args);
        EXPECT_EQ(o.err, c.err) << ::testing::PrintToString(c.args);
    }
    Outcome first = run({"--gen-token"}, false), second = run({"--gen-token"}, false);
    EXPECT_EQ(first.status, 0);
    ASSERT_EQ(first.out.size(), 1u);
    EXPECT_EQ(first.out[0].rfind("kmt_", 0), 0u);
    EXPECT_NE(first.out, second.out);
    EXPECT_FALSE(fs::exists(home()));
    EXPECT_FALSE(fs::exists(dataDir()));
}

TEST_F(MCPCommandLineTest, MissingOrUnknownHarnessIsAUsageError) {
    const std::vector<std::vector<std::string>> cases = {
        {"--print-config"},
        {"--status"},
        {"--install"},
        {"--uninstall"},
        {"--print-config", "nope"},
        {"--install", "Cursor"},
        {"--uninstall", "claude"},
        {"--status", ""},
        {"--print-config", "--token", "kmt_x"},
    };
    for (const auto& args : cases) {
        // No --home/--data-dir here: the harness is looked at before anything else.
        Outcome o = run(args, false);
        EXPECT_EQ(o.status, 64) << ::testing::PrintToString(args);
        EXPECT_TRUE(o.out.empty());
        EXPECT_EQ(o.err, std::vector<std::string>{unknownHarness})
            << ::testing::PrintToString(args);
    }
}

TEST_F(MCPCommandLineTest, ListHarnessesShowsDetection) {
    fs::create_directories(home() / ".cursor");
    writeFile(home() / ".local/bin/claude", "#!/bin/sh\n");
    fs::create_directories(home() / ".config/Code");
    Outcome o = run({"--list-harnesses"});
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(o.err.empty());
    EXPECT_EQ(o.out, (std::vector<std::string>{
                         "claude-code\tClaude Code\tdetected\t~/.claude.json",
                         "zcode\tZCode\tnot detected\t~/.zcode/cli/config.json",
                         "cursor\tCursor\tdetected\t~/.cursor/mcp.json",
                         "codex\tCodex\tnot detected\t~/.codex/config.toml",
                         "claude-desktop\tClaude Desktop\tnot detected\t~/.config/Claude/"
                         "claude_desktop_config.json",
                         "windsurf\tWindsurf\tnot detected\t~/.codeium/windsurf/mcp_config.json",
                         "vscode\tVS Code\tdetected\t~/.config/Code/User/mcp.json",
                     }));
}

TEST_F(MCPCommandLineTest, PrintConfigWritesNothingAndMarksThePlaceholder) {
    fs::create_directories(home());
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> out;
    };
    const std::string codexFile = (home() / ".codex/config.toml").string();
    const std::string claudeFile = (home() / ".claude.json").string();
    const std::vector<Case> cases = {
        {{"--print-config", "codex"},
         {"File: " + codexFile, "Tables:",
          "[mcp_servers.kestrune]\ncommand = \"/opt/kestrune/kestrune-mcp\"\nargs = "
          "[]\n\n[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"<KESTRUNE_MCP_TOKEN>\"",
          "Note: [mcp_servers.kestrune] tables in ~/.codex/config.toml.", placeholderNote}},
        {{"--print-config", "claude-code", "--token", "kmt_real", "--command", "/x/k it's",
          "--socket", "/run/k.sock"},
         {"File: " + claudeFile, "Entry \"kestrune\" in mcpServers:",
          "{\n  \"command\": \"/x/k it's\",\n  \"args\": [],\n  \"env\": {\n    "
          "\"KESTRUNE_MCP_TOKEN\": "
          "\"kmt_real\",\n    \"KESTRUNE_SOCKET\": \"/run/k.sock\"\n  },\n  \"type\": \"stdio\"\n}",
          "Command: claude mcp add-json --scope user kestrune "
          "'{\"command\":\"/x/k "
          "it'\\''s\",\"args\":[],\"env\":{\"KESTRUNE_MCP_TOKEN\":\"kmt_real\","
          "\"KESTRUNE_SOCKET\":\"/run/k.sock\"},\"type\":\"stdio\"}'",
          "Note: User-scope entry in ~/.claude.json. Equivalent: claude mcp add-json --scope "
          "user."}},
    };
    for (const Case& c : cases) {
        Outcome o = run(c.args);
        EXPECT_EQ(o.status, 0);
        EXPECT_TRUE(o.err.empty());
        EXPECT_EQ(o.out, c.out) << ::testing::PrintToString(c.args);
    }
    // Every harness prints without touching the disk.
    for (const auto& id : MCPHarnessCatalog::ids())
        EXPECT_EQ(run({"--print-config", id}).status, 0);
    EXPECT_EQ(tree(home()), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(dataDir()));
}

TEST_F(MCPCommandLineTest, InstallRegistersThenWritesAndReportsTheBackup) {
    writeFile(config("cursor"), R"({"mcpServers": {"other": {"command": "o"}}, "x": 1})");
    Outcome first = run({"--install", "cursor"});
    EXPECT_EQ(first.status, 0);
    EXPECT_TRUE(first.err.empty());
    const std::string backup = config("cursor").string() + ".kestrune-backup-20260101-000000";
    EXPECT_EQ(first.out, std::vector<std::string>{"Installed into " + config("cursor").string() +
                                                  "\nBackup: " + backup});

    auto record = registered("cursor");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->name, "Cursor");
    EXPECT_TRUE(record->allowed);
    EXPECT_EQ(record->clientHints, std::vector<std::string>{"cursor"});
    auto token = storedToken("cursor");
    ASSERT_TRUE(token);
    EXPECT_EQ(token->size(), 47u);
    EXPECT_NE(readFile(config("cursor")).find(*token), std::string::npos);

    // The same token again: nothing changes, no backup.
    now += std::chrono::seconds(5);
    Outcome again = run({"--install", "cursor", "--token", *token});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, std::vector<std::string>{"Installed into " + config("cursor").string()});
    EXPECT_EQ(storedToken("cursor"), token);

    EXPECT_EQ(run({"--status", "cursor"}).out, std::vector<std::string>{"installed"});
}

TEST_F(MCPCommandLineTest, FailedInstallLeavesFileAndRegistrationAsTheyWere) {
    // Never registered: the failed install leaves no registration behind.
    const std::string commented = "{\n  // mine\n  \"mcpServers\": {}\n}\n";
    writeFile(config("claude-code"), commented);
    Outcome o = run({"--install", "claude-code"});
    EXPECT_EQ(o.status, 1);
    EXPECT_TRUE(o.out.empty());
    EXPECT_EQ(o.err, std::vector<std::string>{
                         "Install failed: unreadable(not a plain JSON object (comments or a "
                         "different shape); use the snippet)"});
    EXPECT_EQ(readFile(config("claude-code")), commented);
    EXPECT_FALSE(registered("claude-code"));
    EXPECT_FALSE(storedToken("claude-code"));

    // Registered earlier: the earlier token stays, so the entry in place keeps working.
    writeFile(config("zcode"), "{}");
    ASSERT_EQ(run({"--install", "zcode", "--token", "kmt_old"}).status, 0);
    auto before = registered("zcode");
    writeFile(config("zcode"), R"({"mcp": "text"})");
    now += std::chrono::seconds(30);
    Outcome again = run({"--install", "zcode", "--token", "kmt_new"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err,
              std::vector<std::string>{"Install failed: unreadable('mcp' is not an object)"});
    EXPECT_EQ(registered("zcode"), before);
    EXPECT_EQ(storedToken("zcode"), "kmt_old");
}

// What the command line adds to the installer's status: registration first,
// and the helper path it was given.
TEST_F(MCPCommandLineTest, StatusNeedsARegistrationAndUsesTheGivenCommand) {
    const std::vector<std::string> notRegistered{"cursor: not registered with the app"};
    EXPECT_EQ(run({"--status", "cursor"}).out, notRegistered);
    writeFile(config("cursor"), "{}");
    ASSERT_EQ(run({"--install", "cursor", "--token", "kmt_c"}).status, 0);
    EXPECT_EQ(run({"--status", "cursor"}).out, std::vector<std::string>{"installed"});
    Outcome moved = run({"--status", "cursor", "--command", "/moved/kestrune-mcp"});
    EXPECT_EQ(moved.status, 0);
    EXPECT_EQ(moved.out, std::vector<std::string>{"drift(The helper path changed.)"});
    EXPECT_EQ(run({"--status", "vscode"}).out,
              std::vector<std::string>{"vscode: not registered with the app"});
}

TEST_F(MCPCommandLineTest, UninstallRemovesTheEntryAndTheRegistrationOnlyWhenItCan) {
    writeFile(config("windsurf"), R"({"mcpServers": {"keep": {"command": "k"}}})");
    ASSERT_EQ(run({"--install", "windsurf"}).status, 0);
    now += std::chrono::seconds(1);
    Outcome o = run({"--uninstall", "windsurf"});
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(o.err.empty());
    EXPECT_EQ(o.out, std::vector<std::string>{"Removed from " + config("windsurf").string() +
                                              "\nBackup: " + config("windsurf").string() +
                                              ".kestrune-backup-20260101-000001"});
    EXPECT_FALSE(registered("windsurf"));
    EXPECT_FALSE(storedToken("windsurf"));
    EXPECT_EQ(run({"--uninstall", "windsurf"}).out, std::vector<std::string>{"Nothing to remove"});

    writeFile(config("cursor"), "{}");
    ASSERT_EQ(run({"--install", "cursor", "--token", "kmt_keep"}).status, 0);
    const std::string broken = "{\"mcpServers\": {\"kestrune\": {}},}";
    writeFile(config("cursor"), broken);
    o = run({"--uninstall", "cursor"});
    EXPECT_EQ(o.status, 1);
    EXPECT_EQ(o.err, std::vector<std::string>{
                         "Uninstall failed: unreadable(not a plain JSON object (comments or a "
                         "different shape); use the snippet)"});
    EXPECT_EQ(readFile(config("cursor")), broken);
    EXPECT_TRUE(registered("cursor"));
    EXPECT_EQ(storedToken("cursor"), "kmt_keep");
    EXPECT_EQ(run({"--uninstall", "vscode"}).err,
              std::vector<std::string>{"Uninstall failed: snippetOnly"});
}

// A damaged state file: --install and --uninstall fail with exit 1, saying
// why, and leave the configuration and the app's files as they were (the
// kinds of file the seam refuses are its own test).
TEST_F(MCPCommandLineTest, InstallAndUninstallNeverHalfDoOverABadStateFile) {
    const fs::path state = dataDir() / "mcp" / "state.json";
    writeFile(config("cursor"), "{}");
    ASSERT_EQ(run({"--install", "cursor", "--token", "kmt_first_token"}).status, 0);
    const std::string installed = readFile(config("cursor"));
    const std::string whole = readFile(state);
    writeFile(state, whole.substr(0, whole.size() - 30));
    for (const char* command : {"--install", "--uninstall"}) {
        Outcome o = run({command, "cursor", "--token", "kmt_second_token"});
        EXPECT_EQ(o.status, 1) << command;
        ASSERT_FALSE(o.err.empty()) << command;
        EXPECT_NE(o.err[0].find("move it aside"), std::string::npos) << o.err[0];
        EXPECT_EQ(readFile(config("cursor")), installed) << command;
    }
    EXPECT_EQ(storedToken("cursor"), "kmt_first_token");
}

TEST_F(MCPCommandLineTest, UnusableDataDirectoryFailsClearly) {
    writeFile(root.path() / "data", "a file where the data directory should be");
    for (const char* command : {"--status", "--install", "--uninstall"}) {
        Outcome o = run({command, "cursor"});
        EXPECT_EQ(o.status, 1) << command;
        ASSERT_EQ(o.err.size(), 1u) << command;
        EXPECT_EQ(o.err[0].rfind("Could not open the app's data directory: ", 0), 0u) << o.err[0];
        EXPECT_FALSE(fs::exists(config("cursor")));
    }
}

// The built helper: exit statuses and which stream carries the text.
TEST(MCPCommandLineProcessTest, ExitStatusesOfTheBuiltHelper) {
    testfiles::TempDir dir;
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;  // exact when not empty
        bool err;
    };
    const std::vector<Case> cases = {
        {{"--version"}, 0, "kestrune-mcp 0.1.0\n", false},
        {{"status"}, 64, "", false},
        {{"--nope"}, 64, "", true},
        {{"--install", "vscode"}, 2, "", true},
        {{"--install", "nope"}, 64, "", true},
        {{"--gen-token"}, 0, "", false},
        {{"--list-harnesses"}, 0, "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        ProcessOutcome o = runHelper(c.args, {"HOME=" + dir.path().string()});
        EXPECT_EQ(o.status, c.status);
        if (!c.out.empty()) {
            EXPECT_EQ(o.out, c.out);
        }
        EXPECT_EQ(o.out.empty(), c.status != 0);
        EXPECT_EQ(!o.err.empty(), c.err);
    }
    EXPECT_EQ(tree(dir.path()), std::vector<std::string>{}) << "no command wrote anything";
}

}  // namespace
