// A process killed in the middle of a large upsertSync leaves the database
// consistent: the whole batch or none of it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "StoreTestSupport.h"

namespace mailcore {
namespace {

using testing::message;

constexpr int batchSize = 4000;

std::vector<MessageIndexFields> bigBatch(const AccountID& account, FolderID folder,
                                         std::uint32_t firstUID) {
    std::vector<MessageIndexFields> batch;
    for (int i = 0; i < batchSize; ++i) {
        std::uint32_t uid = firstUID + static_cast<std::uint32_t>(i);
        std::string id = "<" + std::to_string(uid) + "@crash.test>";
        std::string parent = i % 3 ? "<" + std::to_string(uid - 1) + "@crash.test>" : "";
        auto f = message(account, folder, uid, id, parent, parent,
                         "Subject number " + std::to_string(i % 50),
                         "p" + std::to_string(i % 17) + "@x", "q@x", 1000 + i);
        f.snippet = "snippet words " + std::to_string(i);
        batch.push_back(std::move(f));
    }
    return batch;
}

using CrashSafetyTest = testing::StoreFixture;

TEST_F(CrashSafetyTest, KilledBatchIsAllOrNothing) {
    store->upsertSync({message(account, inbox, 1, "<seed@x>", "", "", "seed")});
    std::int64_t expected = 1;
    int killedMidway = 0;
    std::uint32_t nextUID = 10;
    for (int delay : {15, 60, 150, 400}) {
        SCOPED_TRACE("killed after " + std::to_string(delay) + " ms");
        auto batch = bigBatch(account, inbox, nextUID);
        nextUID += batchSize;
        store.reset();
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(ready[0]);
            try {
                SQLiteMailStore child(StoreLocation::file(dir.file("mail.db")));
                char byte = 1;
                if (::write(ready[1], &byte, 1) != 1) ::_exit(2);
                child.upsertSync(batch);
            } catch (...) {
                ::_exit(1);
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        ::usleep(static_cast<useconds_t>(delay) * 1000);
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        bool killed = WIFSIGNALED(status);
        if (!killed) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
        }

        reopen();
        store->read([](SQLiteDatabase& db) {
            EXPECT_EQ(db.queryOne<std::string>("PRAGMA integrity_check", {},
                                               [](const SQLRow& r) { return r.text(0); }),
                      "ok");
            EXPECT_FALSE(db.scalarInt("SELECT 1 FROM pragma_foreign_key_check").has_value());
        });
        std::int64_t messages = rows("messages");
        ASSERT_TRUE(messages == expected || messages == expected + batchSize) << messages;
        if (killed && messages == expected) ++killedMidway;
        expected = messages;
        EXPECT_EQ(rows("message_search"), messages);
        EXPECT_EQ(rows("participants"), 2 * messages);  // one sender and one recipient each
        EXPECT_EQ(rows("threads t WHERE NOT EXISTS (SELECT 1 FROM messages m WHERE m.thread_id = "
                       "t.id)"),
                  0);
        EXPECT_EQ(store->folder(inbox)->totalCount, messages);
    }
    // At least one kill must have landed inside a batch for the test to mean anything.
    EXPECT_GT(killedMidway, 0);
}

}  // namespace
}  // namespace mailcore
