// The six workflow tools: their answers, their errors, the per-harness
// maximum, other harnesses' workflows and the preview.
#include <gtest/gtest.h>

#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "MailCore/Workflow/WorkflowToolHandler.h"
#include "tests/fakes/LinkTestSupport.h"

namespace mailcore {
namespace {

using linktest::TempDir;

const std::vector<std::string> defaultPermissions = {
    "list_accounts", "list_folders", "search_messages", "read_message",
    "mark_read",     "create_draft", "apply_label",     "manage_workflows"};

class FakeMailSource : public WorkflowMailSource {
public:
    std::vector<WorkflowMailMessage> messages;
    bool fail = false;
    std::vector<std::vector<std::string>> requestedAccounts;

    std::vector<WorkflowMailMessage> recentMessages(const std::vector<std::string>& accounts,
                                                    int limit) override {
        std::lock_guard guard(lock_);
        requestedAccounts.push_back(accounts);
        if (fail) throw std::runtime_error("imap: connection reset by peer 10.0.0.1");
        std::vector<WorkflowMailMessage> out;
        for (const auto& m : messages) {
            if (!accounts.empty() &&
                std::find(accounts.begin(), accounts.end(), m.account) == accounts.end()) {
                continue;
            }
            if (static_cast<int>(out.size()) < limit) out.push_back(m);
        }
        return out;
    }

private:
    std::mutex lock_;
};

WorkflowMailMessage mail(const std::string& id, const std::string& account, const std::string& from,
                         const std::string& subject, bool unread = true) {
    WorkflowMailMessage m;
    m.id = id;
    m.account = account;
    m.from = from;
    m.subject = subject;
    m.date = "2026-11-20 09:00";
    m.unread = unread;
    return m;
}

const char* const invoiceSpec =
    R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"apply_label","label":"Invoices"}]})";

Json args(const std::string& specText) {
    Json a = Json::object();
    a["spec"] = parseJson(specText);
    return a;
}

Json idArgs(const std::string& id, const std::optional<std::string>& specText = std::nullopt) {
    Json a = Json::object();
    a["id"] = id;
    if (specText) a["spec"] = parseJson(*specText);
    return a;
}

class WorkflowToolHandlerTest : public ::testing::Test {
protected:
    TempDir temp;
    WorkflowStore store{temp.path() / "workflows"};
    FakeMailSource source;
    Date now = dateFromSeconds(1795255200);  // Saturday 2026-11-21 10:00 UTC
    WorkflowToolHandler handler{store, &source, [this] { return now; }, WorkflowLimits{},
                                [](Date) { return 0L; }};
    WorkflowCaller claude{"claude", "Claude", defaultPermissions,
                          std::vector<std::string>{"anna@example.com", "work@example.org"}};
    WorkflowCaller codex{"codex", "Codex", defaultPermissions,
                         std::vector<std::string>{"anna@example.com"}};

    WorkflowToolAnswer call(const WorkflowCaller& caller, const std::string& tool,
                            const Json& arguments) {
        return handler.handle(caller, tool, arguments);
    }

    std::string createdID(const WorkflowCaller& caller, const char* spec = invoiceSpec) {
        const auto answer = call(caller, "create_workflow", args(spec));
        EXPECT_FALSE(answer.isError) << answer.text;
        return parseJson(answer.text)["id"].get<std::string>();
    }
};

TEST_F(WorkflowToolHandlerTest, CreateSavesAPendingWorkflowOfTheCaller) {
    const auto answer = call(claude, "create_workflow", args(invoiceSpec));
    ASSERT_FALSE(answer.isError) << answer.text;
    const Json result = parseJson(answer.text);
    EXPECT_EQ(result["message"],
              "Saved. It will not run until the user reviews and approves it in the app.");
    EXPECT_EQ(result["status"], "pending_approval");
    EXPECT_EQ(result["risk"], "medium");
    EXPECT_EQ(
        result["summary"],
        "When a new message arrives that has \"invoice\" in the subject: label it \"Invoices\".");
    EXPECT_EQ(answer.summary, "created workflow, pending approval, risk medium");

    const auto stored = store.find(result["id"].get<std::string>());
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->author, "claude");
    EXPECT_EQ(stored->authorName, "Claude");
    EXPECT_FALSE(stored->approved);
    EXPECT_EQ(stored->status, WorkflowStatus::pendingApproval);
    EXPECT_EQ(secondsSince1970(stored->createdAt), 1795255200);
}

