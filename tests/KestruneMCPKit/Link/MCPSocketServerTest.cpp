#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/FrameReader.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Link/MCPPairLink.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPServe.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Link/Posix.h"
#include "tests/fakes/LinkTestSupport.h"

namespace {

namespace fs = std::filesystem;
using mailcore::Json;
using mcpkit::MCPLinkError;
using mcpkit::MCPSocketError;
using mcpkit::MCPSocketLink;
using mcpkit::MCPSocketServer;

const std::string tooLarge = R"({"ok":false,"code":"bad_request","error":"Request too large."})";

// Answers {"ok":true,"echo":<request>,"size":<bytes>}; a request with "raw"
// is answered with that text as it is, one with "replyBytes" with an object
// of exactly that many bytes.
std::string echoHandler(const std::string& request) {
    Json parsed;
    if (!mailcore::tryParseJson(request, parsed)) return R"({"ok":false,"error":"not json"})";
    if (parsed.is_object() && parsed.contains("raw")) return parsed["raw"].get<std::string>();
    if (parsed.is_object() && parsed.contains("replyBytes")) {
        const std::size_t overhead = std::string(R"({"ok":true,"t":""})").size();
        return R"({"ok":true,"t":")" +
               std::string(parsed["replyBytes"].get<std::size_t>() - overhead, 'y') + "\"}";
    }
    return mailcore::encodeJson(Json{{"ok", true}, {"echo", parsed}, {"size", request.size()}});
}

mode_t modeOf(const fs::path& p) {
    struct stat st {};
    EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
    return st.st_mode & 07777;
}

class MCPSocketServerTest : public ::testing::Test {
protected:
    linktest::TempDir tmp;
    std::string dir = (tmp / "mcp").string();
    std::string path = dir + "/kestrune.sock";
};

TEST_F(MCPSocketServerTest, ServesWhileRunningAndRemovesTheSocketWhenStopped) {
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    EXPECT_FALSE(server.isRunning());
    server.start();
    server.start();  // a second start while running does nothing
    EXPECT_TRUE(server.isRunning());
    EXPECT_EQ(modeOf(dir), 0700u);
    EXPECT_TRUE(fs::is_socket(fs::symlink_status(path)));
    EXPECT_EQ(modeOf(path), static_cast<mode_t>(0600));

    MCPSocketLink link(path, 5);
    Json reply = link.send(Json{{"v", 1}, {"op", "hello"}});
    EXPECT_EQ(reply["echo"]["op"], "hello");

    server.stop();
    server.stop();
    EXPECT_FALSE(server.isRunning());
    EXPECT_FALSE(fs::exists(fs::symlink_status(path)));
    try {
        link.send(Json{{"op", "hello"}});
        ADD_FAILURE() << "sent to a stopped server";
    } catch (const MCPLinkError& e) {
        EXPECT_EQ(e, MCPLinkError::appNotRunning());
    }

    server.start();  // restarts on the same path
    EXPECT_EQ(link.send(Json{{"op", "again"}})["echo"]["op"], "again");
}

