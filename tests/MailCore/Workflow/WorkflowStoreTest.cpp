// The stored workflows: persistence across reopening, file modes, atomic
// replacement, unreadable files, and the user's decisions.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

using linktest::TempDir;

StoredWorkflow workflow(const std::string& id, const std::string& author) {
    StoredWorkflow w;
    w.id = id;
    w.author = author;
    w.authorName = author + " app";
    w.risk = "medium";
    w.createdAt = dateFromSeconds(1000);
    w.updatedAt = dateFromSeconds(1000);
    w.spec = WorkflowSpec::fromJson(parseJson(
        R"({"name":"Invoices","trigger":{"type":"new_message"},"conditions":[{"type":"subject","values":["invoice"]}],"actions":[{"type":"star"}]})"));
    return w;
}

class WorkflowStoreTest : public ::testing::Test {
protected:
    TempDir temp;
    std::filesystem::path dir = temp.path() / "data" / "workflows";
};

TEST_F(WorkflowStoreTest, DirectoryIsMadePrivateAndNeverALink) {
    WorkflowStore store(dir);
    EXPECT_TRUE(store.all().empty());
    EXPECT_FALSE(store.loadProblem());
    EXPECT_EQ(testfiles::fileMode(dir), 0700u);
    EXPECT_FALSE(std::filesystem::exists(store.fileURL()));
    ::chmod(dir.c_str(), 0755);  // an existing directory is tightened
    WorkflowStore again(dir);
    EXPECT_EQ(testfiles::fileMode(dir), 0700u);

    const auto link = temp.path() / "link";
    std::filesystem::create_directory_symlink(dir, link);
    EXPECT_THROW(WorkflowStore linked(link), MailError);
}

TEST_F(WorkflowStoreTest, RecordsSurviveReopeningWithEveryField) {
    {
        WorkflowStore store(dir);
        EXPECT_FALSE(store.insert(workflow("A", "claude"), 25));
        EXPECT_FALSE(store.insert(workflow("B", "codex"), 25));
        store.approve("B", dateFromSeconds(2000));
        store.pause("B", dateFromSeconds(3000));
    }
    EXPECT_EQ(testfiles::fileMode(dir / "workflows.json"), 0600u);
    EXPECT_EQ(testfiles::namesIn(dir),
              std::vector<std::string>{"workflows.json"});  // no temporary files
    WorkflowStore reopened(dir);
    const auto all = reopened.all();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].id, "A");
    EXPECT_EQ(all[0].author, "claude");
    EXPECT_EQ(all[0].authorName, "claude app");
    EXPECT_EQ(all[0].status, WorkflowStatus::pendingApproval);
    EXPECT_FALSE(all[0].approved);
    EXPECT_EQ(all[0].risk, "medium");
    EXPECT_EQ(secondsSince1970(all[0].createdAt), 1000);
    EXPECT_EQ(encodeJson(all[0].spec.toJson()), encodeJson(workflow("A", "x").spec.toJson()));
    EXPECT_EQ(all[1].status, WorkflowStatus::paused);
    EXPECT_TRUE(all[1].approved);
    EXPECT_EQ(secondsSince1970(all[1].updatedAt), 3000);
    EXPECT_EQ(reopened.byAuthor("codex").size(), 1u);
    EXPECT_EQ(reopened.countByAuthor("claude"), 1u);
}

TEST_F(WorkflowStoreTest, PerAuthorMaximumIsEnforcedAtomically) {
    WorkflowStore store(dir);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(store.insert(workflow("A" + std::to_string(i), "a"), 3));
    EXPECT_EQ(store.insert(workflow("A3", "a"), 3), std::optional<std::size_t>(3));
    EXPECT_FALSE(store.insert(workflow("B0", "b"), 3));
    EXPECT_EQ(store.all().size(), 4u);
}

