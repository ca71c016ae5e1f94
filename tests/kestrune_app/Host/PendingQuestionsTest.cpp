// The person's yes, played as the attacks it stops: a process of the user
// answering through files or without the code, guessing codes, and a stop
// that leaves questions behind. Time is a fake clock.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "AppTestSupport.h"
#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/PendingQuestions.h"
#include "tests/fakes/TestFiles.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct PendingQuestionsTest : ::testing::Test {
    testing::TempDir dir;
    testfiles::FakeClock clock;
    std::vector<std::string> said;
    std::mutex lock;
    PendingQuestions questions{dir.path / "pending",
                               clock.clock(),
                               [this](const std::string& line) {
                                   std::lock_guard guard(lock);
                                   said.push_back(line);
                               },
                               {},
                               5ms};
    std::promise<std::pair<PendingQuestion, std::string>> shown;

    // Asks on another thread; the question and its code arrive in `shown`.
    std::future<QuestionEnd> ask(const std::string& kind, std::optional<mailcore::Json> record = {},
                                 PendingQuestions::Act act = {}) {
        auto future = std::async(std::launch::async, [=, this] {
            return questions.ask(
                kind, "Send \"Hi\" to p@example.com?\n", 60s,
                [this](const PendingQuestion& q, const std::string& code) {
                    shown.set_value({q, code});
                },
                record ? &*record : nullptr, act);
        });
        return future;
    }
};

TEST_F(PendingQuestionsTest, AYesFromAnotherTerminalNeedsTheCodeOnlyServeShows) {
    auto asked = ask("send");
    const auto [q, code] = shown.get_future().get();
    ASSERT_EQ(code.size(), 6u);
    // The agent sees the id (in the listing, in the record) but not the code.
    const auto record = kestrune::readControlFile(dir.path / "pending" / (q.id + ".json"));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->find(code), std::string::npos);
    EXPECT_EQ(questions.open().at(0).text.find(code), std::string::npos);
    // The old way in, a file holding the answer, is never read.
    std::ofstream(dir.path / "pending" / (q.id + ".answer")) << "yes";
    EXPECT_FALSE(questions.answer(q.id, "yes", std::nullopt).ok);
    EXPECT_FALSE(questions.answer(q.id, "yes", "aaaaaa").ok);
    EXPECT_EQ(questions.open().size(), 1u);

    std::string upper = code;
    for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_TRUE(questions.answer(q.id, "yes", upper).ok);
    EXPECT_EQ(asked.get().answer, "yes");
    EXPECT_FALSE(fs::exists(dir.path / "pending" / (q.id + ".json")));
}

TEST_F(PendingQuestionsTest, WrongCodesDeclineTheQuestion) {
    auto asked = ask("write");
    const auto q = shown.get_future().get().first;
    const char* guesses[] = {"000000", "111111", "222222"};
    for (const char* guess : guesses) EXPECT_FALSE(questions.answer(q.id, "yes", guess).ok);
    const auto end = asked.get();
    EXPECT_EQ(end.kind, QuestionEnd::Kind::answered);
    EXPECT_EQ(end.answer, "no");
    EXPECT_EQ(said.back(), "Question " + q.id + " declined: 3 wrong codes were typed for it.");
}

TEST_F(PendingQuestionsTest, NoAndUndoNeedNoCodeAndTheUndoReplySaysWhatHappened) {
    auto asked = ask("undo", std::nullopt, [](const std::string& answer) {
        return answer == "undo" ? "Too late: the send had already started." : "?";
    });
    const auto [q, code] = shown.get_future().get();
    EXPECT_TRUE(code.empty());
    EXPECT_FALSE(questions.answer(q.id, "yes", std::nullopt).ok);  // no yes on an undo
    const auto reply = questions.answer(q.id, "undo", std::nullopt);
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.message, "Too late: the send had already started.");
    EXPECT_EQ(asked.get().answer, "undo");
}

TEST_F(PendingQuestionsTest, UnansweredQuestionsTimeOutOnTheInjectedClock) {
    auto asked = ask("send");
    shown.get_future().get();
    EXPECT_EQ(asked.wait_for(50ms), std::future_status::timeout);
    clock.advance(61s);
    EXPECT_EQ(asked.get().kind, QuestionEnd::Kind::timedOut);
    EXPECT_TRUE(questions.open().empty());
}

TEST_F(PendingQuestionsTest, QuestionsOfAStoppedRunAreWithdrawnAndAnswerExpired) {
    mcpkit::MCPOutgoing message{"alex@example.com", {"p@example.com"}, {}, "Hi", "Body", {}};
    auto asked = ask("send", mailcore::Json{{"keepAsDraft", message}});
    const auto [q, code] = shown.get_future().get();
    questions.withdrawAll();  // the application stops
    EXPECT_EQ(asked.get().kind, QuestionEnd::Kind::withdrawn);

    PendingQuestions next(dir.path / "pending", clock.clock());
    const auto records = next.withdrawPrevious();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["keepAsDraft"].get<mcpkit::MCPOutgoing>(), message);
    EXPECT_TRUE(next.open().empty());
    EXPECT_EQ(next.answerTyped("y"), "No confirmation is waiting.");
    for (const char* answer : {"yes", "no"}) {
        const auto reply = next.answer(q.id, answer, code);
        EXPECT_FALSE(reply.ok);
        EXPECT_TRUE(reply.expired);
        EXPECT_EQ(reply.message, "expired: Kestrune stopped before it was answered");
    }
    EXPECT_TRUE(next.withdrawPrevious().empty());
}

}  // namespace
}  // namespace kestrune
