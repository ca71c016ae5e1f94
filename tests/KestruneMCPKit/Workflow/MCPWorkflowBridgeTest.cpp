// The agent service's workflow tools over the mail engine's handler: the
// harness as author, its permissions and accounts, previews through the mail
// backend, concurrency and restarts.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "KestruneMCPKit/Service/MCPWorkflowBridge.h"

namespace mcpkit {
namespace {

using mailcore::Json;
using mailcore::parseJson;

class TempDirectory {
public:
    TempDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-bridge-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A mail backend over a fixed list of messages; records what it was asked.
class FakeBackend : public MCPMailBackend {
public:
    std::vector<MCPMessage> messages;  // newest first
    std::vector<std::string> unreadIDs;
    std::vector<std::string> failingMessageIDs;
    std::string strayAccount;  // answered by search although nobody asked for it
    bool failSearch = false;

    std::vector<MCPSearchQuery> queries() {
        std::lock_guard guard(lock_);
        return queries_;
    }

    std::vector<MCPAccount> accounts() override { return {}; }
    std::vector<MCPFolder> folders(const std::string&) override { return {}; }
    MCPSearchPage search(const MCPSearchQuery& query) override {
        {
            std::lock_guard guard(lock_);
            queries_.push_back(query);
        }
        if (failSearch) throw std::runtime_error("database is locked at /home/user/mail.db");
        MCPSearchPage page;
        for (const MCPMessage& m : messages) {
            const bool asked = std::find(query.accounts.begin(), query.accounts.end(), m.account) !=
                               query.accounts.end();
            if (!asked && m.account != strayAccount) continue;
            if (static_cast<std::int64_t>(page.results.size()) >= query.limit) break;
            const bool unread = std::find(unreadIDs.begin(), unreadIDs.end(), m.id) != unreadIDs.end();
            page.results.push_back({m.id, m.account, "inbox", m.from, m.subject, m.date,
                                    m.bodyText.substr(0, 20), unread});
        }
        page.total = static_cast<std::int64_t>(page.results.size());
        return page;
    }
    std::optional<MCPMessage> message(const std::string& id,
                                      const std::optional<std::string>& account) override {
        if (std::find(failingMessageIDs.begin(), failingMessageIDs.end(), id) != failingMessageIDs.end()) {
            throw std::runtime_error("fetch failed");
        }
        for (const MCPMessage& m : messages) {
            if (m.id == id && (!account || *account == m.account)) return m;
        }
        return std::nullopt;
    }
    void setRead(const std::string&, const std::string&, bool) override {
        throw std::logic_error("workflow tools never change mail");
    }
    void applyLabel(const std::string&, const std::string&, const std::optional<std::string>&,
                    const std::optional<bool>&) override {
        throw std::logic_error("workflow tools never change mail");
    }
    std::string saveDraft(const MCPOutgoing&, const std::optional<std::string>&) override {
        throw std::logic_error("workflow tools never save drafts");
    }
    std::optional<MCPOutgoing> draft(const std::string&) override { return std::nullopt; }
    MCPSendDelivery send(const MCPOutgoing&, const std::optional<std::string>&) override {
        throw std::logic_error("workflow tools never send");
    }

private:
    std::mutex lock_;
    std::vector<MCPSearchQuery> queries_;
};

MCPMessage message(const std::string& id, const std::string& account, const std::string& from,
                   const std::string& subject, std::vector<std::string> cc = {},
                   std::vector<MCPAttachment> attachments = {}) {
    MCPMessage m;
    m.id = id;
    m.account = account;
    m.from = from;
    m.to = {account};
    m.cc = std::move(cc);
    m.date = "Sat, 21 Nov 2026 08:00:00 +0000";
    m.subject = subject;
    m.bodyText = "Please find the details attached.";
    m.attachments = std::move(attachments);
    return m;
}

const std::vector<std::string> enabled = {"list_accounts", "list_folders", "search_messages",
                                          "read_message",  "mark_read",    "create_draft",
                                          "apply_label",   "manage_workflows"};

const char* const invoiceSpec =
    R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"apply_label","label":"Invoices"}]})";

class MCPWorkflowBridgeTest : public ::testing::Test {
protected:
    TempDirectory temp;
    std::filesystem::path dir = temp.path() / "workflows";
    mailcore::WorkflowStore store{dir};
    FakeBackend backend;
    MCPWorkflowBridge bridge{store, backend, [] { return mailcore::dateFromSeconds(1795255200); },
                             mailcore::WorkflowLimits{}, [](mailcore::Date) { return 0L; }};

    MCPWorkflowCall call(const std::string& harness, const std::string& tool, const std::string& arguments,
                         std::vector<std::string> permissions = enabled,
                         std::vector<std::string> accounts = {"anna@example.com", "work@example.org"}) {
        return MCPWorkflowCall{harness, harness + " app", tool, parseJson(arguments), std::move(permissions),
                               std::move(accounts)};
    }
    static std::string specArgs(const std::string& spec) { return R"({"spec":)" + spec + "}"; }
};

