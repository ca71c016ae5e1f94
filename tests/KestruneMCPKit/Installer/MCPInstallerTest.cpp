// The harness catalog, and installing into, checking and removing from real
// files in a temporary home.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Installer/MCPConfigFile.h"
#include "KestruneMCPKit/Installer/MCPHarnessCatalog.h"
#include "KestruneMCPKit/Installer/MCPInstaller.h"
#include "KestruneMCPKit/Installer/TOMLBlock.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/TestFiles.h"

using namespace mcpkit;
using namespace testfiles;
using mailcore::Json;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string notPlain =
    "not a plain JSON object (comments or a different shape); use the snippet";
const std::string envDiffers = "The token or environment differs from this app's registration.";

MCPHarnessSpec harness(const std::string& id) { return *MCPHarnessCatalog::spec(id); }

class MCPInstallerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    MCPInstaller installer() { return MCPInstaller(home.path(), {}, clock.clock()); }
    fs::path configOf(const std::string& id) { return home.path() / harness(id).configPath; }
    MCPInstallResult install(const std::string& id) {
        return installer().install(harness(id), entry);
    }
    MCPInstallResult remove(const std::string& id) { return installer().remove(harness(id)); }
    MCPInstallStatus status(const std::string& id, const MCPServerEntry& expected) {
        return installer().status(harness(id), expected);
    }
    static Json readJSON(const fs::path& path) { return mailcore::parseJson(readFile(path)); }
    std::vector<std::string> backupsOf(const std::string& id) {
        return namesIn(configOf(id).parent_path(),
                       configOf(id).filename().string() + ".kestrune-backup-");
    }
    static void expectUnreadable(const std::function<void()>& action, const std::string& reason) {
        try {
            action();
            ADD_FAILURE() << "expected unreadable(" << reason << ")";
        } catch (const MCPInstallError& error) {
            EXPECT_EQ(error, MCPInstallError::unreadable(reason));
        }
    }

    testfiles::TempDir home;
    FakeClock clock;
    MCPServerEntry entry = MCPServerEntry::make("/usr/bin/kestrune-mcp", "kmt_one", std::nullopt);
};

TEST_F(MCPInstallerTest, MissingFileAndMissingKeysAreCreatedWithPrivateMode) {
    auto result = install("cursor");
    EXPECT_TRUE(result.changed);
    EXPECT_FALSE(result.backup);
    EXPECT_EQ(result.file, configOf("cursor"));
    EXPECT_EQ(readJSON(result.file),
              (Json{{"mcpServers", {{"kestrune", entry.jsonObject(false)}}}}));
    EXPECT_EQ(fileMode(result.file), 0600u);
    EXPECT_EQ(namesIn(result.file.parent_path(), "."), std::vector<std::string>{})
        << "no temporary file is left behind";

    writeFile(configOf("zcode"), R"({"theme": "dark", "mcp": {"other": 1}})");
    EXPECT_TRUE(install("zcode").changed);
    EXPECT_EQ(readJSON(configOf("zcode")),
              (Json{{"theme", "dark"},
                    {"mcp", {{"other", 1}, {"servers", {{"kestrune", entry.jsonObject(true)}}}}}}));
}

TEST_F(MCPInstallerTest, OtherMembersAndServersSurviveInstallAndUninstall) {
    const std::string original = R"({
  "numStartups": 12,
  "projects": {"/src/app": {"allowedTools": ["Bash"], "history": [{"display": "é ✓ \u0001"}]}},
  "mcpServers": {
    "github": {"type": "stdio", "command": "npx", "args": ["-y", "gh"], "env": {"T": "x"}},
    "kestrune": {"command": "/old/path", "args": [], "env": {}},
    "zeta": {"url": "http://127.0.0.1:9/x", "big": 12345678901234567890, "f": 1.5}
  },
  "zLast": [true, false, null, -0.25]
})";
    writeFile(configOf("claude-code"), original);
    Json expected = Json::parse(original);
    expected["mcpServers"]["kestrune"] = entry.jsonObject(true);

    auto installed = install("claude-code");
    ASSERT_TRUE(installed.changed && installed.backup);
    EXPECT_EQ(readFile(*installed.backup), original);
    EXPECT_EQ(readJSON(configOf("claude-code")), expected) << "members keep their order and values";

    clock.advance(1s);
    auto removed = remove("claude-code");
    EXPECT_TRUE(removed.changed);
    ASSERT_TRUE(removed.backup);
    EXPECT_NE(*removed.backup, *installed.backup);
    expected["mcpServers"].erase("kestrune");
    EXPECT_EQ(readJSON(configOf("claude-code")), expected);

    auto again = remove("claude-code");
    EXPECT_FALSE(again.changed);
    EXPECT_FALSE(again.backup);
    EXPECT_FALSE(remove("cursor").changed);
    EXPECT_FALSE(fs::exists(configOf("cursor")));
}

