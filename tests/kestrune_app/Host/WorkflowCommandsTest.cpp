// Workflows on imported mail, through the person's commands: an approved
// new_message workflow labels exactly the matching messages of a second
// import, once, and `kestrune workflows` shows its runs and caps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "AppTestSupport.h"
#include "MailCore/Workflow/WorkflowEngine.h"
#include "MailCore/Workflow/WorkflowSpec.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "kestrune_app/Host/AppHost.h"
#include "kestrune_app/Host/HostAccounts.h"
#include "kestrune_app/Host/HostCommands.h"
#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/WorkflowCommands.h"
#include "tests/fakes/TestFiles.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;

struct WorkflowCommandsTest : ::testing::Test {
    testing::TempDir dir;
    std::string output;

    int run(std::vector<std::string> args) {
        output.clear();
        args.push_back("--data-dir");
        args.push_back(dir.path.string());
        HostCommands::Environment env;
        env.home = dir.path / "home";
        env.out = [this](const std::string& t) { output += t + "\n"; };
        env.err = [this](const std::string& t) { output += t + "\n"; };
        return HostCommands::run(args, env);
    }

    fs::path maildir(const std::string& name, const std::vector<std::string>& subjects) {
        const fs::path root = dir.path / name;
        fs::create_directories(root / "cur");
        fs::create_directories(root / "new");
        fs::create_directories(root / "tmp");
        int n = 0;
        for (const auto& subject : subjects) {
            ++n;
            std::ofstream(root / "cur" / (name + std::to_string(n) + ".host:2,S"))
                << testing::rawMessage("billing@shop.com", subject,
                                       "Mon, 16 Nov 2026 11:0" + std::to_string(n) + ":00 +0000",
                                       "Body of " + subject);
        }
        return root;
    }

    std::vector<std::string> labelled() {
        mailcore::SQLiteMailStore store(
            mailcore::StoreLocation::file((dir.path / "mail.sqlite").string()));
        return store.read([](mailcore::SQLiteDatabase& db) {
            return db.query<std::string>(
                "SELECT subject FROM messages WHERE flags_keywords LIKE '%Invoices%' ORDER BY "
                "subject",
                {}, [](const mailcore::SQLRow& r) { return r.text(0); });
        });
    }
};

TEST_F(WorkflowCommandsTest, ApprovedWorkflowLabelsOnlyTheSecondImportsMatchesOnce) {
    const std::string account = "alex@example.com";
    ASSERT_EQ(run({"import", "--account", account, "--maildir",
                   maildir("first", {"Invoice 100", "Hello"}).string()}),
              0);
    const auto paths = HostPaths::make(dir.path, dir.path / "home");
    std::string id;
    {
        mailcore::WorkflowStore workflows(paths.workflows);
        mailcore::StoredWorkflow w;
        w.id = "WF-1";
        w.author = "harness-7";
        w.authorName = "Agent Seven";
        w.spec = mailcore::WorkflowSpec::fromJson(mailcore::parseJson(
            R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"apply_label","label":"Invoices"}]})"));
        workflows.insert(w, 25);
        id = w.id;
    }
    const fs::path second = maildir("second", {"Invoice 101", "Invoice 102", "Newsletter"});
    ASSERT_EQ(run({"import", "--account", account, "--maildir", second.string()}), 0);
    EXPECT_EQ(output.find("Workflows:"), std::string::npos);  // not approved yet
    EXPECT_TRUE(labelled().empty());

    ASSERT_EQ(run({"workflows", "approve", id}), 0);
    const fs::path third = maildir("third", {"Invoice 103", "Invoice 104", "Party"});
    ASSERT_EQ(run({"import", "--account", account, "--maildir", third.string()}), 0);
    EXPECT_NE(output.find("Workflows: 2 actions in 1 run"), std::string::npos) << output;
    // Importing again (a restart of the import) files nothing and acts on nothing.
    ASSERT_EQ(run({"import", "--account", account, "--maildir", third.string()}), 0);
    EXPECT_EQ(output.find("Workflows:"), std::string::npos);
    EXPECT_EQ(labelled(), (std::vector<std::string>{"Invoice 103", "Invoice 104"}));

    ASSERT_EQ(run({"workflows"}), 0);
    EXPECT_NE(output.find("this hour: 2 of 60 effects, 0 of 10 drafts"), std::string::npos)
        << output;
    EXPECT_NE(output.find("new_message  ok: 3 examined, 2 matched, 2 effects"), std::string::npos);
    ASSERT_EQ(run({"workflows", "runs", id}), 0);
    EXPECT_NE(output.find("\"Invoices\" (active)"), std::string::npos);
    EXPECT_EQ(run({"workflows", "runs", "nope"}), 1);
    ASSERT_EQ(run({"audit", "--tool", "workflow_effect"}), 0);
    EXPECT_NE(output.find("harness-7  workflow_effect  alex@example.com  ok  workflow WF-1"),
              std::string::npos)
        << output;
}

