// Drives the built kestrune-mcp executable as a harness would: environment,
// stdin lines, stdout lines, exit status.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Shim/MCPShim.h"
#include "tests/fakes/TestFiles.h"

namespace {

using mailcore::Json;
using testfiles::ProcessOutcome;
using testfiles::runHelper;

std::vector<Json> lines(const std::string& text) {
    std::vector<Json> out;
    std::size_t start = 0;
    for (std::size_t lf; (lf = text.find('\n', start)) != std::string::npos; start = lf + 1)
        out.push_back(mailcore::parseJson(text.substr(start, lf - start)));
    EXPECT_EQ(start, text.size()) << "unterminated output";
    return out;
}

Json byID(const std::vector<Json>& answers, const Json& id) {
    for (const auto& a : answers)
        if (a["id"] == id) return a;
    ADD_FAILURE() << "no answer for id " << id;
    return Json();
}

const std::string missingToken =
    "kestrune-mcp: KESTRUNE_MCP_TOKEN is not set. Reinstall this server from the Kestrune app "
    "(Agent access).\n";

TEST(HelperProcessTest, WithoutATokenItSaysSoOnStderrAndExitsTwo) {
    for (const std::vector<std::string>& env :
         {std::vector<std::string>{"HOME=/nonexistent"},
          std::vector<std::string>{"HOME=/nonexistent", "KESTRUNE_MCP_TOKEN="}}) {
        ProcessOutcome o = runHelper({}, env,
                                     R"({"jsonrpc":"2.0","id":1,"method":"ping"})"
                                     "\n");
        EXPECT_EQ(o.status, 2);
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(o.err, missingToken);
    }
}

// The app side: holds each call until two have arrived, and records the
// order of operations.
class FakeApp {
public:
    explicit FakeApp(std::string path)
        : server_(std::move(path), 1048576, [this](const std::string& r) { return handle(r); }) {
        server_.start();
    }
    std::vector<std::string> ops() {
        std::lock_guard guard(m_);
        return ops_;
    }
    Json lastRequest() {
        std::lock_guard guard(m_);
        return last_;
    }
    std::vector<Json> clients() {
        std::lock_guard guard(m_);
        return clients_;
    }

private:
    std::string handle(const std::string& request) {
        Json r = mailcore::parseJson(request);
        std::unique_lock lock(m_);
        ops_.push_back(r["op"]);
        clients_.push_back(r["client"]);
        last_ = r;
        if (r["op"] == "tools_list")
            return mailcore::encodeJson(Json{{"ok", true}, {"tools", Json::array()}});
        if (r["op"] != "call") return R"({"ok":true})";
        ++calls_;
        cv_.notify_all();
        const bool both = cv_.wait_for(lock, std::chrono::seconds(10), [&] { return calls_ >= 2; });
        return mailcore::encodeJson(Json{
            {"ok", true},
            {"text", std::string(both ? "concurrent:" : "serial:") +
                         r["arguments"]["tag"].get<std::string>() + std::string(100000, '.')}});
    }

    std::mutex m_;
    std::condition_variable cv_;
    int calls_ = 0;
    std::vector<std::string> ops_;
    std::vector<Json> clients_;
    Json last_;
    mcpkit::MCPSocketServer server_;  // last: stopped before the state above goes
};

TEST(HelperProcessTest, ConcurrentCallsComeBackWholeAndByeFollowsThem) {
    testfiles::TempDir tmp;
    // No KESTRUNE_SOCKET: the helper derives the socket path from HOME, as
    // the application does.
    const std::string socket =
        mcpkit::MCPPaths::socketURL(mcpkit::MCPPaths::baseDirectory(std::nullopt, tmp.path()))
            .string();
    FakeApp app(socket);
    const std::string input =
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"clientInfo":{"name":"h","version":"9"}}})"
        "\n"
        R"({"jsonrpc":"2.0","id":"x","method":"tools/call","params":{"name":"search_messages","arguments":{"tag":"x"}}})"
        "\n"
        R"({"jsonrpc":"2.0","id":"y","method":"tools/call","params":{"name":"search_messages","arguments":{"tag":"y"}}})"
        "\n";
    ProcessOutcome o =
        runHelper({}, {"HOME=" + tmp.path().string(), "KESTRUNE_MCP_TOKEN=tok"}, input);
    EXPECT_EQ(o.status, 0);
    auto answers = lines(o.out);
    ASSERT_EQ(answers.size(), 3u);
    for (const char* id : {"x", "y"}) {
        const std::string text = byID(answers, id)["result"]["content"][0]["text"];
        EXPECT_EQ(text.substr(0, 12), std::string("concurrent:") + id);
        EXPECT_EQ(text.size(), 12u + 100000u);
    }
    auto ops = app.ops();
    ASSERT_EQ(ops.size(), 4u) << ::testing::PrintToString(ops);
    // Calls are handled in parallel, but only once the initialize before them
    // was answered: hello comes first and every call names the client.
    EXPECT_EQ(ops, (std::vector<std::string>{"hello", "call", "call", "bye"}));
    for (const Json& client : app.clients()) EXPECT_EQ(client["name"], "h");
    EXPECT_EQ(app.lastRequest()["client"], (Json{{"name", "h"}, {"version", "9"}}));
    EXPECT_EQ(app.lastRequest()["token"], "tok");
}

TEST(HelperProcessTest, HugeAndUnclosedLinesGetOneAnswerEachAndNeverACrash) {
    testfiles::TempDir tmp;
    const std::string socket = (tmp / "app.sock").string();
    FakeApp app(socket);
    // Arbitrary lines are the shim fuzzer's; here the ones only a process meets.
    std::string input;
    int expected = 0;
    input += std::string(100000, '[') + "\n";  // deeply nested, never closed
    ++expected;
    input += std::string(17 << 20, 'x') + "\n";  // over the 16 MiB line bound: read past, refused
    ++expected;
    // Parses, but is larger than the link carries: said so, not "unreachable".
    input += R"({"jsonrpc":"2.0","id":"big","method":"tools/call","params":{"name":"x",)"
             R"("arguments":{"body":")" +
             std::string(2 << 20, 'a') + "\"}}}\n";
    ++expected;
    input += R"({"jsonrpc":"2.0","id":"last","method":"tools/list"})"
             "\n";
    ++expected;
    ProcessOutcome o = runHelper(
        {}, {"HOME=/nonexistent", "KESTRUNE_MCP_TOKEN=t", "KESTRUNE_SOCKET=" + socket}, input);
    EXPECT_EQ(o.status, 0);
    auto answers = lines(o.out);
    EXPECT_EQ(answers.size(), static_cast<std::size_t>(expected));
    EXPECT_EQ(byID(answers, "last")["result"]["tools"], Json::array());
    EXPECT_EQ(byID(answers, "big")["result"]["content"][0]["text"], mcpkit::MCPShim::tooLargeText);
}

}  // namespace