TEST_F(MCPInstallerTest, AnEqualEntryIsNotWrittenAgainNorBackedUp) {
    writeFile(configOf("cursor"),
              R"({"mcpServers": {"kestrune": {"env": {"KESTRUNE_MCP_TOKEN": )"
              R"("kmt_one"}, "args": [], "command": "/usr/bin/kestrune-mcp"}}})");
    EXPECT_FALSE(install("cursor").changed) << "members in another order are the same entry";

    writeFile(configOf("claude-code"), R"({"numStartups": 3})");
    ASSERT_TRUE(install("claude-code").changed);
    clock.advance(10s);
    auto second = install("claude-code");
    EXPECT_FALSE(second.changed);
    EXPECT_FALSE(second.backup);
    EXPECT_EQ(backupsOf("claude-code").size(), 1u);
}

// Install, remove and status refuse with the same reason and leave the file
// as it was, without a backup.
TEST_F(MCPInstallerTest, FilesItCannotEditAreRefusedUntouched) {
    struct Case {
        std::string id;
        std::function<void(const fs::path&)> make;
        std::string reason;
    };
    auto text = [](std::string bytes) {
        return [bytes](const fs::path& p) { writeFile(p, bytes); };
    };
    std::vector<Case> cases = {
        {"zcode", text(R"({"mcp": "text"})"), "'mcp' is not an object"},
        {"zcode", text(R"({"mcp": {"servers": [1]}})"), "'mcp.servers' is not an object"},
        {"zcode", text(R"({"mcp": null})"), "'mcp' is not an object"},
        {"cursor", text("{\"a\": \"caf\xe9\"}"), "not readable as UTF-8"},
        {"codex", text("a = \"caf\xe9\"\n"), "not readable as UTF-8"},
        {"claude-code", text(std::string("{\"a\":1}\0\0\x01\x02", 11)),
         "not a text file (contains NUL bytes)"},
        {"codex", text(std::string("a = 1\n\0", 7)), "not a text file (contains NUL bytes)"},
        {"cursor",
         [](const fs::path& p) {
             writeFile(p, "{}");
             ::truncate(p.c_str(), static_cast<off_t>(MCPConfigFile::maxBytes) + 1);
         },
         "file is larger than 32 MiB"},
        {"codex", [](const fs::path& p) { fs::create_directories(p); }, "not a regular file"},
        {"cursor",
         [](const fs::path& p) {
             fs::create_directories(p.parent_path());
             ::mkfifo(p.c_str(), 0600);
         },
         "not a regular file"},
        {"cursor",
         [](const fs::path& p) {
             fs::create_directories(p.parent_path());
             fs::create_symlink(p.filename(), p);
         },
         "cannot read file"},
    };
    // Numbers a rewrite would not keep byte for byte.
    for (std::string number : {"123456789012345678901234567890", "-0", "1.5e300", "0.10"}) {
        cases.push_back({"cursor", text("{\"n\": [1, " + number + "], \"s\": \"-0\"}"),
                         "holds a number that would not be written back exactly as it is (very "
                         "long, -0 or with an exponent); use the snippet"});
    }
    for (std::string bad : std::vector<std::string>{
             "{\n  // a comment\n  \"mcpServers\": {}\n}\n", "{\"mcpServers\": {},}\n",
             "/* block */ {}", "[1, 2]", "\"text\"", "{\"a\": 1, \"a\": 2}",
             "{\"mcpServers\": {\"x\": 1, \"x\": 1}}", "{\"a\": 1} trailing",
             std::string(300, '[') + std::string(300, ']'),
             "{\"a\": " + std::string(300, '[') + std::string(300, ']') + "}"})
        cases.push_back({"cursor", text(bad), notPlain});
    for (const Case& c : cases) {
        fs::path path = configOf(c.id);
        std::error_code ec;
        fs::remove_all(path, ec);
        c.make(path);
        bool regular = fs::is_regular_file(path, ec);
        std::string before = regular ? readFile(path) : "";
        SCOPED_TRACE(c.reason + ": " + before.substr(0, 40));
        fs::file_time_type modified = regular ? fs::last_write_time(path) : fs::file_time_type{};
        expectUnreadable([&] { install(c.id); }, c.reason);
        if (c.reason.find("is not an object") == std::string::npos)
            expectUnreadable([&] { remove(c.id); }, c.reason);
        else
            EXPECT_FALSE(remove(c.id).changed) << "nothing of ours to remove";
        EXPECT_EQ(status(c.id, entry), MCPInstallStatus::unreadable(c.reason));
        if (regular) {
            EXPECT_EQ(readFile(path), before);
            EXPECT_EQ(fs::last_write_time(path), modified);
        }
        EXPECT_EQ(backupsOf(c.id).size(), 0u);
        fs::remove_all(path, ec);
    }
}