TEST_F(MCPWorkflowBridgeTest, CreateRecordsTheHarnessAsAuthor) {
    const auto result = bridge.handle(call("claude", "create_workflow", specArgs(invoiceSpec)));
    ASSERT_FALSE(result.isError) << result.text;
    EXPECT_EQ(parseJson(result.text)["message"],
              "Saved. It will not run until the user reviews and approves it in the app.");
    EXPECT_EQ(result.summary, "created workflow, pending approval, risk medium");
    const auto all = store.all();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].author, "claude");
    EXPECT_EQ(all[0].authorName, "claude app");
    EXPECT_EQ(all[0].status, mailcore::WorkflowStatus::pendingApproval);
}

TEST_F(MCPWorkflowBridgeTest, PermissionsAndAccountsOfTheCallAreEnforced) {
    const std::string spec =
        R"({"name":"n","trigger":{"type":"new_message"},"accounts":["other@example.net"],
            "conditions":[{"type":"unread"}],"actions":[{"type":"mark_read"}]})";
    const auto result = bridge.handle(call("claude", "create_workflow", specArgs(spec), {"manage_workflows"}));
    EXPECT_TRUE(result.isError);
    EXPECT_EQ(result.text,
              "The workflow is not valid: Unknown account \"other@example.net\". Use list_accounts for "
              "valid account keys.\nmark_read needs the mark_read permission, which this app does not have.");
    EXPECT_TRUE(store.all().empty());
}

TEST_F(MCPWorkflowBridgeTest, AnotherHarnessIsRefusedAndSeesNothing) {
    const auto created = bridge.handle(call("claude", "create_workflow", specArgs(invoiceSpec)));
    const std::string id = parseJson(created.text)["id"].get<std::string>();
    const auto refused = bridge.handle(call("codex", "delete_workflow", R"({"id":")" + id + R"("})"));
    EXPECT_TRUE(refused.isError);
    EXPECT_EQ(refused.text,
              "The workflow \"Invoices\" was created by another app and cannot be changed from here.");
    EXPECT_EQ(parseJson(bridge.handle(call("codex", "list_workflows", "{}")).text)["workflows"].size(), 0u);
    EXPECT_EQ(parseJson(bridge.handle(call("claude", "list_workflows", "{}")).text)["workflows"].size(), 1u);
}

TEST_F(MCPWorkflowBridgeTest, PreviewReadsOnlyTheAllowedAccountsThroughTheBackend) {
    backend.messages = {
        message("1", "anna@example.com", "Shop <billing@shop.example>", "Invoice 7", {"boss@example.com"},
                {{"bill.PDF", "application/pdf"}}),
        message("2", "work@example.org", "bob@x.org", "Lunch"),
        message("3", "hidden@example.com", "Shop <billing@shop.example>", "Invoice 8", {"boss@example.com"},
                {{"bill.pdf", "application/pdf"}}),
    };
    backend.strayAccount = "hidden@example.com";
    backend.unreadIDs = {"1"};
    const std::string spec =
        R"({"name":"n","trigger":{"type":"new_message"},
            "conditions":[{"type":"to","values":["boss@"]},{"type":"attachment_kind","values":["pdf"]},{"type":"unread"}],
            "actions":[{"type":"notify"}]})";
    const auto result = bridge.handle(call("claude", "preview_workflow", specArgs(spec)));
    ASSERT_FALSE(result.isError) << result.text;
    const Json answer = parseJson(result.text);
    EXPECT_EQ(answer["matched_count"], 1);
    ASSERT_EQ(answer["sample"].size(), 1u);
    EXPECT_EQ(answer["sample"][0]["message_id"], "1");
    const auto queries = backend.queries();
    ASSERT_EQ(queries.size(), 1u);
    EXPECT_EQ(queries[0].accounts, (std::vector<std::string>{"anna@example.com", "work@example.org"}));
    EXPECT_EQ(queries[0].limit, mailcore::WorkflowToolHandler::previewScanLimit);
    EXPECT_TRUE(queries[0].text.empty());
    EXPECT_NE(answer["notes"].dump().find("Checked against the 2 most recent messages"), std::string::npos);
}

TEST_F(MCPWorkflowBridgeTest, PreviewSurvivesBackendFailures) {
    backend.messages = {message("1", "anna@example.com", "a@b.c", "Invoice 1"),
                        message("2", "anna@example.com", "a@b.c", "Invoice 2")};
    backend.failingMessageIDs = {"1"};
    const auto partly = parseJson(bridge.handle(call("claude", "preview_workflow", specArgs(invoiceSpec))).text);
    EXPECT_EQ(partly["matched_count"], 2);  // the summary alone still shows the subject

    backend.failSearch = true;
    const auto result = bridge.handle(call("claude", "preview_workflow", specArgs(invoiceSpec)));
    EXPECT_FALSE(result.isError);
    EXPECT_EQ(result.text.find("database is locked"), std::string::npos);
    const Json answer = parseJson(result.text);
    EXPECT_EQ(answer["matched_count"], nullptr);
    EXPECT_NE(answer["notes"].dump().find("The mail could not be read for the preview."), std::string::npos);
}