// A live server keeps its path; a stale socket file is replaced; any other
// file is left alone.
TEST_F(MCPSocketServerTest, OnlyAStaleSocketFileIsReplaced) {
    mcpkit::MCPPaths::preparePrivateDirectory(dir);
    {
        // A socket file with nothing listening, as a crash leaves it.
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = mcpkit::Posix::address(path);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    try {
        MCPSocketLink(path, 5).send(Json{{"op", "x"}});
        ADD_FAILURE() << "stale socket answered";
    } catch (const MCPLinkError& e) {
        EXPECT_EQ(e, MCPLinkError::appNotRunning());  // refused: not running
    }
    {
        MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
        server.start();
        MCPSocketServer second(path, mcpkit::MCP::maxFrameBytes, echoHandler);
        try {
            second.start();
            ADD_FAILURE() << "second server started";
        } catch (const MCPSocketError& e) {
            EXPECT_EQ(e, MCPSocketError::alreadyRunning());
        }
        EXPECT_FALSE(second.isRunning());
        EXPECT_EQ(MCPSocketLink(path, 5).send(Json{{"op", "x"}})["echo"]["op"], "x");
    }
    fs::remove(path);
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs("keep", f);
    std::fclose(f);
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    try {
        server.start();
        ADD_FAILURE() << "started over a regular file";
    } catch (const MCPSocketError& e) {
        EXPECT_EQ(e, MCPSocketError::system("not a socket", EEXIST));
    }
    EXPECT_TRUE(fs::is_regular_file(path));
}

TEST_F(MCPSocketServerTest, RefusesASymlinkedDirectory) {
    fs::create_directory(tmp / "real");
    fs::create_directory_symlink(tmp / "real", dir);
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    EXPECT_THROW(server.start(), MCPSocketError);
    EXPECT_FALSE(fs::exists(tmp / "real/kestrune.sock"));
}

TEST_F(MCPSocketServerTest, SocketPathsOf104BytesFailAnd103Work) {
    // tmp is "/tmp/kt-XXXXXX" (14 bytes); pad a directory so that
    // dir + "/s" has the wanted length.
    for (std::size_t length : {103u, 104u}) {
        SCOPED_TRACE(length);
        const std::size_t dirLength = length - 2;
        const std::string longDir = tmp.path().string() + "/" +
                                    std::string(dirLength - tmp.path().string().size() - 1, 'd');
        const std::string longPath = longDir + "/s";
        ASSERT_EQ(longPath.size(), length);
        MCPSocketServer server(longPath, mcpkit::MCP::maxFrameBytes, echoHandler);
        if (length == 103) {
            server.start();
            EXPECT_EQ(MCPSocketLink(longPath, 5).send(Json{{"op", "x"}})["echo"]["op"], "x");
        } else {
            try {
                server.start();
                ADD_FAILURE() << "started with 104 bytes";
            } catch (const MCPSocketError& e) {
                EXPECT_EQ(e, MCPSocketError::pathTooLong());
            }
            try {
                MCPSocketLink(longPath, 5).send(Json{{"op", "x"}});
                ADD_FAILURE() << "sent with 104 bytes";
            } catch (const MCPLinkError& e) {
                EXPECT_EQ(e, MCPLinkError::transport("pathTooLong"));
            }
        }
        fs::remove_all(longDir);
    }
}

TEST_F(MCPSocketServerTest, OneMebibyteRequestIsServedAndOneByteMoreIsRefused) {
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    server.start();
    // {"s":"xxx..."} padded to exactly the limit.
    const std::size_t overhead = std::string(R"({"s":""})").size();
    for (std::size_t size : {mcpkit::MCP::maxFrameBytes, mcpkit::MCP::maxFrameBytes + 1}) {
        SCOPED_TRACE(size);
        const std::string frame = R"({"s":")" + std::string(size - overhead, 'x') + "\"}\n";
        ASSERT_EQ(frame.size(), size + 1);
        int fd = linktest::rawConnect(path);
        ASSERT_GE(fd, 0);
        std::thread writer([&] { mcpkit::Posix::writeAll(fd, frame); });
        // A served request leaves the connection open for the next one; a
        // refused one ends it.
        std::string answer = size == mcpkit::MCP::maxFrameBytes
                                 ? mcpkit::FrameReader(fd, 4 * size).next().bytes
                                 : linktest::readAll(fd);
        writer.join();
        ::close(fd);
        if (size == mcpkit::MCP::maxFrameBytes) {
            Json reply = mailcore::parseJson(answer);
            EXPECT_EQ(reply["size"], size);
        } else {
            EXPECT_EQ(answer, tooLarge + "\n");
        }
    }
}

TEST_F(MCPSocketServerTest, FramesOnOneConnectionAreAnsweredInOrderAndBlankLinesSkipped) {
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    server.start();
    int fd = linktest::rawConnect(path);
    ASSERT_GE(fd, 0);
    // A handler reply without a line feed still arrives as one line.
    ASSERT_TRUE(mcpkit::Posix::writeAll(
        fd, "\n{\"n\":1}\n\n\n{\"raw\":\"{\\\"ok\\\":true}\"}\n{\"n\":3}\n"));
    EXPECT_EQ(mailcore::parseJson(*linktest::readLine(fd))["echo"]["n"], 1);
    EXPECT_EQ(linktest::readLine(fd), R"({"ok":true})");
    EXPECT_EQ(mailcore::parseJson(*linktest::readLine(fd))["echo"]["n"], 3);
    ::shutdown(fd, SHUT_WR);
    EXPECT_EQ(linktest::readAll(fd), "");  // the server closes after the peer's end
    ::close(fd);
}