TEST_F(MCPInstallerTest, OnlyTheFiveNewestBackupsAreKept) {
    writeFile(configOf("cursor"), "{}");
    writeFile(home / ".cursor/mcp.json.kestrune-backup-notes.txt", "mine");
    writeFile(home / ".cursor/other.json.kestrune-backup-20000101-000000", "other file");
    std::vector<std::string> names;
    for (int k = 0; k < 6; ++k) {
        clock.advance(61s);
        entry.env["KESTRUNE_MCP_TOKEN"] = "kmt_" + std::to_string(k);
        auto result = install("cursor");
        ASSERT_TRUE(result.changed && result.backup);
        names.push_back(result.backup->filename().string());
        EXPECT_EQ(names.back(),
                  "mcp.json.kestrune-backup-" + MCPConfigFile::backupStamp(clock.now()));
    }
    EXPECT_EQ(names[0], "mcp.json.kestrune-backup-20260101-000101");
    names.erase(names.begin());
    EXPECT_EQ(namesIn(home / ".cursor", "mcp.json.kestrune-backup-2"), names);
    EXPECT_TRUE(fs::exists(home / ".cursor/mcp.json.kestrune-backup-notes.txt"));
    EXPECT_TRUE(fs::exists(home / ".cursor/other.json.kestrune-backup-20000101-000000"));
    // The oldest kept backup holds the file as it was before the second install.
    EXPECT_EQ(readJSON(home / ".cursor" /
                       names[0])["mcpServers"]["kestrune"]["env"]["KESTRUNE_MCP_TOKEN"],
              "kmt_0");
}

TEST_F(MCPInstallerTest, ChangesWithinOneSecondKeepEveryBackup) {
    writeFile(configOf("cursor"), "{}");
    auto first = install("cursor");
    auto removed = remove("cursor");
    ASSERT_TRUE(first.backup && removed.backup);
    EXPECT_EQ(removed.backup->string(), first.backup->string() + "-1");
    EXPECT_EQ(readFile(*first.backup), "{}");
    EXPECT_NE(readFile(*removed.backup), "{}");

    // Suffixed names sort after their plain name when pruning.
    install("cursor");
    installer().pruneBackups(configOf("cursor"), 1);
    EXPECT_EQ(backupsOf("cursor"),
              std::vector<std::string>{first.backup->filename().string() + "-2"});
}

TEST_F(MCPInstallerTest, CodexTablesAreReplacedAndRemovedLeavingEveryOtherLine) {
    const std::string mine = "# my settings\nmodel = \"o3\"\n\n";
    const std::string other = "[mcp_servers.x]\ncommand = \"x\"\n";
    const std::string original =
        mine +
        "[mcp_servers.kestrune]\ncommand = \"/old\"\n"
        "[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"kmt_old\"\n\n" +
        other;
    writeFile(configOf("codex"), original);
    MCPServerEntry withSocket = MCPServerEntry::make("/bin/k", "kmt_two", std::string("/s.sock"));
    auto result = installer().install(harness("codex"), withSocket);
    EXPECT_TRUE(result.changed);
    ASSERT_TRUE(result.backup);
    EXPECT_EQ(readFile(*result.backup), original);
    EXPECT_EQ(readFile(configOf("codex")),
              mine + TOMLBlock::block("kestrune", withSocket) + "\n" + other);
    EXPECT_FALSE(installer().install(harness("codex"), withSocket).changed);
    EXPECT_EQ(status("codex", withSocket), MCPInstallStatus::installed());

    clock.advance(1s);
    EXPECT_TRUE(remove("codex").changed);
    EXPECT_EQ(readFile(configOf("codex")), mine + other);

    fs::remove(configOf("codex"));
    EXPECT_TRUE(install("codex").changed);
    EXPECT_EQ(readFile(configOf("codex")), TOMLBlock::block("kestrune", entry));
}