TEST_F(WorkflowToolHandlerTest, InvalidSpecsAreRefusedWithTheirProblemsAndLongListsCut) {
    auto answer =
        call(claude, "create_workflow",
             args(R"({"name":"","trigger":{"type":"new_message"},"actions":[{"type":"send"}]})"));
    EXPECT_TRUE(answer.isError);
    EXPECT_EQ(answer.text,
              "The workflow is not valid: name must not be empty.\n"
              "A new_message workflow needs at least one condition; workflows cannot act on all "
              "incoming mail.\n"
              "\"send\" is not available to workflows. Workflows never send, forward, move or "
              "delete mail; "
              "use draft_reply to prepare a message for the user.");
    EXPECT_EQ(answer.summary, "not valid: 3 problems");

    Json spec = parseJson(
        R"({"name":"n","trigger":{"type":"new_message"},"conditions":[{"type":"unread"}]})");
    spec["actions"] = Json::array();
    for (int i = 0; i < 30; ++i) spec["actions"].push_back(parseJson(R"({"type":"apply_label"})"));
    Json a = Json::object();
    a["spec"] = spec;
    answer = call(claude, "create_workflow", a);
    EXPECT_TRUE(answer.isError);
    EXPECT_NE(answer.text.find("actions[18].label must not be empty."), std::string::npos);
    EXPECT_EQ(answer.text.find("actions[19].label"), std::string::npos);
    EXPECT_NE(answer.text.find("\n(11 more problems not shown.)"), std::string::npos);
    EXPECT_TRUE(store.all().empty());
}

TEST_F(WorkflowToolHandlerTest, UnreadableArgumentsAndUnknownToolsAreRefused) {
    Json badUTF8 = parseJson(R"({"spec":{}})");
    badUTF8["spec"]["name"] = std::string("\xFF\xFE");
    Json badID = Json::object();
    badID["id"] = std::string("\xC3");
    const std::vector<std::pair<std::string, Json>> calls = {
        {"create_workflow", Json(nullptr)},
        {"create_workflow", Json::array()},
        {"create_workflow", parseJson(R"({})")},
        {"create_workflow", parseJson(R"({"spec":"name: x"})")},
        {"create_workflow", parseJson(R"({"spec":[1,2]})")},
        {"create_workflow", parseJson(R"({"spec":{"name":1}})")},
        {"create_workflow", badUTF8},
        {"preview_workflow", parseJson(R"({"spec":{"actions":[{"type":"star","label":false}]}})")},
        {"update_workflow", parseJson(R"({"spec":{"name":"x"}})")},
        {"update_workflow", parseJson(R"({"id":"x"})")},
        {"update_workflow", parseJson(R"({"id":7,"spec":{"name":"x"}})")},
        {"pause_workflow", parseJson(R"({})")},
        {"pause_workflow", parseJson(R"({"id":""})")},
        {"pause_workflow", badID},
        {"delete_workflow", parseJson(R"({"id":["A"]})")},
        {"delete_workflow", parseJson(R"("A")")},
    };
    for (const auto& [tool, arguments] : calls) {
        const auto answer = call(claude, tool, arguments);
        EXPECT_TRUE(answer.isError) << tool << " " << encodeJson(arguments);
        EXPECT_EQ(answer.text, "The arguments could not be read.")
            << tool << " " << encodeJson(arguments);
    }
    for (const char* tool : {"approve_workflow", "resume_workflow", "Create_Workflow", ""}) {
        const auto answer = call(claude, tool, Json::object());
        EXPECT_TRUE(answer.isError);
        EXPECT_EQ(answer.text, std::string("Unknown workflow tool \"") + tool + "\"");
    }
}

TEST_F(WorkflowToolHandlerTest, TheTwentySixthWorkflowOfOneHarnessIsRefused) {
    for (int i = 0; i < 25; ++i) createdID(claude);
    const auto answer = call(claude, "create_workflow", args(invoiceSpec));
    EXPECT_TRUE(answer.isError);
    EXPECT_EQ(answer.text, "This app already has 25 workflows, the maximum.");
    EXPECT_EQ(store.countByAuthor("claude"), 25u);
    // Another harness has its own allowance; deleting one frees a place.
    createdID(codex);
    const auto first = store.byAuthor("claude").front().id;
    EXPECT_FALSE(call(claude, "delete_workflow", idArgs(first)).isError);
    createdID(claude);
}

