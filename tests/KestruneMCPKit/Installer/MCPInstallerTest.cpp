// Installing into, checking and removing from real files in a temporary home.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <nlohmann/json.hpp>

#include "InstallerTestSupport.h"
#include "KestruneMCPKit/Installer/MCPConfigFile.h"
#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"
#include "KestruneMCPKit/Installer/MCPInstaller.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"
#include "tests/fakes/LinkTestSupport.h"

using namespace mcpkit;
using namespace installertest;
using mailcore::Json;
namespace fs = std::filesystem;

namespace {

class MCPInstallerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    MCPInstaller installer() { return MCPInstaller(home.path(), {}, clock.clock()); }

    static MCPHarnessSpec harness(const std::string& id) { return *MCPHarnessCatalog::spec(id); }

    fs::path configOf(const std::string& id) { return home.path() / harness(id).configPath; }

    // Re-parses a JSON file we wrote.
    static Json readJSON(const fs::path& path) { return mailcore::parseJson(readFile(path)); }

    static Json typedEntry(const MCPServerEntry& entry) { return entry.jsonObject(true); }

    void expectUnreadable(const std::function<void()>& action, const std::string& reason) {
        try {
            action();
            ADD_FAILURE() << "expected unreadable(" << reason << ")";
        } catch (const MCPInstallError& error) {
            EXPECT_EQ(error, MCPInstallError::unreadable(reason));
        }
    }

    TemporaryHome home;
    ManualClock clock;
    MCPServerEntry entry = MCPServerEntry::make("/usr/bin/kestrune-mcp", "kmt_one", std::nullopt);
};

const std::string notPlain =
    "not a plain JSON object (comments or a different shape); use the snippet";

