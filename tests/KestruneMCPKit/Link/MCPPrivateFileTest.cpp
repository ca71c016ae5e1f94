// The writer behind every private agent-access file (tokens, policy state,
// audit log): owner-only modes, whole-file replacement, appends, failures.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "KestruneMCPKit/Link/MCPPrivateFile.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/TestFiles.h"

namespace mcpkit {
namespace {

namespace fs = std::filesystem;
using namespace testfiles;

TEST(MCPPrivateFileTest, WritesReplaceWholeFilesOwnerOnlyAndLeaveNoTemporaryFile) {
    linktest::TempDir dir;
    const fs::path file = dir / "state.json";
    writeFile(file, "old");
    fs::permissions(file, fs::perms(0644));
    const auto before = MCPPrivateFile::stamp(file);
    const auto written = MCPPrivateFile::writeAtomically(file, "new content");
    ASSERT_TRUE(written);
    EXPECT_EQ(MCPPrivateFile::read(file), "new content");
    EXPECT_EQ(fileMode(file), 0600u);
    EXPECT_EQ(MCPPrivateFile::stamp(file), written);
    EXPECT_NE(written, before) << "a replacement is a new version";
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"state.json"});

    ASSERT_TRUE(MCPPrivateFile::append(dir / "log", "a\n"));
    ASSERT_TRUE(MCPPrivateFile::append(dir / "log", "b\n"));
    EXPECT_EQ(readFile(dir / "log"), "a\nb\n");
    EXPECT_EQ(fileMode(dir / "log"), 0600u);

    writeFile(dir / "loose", "x");
    fs::permissions(dir / "loose", fs::perms(0664));
    MCPPrivateFile::restrictToOwner(dir / "loose");
    EXPECT_EQ(fileMode(dir / "loose"), 0600u);
}

TEST(MCPPrivateFileTest, AReaderSeesTheOldContentOrTheNewNeverAMix) {
    linktest::TempDir dir;
    const fs::path file = dir / "tokens.json";
    const std::string a(100000, 'a'), b(100000, 'b');
    ASSERT_TRUE(MCPPrivateFile::writeAtomically(file, a, nullptr, false));
    std::atomic<bool> done{false};
    std::atomic<int> mixed{0};
    std::thread reader([&] {
        while (!done) {
            const auto text = MCPPrivateFile::read(file);
            if (!text || (*text != a && *text != b)) ++mixed;
        }
    });
    for (int i = 0; i < 50; ++i)
        MCPPrivateFile::writeAtomically(file, i % 2 ? a : b, nullptr, false);
    done = true;
    reader.join();
    EXPECT_EQ(mixed.load(), 0);
}

TEST(MCPPrivateFileTest, FailuresAreReportedAndLeaveTheFileAlone) {
    linktest::TempDir dir;
    std::string error;
    EXPECT_FALSE(MCPPrivateFile::writeAtomically(dir / "missing" / "f", "x", &error));
    EXPECT_FALSE(error.empty());
    error.clear();
    EXPECT_FALSE(MCPPrivateFile::append(dir / "missing" / "f", "x", &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(MCPPrivateFile::read(dir / "missing" / "f"), std::nullopt);
    EXPECT_EQ(MCPPrivateFile::stamp(dir / "missing"), std::nullopt);

    // A directory where the file should be: the rename fails, nothing is left behind.
    fs::create_directories(dir / "taken" / "inside");
    EXPECT_FALSE(MCPPrivateFile::writeAtomically(dir / "taken", "x", &error));
    EXPECT_TRUE(fs::is_directory(dir / "taken" / "inside"));
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"taken"}));
}

}  // namespace
}  // namespace mcpkit
