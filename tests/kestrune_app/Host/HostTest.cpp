#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "AppTestSupport.h"
#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "kestrune_app/Host/AppHost.h"
#include "kestrune_app/Host/HostCommands.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/PendingQuestions.h"
#include "tests/fakes/TestFiles.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(ServeTest, ReadsTheServingTerminal) {
    // `serve` reading its terminal: the demonstration mailbox is offered,
    // typed lines reach the questions, other lines get a clear reply.
    testing::TempDir dir;
    int pipeFDs[2];
    ASSERT_EQ(::pipe(pipeFDs), 0);
    std::atomic<bool> stop{false};
    std::mutex lock;
    std::vector<std::string> out;
    HostCommands::Environment env;
    env.home = dir.path / "home";
    env.demoMessages = fs::path(std::getenv("KESTRUNE_SOURCE_DIR")) / "kestrune_app" / "demo";
    env.input = pipeFDs[0];
    env.stop = &stop;
    env.out = [&](const std::string& t) {
        std::lock_guard guard(lock);
        out.push_back(t);
    };
    env.err = env.out;
    auto serving = std::async(std::launch::async, [&] {
        return HostCommands::run({"serve", "--data-dir", dir.path.string()}, env);
    });
    auto type = [&](const std::string& line) {
        ASSERT_EQ(::write(pipeFDs[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    };
    auto said = [&](const std::string& text) {
        for (int i = 0; i < 500; ++i) {
            {
                std::lock_guard guard(lock);
                if (std::find(out.begin(), out.end(), text) != out.end()) return true;
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    };
    // Offered the demonstration mailbox first (no account yet): yes.
    ASSERT_TRUE(said("No mail account yet. Create the demonstration mailbox? [y/N]"));
    type("yes\n");
    ASSERT_TRUE(said("Ready."));
    {
        std::lock_guard guard(lock);
        EXPECT_TRUE(std::any_of(out.begin(), out.end(), [](const std::string& line) {
            return line.starts_with("Demonstration mailbox alex@example.com created");
        }));
    }
    type("y\n");
    EXPECT_TRUE(said("No confirmation is waiting."));
    type("maybe later\n");
    EXPECT_TRUE(said("Type yes, no or undo, then the question's id."));

    stop = true;
    EXPECT_EQ(serving.get(), 0);
    ::close(pipeFDs[0]);
    ::close(pipeFDs[1]);
}

struct CommandTest : ::testing::Test {
    testing::TempDir dir;
    std::vector<std::string> out, err;

    int run(std::vector<std::string> args) {
        out.clear();
        err.clear();
        args.push_back("--data-dir");
        args.push_back(dir.path.string());
        HostCommands::Environment env;
        env.home = dir.path / "home";
        env.out = [this](const std::string& t) { out.push_back(t); };
        env.err = [this](const std::string& t) { err.push_back(t); };
        return HostCommands::run(args, env);
    }
    std::string output() const {
        std::string all;
        for (const auto& l : out) all += l + "\n";
        return all;
    }
    mcpkit::MCPState state() {
        return mcpkit::MCPStorage::open(dir.path, std::nullopt, dir.path / "home")
            .policy->snapshot();
    }
};

TEST_F(CommandTest, ExitStatusesAndUsage) {
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{"--help"}, 0},
        {{"access"}, 0},
        {{"access", "maybe"}, 64},
        {{"frobnicate"}, 64},
        {{"permissions", "enable", "delete_everything"}, 64},
        {{"limits", "set", "max-search-limit", "500"}, 64},
        {{"limits", "set", "max-search-limit", "ten"}, 64},
        {{"limits", "set", "no-such-limit", "1"}, 64},
        {{"harnesses", "revoke", "nobody"}, 1},
        {{"audit", "--result", "great"}, 64},
        {{"audit", "--since", "yesterday"}, 64},
        {{"audit", "--format", "xml"}, 64},
        {{"confirm", "yes"}, 64},
        {{"confirm", "yes", "0123abcd"}, 1},
        {{"workflows", "approve", "NOPE"}, 1},
        {{"import", "--account", "me@example.com"}, 64},
        {{"import", "--account", "me@example.com", "--mbox", "/nonexistent/box"}, 1},
        {{"access", "on", "--bogus"}, 64},
    };
    for (const auto& [args, status] : cases) {
        std::string joined;
        for (const auto& a : args) joined += a + " ";
        EXPECT_EQ(run(args), status) << joined;
        if (status == 64) {
            ASSERT_FALSE(err.empty()) << joined;
            EXPECT_NE(err[0].find("kestrune"), std::string::npos);
        }
    }
    HostCommands::Environment env;
    env.err = [this](const std::string& t) { err.push_back(t); };
    EXPECT_EQ(HostCommands::run({}, env), 64);
}

TEST_F(CommandTest, ControlsChangeThePolicyFile) {
    ASSERT_EQ(run({"access", "on"}), 0);
    EXPECT_TRUE(state().settings.masterEnabled);
    ASSERT_EQ(run({"permissions", "enable", "send_message"}), 0);
    ASSERT_EQ(run({"permissions", "disable", "read_message"}), 0);
    ASSERT_EQ(run({"accounts", "exclude", "work@example.org"}), 0);
    ASSERT_EQ(run({"limits", "set", "requests-per-minute", "10"}), 0);
    ASSERT_EQ(run({"limits", "set", "retention-days", "7"}), 0);
    ASSERT_EQ(run({"limits", "set", "confirm-timeout", "30"}), 0);
    auto s = state().settings;
    EXPECT_TRUE(s.enabledPermissions.contains("send_message"));
    EXPECT_FALSE(s.enabledPermissions.contains("read_message"));
    EXPECT_TRUE(s.excludedAccounts.contains("work@example.org"));
    EXPECT_EQ(s.limits.requestsPerMinute, 10);
    EXPECT_EQ(s.retentionDays, 7);
    EXPECT_EQ(s.confirmTimeoutSeconds, 30);
    ASSERT_EQ(run({"access", "off"}), 0);
    EXPECT_FALSE(state().settings.masterEnabled);

    auto storage = mcpkit::MCPStorage::open(dir.path, std::nullopt, dir.path / "home");
    storage.policy->registerHarness("codex", "Codex", {"codex"},
                                    "kmt_token_for_tests_0123456789abcdef");
    ASSERT_EQ(run({"harnesses", "revoke", "codex"}), 0);
    EXPECT_FALSE(state().harness("codex")->allowed);
    ASSERT_EQ(run({"harnesses"}), 0);
    EXPECT_NE(output().find("codex (Codex): revoked"), std::string::npos);
    ASSERT_EQ(run({"harnesses", "allow", "codex"}), 0);
    EXPECT_TRUE(state().harness("codex")->allowed);
    ASSERT_EQ(run({"harnesses", "reset", "codex"}), 0);
    EXPECT_NE(output().find("not running"), std::string::npos);
}

// A state file the commands cannot read is never saved over: each command
// fails with the reason and the way out, and the file stays as it was.
TEST_F(CommandTest, DamagedOrHostileStateFilesAreNeverSavedOver) {
    const fs::path mcp = HostPaths::make(dir.path, dir.path / "home").mcp;
    const fs::path statePath = mcp / "state.json";
    struct Row {
        const char* name;
        std::function<void()> plant;
    };
    const std::vector<Row> rows = {
        {"truncated by 30 bytes",
         [&] {
             ASSERT_EQ(run({"accounts", "exclude", "private@example.org"}), 0);
             const std::string whole = testfiles::readFile(statePath);
             testfiles::writeFile(statePath, whole.substr(0, whole.size() - 30));
         }},
        {"a FIFO", [&] { ASSERT_EQ(::mkfifo(statePath.c_str(), 0600), 0); }},
        {"a symbolic link to another file",
         [&] {
             testfiles::writeFile(mcp / "elsewhere.json", "{}");
             fs::create_symlink(mcp / "elsewhere.json", statePath);
         }},
        {"larger than 4 MiB",
         [&] {
             testfiles::writeFile(statePath, "{\"pad\":\"" + std::string(5 << 20, 'x') + "\"}");
         }},
    };
    const std::vector<std::vector<std::string>> commands = {
        {"access", "on"},
        {"access", "status"},
        {"permissions", "enable", "send_message"},
        {"accounts", "include", "private@example.org"},
        {"harnesses"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(mcp);
        fs::create_directories(mcp);
        row.plant();
        const auto before = fs::symlink_status(statePath).type();
        const std::string bytes = fs::is_regular_file(fs::symlink_status(statePath))
                                      ? testfiles::readFile(statePath)
                                      : std::string();
        for (const auto& command : commands) {
            SCOPED_TRACE(command[0]);
            EXPECT_EQ(run(command), 1);
            ASSERT_EQ(err.size(), 1u);
            EXPECT_NE(err[0].find(statePath.string()), std::string::npos) << err[0];
            EXPECT_NE(err[0].find("move it aside"), std::string::npos) << err[0];
            EXPECT_EQ(fs::symlink_status(statePath).type(), before);
            if (!bytes.empty()) {
                EXPECT_EQ(testfiles::readFile(statePath), bytes);
            }
        }
    }
}

TEST_F(CommandTest, AuditFiltersAndExports) {
    {
        auto storage = mcpkit::MCPStorage::open(dir.path, std::nullopt, dir.path / "home");
        mcpkit::MCPAuditLog log(storage.auditURL);
        log.record("Codex", "search_messages", "alex@example.com", mcpkit::MCPResult::ok,
                   "3 results", false);
        log.record("Codex", "send_message", "alex@example.com", mcpkit::MCPResult::declined, "=cmd",
                   true);
        log.record("Cursor", "read_message", "alex@example.com", mcpkit::MCPResult::ok, "message",
                   true);
    }
    ASSERT_EQ(run({"audit", "--harness", "Codex", "--format", "jsonl"}), 0);
    ASSERT_EQ(out.size(), 1u);
    const auto lines = out[0];
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1);
    EXPECT_NE(lines.find("\"tool\":\"send_message\""), std::string::npos);
    ASSERT_EQ(run({"audit", "--result", "declined", "--format", "csv"}), 0);
    EXPECT_NE(output().find("time,harness,tool,account,result,summary,mail_influenced"),
              std::string::npos);
    EXPECT_NE(output().find("'=cmd"), std::string::npos);
    EXPECT_EQ(output().find("search_messages"), std::string::npos);
    ASSERT_EQ(run({"audit", "--tool", "read_message"}), 0);
    EXPECT_NE(output().find("Cursor  read_message"), std::string::npos);
    EXPECT_EQ(run({"audit", "--since", "2999-01-01T00:00:00Z"}), 64);
    ASSERT_EQ(run({"audit", "--since", "2199-01-01T00:00:00Z"}), 0);
    EXPECT_TRUE(out.empty());
    ASSERT_EQ(run({"audit", "--format", "csv", "--output", (dir.path / "a.csv").string()}), 0);
    EXPECT_TRUE(fs::file_size(dir.path / "a.csv") > 50);
}

// Agent text in the audit log: each row is recorded as the service would
// (or, for old files, written as a raw line) and must print as exactly one
// line with no secret and no control character.
TEST_F(CommandTest, AuditTextCannotBeForgedAndHoldsNoSecret) {
    const std::string token = "kmt_AbCdEfGh0123456789_other_harness_token";
    const std::string forged = "x\n2026-01-01T00:00:00Z  Codex  send_message  a@b.co  ok  sent";
    auto storage = mcpkit::MCPStorage::open(dir.path, std::nullopt, dir.path / "home");
    {
        mcpkit::MCPAuditLog log(storage.auditURL);
        log.record("Codex", "list_folders", token, mcpkit::MCPResult::error, "x", false);
        log.record("Codex", "list_folders", forged, mcpkit::MCPResult::error, "x", false);
        log.record("Codex", "list_folders", "a\x1b[2J\x1b[1;1H@b.co", mcpkit::MCPResult::error, "x",
                   false);
        log.record("Codex\r\x1b[31m", "tool\u2028name", "a@b.co", mcpkit::MCPResult::ok,
                   "summary \u202e with " + token, false);
    }
    // An entry written before accounts were scrubbed, straight into the file.
    std::ofstream(storage.auditURL, std::ios::app)
        << R"({"id":"1B4E28BA-2FA1-41D2-883F-0016D3CCA427","time":1767225600,"harness":"H",)"
        << R"("tool":"t","account":"a\n2026  forged\u001b[0m","result":"ok","summary":"s"})"
        << "\n";
    ASSERT_EQ(run({"audit"}), 0);
    ASSERT_EQ(out.size(), 1u);
    const auto printed = testfiles::splitLines(out[0]);
    EXPECT_EQ(printed.size(), 5u) << out[0];
    EXPECT_EQ(out[0].find(token), std::string::npos);
    EXPECT_EQ(out[0].find("kmt_"), std::string::npos);
    for (unsigned char c : out[0]) {
        if (c != '\n') {
            EXPECT_GE(c, 0x20) << out[0];
        }
    }
    for (const char* hidden : {"\u2028", "\u202e", "\x7f"}) {
        EXPECT_EQ(out[0].find(hidden), std::string::npos);
    }
    EXPECT_EQ(testfiles::readFile(storage.auditURL).find(token), std::string::npos);
}

TEST_F(CommandTest, ImportCreatesTheAccount) {
    std::ofstream(dir.path / "box.mbox")
        << "From x Mon Jan 1 00:00:00 2026\n"
        << testing::rawMessage("c@example.com", "Mbox one", "Mon, 16 Nov 2026 11:00:00 +0000", "z");
    ASSERT_EQ(
        run({"import", "--account", "me@example.com", "--mbox", (dir.path / "box.mbox").string()}),
        0);
    EXPECT_NE(output().find("Imported 1 messages into me@example.com"), std::string::npos);
    ASSERT_EQ(run({"accounts"}), 0);
    EXPECT_NE(output().find("me@example.com"), std::string::npos);
}

TEST_F(CommandTest, OutboxListsRetriesAndCancels) {
    EXPECT_EQ(run({"outbox"}), 1);  // no store yet
    mailcore::OutboxItemID failed, queued;
    {
        mailcore::SQLiteMailStore store(
            mailcore::StoreLocation::file((dir.path / "mail.sqlite").string()));
        const auto now = mailcore::systemClock()();
        ensureAccount(store, {"me@example.com", "", false}, now);
        mailcore::OutboxSend send;
        send.message.to = {{"", "sam@example.com"}};
        send.message.subject = "Venue";
        failed = store
                     .enqueue(mailcore::AccountID("me@example.com"),
                              mailcore::OutboxOperation::send(send), now)
                     .id;
        ASSERT_TRUE(store.claimNextDue(now, std::nullopt));
        store.failPermanently(
            failed, mailcore::MailError::unsupportedCapability("no account configured"), true);
        send.message.subject = "Later";
        queued = store
                     .enqueue(mailcore::AccountID("me@example.com"),
                              mailcore::OutboxOperation::send(send), now)
                     .id;
    }
    ASSERT_EQ(run({"outbox", "list"}), 0);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_NE(out[0].find(failed.value + "  me@example.com  failed  send \"Venue\" to "
                                         "sam@example.com  attempts 1  (no account configured)"),
              std::string::npos)
        << out[0];
    EXPECT_NE(out[1].find("queued  send \"Later\""), std::string::npos) << out[1];

    EXPECT_EQ(run({"outbox", "retry", queued.value}), 1);  // not failed
    EXPECT_EQ(run({"outbox", "retry", failed.value}), 0);
    EXPECT_EQ(run({"outbox", "cancel", failed.value}), 0);
    EXPECT_EQ(run({"outbox", "cancel", failed.value}), 1);
    ASSERT_FALSE(err.empty());
    EXPECT_NE(err.back().find("outbox item not found"), std::string::npos) << err.back();
    EXPECT_EQ(run({"outbox", "cancel", queued.value}), 0);
    ASSERT_EQ(run({"outbox"}), 0);
    EXPECT_EQ(output(), "The outbox is empty.\n");
    EXPECT_EQ(run({"outbox", "flush"}), 64);
    EXPECT_EQ(run({"outbox", "retry"}), 64);
}

TEST(AppHostTest, ServesOnceAndStopsCleanly) {
    testing::TempDir dir;
    ServeOptions options;
    options.dataDir = dir.path;
    options.home = dir.path / "home";
    options.demo = true;
    options.demoMessages = fs::path(std::getenv("KESTRUNE_SOURCE_DIR")) / "kestrune_app" / "demo";
    std::vector<std::string> out;
    AppHost host(options, [&](const std::string& t) { out.push_back(t); });
    host.start();
    EXPECT_TRUE(fs::exists(host.socketPath()));
    EXPECT_TRUE(hostIsRunning(host.paths()));
    ASSERT_FALSE(out.empty());
    EXPECT_NE(out[0].find("Demonstration mailbox alex@example.com created"), std::string::npos);

    AppHost second(options, [](const std::string&) {});
    const auto refused = testfiles::caught<HostError>([&] { second.start(); });
    ASSERT_TRUE(refused) << "a second host started";
    EXPECT_EQ(refused->kind(), HostError::Kind::alreadyRunning);

    // Requests that need the running host's memory.
    auto pump = std::async(std::launch::async, [&] {
        for (int i = 0; i < 100; ++i) {
            host.pollControl();
            std::this_thread::sleep_for(20ms);
        }
    });
    auto reply = sendControl(host.paths(), mailcore::Json{{"op", "reset"}}, 5s);
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->value("ok", false));
    reply = sendControl(host.paths(),
                        mailcore::Json{{"op", "workflow"}, {"action", "approve"}, {"id", "X"}}, 5s);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->value("ok", true));
    EXPECT_EQ(reply->value("message", ""), "No workflow X.");
    pump.wait();

    host.stop();
    EXPECT_FALSE(fs::exists(host.socketPath()));
    EXPECT_FALSE(hostIsRunning(host.paths()));
    EXPECT_FALSE(sendControl(host.paths(), mailcore::Json{{"op", "reset"}}, 1s));
}

}  // namespace
}  // namespace kestrune
