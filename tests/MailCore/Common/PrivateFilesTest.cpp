#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "MailCore/Common/PrivateFiles.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

namespace fs = std::filesystem;
using testfiles::readFile;
using testfiles::writeFile;

constexpr std::size_t bound = 64 * 1024;

// Each row plants something hostile at the path. Reading and appending must
// refuse it at once (none of these may block) and leave what is behind it
// untouched; an atomic write replaces the entry itself, never a target.
struct HostileFile {
    const char* name;
    std::function<void(const fs::path& at, const fs::path& victim)> plant;
    const char* problem;
};

TEST(PrivateFilesTest, HostileFilesAreRefusedWithoutBlocking) {
    const std::vector<HostileFile> rows = {
        {"symbolic link to a private file",
         [](const fs::path& at, const fs::path& victim) { fs::create_symlink(victim, at); },
         "is a symbolic link"},
        {"dangling symbolic link",
         [](const fs::path& at, const fs::path& victim) {
             fs::create_symlink(victim.string() + ".none", at);
         },
         "is a symbolic link"},
        {"FIFO with no writer",
         [](const fs::path& at, const fs::path&) { ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0); },
         "is not a regular file"},
        {"directory", [](const fs::path& at, const fs::path&) { fs::create_directory(at); },
         "is not a regular file"},
        {"file one byte over the bound",
         [](const fs::path& at, const fs::path&) { writeFile(at, std::string(bound + 1, 'x')); },
         "is larger than 64 KiB"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        testfiles::TempDir dir;
        const fs::path at = dir / "state.json";
        const fs::path victim = dir / "victim";
        writeFile(victim, "secret");
        row.plant(at, victim);
        const auto files = systemFiles();

        const FileRead read = files->read(at, bound);
        EXPECT_TRUE(read.refused());
        EXPECT_EQ(read.problem, row.problem);

        std::string error;
        const bool appended = files->append(at, "line\n", &error);
        if (fs::is_regular_file(fs::symlink_status(at))) continue;  // the oversized file
        EXPECT_FALSE(appended);
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(readFile(victim), "secret");
    }
}

TEST(PrivateFilesTest, ReadsRegularFilesUpToTheBoundAndTellsMissingApart) {
    testfiles::TempDir dir;
    const auto files = systemFiles();
    EXPECT_TRUE(files->read(dir / "none", bound).missing());
    EXPECT_TRUE(files->read(dir / "no-dir" / "none", bound).missing());
    writeFile(dir / "exact", std::string(bound, 'y'));
    const FileRead exact = files->read(dir / "exact", bound);
    ASSERT_TRUE(exact.ok());
    EXPECT_EQ(exact.bytes.size(), bound);
    EXPECT_EQ(exact.stamp, files->stamp(dir / "exact"));
}

TEST(PrivateFilesTest, AtomicWriteReplacesALinkNotItsTargetAndIsPrivate) {
    testfiles::TempDir dir;
    writeFile(dir / "victim", "secret");
    fs::create_symlink(dir / "victim", dir / "state.json");
    const auto stamp = systemFiles()->writeAtomically(dir / "state.json", "{}");
    ASSERT_TRUE(stamp);
    EXPECT_EQ(readFile(dir / "victim"), "secret");
    EXPECT_EQ(readFile(dir / "state.json"), "{}");
    EXPECT_EQ(testfiles::fileMode(dir / "state.json"), 0600u);
    EXPECT_EQ(testfiles::namesIn(dir.path()), (std::vector<std::string>{"state.json", "victim"}));
}

TEST(PrivateFilesTest, RefusalBeforeReplaceLeavesTheTargetAndNoTemporaryFile) {
    testfiles::TempDir dir;
    writeFile(dir / "config.json", "old");
    WriteOptions options;
    options.beforeReplace = [] { return std::optional<std::string>("changed meanwhile"); };
    std::string error;
    EXPECT_FALSE(systemFiles()->writeAtomically(dir / "config.json", "new", &error, options));
    EXPECT_EQ(error, "changed meanwhile");
    EXPECT_EQ(readFile(dir / "config.json"), "old");
    EXPECT_EQ(testfiles::namesIn(dir.path()), std::vector<std::string>{"config.json"});
}

}  // namespace
}  // namespace mailcore