TEST_F(WorkflowToolHandlerTest, UpdateReplacesTheSpecAndWaitsForApprovalAgain) {
    const auto id = createdID(claude);
    now += std::chrono::hours(1);
    store.approve(id, now);
    // An invalid spec changes nothing.
    EXPECT_EQ(
        call(
            claude, "update_workflow",
            idArgs(
                id,
                R"({"name":"x","trigger":{"type":"schedule","hour":8},"actions":[{"type":"star"}]})"))
            .text,
        "The workflow is not valid: A schedule workflow may only contain digest actions.");
    EXPECT_TRUE(store.find(id)->approved);

    const char* changed =
        R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"mark_read"}]})";
    const auto answer = call(claude, "update_workflow", idArgs(id, changed));
    ASSERT_FALSE(answer.isError) << answer.text;
    const Json result = parseJson(answer.text);
    EXPECT_EQ(result["message"],
              "Saved. The workflow is stopped until the user approves the changes in the app.");
    EXPECT_EQ(result["status"], "pending_approval");
    const auto stored = store.find(id);
    EXPECT_FALSE(stored->approved);
    EXPECT_EQ(stored->status, WorkflowStatus::pendingApproval);
    EXPECT_EQ(stored->risk, "high");
    EXPECT_EQ(stored->spec.actions.at(0).type, "mark_read");
    EXPECT_EQ(secondsSince1970(stored->updatedAt), 1795255200 + 3600);
    EXPECT_EQ(secondsSince1970(stored->createdAt), 1795255200);
}

TEST_F(WorkflowToolHandlerTest, PauseAndDeleteActOnlyOnTheCallersOwnWorkflows) {
    const auto id = createdID(claude);
    const std::string refusal =
        "The workflow \"Invoices\" was created by another app and cannot be changed from here.";
    for (const char* tool : {"update_workflow", "pause_workflow", "delete_workflow"}) {
        const auto foreign = call(codex, tool, idArgs(id, invoiceSpec));
        const auto unknown = call(claude, tool, idArgs("NOPE", invoiceSpec));
        EXPECT_TRUE(foreign.isError && unknown.isError) << tool;
        EXPECT_EQ(foreign.text, refusal);
        EXPECT_EQ(unknown.text, "No workflow with id NOPE");
    }
    EXPECT_EQ(call(claude, "pause_workflow", idArgs("a\nb")).text, "No workflow with id a\u23CEb");
    EXPECT_EQ(store.find(id)->status, WorkflowStatus::pendingApproval);
    EXPECT_EQ(parseJson(call(codex, "list_workflows", Json::object()).text)["workflows"].size(),
              0u);

    store.approve(id, now);
    const auto paused = call(claude, "pause_workflow", idArgs(id));
    ASSERT_FALSE(paused.isError);
    EXPECT_EQ(parseJson(paused.text)["message"], "Paused. Only the user can resume it.");
    EXPECT_EQ(store.find(id)->status, WorkflowStatus::paused);
    EXPECT_TRUE(store.find(id)->approved);
    // Pausing again answers the same; the agent has no way back to active.
    EXPECT_EQ(parseJson(call(claude, "pause_workflow", idArgs(id)).text)["status"], "paused");
    EXPECT_EQ(store.resume(id, now).workflow.status, WorkflowStatus::active);

    const auto deleted = call(claude, "delete_workflow", idArgs(id));
    ASSERT_FALSE(deleted.isError);
    EXPECT_EQ(parseJson(deleted.text)["deleted"], true);
    EXPECT_FALSE(store.find(id));
    EXPECT_EQ(call(claude, "delete_workflow", idArgs(id)).text, "No workflow with id " + id);
}

TEST_F(WorkflowToolHandlerTest, ListShowsTheCallersWorkflowsWithTheirFields) {
    const auto id = createdID(claude);
    createdID(codex);
    store.approve(id, now);
    const auto answer = call(claude, "list_workflows", Json::object());
    ASSERT_FALSE(answer.isError);
    const Json result = parseJson(answer.text);
    ASSERT_EQ(result["workflows"].size(), 1u);
    const Json& w = result["workflows"][0];
    std::vector<std::string> keys;
    for (const auto& item : w.items()) keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "name", "status", "approved", "risk", "summary",
                                              "spec", "created_at", "updated_at"}));
    EXPECT_EQ(w["id"], id);
    EXPECT_EQ(w["name"], "Invoices");
    EXPECT_EQ(w["status"], "active");
    EXPECT_EQ(w["approved"], true);
    EXPECT_EQ(w["spec"], WorkflowSpec::fromJson(parseJson(invoiceSpec)).toJson());
    EXPECT_EQ(w["created_at"], 1795255200);
    EXPECT_EQ(result["count"], 1);
    EXPECT_EQ(result["maximum"], 25);
    EXPECT_EQ(answer.summary, "1 workflow");
}

