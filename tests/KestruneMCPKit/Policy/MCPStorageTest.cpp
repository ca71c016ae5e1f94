#include <gtest/gtest.h>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit {
namespace {

using namespace testfiles;

TEST(MCPStorageTest, OpensThePrivateDataDirectoryAndItsFiles) {
    testfiles::TempDir dir;
    MCPStorage storage = MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(storage.base, dir / "data" / "mcp");
    EXPECT_EQ(fileMode(storage.base), 0700u);
    EXPECT_EQ(storage.auditURL, storage.base / "audit.jsonl");
    EXPECT_EQ(storage.socketPath, MCPPaths::socketURL(storage.base));
    EXPECT_EQ(storage.policy->fileURL(), storage.base / "state.json");

    storage.policy->registerHarness("zed", "Zed", {"zed"}, "kmt_zed_token_value");
    EXPECT_NE(readFile(storage.base / "tokens.json").find("kmt_zed_token_value"),
              std::string::npos);
    EXPECT_EQ(readFile(storage.base / "state.json").find("kmt_zed_token_value"), std::string::npos);

    // Opening again finds the same harness through the same token store.
    MCPStorage again = MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(again.policy->harness("kmt_zed_token_value")->id, "zed");
}

TEST(MCPStorageTest, DefaultsToTheHomeLocationHonoursASocketAndFallsBackForLongPaths) {
    testfiles::TempDir dir;
    MCPStorage storage =
        MCPStorage::open(std::nullopt, dir / "sock" / "k.sock", dir / "home", true);
    EXPECT_EQ(storage.base, dir / "home" / ".local/share/kestrune/mcp");
    EXPECT_EQ(storage.socketPath, dir / "sock" / "k.sock");

    auto deep = dir / std::string(120, 'd');
    storage = MCPStorage::open(deep, std::nullopt, dir / "home");
    EXPECT_EQ(storage.socketPath, MCPPaths::socketURL(deep / "mcp"));
    EXPECT_EQ(storage.socketPath.parent_path().parent_path(), "/tmp");
}

TEST(MCPStorageTest, TightensWhatItFindsAndRefusesALinkedDirectory) {
    testfiles::TempDir dir;
    auto base = dir / "data" / "mcp";
    std::filesystem::create_directories(base);
    std::filesystem::permissions(base, std::filesystem::perms(0755));
    for (const char* name : {"state.json", "tokens.json", "audit.jsonl"}) {
        writeFile(base / name, "{}");
        std::filesystem::permissions(base / name, std::filesystem::perms(0644));
    }
    MCPStorage::open(dir / "data", std::nullopt, dir / "home");
    EXPECT_EQ(fileMode(base), 0700u);
    for (const char* name : {"state.json", "tokens.json", "audit.jsonl"})
        EXPECT_EQ(fileMode(base / name), 0600u) << name;

    std::filesystem::create_directories(dir / "other");
    std::filesystem::create_directory_symlink(dir / "data", dir / "other" / "mcp");
    EXPECT_THROW(MCPStorage::open(dir / "other", std::nullopt, dir / "home"), MCPSocketError);
}

}  // namespace
}  // namespace mcpkit
