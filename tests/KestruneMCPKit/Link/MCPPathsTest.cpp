#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/Posix.h"
#include "tests/fakes/LinkTestSupport.h"

namespace {

namespace fs = std::filesystem;
using mcpkit::MCPSocketError;
namespace MCPPaths = mcpkit::MCPPaths;

mode_t modeOf(const fs::path& p) {
    struct stat st {};
    EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
    return st.st_mode & 07777;
}

TEST(MCPPathsTest, BaseDirectoryIsUnderTheDataDirectoryOrTheHome) {
    EXPECT_EQ(MCPPaths::baseDirectory(fs::path("/data"), "/home/u"), fs::path("/data/mcp"));
    EXPECT_EQ(MCPPaths::baseDirectory(std::nullopt, "/home/u"),
              fs::path("/home/u/.local/share/kestrune/mcp"));
}

TEST(MCPPathsTest, FallbackHashIsTheFixedFnvVariant) {
    // Values computed independently: 64-bit FNV-1a with prime 0x100000001B3
    // and start value 0x14650FB0739D0383.
    EXPECT_EQ(MCPPaths::fallbackHash(""), 0x14650FB0739D0383ULL);
    EXPECT_EQ(MCPPaths::fallbackHash("/home/a"), 0x56537ba53227e2ffULL);
    EXPECT_EQ(MCPPaths::fallbackHash("/root/" + std::string(120, 'd')), 0xc5b4d45f0c7b1021ULL);
}

TEST(MCPPathsTest, SocketPathFallsBackToTmpBeyondOneHundredBytes) {
    // "/kestrune.sock" is 14 bytes: a base of 86 bytes gives exactly 100.
    const std::string base86 = "/" + std::string(85, 'b');
    EXPECT_EQ(MCPPaths::socketURL(base86, 501), fs::path(base86 + "/kestrune.sock"));
    const std::string base87 = "/" + std::string(86, 'b');
    char expected[96];
    std::snprintf(expected, sizeof expected, "/tmp/kestrune-501-%llx/kestrune.sock",
                  MCPPaths::fallbackHash(base87));
    EXPECT_EQ(MCPPaths::socketURL(base87, 501), fs::path(expected));
    // No leading zeros: the hash text is at most 16 digits and never starts with 0.
    const std::string name = fs::path(expected).parent_path().filename().string();
    EXPECT_NE(name.substr(std::string("kestrune-501-").size(), 1), "0");
    EXPECT_EQ(MCPPaths::socketURL(base87).parent_path().filename().string().rfind(
                  "kestrune-" + std::to_string(::getuid()) + "-", 0),
              0u);
}

TEST(MCPPathsTest, PrepareCreatesMissingDirectoriesPrivately) {
    linktest::TempDir tmp;
    const fs::path deep = tmp / "a/b/c";
    MCPPaths::preparePrivateDirectory(deep);
    EXPECT_EQ(modeOf(tmp / "a"), 0700u);
    EXPECT_EQ(modeOf(tmp / "a/b"), 0700u);
    EXPECT_EQ(modeOf(deep), 0700u);
    MCPPaths::preparePrivateDirectory(deep);  // again: nothing changes, nothing thrown
    EXPECT_EQ(modeOf(deep), 0700u);
}

TEST(MCPPathsTest, PrepareTightensAnOpenDirectory) {
    linktest::TempDir tmp;
    const fs::path dir = tmp / "open";
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
    MCPPaths::preparePrivateDirectory(dir);
    EXPECT_EQ(modeOf(dir), 0700u);
}

TEST(MCPPathsTest, PrepareRefusesSymlinksAndFiles) {
    linktest::TempDir tmp;
    fs::create_directory(tmp / "real");
    fs::create_directory_symlink(tmp / "real", tmp / "link");
    fs::create_directory_symlink(tmp / "missing", tmp / "dangling");
    std::FILE* f = std::fopen((tmp / "file").c_str(), "w");
    std::fclose(f);
    for (const char* name : {"link", "dangling", "file"}) {
        SCOPED_TRACE(name);
        try {
            MCPPaths::preparePrivateDirectory(tmp / name);
            ADD_FAILURE() << "accepted";
        } catch (const MCPSocketError& e) {
            EXPECT_EQ(e, MCPSocketError::insecureDirectory((tmp / name).string()));
        }
    }
}

TEST(MCPPathsTest, PrepareRefusesADirectoryOfAnotherUser) {
    if (!linktest::canSwitchUser())
        GTEST_SKIP() << "needs root to give a directory to another user";
    linktest::TempDir tmp;
    const fs::path dir = tmp / "theirs";
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(::chown(dir.c_str(), linktest::otherUserID(), linktest::otherGroupID()), 0);
    EXPECT_THROW(MCPPaths::preparePrivateDirectory(dir), MCPSocketError);
}

TEST(PosixTest, AddressAcceptsFewerThan104Bytes) {
    EXPECT_NO_THROW(mcpkit::Posix::address(std::string(103, 'p')));
    try {
        mcpkit::Posix::address(std::string(104, 'p'));
        ADD_FAILURE() << "accepted 104 bytes";
    } catch (const MCPSocketError& e) {
        EXPECT_EQ(e, MCPSocketError::pathTooLong());
    }
}

TEST(PosixTest, WriteAllToAClosedPeerFailsWithoutASignal) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ::close(fds[1]);
    // SIGPIPE is not ignored in this test process: a signal would end it.
    EXPECT_FALSE(mcpkit::Posix::writeAll(fds[0], "hello"));
    ::close(fds[0]);
}

TEST(PosixTest, WriteAllWritesToPipesToo) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_TRUE(mcpkit::Posix::writeAll(fds[1], "abc"));
    ::close(fds[1]);
    EXPECT_EQ(linktest::readAll(fds[0]), "abc");
    ::close(fds[0]);
}

TEST(MCPSocketErrorTest, TextualFormIsTheCaseDescription) {
    EXPECT_STREQ(MCPSocketError::system("connect", 13).what(), "system(connect, 13)");
    EXPECT_STREQ(MCPSocketError::insecureDirectory("/x").what(), "insecureDirectory(/x)");
    EXPECT_STREQ(MCPSocketError::pathTooLong().what(), "pathTooLong");
    EXPECT_STREQ(MCPSocketError::alreadyRunning().what(), "alreadyRunning");
    EXPECT_NE(MCPSocketError::system("connect", 13), MCPSocketError::system("bind", 13));
}

}  // namespace
