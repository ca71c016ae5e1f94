// The workflow tools over the agent service's mail backend: previews read
// only the allowed accounts, survive backend failures and read the backend's
// dates; concurrent creates stop at the maximum. (Authorship, permissions and
// accounts of a call are checked through the whole service in
// MCPServiceWorkflowTest; the tools' own rules in the mail engine's tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "kestrune_app/Host/MCPWorkflowBridge.h"
#include "tests/fakes/LinkTestSupport.h"

namespace mcpkit {
namespace {

using mailcore::Json;
using mailcore::parseJson;

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

// A mail backend over a fixed list of messages that records its searches;
// every write fails the test, since workflow tools never change mail.
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

    MCPSearchPage search(const MCPSearchQuery& query) override {
        {
            std::lock_guard guard(lock_);
            queries_.push_back(query);
        }
        if (failSearch) throw std::runtime_error("database is locked at /home/user/mail.db");
        MCPSearchPage page;
        for (const MCPMessage& m : messages) {
            if (!contains(query.accounts, m.account) && m.account != strayAccount) continue;
            if (static_cast<std::int64_t>(page.results.size()) >= query.limit) break;
            page.results.push_back({m.id, m.account, "inbox", m.from, m.subject, m.date,
                                    m.bodyText.substr(0, 20), contains(unreadIDs, m.id)});
        }
        page.total = static_cast<std::int64_t>(page.results.size());
        return page;
    }
    std::optional<MCPMessage> message(const std::string& id,
                                      const std::optional<std::string>& account) override {
        if (contains(failingMessageIDs, id)) throw std::runtime_error("fetch failed");
        for (const MCPMessage& m : messages) {
            if (m.id == id && (!account || *account == m.account)) return m;
        }
        return std::nullopt;
    }
    std::vector<MCPAccount> accounts() override { return {}; }
    std::vector<MCPFolder> folders(const std::string&) override { return {}; }
    std::optional<MCPOutgoing> draft(const std::string&) override { return std::nullopt; }
    void setRead(const std::string&, const std::string&, bool) override { changed(); }
    void applyLabel(const std::string&, const std::string&, const std::optional<std::string>&,
                    const std::optional<bool>&) override {
        changed();
    }
    std::string saveDraft(const MCPOutgoing&, const std::optional<std::string>&) override {
        changed();
        return {};
    }
    MCPSendDelivery send(const MCPOutgoing&, const std::optional<std::string>&) override {
        changed();
        return MCPSendDelivery::sent;
    }

private:
    static void changed() { throw std::logic_error("workflow tools never change mail"); }
    std::mutex lock_;
    std::vector<MCPSearchQuery> queries_;
};

MCPMessage message(const std::string& id, const std::string& account, const std::string& from,
                   const std::string& subject, std::vector<std::string> cc = {},
                   std::vector<MCPAttachment> attachments = {}) {
    return {id,
            account,
            from,
            {account},
            std::move(cc),
            "Sat, 21 Nov 2026 08:00:00 +0000",
            subject,
            "Please find the details attached.",
            std::move(attachments)};
}

const char* const invoiceSpec =
    R"({"spec":{"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"apply_label","label":"Invoices"}]}})";

class MCPWorkflowBridgeTest : public ::testing::Test {
protected:
    linktest::TempDir temp;
    mailcore::WorkflowStore store{temp.path() / "workflows"};
    FakeBackend backend;
    MCPWorkflowBridge bridge{store, backend, [] { return mailcore::dateFromSeconds(1795255200); },
                             mailcore::WorkflowLimits{}, [](mailcore::Date) { return 0L; }};

    MCPWorkflowResult call(const std::string& tool, const std::string& arguments) {
        return bridge.handle(
            MCPWorkflowCall{"claude",
                            "Claude",
                            tool,
                            parseJson(arguments),
                            {"search_messages", "read_message", "apply_label", "manage_workflows"},
                            {"anna@example.com", "work@example.org"}});
    }
    Json preview(const std::string& arguments) {
        const auto result = call("preview_workflow", arguments);
        EXPECT_FALSE(result.isError) << result.text;
        return parseJson(result.text);
    }
};

