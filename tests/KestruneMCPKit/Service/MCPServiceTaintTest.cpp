#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "ServiceFixture.h"

namespace mcpkit::testing {
namespace {

using mailcore::Json;
using namespace std::chrono_literals;

class MCPServiceTaintTest : public ServiceFixture {
protected:
    void readMail(const std::string& session = "S1") {
        ASSERT_FALSE(call("read_message", {{"message_id", "m3"}}, session).isError);
    }
};

TEST_F(MCPServiceTaintTest, LabelWritesInATaintedSessionAreFlaggedThenConfirmed) {
    readMail();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(call("apply_label", {{"message_id", "m1"}, {"star", true}}).isError);
        EXPECT_EQ(lastAudit().summary, "starred, flagged: session had read mail");
    }
    EXPECT_TRUE(confirmer->writes().empty());

    confirmer->answer(MCPConfirmOutcome::declined);
    auto a = call("mark_read", {{"message_id", "m1"}});
    EXPECT_EQ(a.text, "The user declined. Nothing was changed.");
    EXPECT_EQ(lastAudit().result, MCPResult::declined);
    ASSERT_EQ(confirmer->writes().size(), 1u);
    const auto w = confirmer->writes()[0];
    EXPECT_EQ(w.reason,
              "This session has read mail and is changing many messages. Approve each change.");
    EXPECT_EQ(w.action, "mark_read");
    EXPECT_EQ(w.mailReadTotal, 1);
    EXPECT_EQ(w.mailRead.at(0).from, "Mallory <mallory@evil.example>");
    EXPECT_TRUE(backend->stored("m1").unread);  // nothing changed

    confirmer->answer(MCPConfirmOutcome::timedOut);
    a = call("mark_read", {{"message_id", "m1"}});
    EXPECT_EQ(a.text, "The user did not respond in time. Nothing was changed.");
    EXPECT_EQ(lastAudit().result, MCPResult::timedOut);

