#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "KestruneMCPKit/Link/FrameReader.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Link/MCPPairLink.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Link/Posix.h"
#include "tests/fakes/LinkTestSupport.h"
#include "tests/fakes/TestFiles.h"

namespace {

namespace fs = std::filesystem;
using mailcore::Json;
using mcpkit::MCPLinkError;
using mcpkit::MCPSocketError;
using mcpkit::MCPSocketLink;
using mcpkit::MCPSocketServer;
using testfiles::caught;
using testfiles::fileMode;

const std::string tooLarge = R"({"ok":false,"code":"bad_request","error":"Request too large."})";

// Answers {"ok":true,"echo":<request>,"size":<bytes>}; a request with "raw"
// is answered with that text as it is, one with "replyBytes" with an object
// of exactly that many bytes.
std::string echoHandler(const std::string& request) {
    Json parsed = mailcore::parseJson(request);
    if (parsed.contains("raw")) return parsed["raw"].get<std::string>();
    if (parsed.contains("replyBytes")) {
        const std::size_t overhead = std::string(R"({"ok":true,"t":""})").size();
        return R"({"ok":true,"t":")" +
               std::string(parsed["replyBytes"].get<std::size_t>() - overhead, 'y') + "\"}";
    }
    return mailcore::encodeJson(Json{{"ok", true}, {"echo", parsed}, {"size", request.size()}});
}

class MCPSocketServerTest : public ::testing::Test {
protected:
    MCPSocketServer server(const std::string& at) {
        return MCPSocketServer(at, mcpkit::MCP::maxFrameBytes, echoHandler);
    }
    static std::string echoed(const std::string& at, const std::string& op) {
        return MCPSocketLink(at, 5).send(Json{{"op", op}})["echo"]["op"];
    }
    static std::optional<MCPLinkError> linkError(const std::string& at, const Json& request) {
        return caught<MCPLinkError>([&] { MCPSocketLink(at, 1).send(request); });
    }

    testfiles::TempDir tmp;
    std::string dir = (tmp / "mcp").string();
    std::string path = dir + "/kestrune.sock";
};

TEST_F(MCPSocketServerTest, ServesWhileRunningAndRemovesTheSocketWhenStopped) {
    MCPSocketServer s = server(path);
    EXPECT_FALSE(s.isRunning());
    s.start();
    s.start();  // a second start while running does nothing
    EXPECT_TRUE(s.isRunning());
    EXPECT_EQ(fileMode(dir), 0700u);
    EXPECT_TRUE(fs::is_socket(fs::symlink_status(path)));
    EXPECT_EQ(fileMode(path), 0600u);
    EXPECT_EQ(echoed(path, "hello"), "hello");

    s.stop();
    s.stop();
    EXPECT_FALSE(s.isRunning());
    EXPECT_FALSE(fs::exists(fs::symlink_status(path)));
    EXPECT_EQ(linkError(path, Json::object()), MCPLinkError::appNotRunning());
    s.start();  // restarts on the same path
    EXPECT_EQ(echoed(path, "again"), "again");
}

