// Crash safety for real: a child process runs the outbox worker against a
// database file and is killed with SIGKILL at many points: at chosen stages
// (claims, verifications, executor calls before and after the server saw the
// operation, completions) and after random delays. After each kill the next
// child recovers and carries on. In the end every operation reached the
// fake server exactly once, none was lost, per-target order held, and no
// send went out twice; the uncertain-send path is what makes that so. How
// many kills land depends on the machine's speed: the test reports them and
// checks outcomes only.
//
// The fake server is an append-only file of lines. Flag changes, moves and
// draft saves are idempotent on it (as on an IMAP server: a repeated STORE
// changes nothing), sends are not (SMTP delivers every time).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "OutboxTestSupport.h"

namespace mailcore {
namespace {

using testing::at;

constexpr int killPoints = 48;

void appendLine(const std::string& path, const std::string& line) {
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (fd < 0) return;
    std::string text = line + "\n";
    [[maybe_unused]] auto n = ::write(fd, text.data(), text.size());
    ::close(fd);
}

std::vector<std::string> readLines(const std::string& path) {
    return testfiles::splitLines(testfiles::readFile(path));
}

// What the fake server's log says: deliveries per item, item ids per target
// in delivery order, and how often a send was looked for.
struct ServerLog {
    std::map<std::string, int> delivered;
    std::map<std::string, std::vector<std::string>> order;
    int verifications = 0;

    explicit ServerLog(const std::string& path) {
        for (const auto& line : readLines(path)) {
            std::istringstream in(line);
            std::string verb, id, target;
            in >> verb >> id >> target;
            if (verb == "verify") ++verifications;
            if (verb == "send" || verb == "apply") {
                ++delivered[id];
                order[target].push_back(id);
            }
        }
    }
};

std::string targetOf(const OutboxItem& item) {
    if (auto m = item.operation.targetMessageID()) return "m" + std::to_string(m->value);
    return "d" + item.operation.draftID()->value;
}

// Kills this process at the `killAt`-th stage it passes (0: never).
struct KillSwitch {
    int killAt = 0;
    int passed = 0;
    std::string phaseLog;
    void stage(const char* name) {
        if (killAt == 0 || ++passed != killAt) return;
        appendLine(phaseLog, name);
        ::raise(SIGKILL);
    }
};

class FakeServerExecutor : public OutboxExecutor {
public:
    FakeServerExecutor(std::string log, KillSwitch& kill, unsigned seed)
        : log_(std::move(log)), kill_(kill), random_(seed) {
        for (const auto& [id, count] : ServerLog(log_).delivered) applied_.insert(id);
    }

    OutboxResult execute(const OutboxItem& item) override {
        kill_.stage("execute");
        int roll = std::uniform_int_distribution<int>(0, 99)(random_);
        if (item.operation.kind() == OutboxOperation::Kind::send) {
            if (roll < 8) {
                return OutboxResult::failed(
                    MailError::network(NetworkFailureKind::connectionLost, "lost"), true);
            }
            appendLine(log_, "send " + item.id.value + " " + targetOf(item));
            kill_.stage("after server accepted the send");
            return roll < 20 ? OutboxResult::uncertain() : OutboxResult::done();
        }
        if (roll < 10) return OutboxResult::failed(MailError::offline());
        if (applied_.insert(item.id.value).second) {
            appendLine(log_, "apply " + item.id.value + " " + targetOf(item));
        }
        kill_.stage("after server applied the change");
        return OutboxResult::done();
    }