TEST_F(MCPSocketServerTest, SocketLinkReportsBrokenRepliesAndAbsentApps) {
    struct Case {
        const char* name;
        Json request;
        std::optional<MCPLinkError> error;
    };
    const Case cases[] = {
        {"not json", Json{{"raw", "{oops"}}, MCPLinkError::malformedReply()},
        {"json but not an object", Json{{"raw", "[1,2]"}}, MCPLinkError::malformedReply()},
        // A blank reply line is skipped; nothing else comes before the time-out.
        {"blank reply line", Json{{"raw", ""}}, MCPLinkError::transport("no reply from the app")},
        {"reply of 4 MiB", Json{{"replyBytes", 4194304}}, std::nullopt},
        {"reply over 4 MiB", Json{{"replyBytes", 4194305}},
         MCPLinkError::transport("no reply from the app")},
    };
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, echoHandler);
    server.start();
    MCPSocketLink link(path, 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            Json reply = link.send(c.request);
            EXPECT_FALSE(c.error) << "got a reply";
            EXPECT_EQ(mailcore::encodeJson(reply).size(), c.request.value("replyBytes", 0u));
        } catch (const MCPLinkError& e) {
            ASSERT_TRUE(c.error) << e.what();
            EXPECT_EQ(e, *c.error);
        }
    }
    server.stop();

    // Absent: no such file, or a path through a regular file.
    std::FILE* f = std::fopen((tmp / "plain").c_str(), "w");
    std::fclose(f);
    for (const std::string& absent : {path, (tmp / "plain/kestrune.sock").string()}) {
        try {
            MCPSocketLink(absent, 5).send(Json::object());
            ADD_FAILURE() << absent;
        } catch (const MCPLinkError& e) {
            EXPECT_EQ(e, MCPLinkError::appNotRunning()) << absent;
        }
    }
}

TEST_F(MCPSocketServerTest, AThrowingHandlerEndsTheConnectionWithoutAReply) {
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, [](const std::string&) -> std::string {
        throw std::runtime_error("x");
    });
    server.start();
    try {
        MCPSocketLink(path, 5).send(Json::object());
        ADD_FAILURE() << "replied";
    } catch (const MCPLinkError& e) {
        EXPECT_EQ(e, MCPLinkError::transport("no reply from the app"));
    }
}

TEST_F(MCPSocketServerTest, DestroyingTheServerEndsIdleConnections) {
    std::atomic<int> calls{0};
    int fd = -1;
    {
        MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, [&](const std::string& r) {
            ++calls;
            return echoHandler(r);
        });
        server.start();
        fd = linktest::rawConnect(path);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(mcpkit::Posix::writeAll(fd, "{\"n\":1}\n"));
        ASSERT_TRUE(linktest::readLine(fd));
        // The connection stays open and idle while the server goes away.
    }
    EXPECT_EQ(linktest::readAll(fd, std::chrono::seconds(5)), "");
    EXPECT_EQ(calls.load(), 1);
    ::close(fd);
}

TEST(MCPPairLinkTest, CarriesRequestsAndRefusesWhatTheServerWould) {
    mcpkit::MCPPairLink link(echoHandler);
    EXPECT_EQ(link.send(Json{{"op", "hello"}})["echo"]["op"], "hello");
    EXPECT_THROW(link.send(Json{{"raw", "nope"}}), MCPLinkError);
    Json big{{"s", std::string(mcpkit::MCP::maxFrameBytes, 'x')}};
    EXPECT_EQ(mailcore::encodeJson(link.send(big)), tooLarge);
}

class ForeignPeerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!linktest::canSwitchUser()) GTEST_SKIP() << "needs root to run a peer as another user";
    }
};

TEST_F(ForeignPeerTest, TheServerDropsAPeerOfAnotherUserAndTheClientRefusesAForeignServer) {
    linktest::TempDir tmp;
    const std::string dir = (tmp / "mcp").string();
    const std::string path = dir + "/kestrune.sock";
    // The child is forked before any thread starts. It reports:
    //   bit 0: the server answered it (must not happen)
    //   bit 1: Posix::connect accepted the foreign server (must not happen)
    linktest::OtherUserProcess child([&] {
        int result = 0;
        int fd = linktest::rawConnect(path);
        if (fd < 0) return 64;
        mcpkit::Posix::writeAll(fd, "{\"op\":\"hello\"}\n");
        if (!linktest::readAll(fd, std::chrono::seconds(5)).empty()) result |= 1;
        ::close(fd);
        try {
            ::close(mcpkit::Posix::connect(path));
            result |= 2;
        } catch (const MCPSocketError& e) {
            if (!(e == MCPSocketError::system("peer", 1))) return 65;
        }
        return result;
    });
    std::atomic<int> calls{0};
    MCPSocketServer server(path, mcpkit::MCP::maxFrameBytes, [&](const std::string& r) {
        ++calls;
        return echoHandler(r);
    });
    server.start();
    // Open the way for the other user to reach the socket at all.
    ASSERT_EQ(::chmod(tmp.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    child.go();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(calls.load(), 0);
}

}  // namespace
