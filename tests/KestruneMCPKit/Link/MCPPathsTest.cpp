#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/Posix.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/TestFiles.h"

namespace {

namespace fs = std::filesystem;
using mcpkit::MCPSocketError;
namespace MCPPaths = mcpkit::MCPPaths;
using testfiles::caught;
using testfiles::fileMode;

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

TEST(MCPPathsTest, PrepareCreatesOrTightensDirectoriesAndRefusesLinksAndFiles) {
    testfiles::TempDir tmp;
    const fs::path deep = tmp / "a/b/c";
    MCPPaths::preparePrivateDirectory(deep);
    MCPPaths::preparePrivateDirectory(deep);  // again: nothing changes, nothing thrown
    for (const char* made : {"a", "a/b", "a/b/c"}) EXPECT_EQ(fileMode(tmp / made), 0700u) << made;
    ASSERT_EQ(::mkdir((tmp / "open").c_str(), 0755), 0);
    ASSERT_EQ(::chmod((tmp / "open").c_str(), 0755), 0);
    MCPPaths::preparePrivateDirectory(tmp / "open");
    EXPECT_EQ(fileMode(tmp / "open"), 0700u);

    fs::create_directory_symlink(tmp / "open", tmp / "link");
    fs::create_directory_symlink(tmp / "missing", tmp / "dangling");
    std::fclose(std::fopen((tmp / "file").c_str(), "w"));
    for (const char* name : {"link", "dangling", "file"}) {
        EXPECT_EQ(caught<MCPSocketError>([&] { MCPPaths::preparePrivateDirectory(tmp / name); }),
                  MCPSocketError::insecureDirectory((tmp / name).string()));
    }
}

TEST(MCPPathsTest, PrepareRefusesADirectoryOfAnotherUser) {
    if (!linktest::canSwitchUser())
        GTEST_SKIP() << "needs root to give a directory to another user";
    testfiles::TempDir tmp;
    const fs::path dir = tmp / "theirs";
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(::chown(dir.c_str(), linktest::otherUserID(), linktest::otherGroupID()), 0);
    EXPECT_THROW(MCPPaths::preparePrivateDirectory(dir), MCPSocketError);
}

TEST(PosixTest, AddressAcceptsFewerThan104Bytes) {
    EXPECT_NO_THROW(mcpkit::Posix::address(std::string(103, 'p')));
    EXPECT_EQ(caught<MCPSocketError>([] { mcpkit::Posix::address(std::string(104, 'p')); }),
              MCPSocketError::pathTooLong());
}

TEST(PosixTest, WriteAllToAClosedPeerFailsWithoutASignal) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ::close(fds[1]);
    // SIGPIPE is not ignored in this test process: a signal would end it.
    EXPECT_FALSE(mcpkit::Posix::writeAll(fds[0], "hello"));
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