TEST_F(MCPWorkflowBridgeTest, PreviewReadsOnlyTheAllowedAccountsThroughTheBackend) {
    backend.messages = {
        message("1", "anna@example.com", "Shop <billing@shop.example>", "Invoice 7",
                {"boss@example.com"}, {{"bill.PDF", "application/pdf"}}),
        message("2", "work@example.org", "bob@x.org", "Lunch"),
        message("3", "hidden@example.com", "Shop <billing@shop.example>", "Invoice 8",
                {"boss@example.com"}, {{"bill.pdf", "application/pdf"}}),
    };
    backend.strayAccount = "hidden@example.com";
    backend.unreadIDs = {"1"};
    const Json answer = preview(R"({"spec":{"name":"n","trigger":{"type":"new_message"},
        "conditions":[{"type":"to","values":["boss@"]},{"type":"attachment_kind","values":["pdf"]},
                      {"type":"unread"}],"actions":[{"type":"notify"}]}})");
    EXPECT_EQ(answer["matched_count"], 1);
    ASSERT_EQ(answer["sample"].size(), 1u);
    EXPECT_EQ(answer["sample"][0]["message_id"], "1");
    const auto queries = backend.queries();
    ASSERT_EQ(queries.size(), 1u);
    EXPECT_EQ(queries[0].accounts,
              (std::vector<std::string>{"anna@example.com", "work@example.org"}));
    EXPECT_EQ(queries[0].limit, mailcore::WorkflowToolHandler::previewScanLimit);
    EXPECT_TRUE(queries[0].text.empty());
    EXPECT_NE(answer["notes"].dump().find("Checked against the 2 most recent messages"),
              std::string::npos);
}

TEST_F(MCPWorkflowBridgeTest, PreviewSurvivesBackendFailuresAndReadsTheBackendsDates) {
    backend.messages = {message("1", "anna@example.com", "a@b.c", "Invoice 1"),
                        message("2", "anna@example.com", "a@b.c", "Invoice 2")};
    backend.failingMessageIDs = {"1"};
    EXPECT_EQ(preview(invoiceSpec)["matched_count"], 2);  // the summary alone shows the subject

    backend.failSearch = true;
    const auto result = call("preview_workflow", invoiceSpec);
    EXPECT_FALSE(result.isError);
    EXPECT_EQ(result.text.find("database is locked"), std::string::npos);
    const Json failed = parseJson(result.text);
    EXPECT_EQ(failed["matched_count"], nullptr);
    EXPECT_NE(failed["notes"].dump().find("The mail could not be read for the preview."),
              std::string::npos);

    backend.failSearch = false;
    backend.failingMessageIDs.clear();
    auto old = message("1", "anna@example.com", "Anna <anna@example.com>", "Offer");
    old.date = "2026-11-18T10:00:00Z";  // 72 hours before now
    auto recent = message("2", "anna@example.com", "anna@example.com", "Offer 2");
    recent.date = "2026-11-21T09:00:00+00:00";
    backend.messages = {recent, old};
    const Json noReply = preview(
        R"({"spec":{"name":"n","trigger":{"type":"no_reply","after_hours":48},"actions":[{"type":"remind"}]}})");
    EXPECT_EQ(noReply["matched_count"], 1);
    EXPECT_EQ(noReply["sample"][0]["message_id"], "1");
}

TEST_F(MCPWorkflowBridgeTest, ConcurrentCreatesStopExactlyAtTheMaximum) {
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 6; ++i) {
                const auto r = call("create_workflow", invoiceSpec);
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

TEST(MCPWorkflowMailSourceDates, ParsesTheBackendsDateForms) {
    const std::pair<const char*, std::optional<double>> rows[] = {
        {"1795255200", 1795255200},
        {"1795255200.5", 1795255200.5},
        {"2026-11-21T10:00:00Z", 1795255200},
        {"2026-11-21 10:00", 1795255200},
        {"2026-11-21T11:30:00.250+01:30", 1795255200},
        {"2026-11-21T05:00:00-0500", 1795255200},
        {"2026-11-21T10:00:00+01:60", std::nullopt},
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
    for (const auto& [text, seconds] : rows) {
        const auto parsed = MCPWorkflowMailSource::parseDate(text);
        ASSERT_EQ(parsed.has_value(), seconds.has_value()) << text;
        if (parsed) {
            EXPECT_DOUBLE_EQ(mailcore::secondsSince1970(*parsed), *seconds) << text;
        }
    }
}

}  // namespace
}  // namespace mcpkit