TEST_F(WorkflowCommandsTest, AWorkflowThatKeepsFailingShowsWhyItWasPaused) {
    const auto paths = HostPaths::make(dir.path, dir.path / "home");
    ASSERT_EQ(run({"import", "--account", "alex@example.com", "--maildir",
                   maildir("first", {"Hello"}).string()}),
              0);
    {
        mailcore::WorkflowStore workflows(paths.workflows);
        mailcore::StoredWorkflow w;
        w.id = "WF-3";
        w.author = "harness-7";
        w.spec = mailcore::WorkflowSpec::fromJson(mailcore::parseJson(
            R"({"name":"Log","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["order"]}],"actions":[{"type":"extract","fields":["subject"],"file":"orders"}]})"));
        workflows.insert(w, 25);
        workflows.approve(w.id, mailcore::systemClock()());
    }
    testfiles::writeFile(paths.workflows / "extracts", "");  // a file where the folder goes
    for (int n = 0; n < 3; ++n) {
        const std::string name = "batch" + std::to_string(n);
        ASSERT_EQ(run({"import", "--account", "alex@example.com", "--maildir",
                       maildir(name, {"Order " + name}).string()}),
                  0);
        EXPECT_NE(output.find("1 failed"), std::string::npos) << output;
    }
    ASSERT_EQ(run({"workflows"}), 0);
    EXPECT_NE(output.find("WF-3  paused"), std::string::npos) << output;
    EXPECT_NE(output.find("paused by Kestrune: Paused after 3 failed runs in a row. Last error: "
                          "cannot open extract file"),
              std::string::npos)
        << output;
}

TEST_F(WorkflowCommandsTest, OnTheDemoMailboxOnlyMailArrivingAfterApprovalIsLabelled) {
    const auto paths = HostPaths::make(dir.path, dir.path / "home");
    {
        mailcore::WorkflowStore workflows(paths.workflows);
        mailcore::StoredWorkflow w;
        w.id = "WF-2";
        w.author = "harness-7";
        w.spec = mailcore::WorkflowSpec::fromJson(mailcore::parseJson(
            R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"apply_label","label":"Invoices"}]})"));
        workflows.insert(w, 25);
        workflows.approve(w.id, mailcore::systemClock()());
    }
    ServeOptions options;
    options.dataDir = dir.path;
    options.home = dir.path / "home";
    options.demo = true;
    options.demoMessages = fs::path(std::getenv("KESTRUNE_SOURCE_DIR")) / "kestrune_app" / "demo";
    for (int start = 0; start < 2; ++start) {  // the second start is a restart
        AppHost host(options, [](const std::string&) {});
        host.start();
        if (start == 0) {
            // Filed by another process while the app serves; both may run the workflow.
            ASSERT_EQ(run({"import", "--account", "alex@example.com", "--maildir",
                           maildir("more", {"Invoice 200", "Minutes"}).string()}),
                      0);
        }
        host.messagesReceived();
        host.stop();  // after the pass the hook asked for
    }
    // The demo's own overdue invoice came before the approval.
    EXPECT_EQ(labelled(), std::vector<std::string>{"Invoice 200"});
    mailcore::SQLiteMailStore store(mailcore::StoreLocation::file(paths.store.string()));
    EXPECT_EQ(
        mailcore::WorkflowEngine::status(store, "WF-2", mailcore::systemClock()()).effectsThisHour,
        1);
}

TEST_F(WorkflowCommandsTest, AIProviderSettingsAndTheirAbsence) {
    ASSERT_EQ(run({"ai"}), 0);
    EXPECT_NE(output.find("No AI provider is configured"), std::string::npos);
    EXPECT_EQ(run({"ai", "set", "--url", "ftp://x", "--model", "m"}), 64);
    EXPECT_EQ(run({"ai", "set", "--model", "m"}), 64);
    ASSERT_EQ(run({"ai", "set", "--url", "http://127.0.0.1:9/v1", "--model", "small"}), 0);
    ASSERT_EQ(run({"ai", "show"}), 0);
    EXPECT_NE(output.find("small at http://127.0.0.1:9/v1 (no key)"), std::string::npos);
    EXPECT_EQ(testfiles::fileMode(dir.path / "ai" / "provider.json"), 0600u);
    EXPECT_EQ(testfiles::fileMode(dir.path / "ai"), 0700u);
    ASSERT_EQ(run({"ai", "clear"}), 0);
    ASSERT_EQ(run({"ai"}), 0);
    EXPECT_NE(output.find("No AI provider is configured"), std::string::npos);

    // The key goes with the account secrets (here the private file: no
    // keyring answers), stays across a change of model, and leaves with clear.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const auto paths = HostPaths::make(dir.path, dir.path / "home");
    const auto print = [this](const std::string& t) { output += t + "\n"; };
    WorkflowCommands::ai(
        {"set", "--url", "http://127.0.0.1:9/v1", "--model", "a", "--key-stdin"}, paths,
        [] { return std::string("sk-test-key-1\n"); }, print);
    WorkflowCommands::ai({"set", "--url", "http://127.0.0.1:9/v1", "--model", "b"}, paths, {},
                         print);
    ASSERT_EQ(run({"ai"}), 0);
    EXPECT_NE(output.find("b at http://127.0.0.1:9/v1 (with a key)"), std::string::npos);
    EXPECT_EQ(openCredentialStore(paths)->secret("ai-provider", mailcore::CredentialKind::apiKey),
              "sk-test-key-1");
    EXPECT_EQ(testfiles::readFile(dir.path / "ai" / "provider.json").find("sk-test"),
              std::string::npos);
    ASSERT_EQ(run({"ai", "clear"}), 0);
    EXPECT_FALSE(
        openCredentialStore(paths)->secret("ai-provider", mailcore::CredentialKind::apiKey));
}

}  // namespace
}  // namespace kestrune