TEST_F(MCPInstallerTest, StatusNamesTheFirstDifference) {
    EXPECT_EQ(status("vscode", entry), MCPInstallStatus::snippetOnly());
    EXPECT_EQ(status("cursor", entry), MCPInstallStatus::notDetected());
    fs::create_directories(home / ".cursor");
    EXPECT_EQ(status("cursor", entry), MCPInstallStatus::notInstalled());
    install("cursor");
    EXPECT_EQ(status("cursor", entry), MCPInstallStatus::installed());

    MCPServerEntry moved = entry, withArgs = entry, otherToken = entry, withSocket = entry;
    moved.command = "/elsewhere/kestrune-mcp";
    withArgs.args = {"--verbose"};
    otherToken.env["KESTRUNE_MCP_TOKEN"] = "kmt_other";
    withSocket.env["KESTRUNE_SOCKET"] = "/tmp/x.sock";
    EXPECT_EQ(status("cursor", moved), MCPInstallStatus::drift("The helper path changed."));
    EXPECT_EQ(status("cursor", withArgs), MCPInstallStatus::drift("The arguments were edited."));
    EXPECT_EQ(status("cursor", otherToken), MCPInstallStatus::drift(envDiffers));
    EXPECT_EQ(status("cursor", withSocket).description(), "drift(" + envDiffers + ")");

    // Entries as a file may hold them, written by hand or by another tool.
    const std::string env = "[mcp_servers.kestrune.env]\nKESTRUNE_MCP_TOKEN = \"kmt_one\"\n";
    const std::string command = "[mcp_servers.kestrune]\ncommand = \"/usr/bin/kestrune-mcp\"\n";
    const std::string jsonCommand =
        R"({"mcpServers": {"kestrune": {"command": "/usr/bin/kestrune-mcp", )";
    const std::string jsonToken = R"("env": {"KESTRUNE_MCP_TOKEN": "kmt_one"}}}})";
    const std::vector<std::tuple<std::string, std::string, MCPInstallStatus>> cases = {
        {"codex", command + "args = []\n" + env, MCPInstallStatus::installed()},
        {"codex", command + env, MCPInstallStatus::drift("The arguments were edited.")},
        {"codex", "[mcp_servers.kestrune]\ncommand = \"/other\"\nargs = []\n" + env,
         MCPInstallStatus::drift("The helper path changed.")},
        {"codex", command + "args = []\n", MCPInstallStatus::drift(envDiffers)},
        {"codex", "[mcp_servers.kestrune\n",
         MCPInstallStatus::unreadable("not a TOML file this installer can edit; use the snippet")},
        {"codex", "model = 1\n", MCPInstallStatus::notInstalled()},
        {"cursor", R"({"mcpServers": {"kestrune": []}})",
         MCPInstallStatus::drift("The helper path changed.")},
        {"cursor", jsonCommand + jsonToken, MCPInstallStatus::installed()},
        {"cursor", jsonCommand + R"("args": "x", )" + jsonToken,
         MCPInstallStatus::drift("The arguments were edited.")},
        {"cursor", jsonCommand + R"("env": {"KESTRUNE_MCP_TOKEN": 5}}}})",
         MCPInstallStatus::drift(envDiffers)},
        {"cursor", R"({"mcpServers": {"other": {}}})", MCPInstallStatus::notInstalled()},
        {"cursor", R"({"mcpServers": 3})",
         MCPInstallStatus::unreadable("'mcpServers' is not an object")},
        {"cursor", "{ // edited\n}", MCPInstallStatus::unreadable(notPlain)},
        {"cursor", "{\"mcpServers\": {\"kestrune\": \"x\xff\"}}",
         MCPInstallStatus::unreadable("not readable as UTF-8")},
    };
    for (const auto& [id, text, expected] : cases) {
        writeFile(configOf(id), text);
        EXPECT_EQ(status(id, entry), expected) << text;
    }
}

TEST_F(MCPInstallerTest, DetectionLooksForPathsAndApplications) {
    fs::create_directories(home / "Apps/Cursor.app");
    MCPInstaller withApps(home.path(), {home / "none", home / "Apps"}, clock.clock());
    EXPECT_TRUE(withApps.detected(harness("cursor")));
    EXPECT_FALSE(installer().detected(harness("cursor")));
    EXPECT_FALSE(withApps.detected(harness("claude-code")));
    writeFile(home / ".local/bin/claude", "#!/bin/sh\n");
    EXPECT_TRUE(withApps.detected(harness("claude-code")));
    fs::create_symlink(home / "missing", home / ".codex");
    EXPECT_TRUE(installer().detected(harness("codex"))) << "a dangling link still shows it";
}

