#include <gtest/gtest.h>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Service/MCPStorage.h"
#include "tests/KestruneMCPKit/Policy/PolicyTestSupport.h"

namespace mcpkit {
namespace {

using testing::fileMode;
using testing::readText;
using testing::TemporaryDirectory;
using testing::writeText;

TEST(MCPStorageTest, OpensThePrivateDataDirectoryAndItsFiles) {
    TemporaryDirectory dir;
    MCPStorage storage = MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(storage.base, dir / "data" / "mcp");
    EXPECT_EQ(fileMode(storage.base), 0700u);
    EXPECT_EQ(storage.auditURL, storage.base / "audit.jsonl");
    EXPECT_EQ(storage.socketPath, MCPPaths::socketURL(storage.base));
    EXPECT_EQ(storage.policy->fileURL(), storage.base / "state.json");

    storage.policy->registerHarness("zed", "Zed", {"zed"}, "kmt_zed_token_value");
    EXPECT_EQ(fileMode(storage.base / "state.json"), 0600u);
    EXPECT_EQ(fileMode(storage.base / "tokens.json"), 0600u);
    EXPECT_NE(readText(storage.base / "tokens.json").find("kmt_zed_token_value"),
              std::string::npos);
    EXPECT_EQ(readText(storage.base / "state.json").find("kmt_zed_token_value"), std::string::npos);

    // Opening again finds the same harness through the same token store.
    MCPStorage again = MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(again.policy->harness("kmt_zed_token_value")->id, "zed");
}

TEST(MCPStorageTest, DefaultsToTheHomeLocationAndHonoursASocketOverride) {
    TemporaryDirectory dir;
    MCPStorage storage =
        MCPStorage::open(std::nullopt, dir / "sock" / "k.sock", dir / "home", true);
    EXPECT_EQ(storage.base, dir / "home" / ".local/share/kestrune/mcp");
    EXPECT_TRUE(std::filesystem::is_directory(storage.base));
    EXPECT_EQ(fileMode(storage.base), 0700u);
    EXPECT_EQ(storage.socketPath, dir / "sock" / "k.sock");
}

TEST(MCPStorageTest, LongDirectoriesUseTheSharedFallbackSocketPath) {
    TemporaryDirectory dir;
    auto deep = dir / std::string(120, 'd');
    MCPStorage storage = MCPStorage::open(deep, std::nullopt, dir / "home");
    EXPECT_EQ(storage.socketPath, MCPPaths::socketURL(deep / "mcp"));
    EXPECT_EQ(storage.socketPath.parent_path().parent_path(), "/tmp");
}

TEST(MCPStorageTest, TightensAnExistingDirectoryAndFiles) {
    TemporaryDirectory dir;
    auto base = dir / "data" / "mcp";
    std::filesystem::create_directories(base);
    std::filesystem::permissions(base, std::filesystem::perms(0755));
    for (const char* name : {"state.json", "tokens.json", "audit.jsonl"}) {
        writeText(base / name, "{}");
        std::filesystem::permissions(base / name, std::filesystem::perms(0644));
    }
    MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(fileMode(base), 0700u);
    for (const char* name : {"state.json", "tokens.json", "audit.jsonl"}) {
        EXPECT_EQ(fileMode(base / name), 0600u) << name;
    }
}

TEST(MCPStorageTest, RefusesADirectoryThatIsASymbolicLink) {
    TemporaryDirectory dir;
    std::filesystem::create_directories(dir / "elsewhere");
    std::filesystem::create_directories(dir / "data");
    std::filesystem::create_directory_symlink(dir / "elsewhere", dir / "data" / "mcp");
    EXPECT_THROW(MCPStorage::open(dir / "data", std::nullopt, dir / "home"), MCPSocketError);
}

}  // namespace
}  // namespace mcpkit