    SentState verifySent(const OutboxItem& item) override {
        appendLine(log_, "verify " + item.id.value);
        return ServerLog(log_).delivered.count(item.id.value) ? SentState::sent
                                                              : SentState::notSent;
    }

private:
    std::string log_;
    KillSwitch& kill_;
    std::mt19937 random_;
    std::set<std::string> applied_;
};

// The child: recover, then work until nothing is left (exit 0) or killed.
[[noreturn]] void runChild(const std::string& db, const std::string& log,
                           const std::string& phaseLog, int killAt, unsigned seed) {
    {
        KillSwitch kill{killAt, 0, phaseLog};
        SQLiteMailStore store(StoreLocation::file(db));
        FakeServerExecutor executor(log, kill, seed);
        EngineTuning tuning;
        tuning.outboxRetryDelays = {0};
        tuning.applyJitter = false;
        tuning.offlineRetry = 0;
        tuning.maxOperationAttempts = 100000;
        tuning.sentVerifyDelay = 0;
        OutboxWorker worker(
            store, executor, tuning, systemClock(), [](double) {}, [] { return 0.0; });
        worker.setObserver([&](OutboxEvent event, const OutboxItem&) {
            static const char* names[] = {"claimed", "verifying", "executed", "finished"};
            kill.stage(names[static_cast<int>(event)]);
        });
        kill.stage("recovery");
        worker.recoverAtLaunch();
        for (int idle = 0; idle < 200; ++idle) {
            if (worker.runDue() > 0) idle = 0;
            if (store.outboxItems(std::nullopt).empty()) break;
            ::usleep(1000);
        }
    }
    ::_exit(0);
}

TEST(OutboxCrashTest, KilledWorkersLoseNothingAndNeverSendTwice) {
    testing::TempDir dir;
    const std::string db = dir.file("mail.db");
    const std::string log = dir.file("server.log");
    const std::string phaseLog = dir.file("kills.log");
    AccountID account("acct");
    std::vector<MessageID> messages;
    FolderID archive;
    unsigned seed = 20261121;
    if (const char* s = std::getenv("KESTRUNE_CRASH_SEED")) seed = std::stoul(s);
    std::mt19937 random(seed);
    std::vector<std::pair<std::string, std::string>> expected;  // item id, target
    int batches = 0;

    // Per message a flag change, a move and another flag change; per draft
    // a save and a send.
    auto enqueueBatch = [&](SQLiteMailStore& store) {
        ++batches;
        Date now = systemClock()();
        std::set<std::string> known;
        for (const auto& e : expected) known.insert(e.first);
        auto note = [&](const OutboxItem& item) {
            if (known.insert(item.id.value).second)
                expected.emplace_back(item.id.value, targetOf(item));
        };
        for (std::size_t i = 0; i < messages.size(); ++i) {
            OutboxMessageRef ref{messages[i], FolderID(1), IMAPUID(std::uint32_t(i + 1)), {}};
            note(store.enqueueFlags(account, ref, FlagChange{MessageFlags::seen, 0, {}, {}}, now));
            note(store.enqueue(account, OutboxOperation::move(ref, archive), now));
            note(store.enqueueFlags(account, ref, FlagChange{0, MessageFlags::seen, {}, {}}, now));
        }
        for (int d = 0; d < 4; ++d) {
            DraftID draft("b" + std::to_string(batches) + "-" + std::to_string(d));
            auto message = testing::outgoing(draft.value);
            note(store.enqueue(account, OutboxOperation::saveDraft(draft, message), now));
            note(store.enqueue(account, OutboxOperation::send({message, draft, true}), now));
        }
    };

    {
        SQLiteMailStore store(StoreLocation::file(db));
        store.saveAccount(account, Json::object(), at(1));
        FolderID inbox =
            store.createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});
        archive =
            store.createFolder(account, FolderListing{"Archive", "/", FolderRole::archive, {}});
        std::vector<MessageIndexFields> batch;
        for (std::uint32_t uid = 1; uid <= 4; ++uid) {
            batch.push_back(testing::message(account, inbox, uid,
                                             "<c" + std::to_string(uid) + "@x>", "", "", "s"));
        }
        messages = store.upsertSync(batch);
        enqueueBatch(store);
    }

    // Checks what must hold after any kill: nothing lost, nothing failed, no
    // send delivered twice; `refill` tops the outbox up with a new batch when
    // it runs low. Returns the number of items still waiting.
    auto check = [&](int round, bool refill) {
        SCOPED_TRACE("after kill point " + std::to_string(round));
        SQLiteMailStore store(StoreLocation::file(db));
        ServerLog server(log);
        std::set<std::string> waiting;
        for (const auto& row : store.outboxItems(std::nullopt)) {
            EXPECT_NE(row.item.state, OutboxItemState::failed)
                << row.item.id.value << " "
                << (row.item.lastError ? row.item.lastError->what() : "");
            waiting.insert(row.item.id.value);
        }
        for (const auto& [id, target] : expected) {
            EXPECT_TRUE(waiting.count(id) || server.delivered.count(id)) << "lost " << id;
            EXPECT_LE(server.delivered[id], 1) << "delivered twice " << id;
        }
        if (refill && waiting.size() < 20 && batches < 30) enqueueBatch(store);
        return store.outboxItems(std::nullopt).size();
    };

    int selfKills = 0, timedKills = 0, finishedEarly = 0;
    for (int round = 0; round < killPoints; ++round) {
        bool timed = round % 2 == 1;
        int killAt = timed ? 0 : std::uniform_int_distribution<int>(1, 40)(random);
        unsigned childSeed = random();
        int delayMicros = std::uniform_int_distribution<int>(2000, 60000)(random);
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) runChild(db, log, phaseLog, killAt, childSeed);
        if (timed) {
            ::usleep(static_cast<useconds_t>(delayMicros));
            ::kill(pid, SIGKILL);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
            timed ? ++timedKills : ++selfKills;
        } else {
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            ++finishedEarly;
        }
        check(round, true);
        if (HasFailure()) break;
    }

    // A last run without a kill finishes the work.
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) runChild(db, log, phaseLog, 0, random());
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(check(killPoints, false), 0u);

    ServerLog server(log);
    std::map<std::string, std::vector<std::string>> expectedOrder;
    for (const auto& [id, target] : expected) {
        EXPECT_EQ(server.delivered[id], 1) << id;
        expectedOrder[target].push_back(id);
    }
    EXPECT_EQ(server.order, expectedOrder);

    // What the kills hit depends on how fast the runs are; the outcome must
    // not. Only a send killed after the server took it needs the check in Sent.
    std::map<std::string, int> phases;
    for (const auto& p : readLines(phaseLog)) ++phases[p];
    if (phases["after server accepted the send"] > 0) {
        EXPECT_GT(server.verifications, 0);
    }
    std::cout << "kills: " << selfKills << " at chosen stages, " << timedKills
              << " after random delays; " << finishedEarly
              << " runs finished first; operations: " << expected.size()
              << ", verifications: " << server.verifications << ", seed " << seed << "\n";
    for (const auto& [phase, count] : phases)
        std::cout << "  killed at " << phase << ": " << count << "\n";
}

}  // namespace
}  // namespace mailcore