// A live server keeps its path; a stale socket file is replaced; any other
// file is left alone; a linked directory is refused.
TEST_F(MCPSocketServerTest, OnlyAStaleSocketFileIsReplaced) {
    mcpkit::MCPPaths::preparePrivateDirectory(dir);
    {
        // A socket file with nothing listening, as a crash leaves it.
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = mcpkit::Posix::address(path);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    EXPECT_EQ(linkError(path, Json::object()), MCPLinkError::appNotRunning()) << "refused";
    {
        MCPSocketServer first = server(path), second = server(path);
        first.start();
        EXPECT_EQ(caught<MCPSocketError>([&] { second.start(); }),
                  MCPSocketError::alreadyRunning());
        EXPECT_FALSE(second.isRunning());
        EXPECT_EQ(echoed(path, "x"), "x");
    }
    testfiles::writeFile(path, "keep");
    MCPSocketServer overFile = server(path);
    EXPECT_EQ(caught<MCPSocketError>([&] { overFile.start(); }),
              MCPSocketError::system("not a socket", EEXIST));
    EXPECT_EQ(testfiles::readFile(path), "keep");

    fs::create_directory(tmp / "real");
    fs::create_directory_symlink(tmp / "real", tmp / "linked");
    MCPSocketServer linked = server((tmp / "linked/kestrune.sock").string());
    EXPECT_TRUE(caught<MCPSocketError>([&] { linked.start(); }));
    EXPECT_FALSE(fs::exists(tmp / "real/kestrune.sock"));
}

TEST_F(MCPSocketServerTest, SocketPathsOf104BytesFailAnd103Work) {
    for (std::size_t length : {103u, 104u}) {
        SCOPED_TRACE(length);
        // Pad a directory so that dir + "/s" has the wanted length.
        const std::string root = tmp.path().string();
        const std::string longDir = root + "/" + std::string(length - 3 - root.size(), 'd');
        const std::string longPath = longDir + "/s";
        ASSERT_EQ(longPath.size(), length);
        MCPSocketServer s = server(longPath);
        if (length == 103) {
            s.start();
            EXPECT_EQ(echoed(longPath, "x"), "x");
        } else {
            EXPECT_EQ(caught<MCPSocketError>([&] { s.start(); }), MCPSocketError::pathTooLong());
            EXPECT_EQ(linkError(longPath, Json::object()), MCPLinkError::transport("pathTooLong"));
        }
        fs::remove_all(longDir);
    }
}

TEST_F(MCPSocketServerTest, OneMebibyteRequestIsServedAndOneByteMoreIsRefused) {
    MCPSocketServer s = server(path);
    s.start();
    const std::size_t overhead = std::string(R"({"s":""})").size();
    for (std::size_t size : {mcpkit::MCP::maxFrameBytes, mcpkit::MCP::maxFrameBytes + 1}) {
        SCOPED_TRACE(size);
        const std::string frame = R"({"s":")" + std::string(size - overhead, 'x') + "\"}\n";
        int fd = linktest::rawConnect(path);
        ASSERT_GE(fd, 0);
        std::thread writer([&] { mcpkit::Posix::writeAll(fd, frame); });
        // A served request leaves the connection open for the next one; a
        // refused one ends it.
        const bool served = size == mcpkit::MCP::maxFrameBytes;
        std::string answer =
            served ? mcpkit::FrameReader(fd, 4 * size).next().bytes : linktest::readAll(fd);
        writer.join();
        ::close(fd);
        if (served) {
            EXPECT_EQ(mailcore::parseJson(answer)["size"], size);
        } else {
            EXPECT_EQ(answer, tooLarge + "\n");
        }
    }
}

TEST_F(MCPSocketServerTest, FramesOnOneConnectionAreAnsweredInOrderAndBlankLinesSkipped) {
    MCPSocketServer s = server(path);
    s.start();
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
    MCPSocketServer s = server(path);
    s.start();
    const std::pair<Json, std::optional<MCPLinkError>> cases[] = {
        {Json{{"raw", "{oops"}}, MCPLinkError::malformedReply()},
        {Json{{"raw", "[1,2]"}}, MCPLinkError::malformedReply()},
        // A blank reply line is skipped; nothing else comes before the time-out.
        {Json{{"raw", ""}}, MCPLinkError::transport("no reply from the app")},
        {Json{{"replyBytes", 4194304}}, std::nullopt},
        {Json{{"replyBytes", 4194305}}, MCPLinkError::transport("no reply from the app")},
    };
    for (const auto& [request, error] : cases)
        EXPECT_EQ(linkError(path, request), error) << request.dump().substr(0, 40);
    s.stop();
    // Absent: no such file, or a path through a regular file.
    testfiles::writeFile(tmp / "plain", "");
    for (const std::string& absent : {path, (tmp / "plain/kestrune.sock").string()})
        EXPECT_EQ(linkError(absent, Json::object()), MCPLinkError::appNotRunning()) << absent;
}

TEST_F(MCPSocketServerTest, AThrowingHandlerEndsTheConnectionWithoutAReply) {
    MCPSocketServer s(path, mcpkit::MCP::maxFrameBytes,
                      [](const std::string&) -> std::string { throw std::runtime_error("x"); });
    s.start();
    EXPECT_EQ(linkError(path, Json::object()), MCPLinkError::transport("no reply from the app"));
}

