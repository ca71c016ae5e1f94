// Drives the built kestrune-mcp executable as a harness would: environment,
// stdin lines, stdout lines, exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Service/MCPTools.h"
#include "tests/fakes/LinkTestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using mailcore::Json;

// The build tree: KESTRUNE_BINARY_DIR under ctest, else four levels above
// this test executable (<build>/tests/KestruneMCPKit/Shim/<test>).
std::string helperPath() {
    if (const char* dir = std::getenv("KESTRUNE_BINARY_DIR"))
        return std::string(dir) + "/kestrune_mcp/kestrune-mcp";
    const fs::path self = fs::read_symlink("/proc/self/exe");
    return (self.parent_path().parent_path().parent_path().parent_path() /
            "kestrune_mcp/kestrune-mcp")
        .string();
}

struct Outcome {
    int status = -1;  // exit status, or -1 when killed or not exited
    std::string out;
    std::string err;
};

// Runs the helper with exactly `env` as its environment (plus the
// sanitizer settings of this process), feeds `input`, closes stdin, and
// collects everything until it exits (killed after 30 s).
Outcome runHelper(const std::vector<std::string>& args, std::vector<std::string> env,
                  const std::string& input) {
    // The helper may exit before reading its input (no token): writing to
    // its closed stdin must fail with EPIPE, not end this test process.
    std::signal(SIGPIPE, SIG_IGN);
    for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
    }
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    const std::string exe = helperPath();
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    Outcome outcome;
    if (spawned != 0) {
        ::close(in[1]);
        ::close(out[0]);
        ::close(err[0]);
        ADD_FAILURE() << "cannot start " << exe;
        return outcome;
    }
    std::thread writer([fd = in[1], &input] {
        std::size_t done = 0;
        while (done < input.size()) {
            ssize_t n = ::write(fd, input.data() + done, input.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        ::close(fd);
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 200) <= 0) continue;
        for (auto& p : fds) {
            if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[65536];
            ssize_t n = ::read(p.fd, buffer, sizeof buffer);
            if (n > 0) {
                (p.fd == out[0] ? outcome.out : outcome.err).append(buffer, n);
            } else {
                ::close(p.fd);
                p.fd = -1;
                --open;
            }
        }
    }
    if (open > 0) ::kill(pid, SIGKILL);
    for (auto& p : fds)
        if (p.fd >= 0) ::close(p.fd);
    writer.join();
    int status = 0;
    ::waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

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
        Outcome o = runHelper({}, env,
                              R"({"jsonrpc":"2.0","id":1,"method":"ping"})"
                              "\n");
        EXPECT_EQ(o.status, 2);
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(o.err, missingToken);
    }
}

TEST(HelperProcessTest, OptionsRunTheCommandLine) {
    Outcome version = runHelper({"--version"}, {}, "");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "kestrune-mcp 0.1.0\n");
    Outcome bogus = runHelper({"--bogus"}, {}, "");
    EXPECT_EQ(bogus.status, 64);
    EXPECT_EQ(bogus.out, "");
    EXPECT_FALSE(bogus.err.empty());
}

TEST(HelperProcessTest, WithoutTheAppItStillHandshakesListsAndExplains) {
    linktest::TempDir tmp;
    const std::string input =
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","clientInfo":{"name":"t","version":"1"}}})"
        "\n\n"
        R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
        "\n"
        R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})"
        "\n"
        R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"list_accounts","arguments":{}}})"
        "\n";
    Outcome o = runHelper({}, {"HOME=" + tmp.path().string(), "KESTRUNE_MCP_TOKEN=tok"}, input);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.err, "");
    auto answers = lines(o.out);
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(byID(answers, 1)["result"]["protocolVersion"], "2025-06-18");
    EXPECT_EQ(byID(answers, 1)["result"]["serverInfo"]["name"], "kestrune");
    EXPECT_EQ(byID(answers, 2)["result"]["tools"], mcpkit::MCPTools::staticListing());
    EXPECT_EQ(byID(answers, 3)["result"],
              (Json{{"content", Json::array({Json{{"type", "text"},
                                                  {"text",
                                                   "Kestrune is not running. Open the Kestrune app "
                                                   "and make sure Agent access is switched on, "
                                                   "then try again."}}})},
                    {"isError", true}}));
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

private:
    std::string handle(const std::string& request) {
        Json r = mailcore::parseJson(request);
        std::unique_lock lock(m_);
        ops_.push_back(r["op"]);
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
    Json last_;
    mcpkit::MCPSocketServer server_;  // last: stopped before the state above goes
};

TEST(HelperProcessTest, ConcurrentCallsComeBackWholeAndByeFollowsThem) {
    linktest::TempDir tmp;
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
    Outcome o = runHelper({}, {"HOME=" + tmp.path().string(), "KESTRUNE_MCP_TOKEN=tok"}, input);
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
    // Lines are handled in parallel, so hello and the calls arrive in any order.
    EXPECT_EQ(std::multiset<std::string>(ops.begin(), ops.end() - 1),
              (std::multiset<std::string>{"hello", "call", "call"}));
    EXPECT_EQ(ops.back(), "bye") << ::testing::PrintToString(ops);  // after both calls
    EXPECT_EQ(app.lastRequest()["client"], (Json{{"name", "h"}, {"version", "9"}}));
    EXPECT_EQ(app.lastRequest()["token"], "tok");
}

TEST(HelperProcessTest, ArbitraryBytesOnStdinGetOneErrorLineEachAndNeverACrash) {
    linktest::TempDir tmp;
    const std::string socket = (tmp / "app.sock").string();
    FakeApp app(socket);
    std::mt19937 rng(42);
    std::string input;
    int expected = 0;
    for (int i = 0; i < 40; ++i) {
        std::string line;
        const int length = std::uniform_int_distribution<int>(1, 300)(rng);
        for (int j = 0; j < length; ++j) {
            char c = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
            if (c == '\n') c = '{';
            line.push_back(c);
        }
        input += line + "\n";
        ++expected;
    }
    input += std::string(100000, '[') + "\n";  // deeply nested, never closed
    ++expected;
    input += std::string(17 << 20, 'x') + "\n";  // over the 16 MiB line bound: read past, refused
    ++expected;
    input += R"({"jsonrpc":"2.0","id":"last","method":"tools/list"})"
             "\n";
    ++expected;
    Outcome o = runHelper(
        {}, {"HOME=/nonexistent", "KESTRUNE_MCP_TOKEN=t", "KESTRUNE_SOCKET=" + socket}, input);
    EXPECT_EQ(o.status, 0);
    auto answers = lines(o.out);
    EXPECT_EQ(answers.size(), static_cast<std::size_t>(expected));
    EXPECT_EQ(byID(answers, "last")["result"]["tools"], Json::array());
}

}  // namespace