TEST_F(WorkflowStoreTest, UserDecisions) {
    WorkflowStore store(dir);
    store.insert(workflow("A", "a"), 25);
    // Resuming needs an approval first.
    store.pause("A", dateFromSeconds(1500));
    EXPECT_EQ(store.resume("A", dateFromSeconds(1600)).outcome, WorkflowStore::Outcome::unchanged);
    EXPECT_EQ(store.find("A")->status, WorkflowStatus::paused);
    const auto approved = store.approve("A", dateFromSeconds(2000));
    EXPECT_EQ(approved.outcome, WorkflowStore::Outcome::changed);
    EXPECT_EQ(approved.workflow.status, WorkflowStatus::active);
    EXPECT_TRUE(approved.workflow.approved);
    EXPECT_EQ(store.pause("A", dateFromSeconds(2100)).workflow.status, WorkflowStatus::paused);
    EXPECT_EQ(store.pause("A", dateFromSeconds(2200)).outcome, WorkflowStore::Outcome::unchanged);
    EXPECT_EQ(store.resume("A", dateFromSeconds(2300)).workflow.status, WorkflowStatus::active);
    EXPECT_EQ(store.approve("missing", dateFromSeconds(1)).outcome,
              WorkflowStore::Outcome::notFound);
    EXPECT_EQ(store.removeByUser("A").outcome, WorkflowStore::Outcome::changed);
    EXPECT_EQ(store.removeByUser("A").outcome, WorkflowStore::Outcome::notFound);
}

TEST_F(WorkflowStoreTest, UnreadableFileIsKeptAsideAndTheStoreStartsEmpty) {
    const char* const broken[] = {
        "{not json",
        "[]",
        R"({"workflows":{}})",
        R"({"workflows":[{"id":"A"}]})",
        R"({"workflows":[{"id":"A","author":"a","status":"running","approved":true,"risk":"low","createdAt":1,"updatedAt":1,"spec":{}}]})",
        R"({"workflows":[{"id":"A","author":"a","status":"active","approved":true,"risk":"low","createdAt":1,"updatedAt":1,"spec":{"name":3}}]})"};
    for (const char* content : broken) {
        TempDir fresh;
        const auto d = fresh.path() / "wf";
        testfiles::writeFile(d / "workflows.json", content);
        WorkflowStore store(d);
        EXPECT_TRUE(store.all().empty()) << content;
        ASSERT_TRUE(store.loadProblem()) << content;
        EXPECT_NE(store.loadProblem()->find("could not be read"), std::string::npos);
        bool keptAside = false;
        for (const auto& entry : std::filesystem::directory_iterator(d)) {
            if (entry.path().filename().string().rfind("workflows.json.unreadable-", 0) == 0) {
                keptAside = testfiles::readFile(entry.path()) == content;
            }
        }
        EXPECT_TRUE(keptAside) << content;
        // The next save does not touch the kept copy.
        EXPECT_FALSE(store.insert(workflow("N", "n"), 25));
        EXPECT_EQ(WorkflowStore(d).all().size(), 1u);
    }
}

TEST_F(WorkflowStoreTest, FailedWriteKeepsMemoryAsItWasAndLeavesNoTemporaryFile) {
    WorkflowStore store(dir);
    store.insert(workflow("A", "a"), 25);
    // A directory in the file's place makes the final rename fail, even for root.
    std::filesystem::remove(store.fileURL());
    std::filesystem::create_directories(store.fileURL() / "blocker");
    EXPECT_THROW(store.insert(workflow("B", "a"), 25), MailError);
    EXPECT_THROW(store.approve("A", dateFromSeconds(5)), MailError);
    EXPECT_THROW(store.removeByUser("A"), MailError);
    EXPECT_EQ(store.all().size(), 1u);
    EXPECT_FALSE(store.find("A")->approved);
    EXPECT_EQ(testfiles::namesIn(dir), std::vector<std::string>{"workflows.json"});
}

}  // namespace
}  // namespace mailcore
