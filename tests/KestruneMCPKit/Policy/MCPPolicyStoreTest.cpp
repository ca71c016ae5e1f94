#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"
#include "KestruneMCPKit/Tokens/MCPToken.h"
#include "MailCore/Common/Json.h"
#include "tests/fakes/FaultyFiles.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit {
namespace {

using namespace testfiles;

class MCPPolicyStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<MCPPolicyStore> open() {
        return std::make_unique<MCPPolicyStore>(stateURL_, tokens_, clock_.clock());
    }

    testfiles::TempDir dir_;
    std::filesystem::path stateURL_ = dir_ / "state.json";
    std::shared_ptr<MCPTokenStore> tokens_ =
        std::make_shared<MCPFileTokenStore>(dir_ / "tokens.json");
    FakeClock clock_;
};

TEST_F(MCPPolicyStoreTest, RegisterKeepsTheTokenOutOfTheStateFileAndOnlyBothFindAHarness) {
    auto store = open();
    EXPECT_EQ(store->snapshot(), MCPState{});  // a missing file is the default state
    EXPECT_EQ(store->lastLoadError(), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(stateURL_));

    const std::string token = MCPToken::generate();
    store->registerHarness("claude-code", "Claude Code", {"claude-code", "claude"}, token);
    const std::string stateText = readFile(stateURL_);
    EXPECT_EQ(stateText.find(token.substr(4, 20)), std::string::npos);
    EXPECT_EQ(tokens_->token("claude-code"), token);
    auto record = store->harness(token);
    ASSERT_TRUE(record);
    EXPECT_EQ(*record, (MCPHarnessRecord{"claude-code",
                                         "Claude Code",
                                         true,
                                         wholeSeconds(clock_.now()),
                                         std::nullopt,
                                         {"claude-code", "claude"},
                                         std::nullopt}));
    for (const std::string& other : {token + "x", std::string(), MCPToken::generate()})
        EXPECT_EQ(store->harness(other), std::nullopt) << other;
    EXPECT_EQ(open()->harness(token)->id, "claude-code") << "a second store sees it";

    // A token without a record, or a record without a token, matches nothing.
    ASSERT_EQ(tokens_->set("kmt_orphan_token_value", "ghost"), std::nullopt);
    EXPECT_EQ(store->harness("kmt_orphan_token_value"), std::nullopt);
    ASSERT_EQ(tokens_->remove("claude-code"), std::nullopt);
    EXPECT_EQ(store->harness(token), std::nullopt);
    ASSERT_EQ(tokens_->set("", "claude-code"), std::nullopt);
    EXPECT_EQ(store->harness(""), std::nullopt);

    store->unregister("claude-code");
    EXPECT_EQ(tokens_->token("claude-code"), std::nullopt);
    EXPECT_TRUE(store->snapshot().harnesses.empty());
}

TEST_F(MCPPolicyStoreTest, ReRegisteringReplacesTheRecordInPlace) {
    auto store = open();
    store->registerHarness("a", "A", {}, "kmt_token_a_first");
    store->registerHarness("b", "B", {}, "kmt_token_b_first");
    store->bindClientName("a-client", "a");
    store->mutate([](MCPState& s) { s.harness("a")->allowed = false; });
    clock_.advance(std::chrono::hours(1));
    store->registerHarness("a", "A renamed", {"hint"}, "kmt_token_a_second");

    MCPState state = store->snapshot();
    ASSERT_EQ(state.harnesses.size(), 2u);
    EXPECT_EQ(state.harnesses[0], (MCPHarnessRecord{"a",
                                                    "A renamed",
                                                    true,
                                                    wholeSeconds(clock_.now()),
                                                    std::nullopt,
                                                    {"hint"},
                                                    std::nullopt}));
    EXPECT_EQ(store->harness("kmt_token_a_first"), std::nullopt);
    EXPECT_EQ(store->harness("kmt_token_a_second")->id, "a");
}

TEST_F(MCPPolicyStoreTest, BindNeverOverwritesAndTouchStoresLastSeen) {
    auto store = open();
    store->registerHarness("a", "A", {}, "kmt_token_a_value");
    EXPECT_FALSE(store->bindClientName("x", "unknown"));
    EXPECT_TRUE(store->bindClientName("first", "a"));
    EXPECT_FALSE(store->bindClientName("second", "a"));
    clock_.advance(std::chrono::milliseconds(90500));
    store->touch("a", clock_.now());
    store->touch("unknown", clock_.now());
    MCPState reloaded = open()->snapshot();
    ASSERT_EQ(reloaded.harnesses.size(), 1u);
    EXPECT_EQ(reloaded.harnesses[0].boundClientName, "first");
    EXPECT_EQ(reloaded.harnesses[0].lastSeen, wholeSeconds(clock_.now()));
}