TEST_F(WorkflowToolHandlerTest, PreviewMatchesRecentMailOfTheChosenAccountsWithoutSaving) {
    source.messages = {
        mail("1", "anna@example.com", "Shop <billing@shop.example>", "Invoice 12"),
        mail("2", "anna@example.com", "Bob <bob@x.org>", "Lunch?"),
        mail("3", "work@example.org", "Shop <billing@shop.example>", "Your invoice", false)};
    const auto answer = call(claude, "preview_workflow", args(invoiceSpec));
    ASSERT_FALSE(answer.isError) << answer.text;
    Json result = parseJson(answer.text);
    EXPECT_EQ(result["valid"], true);
    EXPECT_EQ(result["matched_count"], 2);
    ASSERT_EQ(result["sample"].size(), 2u);
    EXPECT_EQ(
        encodeJson(result["sample"][0]),
        R"({"message_id":"1","account":"anna@example.com","from":"Shop <billing@shop.example>",)"
        R"("subject":"Invoice 12","date":"2026-11-20 09:00","unread":true})");
    EXPECT_EQ(result["next_run"], nullptr);
    EXPECT_EQ(
        result["summary"],
        "When a new message arrives that has \"invoice\" in the subject: label it \"Invoices\".");
    const auto notes = result["notes"].dump();
    EXPECT_NE(notes.find("It will not run until the user reviews and approves it in the app."),
              std::string::npos);
    EXPECT_NE(notes.find("Checked against the 3 most recent messages of the allowed accounts."),
              std::string::npos);
    EXPECT_NE(notes.find("untrusted data"), std::string::npos);
    EXPECT_EQ(source.requestedAccounts.back(),
              (std::vector<std::string>{"anna@example.com", "work@example.org"}));
    EXPECT_TRUE(store.all().empty());
    EXPECT_EQ(answer.summary, "preview, 2 matched");

    // Only the chosen accounts are read, and the sample is cut at five.
    for (int i = 0; i < 8; ++i)
        source.messages.push_back(mail(std::to_string(10 + i), "work@example.org", "x@y.z", "x"));
    result = parseJson(
        call(claude, "preview_workflow",
             args(R"({"name":"n","trigger":{"type":"new_message"},"accounts":["WORK@example.org"],
                                     "conditions":[{"type":"unread"}],"actions":[{"type":"notify"}]})"))
            .text);
    EXPECT_EQ(source.requestedAccounts.back(), std::vector<std::string>{"work@example.org"});
    EXPECT_EQ(result["matched_count"], 8);
    EXPECT_EQ(result["sample"].size(), 5u);
}

TEST_F(WorkflowToolHandlerTest, PreviewOfScheduleAndNoReplyTriggers) {
    auto sentOld = mail("1", "anna@example.com", "Anna <Anna@example.com>", "Offer");
    sentOld.sentAt = now - std::chrono::hours(50);
    auto sentNew = mail("2", "anna@example.com", "anna@example.com", "Offer 2");
    sentNew.sentAt = now - std::chrono::hours(10);
    auto received = mail("3", "anna@example.com", "bob@x.org", "Offer 3");
    received.sentAt = now - std::chrono::hours(100);
    source.messages = {sentOld, sentNew, received};
    Json result =
        parseJson(call(claude, "preview_workflow",
                       args(R"({"name":"n","trigger":{"type":"schedule","hour":8,"weekdays":[2]},
                                          "actions":[{"type":"digest","title":"Monday"}]})"))
                      .text);
    EXPECT_EQ(result["next_run"], "2026-11-23T08:00:00+00:00");
    EXPECT_EQ(result["matched_count"], 3);
    EXPECT_NE(result["notes"].dump().find("Each digest holds at most 50 messages."),
              std::string::npos);

    // No reply: only mail the account sent, old enough.
    result = parseJson(
        call(
            claude, "preview_workflow",
            args(
                R"({"name":"n","trigger":{"type":"no_reply","after_hours":48},"actions":[{"type":"remind"}]})"))
            .text);
    EXPECT_EQ(result["matched_count"], 1);
    EXPECT_EQ(result["sample"][0]["message_id"], "1");
}