TEST_F(MCPWorkflowBridgeTest, NoReplyPreviewUsesTheBackendDates) {
    auto old = message("1", "anna@example.com", "Anna <anna@example.com>", "Offer");
    old.date = "2026-11-18T10:00:00Z";  // 72 hours before now
    auto recent = message("2", "anna@example.com", "anna@example.com", "Offer 2");
    recent.date = "2026-11-21T09:00:00+00:00";
    backend.messages = {recent, old};
    const auto answer = parseJson(
        bridge.handle(call("claude", "preview_workflow",
                           specArgs(R"({"name":"n","trigger":{"type":"no_reply","after_hours":48},"actions":[{"type":"remind"}]})")))
            .text);
    EXPECT_EQ(answer["matched_count"], 1);
    EXPECT_EQ(answer["sample"][0]["message_id"], "1");
}

TEST_F(MCPWorkflowBridgeTest, ConcurrentCreatesStopExactlyAtTheMaximum) {
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 6; ++i) {
                const auto r = bridge.handle(call("claude", "create_workflow", specArgs(invoiceSpec)));
                if (r.isError) {
                    EXPECT_EQ(r.text, "This app already has 25 workflows, the maximum.");
                    ++refused;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(store.countByAuthor("claude"), 25u);
    EXPECT_EQ(refused.load(), 11);
}

TEST_F(MCPWorkflowBridgeTest, WorkflowsAndTheUsersApprovalSurviveARestart) {
    const auto created = bridge.handle(call("claude", "create_workflow", specArgs(invoiceSpec)));
    const std::string id = parseJson(created.text)["id"].get<std::string>();
    store.approve(id, mailcore::dateFromSeconds(1795255300));

    mailcore::WorkflowStore reopened(dir);
    MCPWorkflowBridge again(reopened, backend, [] { return mailcore::dateFromSeconds(1795255400); });
    const Json listed = parseJson(again.handle(call("claude", "list_workflows", "{}")).text);
    ASSERT_EQ(listed["workflows"].size(), 1u);
    EXPECT_EQ(listed["workflows"][0]["id"], id);
    EXPECT_EQ(listed["workflows"][0]["status"], "active");
    EXPECT_EQ(listed["workflows"][0]["approved"], true);
    // Pausing is the agent's; resuming is the user's alone.
    EXPECT_EQ(parseJson(again.handle(call("claude", "pause_workflow", R"({"id":")" + id + R"("})")).text)["message"],
              "Paused. Only the user can resume it.");
    EXPECT_TRUE(again.handle(call("claude", "resume_workflow", R"({"id":")" + id + R"("})")).isError);
    EXPECT_EQ(reopened.find(id)->status, mailcore::WorkflowStatus::paused);
}

TEST(MCPWorkflowMailSourceDates, ParsesTheBackendsDateForms) {
    struct Row {
        const char* text;
        std::optional<double> seconds;
    };
    const Row rows[] = {
        {"1795255200", 1795255200},
        {"1795255200.5", 1795255200.5},
        {"2026-11-21T10:00:00Z", 1795255200},
        {"2026-11-21 10:00", 1795255200},
        {"2026-11-21T11:30:00.250+01:30", 1795255200},
        {"2026-11-21T05:00:00-0500", 1795255200},
        {"Sat, 21 Nov 2026 10:00:00 +0000", 1795255200},
        {"21 Nov 2026 12:00 +0200", 1795255200},
        {"Sat, 21 nov 2026 10:00:00 GMT", 1795255200},
        {"  2026-11-21T10:00:00Z  ", 1795255200},
        {"", std::nullopt},
        {"yesterday", std::nullopt},
        {"2026-13-01T00:00:00Z", std::nullopt},
        {"2026-11-21T25:00:00Z", std::nullopt},
        {"2026-11-21T10:00:00 PST8", std::nullopt},
        {"Sat, 21 Foo 2026 10:00:00 +0000", std::nullopt},
        {"1e300", std::nullopt},
    };
    for (const Row& row : rows) {
        const auto parsed = MCPWorkflowMailSource::parseDate(row.text);
        ASSERT_EQ(parsed.has_value(), row.seconds.has_value()) << row.text;
        if (parsed) {
            EXPECT_DOUBLE_EQ(mailcore::secondsSince1970(*parsed), *row.seconds) << row.text;
        }
    }
}

}  // namespace
}  // namespace mcpkit
