#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "MailCore/Common/Json.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit {
namespace {

using namespace testfiles;

// Behaviour every store shares, run against each implementation.
class TokenStoreContract : public ::testing::TestWithParam<std::string> {
protected:
    std::unique_ptr<MCPTokenStore> makeStore() {
        if (GetParam() == "memory") return std::make_unique<MCPMemoryTokenStore>();
        return std::make_unique<MCPFileTokenStore>(dir_ / "tokens.json");
    }
    testfiles::TempDir dir_;
};

TEST_P(TokenStoreContract, SetReplaceRemove) {
    auto store = makeStore();
    EXPECT_EQ(store->token("claude"), std::nullopt);
    EXPECT_EQ(store->set("kmt_one", "claude"), std::nullopt);
    EXPECT_EQ(store->set("kmt_two", "cursor"), std::nullopt);
    EXPECT_EQ(store->token("claude"), "kmt_one");
    EXPECT_EQ(store->token("cursor"), "kmt_two");
    EXPECT_EQ(store->set("kmt_three", "claude"), std::nullopt);
    EXPECT_EQ(store->token("claude"), "kmt_three");
    EXPECT_EQ(store->remove("claude"), std::nullopt);
    EXPECT_EQ(store->remove("never-registered"), std::nullopt);
    EXPECT_EQ(store->token("claude"), std::nullopt);
    EXPECT_EQ(store->token("cursor"), "kmt_two");
}

TEST_P(TokenStoreContract, ConcurrentSetsLoseNoEntry) {
    auto store = makeStore();
    constexpr int threads = 8, perThread = 10;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                std::string id = "h" + std::to_string(t) + "-" + std::to_string(i);
                EXPECT_EQ(store->set("kmt_" + id, id), std::nullopt);
            }
        });
    }
    for (auto& w : workers) w.join();
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < perThread; ++i) {
            std::string id = "h" + std::to_string(t) + "-" + std::to_string(i);
            EXPECT_EQ(store->token(id), "kmt_" + id);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Stores, TokenStoreContract, ::testing::Values("memory", "file"));

class FileTokenStoreTest : public ::testing::Test {
protected:
    testfiles::TempDir dir_;
    std::filesystem::path url_ = dir_ / "tokens.json";
};

// A file that cannot be used reads as empty (no harness is let in) and is
// never written over: the tokens of every other harness may be in it.
TEST_F(FileTokenStoreTest, BadFilesReadAsEmptyAndAreNeverSavedOver) {
    const char* contents[] = {"",
                              "[]",
                              "[\"kmt_x\"]",
                              "garbage {",
                              "null",
                              "42",
                              R"({"claude":7})",
                              R"({"claude":"kmt_a","cursor":null})",
                              "\xff\xfe\x00"};
    for (const char* content : contents) {
        writeFile(url_, content);
        MCPFileTokenStore store(url_);
        EXPECT_EQ(store.token("claude"), std::nullopt) << content;
        const auto problem = store.set("kmt_new", "zed");
        ASSERT_TRUE(problem) << content;
        EXPECT_NE(problem->find(url_.string()), std::string::npos);
        EXPECT_TRUE(store.remove("claude"));
        EXPECT_EQ(readFile(url_), content);
    }
    std::filesystem::remove(url_);
    std::filesystem::create_symlink(dir_ / "elsewhere", url_);
    writeFile(dir_ / "elsewhere", R"({"claude":"kmt_linked"})");
    MCPFileTokenStore linked(url_);
    EXPECT_EQ(linked.token("claude"), std::nullopt) << "a link is not followed";
    EXPECT_TRUE(linked.set("kmt_new", "zed"));
}

TEST_F(FileTokenStoreTest, EditsByAnotherProgramAreSeenByTheSameStore) {
    MCPFileTokenStore store(url_);
    ASSERT_EQ(store.set("kmt_first", "claude"), std::nullopt);
    EXPECT_EQ(store.token("claude"), "kmt_first");
    writeFile(url_, R"({"claude":"kmt_second_value"})");  // in place, same inode
    EXPECT_EQ(store.token("claude"), "kmt_second_value");
    writeFile(url_, "garbage");
    EXPECT_EQ(store.token("claude"), std::nullopt);
    std::filesystem::remove(url_);
    EXPECT_EQ(store.token("claude"), std::nullopt);
    // Another instance replaces it atomically.
    ASSERT_EQ(MCPFileTokenStore(url_).set("kmt_third", "claude"), std::nullopt);
    EXPECT_EQ(store.token("claude"), "kmt_third");

    // A store whose directory is gone says why it could not save.
    MCPFileTokenStore gone(dir_ / "missing-directory" / "tokens.json");
    EXPECT_TRUE(gone.set("kmt_x", "claude"));
    EXPECT_EQ(gone.remove("claude"), std::nullopt);
    EXPECT_EQ(gone.token("claude"), std::nullopt);
}

}  // namespace
}  // namespace mcpkit