TEST_F(MCPInstallerTest, MissingFileStartsFromEmptyObjectWithPrivateMode) {
    auto result = installer().install(harness("cursor"), entry);
    EXPECT_TRUE(result.changed);
    EXPECT_FALSE(result.backup);
    EXPECT_EQ(result.file, configOf("cursor"));
    EXPECT_EQ(readJSON(result.file),
              (Json{{"mcpServers", {{"kestrune", entry.jsonObject(false)}}}}));
    struct stat st {};
    ASSERT_EQ(::stat(result.file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(filesStartingWith(result.file.parent_path(), "."), std::vector<std::string>{})
        << "no temporary file is left behind";
}

TEST_F(MCPInstallerTest, KeyPathIsCreatedAndTypedEntryWritten) {
    writeFile(configOf("zcode"), R"({"theme": "dark", "mcp": {"other": 1}})");
    auto result = installer().install(harness("zcode"), entry);
    EXPECT_TRUE(result.changed);
    Json written = readJSON(configOf("zcode"));
    EXPECT_EQ(written["theme"], "dark");
    EXPECT_EQ(written["mcp"]["other"], 1);
    EXPECT_EQ(written["mcp"]["servers"]["kestrune"], typedEntry(entry));
    EXPECT_EQ(written["mcp"]["servers"]["kestrune"]["type"], "stdio");
}

TEST_F(MCPInstallerTest, MemberOnTheWayThatIsNotAnObjectIsRefusedByName) {
    struct Case {
        std::string text;
        std::string reason;
    };
    std::vector<Case> cases = {
        {R"({"mcp": "text"})", "'mcp' is not an object"},
        {R"({"mcp": {"servers": [1]}})", "'mcp.servers' is not an object"},
        {R"({"mcp": null})", "'mcp' is not an object"},
    };
    for (const Case& c : cases) {
        writeFile(configOf("zcode"), c.text);
        expectUnreadable([&] { installer().install(harness("zcode"), entry); }, c.reason);
        EXPECT_EQ(readFile(configOf("zcode")), c.text);
    }
    EXPECT_EQ(filesStartingWith(configOf("zcode").parent_path(), "config.json.kestrune-backup"),
              std::vector<std::string>{});
}

TEST_F(MCPInstallerTest, FilesThatAreNotPlainJSONObjectsAreRefusedUntouched) {
    std::vector<std::string> texts = {
        "{\n  // a comment\n  \"mcpServers\": {}\n}\n",
        "{\"mcpServers\": {},}\n",
        "/* block */ {}",
        "[1, 2]",
        "\"text\"",
        "{\"a\": 1, \"a\": 2}",
        "{\"mcpServers\": {\"x\": 1, \"x\": 1}}",
        "{\"a\": 1} trailing",
        std::string(300, '[') + std::string(300, ']'),
        "{\"a\": " + std::string(300, '[') + std::string(300, ']') + "}",
    };
    for (const std::string& text : texts) {
        writeFile(configOf("cursor"), text);
        expectUnreadable([&] { installer().install(harness("cursor"), entry); }, notPlain);
        expectUnreadable([&] { installer().remove(harness("cursor")); }, notPlain);
        EXPECT_EQ(readFile(configOf("cursor")), text);
    }
}

TEST_F(MCPInstallerTest, SecondIdenticalInstallChangesNothingAndTakesNoBackup) {
    writeFile(configOf("claude-code"), R"({"numStartups": 3})");
    auto first = installer().install(harness("claude-code"), entry);
    EXPECT_TRUE(first.changed);
    ASSERT_TRUE(first.backup);
    EXPECT_EQ(readFile(*first.backup), R"({"numStartups": 3})");
    std::string written = readFile(configOf("claude-code"));
    struct stat before {};
    ::stat(configOf("claude-code").c_str(), &before);

    clock.advance(10);
    auto second = installer().install(harness("claude-code"), entry);
    EXPECT_FALSE(second.changed);
    EXPECT_FALSE(second.backup);
    EXPECT_EQ(readFile(configOf("claude-code")), written);
    struct stat after {};
    ::stat(configOf("claude-code").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(filesStartingWith(home.path(), ".claude.json.kestrune-backup-").size(), 1u);
}

TEST_F(MCPInstallerTest, ReorderedButEqualEntryCountsAsInstalled) {
    writeFile(
        configOf("cursor"),
        R"({"mcpServers": {"kestrune": {"env": {"KESTRUNE_MCP_TOKEN": "kmt_one"}, "args": [], "command": "/usr/bin/kestrune-mcp"}}})");
    EXPECT_FALSE(installer().install(harness("cursor"), entry).changed);
}

TEST_F(MCPInstallerTest, OtherMembersAndServersSurviveInstallAndUninstall) {
    const std::string original = R"({
  "numStartups": 12,
  "projects": {"/src/app": {"allowedTools": ["Bash"], "history": [{"display": "é ✓ \u0001"}]}},
  "mcpServers": {
    "github": {"type": "stdio", "command": "npx", "args": ["-y", "gh"], "env": {"T": "x"}},
    "kestrune": {"command": "/old/path", "args": [], "env": {}},
    "zeta": {"url": "http://127.0.0.1:9/x", "big": 12345678901234567890, "f": 1.5e300}
  },
  "zLast": [true, false, null, -0.25]
})";
    writeFile(configOf("claude-code"), original);
    Json before = Json::parse(original);

    auto installed = installer().install(harness("claude-code"), entry);
    ASSERT_TRUE(installed.changed);
    Json after = readJSON(configOf("claude-code"));
    EXPECT_EQ(after["mcpServers"]["kestrune"], typedEntry(entry));
    Json expected = before;
    expected["mcpServers"]["kestrune"] = typedEntry(entry);
    EXPECT_EQ(after, expected) << "members keep their order and values";

    clock.advance(1);
    auto removed = installer().remove(harness("claude-code"));
    EXPECT_TRUE(removed.changed);
    ASSERT_TRUE(removed.backup);
    EXPECT_NE(*removed.backup, *installed.backup);
    Json cleaned = readJSON(configOf("claude-code"));
    expected["mcpServers"].erase("kestrune");
    EXPECT_EQ(cleaned, expected);

    clock.advance(1);
    auto again = installer().remove(harness("claude-code"));
    EXPECT_FALSE(again.changed);
    EXPECT_FALSE(again.backup);
}

TEST_F(MCPInstallerTest, RemoveFindsNothingInMissingOrEntrylessFiles) {
    EXPECT_FALSE(installer().remove(harness("cursor")).changed);
    EXPECT_FALSE(fs::exists(configOf("cursor")));
    for (const std::string& text : {std::string(R"({"mcp": "text"})"), std::string("{}")}) {
        writeFile(configOf("zcode"), text);
        auto result = installer().remove(harness("zcode"));
        EXPECT_FALSE(result.changed);
        EXPECT_EQ(readFile(configOf("zcode")), text);
    }
}

TEST_F(MCPInstallerTest, OnlyTheFiveNewestBackupsAreKept) {
    writeFile(configOf("cursor"), "{}");
    writeFile(home.path() / ".cursor/mcp.json.kestrune-backup-notes.txt", "mine");
    writeFile(home.path() / ".cursor/other.json.kestrune-backup-20000101-000000", "other file");
    std::vector<std::string> stamps;
    for (int k = 0; k < 6; ++k) {
        clock.advance(61);
        entry.env["KESTRUNE_MCP_TOKEN"] = "kmt_" + std::to_string(k);
        auto result = installer().install(harness("cursor"), entry);
        ASSERT_TRUE(result.changed);
        ASSERT_TRUE(result.backup);
        stamps.push_back(MCPConfigFile::backupStamp(clock.now));
        EXPECT_EQ(result.backup->filename().string(), "mcp.json.kestrune-backup-" + stamps.back());
    }
    EXPECT_EQ(stamps[0], "20260101-000101");
    std::vector<std::string> expected;
    for (int k = 1; k < 6; ++k) expected.push_back("mcp.json.kestrune-backup-" + stamps[k]);
    EXPECT_EQ(filesStartingWith(home.path() / ".cursor", "mcp.json.kestrune-backup-2"), expected);
    EXPECT_TRUE(fs::exists(home.path() / ".cursor/mcp.json.kestrune-backup-notes.txt"));
    EXPECT_TRUE(fs::exists(home.path() / ".cursor/other.json.kestrune-backup-20000101-000000"));
    // The oldest kept backup holds the file as it was before the second install.
    EXPECT_EQ(readJSON(home.path() / ".cursor" /
                       expected[0])["mcpServers"]["kestrune"]["env"]["KESTRUNE_MCP_TOKEN"],
              "kmt_0");
}

TEST_F(MCPInstallerTest, ChangesWithinOneSecondKeepEveryBackup) {
    writeFile(configOf("cursor"), "{}");
    auto first = installer().install(harness("cursor"), entry);
    auto removed = installer().remove(harness("cursor"));
    ASSERT_TRUE(first.backup && removed.backup);
    EXPECT_EQ(removed.backup->string(), first.backup->string() + "-1");
    EXPECT_EQ(readFile(*first.backup), "{}");
    EXPECT_NE(readFile(*removed.backup), "{}");

    // Suffixed names sort after their plain name when pruning.
    installer().install(harness("cursor"), entry);
    installer().pruneBackups(configOf("cursor"), 1);
    auto left = filesStartingWith(home.path() / ".cursor", "mcp.json.kestrune-backup-");
    EXPECT_EQ(left, std::vector<std::string>{first.backup->filename().string() + "-2"});
}

TEST_F(MCPInstallerTest, CodexInstallWritesTOMLThatPythonReads) {
    const std::string original =
        "# my settings\nmodel = \"o3\"\n\n[mcp_servers.kestrune]\ncommand = \"/old\"\n"
        "[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"kmt_old\"\n\n[mcp_servers.x]\n"
        "command = \"x\"\n";
    writeFile(configOf("codex"), original);
    MCPServerEntry withSocket = MCPServerEntry::make("/bin/k", "kmt_two", std::string("/s.sock"));
    auto result = installer().install(harness("codex"), withSocket);
    EXPECT_TRUE(result.changed);
    ASSERT_TRUE(result.backup);
    EXPECT_EQ(readFile(*result.backup), original);
    Json parsed = readTOMLWithPython(configOf("codex"));
    EXPECT_EQ(parsed["mcp_servers"]["kestrune"],
              (Json{{"command", "/bin/k"},
                    {"args", Json::array()},
                    {"env", {{"KESTRUNE_MCP_TOKEN", "kmt_two"}, {"KESTRUNE_SOCKET", "/s.sock"}}}}));
    EXPECT_EQ(parsed["mcp_servers"]["x"], (Json{{"command", "x"}}));
    EXPECT_EQ(parsed["model"], "o3");
    EXPECT_EQ(readFile(configOf("codex"))
                  .rfind("# my settings\nmodel = \"o3\"\n\n[mcp_servers.kestrune]\n", 0),
              0u);

    EXPECT_FALSE(installer().install(harness("codex"), withSocket).changed);
    auto status = installer().status(harness("codex"), withSocket);
    EXPECT_EQ(status, MCPInstallStatus::installed());

    clock.advance(1);
    auto removed = installer().remove(harness("codex"));
    EXPECT_TRUE(removed.changed);
    EXPECT_EQ(readFile(configOf("codex")),
              "# my settings\nmodel = \"o3\"\n\n[mcp_servers.x]\ncommand = \"x\"\n");
    EXPECT_EQ(readTOMLWithPython(configOf("codex"))["mcp_servers"],
              (Json{{"x", {{"command", "x"}}}}));
}

TEST_F(MCPInstallerTest, CodexMissingFileGetsOnlyTheBlock) {
    auto result = installer().install(harness("codex"), entry);
    EXPECT_TRUE(result.changed);
    EXPECT_EQ(readFile(configOf("codex")), TOMLBlock::block("kestrune", entry));
    EXPECT_EQ(readTOMLWithPython(configOf("codex"))["mcp_servers"]["kestrune"]["command"],
              "/usr/bin/kestrune-mcp");
}

TEST_F(MCPInstallerTest, StatusCoversEveryState) {
    MCPInstaller probe = installer();
    EXPECT_EQ(probe.status(harness("vscode"), entry), MCPInstallStatus::snippetOnly());
    EXPECT_EQ(probe.status(harness("cursor"), entry), MCPInstallStatus::notDetected());

    fs::create_directories(home.path() / ".cursor");
    EXPECT_EQ(probe.status(harness("cursor"), entry), MCPInstallStatus::notInstalled());
    writeFile(configOf("cursor"), R"({"mcpServers": {"other": {}}})");
    EXPECT_EQ(probe.status(harness("cursor"), entry), MCPInstallStatus::notInstalled());

    probe.install(harness("cursor"), entry);
    EXPECT_EQ(probe.status(harness("cursor"), entry), MCPInstallStatus::installed());

    MCPServerEntry moved = entry;
    moved.command = "/elsewhere/kestrune-mcp";
    MCPServerEntry withArgs = entry;
    withArgs.args = {"--verbose"};
    MCPServerEntry otherToken = entry;
    otherToken.env["KESTRUNE_MCP_TOKEN"] = "kmt_other";
    MCPServerEntry withSocket = entry;
    withSocket.env["KESTRUNE_SOCKET"] = "/tmp/x.sock";
    EXPECT_EQ(probe.status(harness("cursor"), moved),
              MCPInstallStatus::drift("The helper path changed."));
    EXPECT_EQ(probe.status(harness("cursor"), withArgs),
              MCPInstallStatus::drift("The arguments were edited."));
    EXPECT_EQ(
        probe.status(harness("cursor"), otherToken),
        MCPInstallStatus::drift("The token or environment differs from this app's registration."));
    EXPECT_EQ(probe.status(harness("cursor"), withSocket).description(),
              "drift(The token or environment differs from this app's registration.)");

    writeFile(configOf("cursor"), "{ // edited\n}");
    EXPECT_EQ(probe.status(harness("cursor"), entry), MCPInstallStatus::unreadable(notPlain));
    writeFile(configOf("cursor"), "{\"mcpServers\": {\"kestrune\": \"x\xff\"}}");
    EXPECT_EQ(probe.status(harness("cursor"), entry).description(),
              "unreadable(not readable as UTF-8)");
}

TEST_F(MCPInstallerTest, DriftIsFoundInTOMLAndInEntriesOfOtherShapes) {
    fs::create_directories(home.path() / ".codex");
    struct Case {
        std::string file;
        std::string toml;
        MCPInstallStatus expected;
    };
    const std::string env = "[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"kmt_one\"\n";
    std::vector<Case> cases = {
        {"codex", "[mcp_servers.kestrune]\ncommand = \"/usr/bin/kestrune-mcp\"\nargs = []\n" + env,
         MCPInstallStatus::installed()},
        {"codex", "[mcp_servers.kestrune]\ncommand = \"/usr/bin/kestrune-mcp\"\n" + env,
         MCPInstallStatus::drift("The arguments were edited.")},
        {"codex", "[mcp_servers.kestrune]\ncommand = \"/other\"\nargs = []\n" + env,
         MCPInstallStatus::drift("The helper path changed.")},
        {"codex", "[mcp_servers.kestrune]\ncommand = \"/usr/bin/kestrune-mcp\"\nargs = []\n",
         MCPInstallStatus::drift("The token or environment differs from this app's registration.")},
        {"codex", "[mcp_servers.kestrune\n",
         MCPInstallStatus::unreadable("not a TOML file this installer can edit; use the snippet")},
        {"codex", "model = 1\n", MCPInstallStatus::notInstalled()},
        {"cursor", R"({"mcpServers": {"kestrune": []}})",
         MCPInstallStatus::drift("The helper path changed.")},
        {"cursor",
         R"({"mcpServers": {"kestrune": {"command": "/usr/bin/kestrune-mcp", "env": {"KESTRUNE_MCP_TOKEN": "kmt_one"}}}})",
         MCPInstallStatus::installed()},
        {"cursor",
         R"({"mcpServers": {"kestrune": {"command": "/usr/bin/kestrune-mcp", "args": "x", "env": {"KESTRUNE_MCP_TOKEN": "kmt_one"}}}})",
         MCPInstallStatus::drift("The arguments were edited.")},
        {"cursor",
         R"({"mcpServers": {"kestrune": {"command": "/usr/bin/kestrune-mcp", "env": {"KESTRUNE_MCP_TOKEN": 5}}}})",
         MCPInstallStatus::drift("The token or environment differs from this app's registration.")},
        {"cursor", R"({"mcpServers": 3})",
         MCPInstallStatus::unreadable("'mcpServers' is not an object")},
    };
    fs::create_directories(home.path() / ".cursor");
    for (const Case& c : cases) {
        writeFile(configOf(c.file), c.toml);
        EXPECT_EQ(installer().status(harness(c.file), entry), c.expected) << c.toml;
    }
}

TEST_F(MCPInstallerTest, DetectionLooksForPathsAndApplications) {
    fs::path apps = home.path() / "Apps";
    fs::create_directories(apps / "Cursor.app");
    MCPInstaller withApps(home.path(), {home.path() / "none", apps}, clock.clock());
    EXPECT_TRUE(withApps.detected(harness("cursor")));
    EXPECT_FALSE(installer().detected(harness("cursor")));
    EXPECT_FALSE(withApps.detected(harness("claude-code")));
    writeFile(home.path() / ".local/bin/claude", "#!/bin/sh\n");
    EXPECT_TRUE(withApps.detected(harness("claude-code")));
    fs::create_symlink(home.path() / "missing", home.path() / ".codex");
    EXPECT_TRUE(installer().detected(harness("codex")))
        << "a dangling link still shows the harness";
}

TEST_F(MCPInstallerTest, SymlinkedConfigIsEditedAtItsTargetAndStaysALink) {
    fs::path dotfiles = home.path() / "dotfiles";
    writeFile(dotfiles / "cursor-mcp.json", R"({"mcpServers": {"a": {"command": "a"}}})");
    fs::create_directories(home.path() / ".cursor");
    fs::create_symlink("../dotfiles/cursor-mcp.json", configOf("cursor"));

    auto result = installer().install(harness("cursor"), entry);
    EXPECT_TRUE(result.changed);
    EXPECT_TRUE(fs::is_symlink(configOf("cursor")));
    EXPECT_EQ(fs::read_symlink(configOf("cursor")), "../dotfiles/cursor-mcp.json");
    Json target = readJSON(dotfiles / "cursor-mcp.json");
    EXPECT_EQ(target["mcpServers"]["kestrune"], entry.jsonObject(false));
    EXPECT_EQ(target["mcpServers"]["a"]["command"], "a");
    ASSERT_TRUE(result.backup);
    EXPECT_EQ(result.backup->parent_path(), home.path() / ".cursor");
    EXPECT_FALSE(fs::is_symlink(*result.backup));
    EXPECT_EQ(filesStartingWith(dotfiles, ".").size(), 0u)
        << "no temporary file left at the target";

    clock.advance(1);
    EXPECT_TRUE(installer().remove(harness("cursor")).changed);
    EXPECT_TRUE(fs::is_symlink(configOf("cursor")));
    EXPECT_FALSE(readJSON(dotfiles / "cursor-mcp.json")["mcpServers"].contains("kestrune"));
}

TEST_F(MCPInstallerTest, DanglingLinkCreatesItsTarget) {
    fs::create_directories(home.path() / ".codex");
    fs::create_symlink(home.path() / "dotfiles/codex/config.toml", configOf("codex"));
    EXPECT_TRUE(installer().install(harness("codex"), entry).changed);
    EXPECT_TRUE(fs::is_symlink(configOf("codex")));
    EXPECT_EQ(readFile(home.path() / "dotfiles/codex/config.toml"),
              TOMLBlock::block("kestrune", entry));
}

TEST_F(MCPInstallerTest, BadFilesGetClearErrorsAndStayIntact) {
    struct Case {
        const char* label;
        std::string id;
        std::function<void(const fs::path&)> make;
        std::string reason;
    };
    std::vector<Case> cases = {
        {"latin1", "cursor", [](const fs::path& p) { writeFile(p, "{\"a\": \"caf\xe9\"}"); },
         "not readable as UTF-8"},
        {"latin1 toml", "codex", [](const fs::path& p) { writeFile(p, "a = \"caf\xe9\"\n"); },
         "not readable as UTF-8"},
        {"binary", "claude-code",
         [](const fs::path& p) { writeFile(p, std::string("{\"a\":1}\0\0\x01\x02", 11)); },
         "not a text file (contains NUL bytes)"},
        {"binary toml", "codex",
         [](const fs::path& p) { writeFile(p, std::string("a = 1\n\0", 7)); },
         "not a text file (contains NUL bytes)"},
        {"huge", "cursor",
         [](const fs::path& p) {
             writeFile(p, "{}");
             ::truncate(p.c_str(), static_cast<off_t>(MCPConfigFile::maxBytes) + 1);
         },
         "file is larger than 32 MiB"},
        {"directory", "codex", [](const fs::path& p) { fs::create_directories(p); },
         "not a regular file"},
        {"fifo", "cursor",
         [](const fs::path& p) {
             fs::create_directories(p.parent_path());
             ::mkfifo(p.c_str(), 0600);
         },
         "not a regular file"},
        {"link loop", "cursor",
         [](const fs::path& p) {
             fs::create_directories(p.parent_path());
             fs::create_symlink(p.filename(), p);
         },
         "cannot read file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        fs::path path = configOf(c.id);
        std::error_code ec;
        fs::remove_all(path, ec);
        c.make(path);
        bool regular = fs::is_regular_file(path, ec);
        std::string before = regular ? readFile(path) : "";
        fs::file_time_type modified = regular ? fs::last_write_time(path) : fs::file_time_type{};
        expectUnreadable([&] { installer().install(harness(c.id), entry); }, c.reason);
        expectUnreadable([&] { installer().remove(harness(c.id)); }, c.reason);
        EXPECT_EQ(installer().status(harness(c.id), entry), MCPInstallStatus::unreadable(c.reason));
        if (regular) {
            EXPECT_EQ(readFile(path), before);
            EXPECT_EQ(fs::last_write_time(path), modified);
        }
        EXPECT_EQ(
            filesStartingWith(path.parent_path(), path.filename().string() + ".kestrune-backup")
                .size(),
            0u);
        fs::remove_all(path, ec);
    }
}

// Another user: a file it may not read is unreadable; a directory it may not
// write into fails the install with io, and the file stays as it was.
TEST_F(MCPInstallerTest, PermissionFailuresLeaveTheFileAlone) {
    if (!linktest::canSwitchUser()) GTEST_SKIP() << "needs root to act as another user";
    fs::permissions(home.path(), fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec);
    const std::string original = R"({"mcpServers": {}})";
    writeFile(configOf("cursor"), original);
    writeFile(configOf("claude-code"), original);
    ::chmod(configOf("cursor").c_str(), 0600);
    ::chmod(configOf("claude-code").c_str(), 0644);
    ::chmod(configOf("cursor").parent_path().c_str(), 0755);

    auto outcome = [this](const std::string& id, const MCPInstallError::Kind kind,
                          const std::string& reasonStart) {
        linktest::OtherUserProcess child([&] {
            try {
                installer().install(harness(id), entry);
            } catch (const MCPInstallError& error) {
                bool expected = error.kind() == kind && error.reason().rfind(reasonStart, 0) == 0;
                return expected ? 0 : 1;
            }
            return 2;
        });
        child.go();
        return child.wait();
    };
    EXPECT_EQ(outcome("cursor", MCPInstallError::Kind::unreadable, "cannot read file"), 0);
    EXPECT_EQ(outcome("claude-code", MCPInstallError::Kind::io, "could not write the backup"), 0);
    EXPECT_EQ(readFile(configOf("cursor")), original);
    EXPECT_EQ(readFile(configOf("claude-code")), original);
    EXPECT_EQ(filesStartingWith(home.path(), ".claude.json.").size(), 0u);
}

TEST_F(MCPInstallerTest, ConcurrentChangeBetweenReadAndWriteIsRefused) {
    writeFile(configOf("cursor"), "{}");
    MCPConfigFile::Snapshot snapshot = MCPConfigFile::read(configOf("cursor"));
    writeFile(configOf("cursor"), R"({"edited": "by someone else"})");
    try {
        MCPConfigFile::replace(snapshot, "{\"mine\": 1}\n");
        ADD_FAILURE() << "replace went ahead";
    } catch (const MCPInstallError& error) {
        EXPECT_EQ(error.kind(), MCPInstallError::Kind::io);
        EXPECT_NE(error.reason().find("changed while it was being edited"), std::string::npos);
    }
    EXPECT_EQ(readFile(configOf("cursor")), R"({"edited": "by someone else"})");
    EXPECT_EQ(filesStartingWith(configOf("cursor").parent_path(), "."), std::vector<std::string>{});
}

TEST_F(MCPInstallerTest, SnippetOnlyHarnessNeverWrites) {
    EXPECT_THROW(
        try { installer().install(harness("vscode"), entry); } catch (const MCPInstallError& e) {
            EXPECT_EQ(e, MCPInstallError::snippetOnly());
            EXPECT_STREQ(e.what(), "snippetOnly");
            throw;
        },
        MCPInstallError);
    EXPECT_THROW(installer().remove(harness("vscode")), MCPInstallError);
    EXPECT_FALSE(fs::exists(configOf("vscode").parent_path()));
}

}  // namespace

namespace {

TEST(MCPHelperLocatorTest, PrefersHelpersThenMacOSAndNeedsAnExecutable) {
    TemporaryHome dir;
    fs::path bundle = dir.path() / "Kestrune.app";
    EXPECT_FALSE(MCPHelperLocator::helper(bundle));

    fs::path macos = bundle / "Contents/MacOS/kestrune-mcp";
    writeFile(macos, "#!/bin/sh\n");
    ::chmod(macos.c_str(), 0644);
    EXPECT_FALSE(MCPHelperLocator::helper(bundle)) << "not executable";
    ::chmod(macos.c_str(), 0755);
    EXPECT_EQ(MCPHelperLocator::helper(bundle), macos);

    fs::path helpers = bundle / "Contents/Helpers/kestrune-mcp";
    fs::create_directories(helpers);
    EXPECT_EQ(MCPHelperLocator::helper(bundle), macos) << "a directory is not the helper";
    fs::remove(helpers);
    writeFile(helpers, "#!/bin/sh\n");
    ::chmod(helpers.c_str(), 0755);
    EXPECT_EQ(MCPHelperLocator::helper(bundle), helpers);
}

}  // namespace