TEST_F(MCPSocketServerTest, DestroyingTheServerEndsIdleConnections) {
    std::atomic<int> calls{0};
    int fd = -1;
    {
        MCPSocketServer s(path, mcpkit::MCP::maxFrameBytes, [&](const std::string& r) {
            ++calls;
            return echoHandler(r);
        });
        s.start();
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
    EXPECT_EQ(caught<MCPLinkError>([&] {
                  link.send(Json{{"raw", "nope"}});
              }),
              MCPLinkError::malformedReply());
    Json big{{"s", std::string(mcpkit::MCP::maxFrameBytes, 'x')}};
    EXPECT_EQ(mailcore::encodeJson(link.send(big)), tooLarge);
}

TEST(ForeignPeerTest, TheServerDropsAPeerOfAnotherUserAndTheClientRefusesAForeignServer) {
    if (!linktest::canSwitchUser()) GTEST_SKIP() << "needs root to run a peer as another user";
    testfiles::TempDir tmp;
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
        auto error = caught<MCPSocketError>([&] { ::close(mcpkit::Posix::connect(path)); });
        if (!error) return result | 2;
        return *error == MCPSocketError::system("peer", 1) ? result : 65;
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

// Hostile peers against a bounded server: each row attacks, then a normal
// request must still get its answer (or, when every place is busy with a
// request, a reply that says so). Nothing here measures time.
TEST(MCPSocketServerHostileTest, AttacksOnConnectionsNeverStarveARealRequest) {
    using Limits = MCPSocketServer::Limits;
    struct Attack {
        const char* name;
        Limits limits;
        // Opens the attack's connections; returns them (closed by the test).
        std::function<std::vector<int>(const std::string& path)> attack;
        std::string expected;  // what the real request gets: its echo, or the refusal
    };
    std::mutex m;
    std::condition_variable cv;
    int holding = 0;
    bool release = false;
    auto handler = [&](const std::string& request) {
        if (request.find("hold") != std::string::npos) {
            std::unique_lock guard(m);
            ++holding;
            cv.notify_all();
            cv.wait(guard, [&] { return release; });
        }
        return echoHandler(request);
    };
    const std::string busy = "Kestrune is busy with other requests. Try again in a moment.";
    const std::vector<Attack> attacks = {
        {"300 idle connections, more than the server holds", Limits{8, std::chrono::seconds(60)},
         [](const std::string& at) {
             std::vector<int> fds;
             for (int i = 0; i < 300; ++i) fds.push_back(linktest::rawConnect(at));
             return fds;
         },
         "hello"},
        {"a peer trickling one byte at a time and never ending its frame",
         Limits{8, std::chrono::milliseconds(300)},
         [](const std::string& at) {
             const int fd = linktest::rawConnect(at);
             // Goes on until the server closes the connection.
             while (::send(fd, "{", 1, MSG_NOSIGNAL) == 1) {
                 std::this_thread::sleep_for(std::chrono::milliseconds(20));
             }
             return std::vector<int>{fd};
         },
         "hello"},
        {"every place busy with a request", Limits{2, std::chrono::seconds(60)},
         [&](const std::string& at) {
             std::vector<int> fds;
             for (int i = 0; i < 2; ++i) {
                 fds.push_back(linktest::rawConnect(at));
                 mcpkit::Posix::writeAll(fds.back(), "{\"hold\":true}\n");
             }
             std::unique_lock guard(m);
             cv.wait(guard, [&] { return holding == 2; });
             return fds;
         },
         busy},
    };
    for (const auto& row : attacks) {
        SCOPED_TRACE(row.name);
        testfiles::TempDir tmp;
        const std::string at = (tmp / "k.sock").string();
        {
            std::lock_guard guard(m);
            holding = 0;
            release = false;
        }
        MCPSocketServer server(at, mcpkit::MCP::maxFrameBytes, handler, row.limits);
        server.start();
        std::vector<int> fds = row.attack(at);
        const Json answer = MCPSocketLink(at, 10).send(Json{{"op", "hello"}});
        if (row.expected == busy) {
            EXPECT_EQ(answer["code"], "refused");
            EXPECT_EQ(answer["error"], busy);
        } else {
            EXPECT_EQ(answer["echo"]["op"], row.expected);
        }
        {
            std::lock_guard guard(m);
            release = true;
        }
        cv.notify_all();
        for (int fd : fds) ::close(fd);
    }
}