TEST_F(MCPInstallerTest, ALinkedConfigIsEditedAtItsTargetAndStaysALink) {
    fs::path target = home / "dotfiles/cursor-mcp.json";
    writeFile(target, R"({"mcpServers": {"a": {"command": "a"}}})");
    fs::create_directories(home / ".cursor");
    fs::create_symlink("../dotfiles/cursor-mcp.json", configOf("cursor"));

    auto result = install("cursor");
    EXPECT_TRUE(result.changed);
    EXPECT_EQ(fs::read_symlink(configOf("cursor")), "../dotfiles/cursor-mcp.json");
    EXPECT_EQ(readJSON(target)["mcpServers"],
              (Json{{"a", {{"command", "a"}}}, {"kestrune", entry.jsonObject(false)}}));
    ASSERT_TRUE(result.backup);
    EXPECT_EQ(result.backup->parent_path(), home / ".cursor");
    EXPECT_FALSE(fs::is_symlink(*result.backup));
    EXPECT_EQ(namesIn(target.parent_path(), ".").size(), 0u) << "no temporary file at the target";

    clock.advance(1s);
    EXPECT_TRUE(remove("cursor").changed);
    EXPECT_TRUE(fs::is_symlink(configOf("cursor")));
    EXPECT_FALSE(readJSON(target)["mcpServers"].contains("kestrune"));

    // A dangling link gets its target created.
    fs::create_directories(home / ".codex");
    fs::create_symlink(home / "dotfiles/codex/config.toml", configOf("codex"));
    EXPECT_TRUE(install("codex").changed);
    EXPECT_TRUE(fs::is_symlink(configOf("codex")));
    EXPECT_EQ(readFile(home / "dotfiles/codex/config.toml"), TOMLBlock::block("kestrune", entry));
}

// Another user: a file it may not read is unreadable; a directory it may not
// write into fails the install with io, and the file stays as it was.
TEST_F(MCPInstallerTest, PermissionFailuresLeaveTheFileAlone) {
    if (!linktest::canSwitchUser()) GTEST_SKIP() << "needs root to act as another user";
    fs::permissions(home.path(), fs::perms(0755));
    const std::string original = R"({"mcpServers": {}})";
    writeFile(configOf("cursor"), original);
    writeFile(configOf("claude-code"), original);
    ::chmod(configOf("cursor").c_str(), 0600);
    ::chmod(configOf("claude-code").c_str(), 0644);
    ::chmod(configOf("cursor").parent_path().c_str(), 0755);

    auto outcome = [this](const std::string& id, MCPInstallError::Kind kind,
                          const std::string& reasonStart) {
        linktest::OtherUserProcess child([&] {
            try {
                install(id);
            } catch (const MCPInstallError& error) {
                return error.kind() == kind && error.reason().rfind(reasonStart, 0) == 0 ? 0 : 1;
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
    EXPECT_EQ(namesIn(home.path(), ".claude.json.").size(), 0u);
}

TEST_F(MCPInstallerTest, AReadOnlyConfigIsRefusedWithWhatToDo) {
    const std::string original = R"({"mcpServers": {}, "n": 1.5, "m": -12})";
    writeFile(configOf("cursor"), original);
    ::chmod(configOf("cursor").c_str(), 0444);
    auto error = caught<MCPInstallError>([&] { install("cursor"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), MCPInstallError::Kind::io);
    EXPECT_NE(error->reason().find("is read-only. Make it writable (chmod u+w"), std::string::npos);
    EXPECT_EQ(readFile(configOf("cursor")), original);
    EXPECT_EQ(fileMode(configOf("cursor")), 0444u);
    EXPECT_EQ(backupsOf("cursor").size(), 0u);
    // Writable again, it is edited and its other values stay as written.
    ::chmod(configOf("cursor").c_str(), 0644);
    EXPECT_TRUE(install("cursor").changed);
    EXPECT_NE(readFile(configOf("cursor")).find("\"n\": 1.5,\n  \"m\": -12"), std::string::npos);
}

TEST_F(MCPInstallerTest, AChangeBetweenReadAndWriteIsRefused) {
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
    EXPECT_EQ(namesIn(configOf("cursor").parent_path(), "."), std::vector<std::string>{});
}

TEST_F(MCPInstallerTest, SnippetOnlyHarnessNeverWrites) {
    for (const auto& action : std::vector<std::function<void()>>{[&] { install("vscode"); },
                                                                 [&] { remove("vscode"); }}) {
        try {
            action();
            ADD_FAILURE() << "went ahead";
        } catch (const MCPInstallError& e) {
            EXPECT_EQ(e, MCPInstallError::snippetOnly());
        }
    }
    EXPECT_FALSE(fs::exists(configOf("vscode").parent_path()));
}

TEST(MCPHelperLocatorTest, PrefersHelpersThenMacOSAndNeedsAnExecutable) {
    testfiles::TempDir dir;
    fs::path bundle = dir / "Kestrune.app";
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