TEST_F(WorkflowToolHandlerTest, PreviewWithoutValidSpecPermissionAccountsOrMail) {
    source.messages = {mail("1", "anna@example.com", "a@b.c", "invoice")};
    auto answer =
        call(claude, "preview_workflow",
             args(R"({"name":"n","trigger":{"type":"new_message"},"actions":[{"type":"star"}]})"));
    ASSERT_FALSE(answer.isError);
    Json result = parseJson(answer.text);
    EXPECT_EQ(result["valid"], false);
    EXPECT_EQ(
        result["problems"],
        parseJson(
            R"(["A new_message workflow needs at least one condition; workflows cannot act on all incoming mail."])"));
    EXPECT_EQ(result["matched_count"], nullptr);
    EXPECT_TRUE(source.requestedAccounts.empty());
    EXPECT_EQ(answer.summary, "preview, 1 problem");

    WorkflowCaller limited = claude;
    limited.grantedTools = {"manage_workflows", "apply_label"};
    result = parseJson(call(limited, "preview_workflow", args(invoiceSpec)).text);
    EXPECT_EQ(result["matched_count"], 1);
    EXPECT_TRUE(result["sample"].empty());
    EXPECT_NE(result["notes"].dump().find("may not search or read mail"), std::string::npos);

    WorkflowCaller none = claude;
    none.knownAccounts = std::vector<std::string>{};
    const std::size_t reads = source.requestedAccounts.size();
    result = parseJson(call(none, "preview_workflow", args(invoiceSpec)).text);
    EXPECT_EQ(result["matched_count"], 0);
    EXPECT_NE(result["notes"].dump().find("No mail accounts are available to this app."),
              std::string::npos);
    EXPECT_EQ(source.requestedAccounts.size(), reads);

    source.fail = true;
    answer = call(claude, "preview_workflow", args(invoiceSpec));
    ASSERT_FALSE(answer.isError);
    EXPECT_EQ(answer.text.find("connection reset"), std::string::npos);
    result = parseJson(answer.text);
    EXPECT_EQ(result["matched_count"], nullptr);
    EXPECT_NE(result["notes"].dump().find("The mail could not be read for the preview."),
              std::string::npos);

    WorkflowToolHandler noMail(store, nullptr, [this] { return now; });
    result = parseJson(noMail.handle(claude, "preview_workflow", args(invoiceSpec)).text);
    EXPECT_NE(result["notes"].dump().find("Mail is not available"), std::string::npos);
}

TEST_F(WorkflowToolHandlerTest, AnyJSONValueAsArgumentsIsAnswered) {
    // The deep value nests as far as parsing accepts once wrapped below.
    std::string deep;
    const std::size_t levels = (maxJsonDepth - 6) / 2;
    for (std::size_t i = 0; i < levels; ++i) deep += "{\"a\":[";
    deep += "1";
    for (std::size_t i = 0; i < levels; ++i) deep += "]}";
    const std::vector<std::string> values = {
        "null", "true", "3.5", "-1e308", "\"x\"", "[]", "{}", "[{\"spec\":{}}]", deep};
    std::vector<std::string> texts = values;
    for (const std::string& v : values) {
        texts.push_back(R"({"spec":)" + v + R"(,"id":"x"})");
        for (const char* key :
             {"name", "note", "trigger", "accounts", "match", "conditions", "actions"}) {
            texts.push_back(std::string(R"({"id":"x","spec":{"name":"n",")") + key + "\":" + v +
                            "}}");
            texts.push_back(std::string(R"({"spec":{"actions":[{"type":"digest","title":"t"}],")") +
                            key + "\":[" + v + "]}}");
        }
    }
    for (const std::string& tool : WorkflowToolHandler::toolNames()) {
        for (const std::string& text : texts) {
            const auto answer = call(claude, tool, parseJson(text));
            EXPECT_FALSE(answer.text.empty()) << tool;
            if (answer.isError) {
                EXPECT_TRUE(answer.text == "The arguments could not be read." ||
                            answer.text.rfind("The workflow is not valid: ", 0) == 0 ||
                            answer.text.rfind("No workflow with id ", 0) == 0)
                    << tool << ": " << answer.text;
            } else {
                Json parsed;
                EXPECT_TRUE(tryParseJson(answer.text, parsed)) << answer.text;
            }
        }
    }
    EXPECT_TRUE(store.all().empty());
}

}  // namespace
}  // namespace mailcore