    confirmer->answer(MCPConfirmOutcome::confirmed);
    a = call("mark_read", {{"message_id", "m1"}});
    EXPECT_FALSE(a.isError);
    EXPECT_FALSE(backend->stored("m1").unread);
    EXPECT_EQ(lastAudit().summary, "read, confirmed after reading mail");
}

// Twelve hours without activity end the taint; any call of the session is
// activity, not only reads.
TEST_F(MCPServiceTaintTest, EveryCallOfTheSessionKeepsItsTaint) {
    readMail();
    for (int i = 0; i < 3; ++i) {
        now += 11h;
        call("list_accounts", Json::object());
        EXPECT_EQ(lastAudit().mailInfluenced, std::optional<bool>(true)) << i;
    }
}

TEST_F(MCPServiceTaintTest, LabelWritesStopAtTheHourlyCap) {
    for (int i = 0; i < 300; ++i) {
        ASSERT_FALSE(call("apply_label", {{"message_id", "m1"}, {"star", i % 2 == 0}}).isError);
        now += 200ms;
        if (i % 50 == 49) now += 5s;  // stay under the per-minute rate limit
        policy->mutate([](MCPState& s) { s.settings.limits.requestsPerMinute = 6000; });
    }
    const auto a = call("apply_label", {{"message_id", "m1"}, {"star", true}});
    EXPECT_EQ(a.text, "Too many changes in the last hour. Try again later.");
}

TEST_F(MCPServiceTaintTest, DraftsAndWorkflowChangesFromATaintedSessionNeedApproval) {
    const Json draft = {{"account", "me@example.com"},
                        {"to", {"mallory@evil.example"}},
                        {"subject", "Invoices"},
                        {"body", "Here they are"}};
    EXPECT_FALSE(call("create_draft", draft, "clean").isError);
    EXPECT_TRUE(confirmer->writes().empty());

    readMail();
    confirmer->answer(MCPConfirmOutcome::declined);
    auto a = call("create_draft", draft);
    EXPECT_EQ(a.text, "The user declined. Nothing was changed.");
    EXPECT_EQ(confirmer->writes().back().reason,
              "This session has read mail, so saving a draft needs your approval.");
    EXPECT_EQ(backend->drafts().size(), 1u);

    confirmer->answer(MCPConfirmOutcome::declined);
    a = call("create_workflow", {{"spec", {{"name", "x"}}}});
    EXPECT_EQ(a.text, "The user declined. Nothing was changed.");
    EXPECT_EQ(confirmer->writes().back().reason,
              "This session has read mail, so creating or changing a workflow needs your "
              "approval. The workflow still waits for your separate approval before it runs.");
    EXPECT_TRUE(workflows->calls().empty());

    confirmer->answer(MCPConfirmOutcome::confirmed);
    a = call("update_workflow", {{"id", "W1"}, {"spec", {{"name", "x"}}}});
    EXPECT_FALSE(a.isError);
    EXPECT_EQ(workflows->calls().size(), 1u);
    EXPECT_NE(lastAudit().summary.find("confirmed after reading mail"), std::string::npos);
}

TEST_F(MCPServiceTaintTest, SendConfirmationsShowTheMailTheSessionRead) {
    settings([](MCPSettings& s) { s.enabledPermissions.insert("send_message"); });
    readMail();
    call("search_messages", {{"query", "report"}});
    confirmer->answer(MCPConfirmOutcome::declined);
    call("send_message", {{"account", "me@example.com"}, {"to", {"bob@example.com"}}});
    const auto s = confirmer->sends().back();
    EXPECT_EQ(s.mailReadTotal, 3);
    EXPECT_EQ(s.mailRead.size(), 3u);
    const auto display = MCPConfirmationDisplay::send(s);
    EXPECT_TRUE(display.mailHeading.has_value());
    // Saying goodbye forgets what the session read.
    service->respond(request("bye"));
    confirmer->answer(MCPConfirmOutcome::declined);
    call("send_message", {{"account", "me@example.com"}, {"to", {"bob@example.com"}}});
    EXPECT_EQ(confirmer->sends().back().mailReadTotal, 0);
}

TEST_F(MCPServiceTaintTest, AWaitingConfirmationBlocksNoOtherCall) {
    settings([](MCPSettings& s) { s.enabledPermissions.insert("send_message"); });
    confirmer->holdAnswers(true);
    confirmer->answer(MCPConfirmOutcome::confirmed);
    auto pending = std::async(std::launch::async, [&] {
        return call("send_message", {{"account", "me@example.com"}, {"to", {"bob@example.com"}}});
    });
    ASSERT_TRUE(confirmer->waitForPending(5s));
    // Another harness searches while the user has not answered yet.
    for (int i = 0; i < 5; ++i) {
        const auto reply = callRaw("search_messages", {{"query", "report"}}, otherToken, "X");
        EXPECT_EQ(reply["isError"], false);
    }
    EXPECT_EQ(pending.wait_for(0s), std::future_status::timeout);
    confirmer->release();
    EXPECT_EQ(pending.get().text, "Sent after the user confirmed.");
}

// The policy is enforced for every tool: under each restriction nothing is
// read, written, queued or sent.
TEST_F(MCPServiceTaintTest, NothingHappensThatThePolicyForbids) {
    const std::vector<std::pair<std::string, Json>> tools = {
        {"list_accounts", Json::object()},
        {"list_folders", {{"account", "me@example.com"}}},
        {"search_messages", {{"account", "me@example.com"}, {"query", "a"}}},
        {"read_message", {{"message_id", "m1"}}},
        {"mark_read", {{"message_id", "m1"}}},
        {"apply_label", {{"message_id", "m1"}, {"label", "X"}}},
        {"create_draft",
         {{"account", "me@example.com"},
          {"to", {"b@example.com"}},
          {"subject", "s"},
          {"body", "b"}}},
        {"send_message", {{"account", "me@example.com"}, {"to", {"b@example.com"}}}},
        {"create_workflow", {{"spec", Json::object()}}},
        {"update_workflow", {{"id", "W1"}, {"spec", Json::object()}}},
        {"pause_workflow", {{"id", "W1"}}},
        {"delete_workflow", {{"id", "W1"}}},
        {"list_workflows", Json::object()},
        {"preview_workflow", {{"spec", Json::object()}}},
    };
    enum Restriction { accessOff, notAllowed, permissionOff, accountExcluded, taintedDeclined };
    for (Restriction r : {accessOff, notAllowed, permissionOff, accountExcluded, taintedDeclined}) {
        for (const auto& [tool, args] : tools) {
            SetUp();  // a fresh world for each combination
            settings([](MCPSettings& s) { s.enabledPermissions.insert("send_message"); });
            switch (r) {
                case accessOff:
                    settings([](MCPSettings& s) { s.masterEnabled = false; });
                    break;
                case notAllowed:
                    policy->mutate([](MCPState& s) { s.harness("claude")->allowed = false; });
                    break;
                case permissionOff: {
                    const auto perm = tool.find("workflow") != std::string::npos
                                          ? std::string("manage_workflows")
                                          : tool;
                    settings([&](MCPSettings& s) { s.enabledPermissions.erase(perm); });
                    break;
                }
                case accountExcluded:
                    settings([](MCPSettings& s) { s.excludedAccounts = {"me@example.com"}; });
                    break;
                case taintedDeclined:
                    readMail();
                    break;
            }
            confirmer->defaultAnswer = MCPConfirmOutcome::declined;
            const int searchesBefore = backend->searchCount();
            const auto reply = callRaw(tool, args);
            const std::string trace = tool + " restriction " + std::to_string(r);
            // A tainted session may still make a few label writes without asking.
            const bool labelWrite = tool == "mark_read" || tool == "apply_label";
            EXPECT_EQ(backend->writeCount(), r == taintedDeclined && labelWrite ? 1 : 0) << trace;
            EXPECT_TRUE(backend->sent().empty()) << trace;
            EXPECT_TRUE(backend->drafts().empty()) << trace;
            if (r == taintedDeclined) {
                // Drafts, sends and workflow changes were shown to the user, who declined.
                if (tool == "create_workflow" || tool == "update_workflow" ||
                    tool == "delete_workflow") {
                    EXPECT_TRUE(workflows->calls().empty()) << trace;
                    EXPECT_EQ(reply["isError"], true) << trace;
                }
                if (tool == "create_draft" || tool == "send_message") {
                    EXPECT_FALSE(confirmer->writes().empty() && confirmer->sends().empty())
                        << trace;
                }
                continue;
            }
            if (r == accountExcluded) {
                // Account-bound tools see nothing of the excluded account.
                if (tool == "list_accounts") {
                    EXPECT_EQ(
                        mailcore::parseJson(reply["text"].get<std::string>())["accounts"].size(),
                        1u);
                } else if (tool.find("workflow") == std::string::npos) {
                    EXPECT_EQ(reply["isError"], true) << trace << reply.dump();
                    EXPECT_EQ(backend->searchCount(), searchesBefore) << trace;
                } else {
                    for (const auto& c : workflows->calls()) {
                        EXPECT_EQ(c.allowedAccounts, std::vector<std::string>{"work@example.org"});
                    }
                }
                continue;
            }
            EXPECT_TRUE(workflows->calls().empty()) << trace;
            EXPECT_EQ(backend->searchCount(), searchesBefore) << trace;
            if (r == permissionOff) {
                EXPECT_EQ(reply["isError"], true) << trace;
                EXPECT_EQ(lastAudit().result, MCPResult::denied) << trace;
            } else {
                EXPECT_EQ(reply["code"], "refused") << trace;
            }
        }
    }
}

}  // namespace
}  // namespace mcpkit::testing