TEST_F(MCPPolicyStoreTest, EachSaveStartsFromTheFileOnDisk) {
    auto first = open();
    auto second = open();
    first->mutate([](MCPState& s) { s.settings.masterEnabled = true; });
    second->mutate([](MCPState& s) { s.settings.excludedAccounts.insert("a@example.com"); });
    MCPState state = open()->snapshot();
    EXPECT_TRUE(state.settings.masterEnabled);
    EXPECT_EQ(state.settings.excludedAccounts, std::set<std::string>{"a@example.com"});
}

TEST_F(MCPPolicyStoreTest, UndecodableFileKeepsTheLastGoodStateAndReportsIt) {
    auto store = open();
    store->mutate([](MCPState& s) {
        s.settings.masterEnabled = true;
        s.settings.enabledPermissions.insert("send_message");
    });
    const MCPState good = store->snapshot();
    int changes = 0;
    store->setOnChange([&] { ++changes; });
    for (const char* broken : {"{\"settings\": {\"masterEnabled\": tr", "[]", "", "null"}) {
        writeFile(stateURL_, broken);
        EXPECT_EQ(store->snapshot(), good) << broken;
        auto error = store->lastLoadError();
        ASSERT_TRUE(error) << broken;
        EXPECT_NE(error->find(stateURL_.string()), std::string::npos);
    }
    EXPECT_EQ(changes, 0);
    // A store started on a broken file has the defaults and the error.
    EXPECT_EQ(open()->snapshot(), MCPState{});
    EXPECT_TRUE(open()->lastLoadError());
    // Once the file is good again it is loaded and the error clears.
    writeFile(stateURL_, R"({"settings":{"masterEnabled":false}})");
    EXPECT_FALSE(store->snapshot().settings.masterEnabled);
    EXPECT_EQ(store->lastLoadError(), std::nullopt);
    EXPECT_EQ(changes, 1);
}

// Each row damages the state file or makes a save fail; the store must keep
// its last good state in effect, never write over a file it could not read,
// and report every change it could not save (tokens included).
TEST_F(MCPPolicyStoreTest, FailedLoadsAndSavesNeverLoseOrHalfSaveTheUsersDecisions) {
    const std::string token = "kmt_token_for_the_table_0123456789";
    struct Row {
        const char* name;
        std::function<void(testfakes::FaultyFiles&)> damage;
        std::function<bool(MCPPolicyStore&)> change;
        bool fileKept;  // the state file is byte for byte what it was
    };
    const std::vector<Row> rows = {
        {"truncated file, then a change",
         [&](testfakes::FaultyFiles&) {
             const std::string whole = readFile(stateURL_);
             writeFile(stateURL_, whole.substr(0, whole.size() - 30));
         },
         [](MCPPolicyStore& s) {
             return s.mutate([](MCPState& st) { st.settings.excludedAccounts.clear(); });
         },
         true},
        {"refused read (a link, a FIFO, too large), then unregister",
         [&](testfakes::FaultyFiles& files) {
             files.refuseReads(stateURL_, "is a symbolic link");
             mailcore::systemFiles()->writeAtomically(stateURL_, readFile(stateURL_));
         },
         [](MCPPolicyStore& s) { return s.unregister("a"); }, true},
        {"state save fails on unregister",
         [](testfakes::FaultyFiles& files) { files.failWrites(1); },
         [](MCPPolicyStore& s) { return s.unregister("a"); }, true},
        {"token save fails on register", [](testfakes::FaultyFiles& files) { files.failWrites(1); },
         [](MCPPolicyStore& s) {
             return s.registerHarness("b", "B", {}, "kmt_token_b_0123456789");
         },
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(stateURL_);
        std::filesystem::remove(dir_ / "tokens.json");
        auto files = std::make_shared<testfakes::FaultyFiles>();
        auto tokens = std::make_shared<MCPFileTokenStore>(dir_ / "tokens.json", files);
        MCPPolicyStore store(stateURL_, tokens, clock_.clock(), files);
        ASSERT_TRUE(store.registerHarness("a", "A", {}, token));
        ASSERT_TRUE(store.mutate([](MCPState& st) {
            st.settings.masterEnabled = true;
            st.settings.excludedAccounts.insert("private@example.org");
        }));
        const MCPState good = store.snapshot();
        row.damage(*files);
        const std::string bytes = readFile(stateURL_);
        EXPECT_FALSE(row.change(store));
        EXPECT_TRUE(store.lastSaveError());
        if (row.fileKept) {
            EXPECT_EQ(readFile(stateURL_), bytes);
        }
        EXPECT_EQ(tokens->token("a"), token)
            << "the harness's token stays valid only with its record";
        EXPECT_EQ(tokens->token("b"), std::nullopt);
        files->heal();
        if (store.lastLoadError()) {
            EXPECT_TRUE(store.refusalToChange());
            EXPECT_EQ(store.snapshot().settings.excludedAccounts, good.settings.excludedAccounts);
        }
    }
}

TEST_F(MCPPolicyStoreTest, ReloadSeesAnEditByAnotherProcess) {
    auto store = open();
    store->registerHarness("a", "A", {}, "kmt_token_a_value");
    EXPECT_FALSE(store->reloadIfChanged());
    int changes = 0;
    store->setOnChange([&] { ++changes; });
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // In place, same inode, immediately after our own save.
        mailcore::Json json = mailcore::parseJson(readFile(stateURL_));
        json["settings"]["masterEnabled"] = true;
        writeFile(stateURL_, json.dump());
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(store->snapshot().settings.masterEnabled);
    EXPECT_EQ(changes, 1);
    EXPECT_FALSE(store->reloadIfChanged());

    // An atomic replacement by another store instance is seen as well.
    open()->mutate([](MCPState& s) { s.settings.limits.requestsPerMinute = 5; });
    EXPECT_TRUE(store->reloadIfChanged());
    EXPECT_EQ(store->snapshot().settings.limits.requestsPerMinute, 5);
    EXPECT_EQ(changes, 2);
    // Deleting the file falls back to the defaults (agent access off).
    std::filesystem::remove(stateURL_);
    EXPECT_TRUE(store->reloadIfChanged());
    EXPECT_EQ(store->snapshot(), MCPState{});
}

TEST_F(MCPPolicyStoreTest, OnChangeRunsOutsideTheLockOnlyForRealChanges) {
    auto store = open();
    std::vector<bool> seen;
    store->setOnChange([&] {
        // Re-entering the store would deadlock if the lock were still held.
        seen.push_back(store->snapshot().settings.masterEnabled);
        (void)store->lastLoadError();
    });
    store->mutate([](MCPState& s) { s.settings.masterEnabled = true; });
    store->mutate([](MCPState& s) { s.settings.masterEnabled = true; });  // no change
    store->mutate([](MCPState& s) { s.settings.masterEnabled = false; });
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

TEST_F(MCPPolicyStoreTest, AFailedSaveKeepsTheChangeAndAMemoryStoreNeedsNoFile) {
    MCPPolicyStore broken(dir_ / "gone" / "state.json", tokens_, clock_.clock());
    broken.mutate([](MCPState& s) { s.settings.masterEnabled = true; });
    EXPECT_TRUE(broken.snapshot().settings.masterEnabled);
    EXPECT_TRUE(broken.lastSaveError());
    EXPECT_FALSE(broken.save());

    MCPPolicyStore memory(std::nullopt, std::make_shared<MCPMemoryTokenStore>(), clock_.clock());
    memory.registerHarness("a", "A", {}, "kmt_token_a_value");
    EXPECT_TRUE(memory.save());
    EXPECT_EQ(memory.harness("kmt_token_a_value")->id, "a");
    EXPECT_FALSE(memory.reloadIfChanged());
    EXPECT_EQ(memory.lastSaveError(), std::nullopt);
}

TEST_F(MCPPolicyStoreTest, ConcurrentRegistrationsLoseNothing) {
    auto store = open();
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < 6; ++i) {
                std::string id = "h" + std::to_string(t) + "-" + std::to_string(i);
                store->registerHarness(id, id, {}, "kmt_token_" + id);
                (void)store->snapshot();
            }
        });
    }
    for (auto& w : workers) w.join();
    MCPState state = open()->snapshot();
    EXPECT_EQ(state.harnesses.size(), 24u);
    for (const auto& h : state.harnesses) EXPECT_EQ(store->harness("kmt_token_" + h.id)->id, h.id);
}

}  // namespace
}  // namespace mcpkit
