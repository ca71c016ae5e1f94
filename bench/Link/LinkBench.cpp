// Figures of the agent link:
//  - BM_ToolsCallRoundTrip: one tools/call line through the shim, a real
//    Unix socket and the socket server to an echo handler, back to one
//    output line.
//  - BM_HelperColdStart: the helper process from spawn to its first answered
//    initialize (the app is played by an in-process socket server), with the
//    helper's peak resident memory as a counter.
// Run: build/release/bench/Link/link_bench --benchmark_repetitions=10
//      --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Shim/MCPShim.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using mailcore::Json;

// Answers every request; a call echoes its arguments as the text.
std::string echoHandler(const std::string& request) {
    Json r = mailcore::parseJson(request);
    if (r.value("op", "") != "call") return R"({"ok":true})";
    return mailcore::encodeJson(
        Json{{"ok", true}, {"text", mailcore::encodeJson(r["arguments"])}, {"isError", false}});
}

struct TempDir {
    fs::path path;
    TempDir() {
        char pattern[] = "/tmp/kb-XXXXXX";
        if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp");
        path = pattern;
    }
    ~TempDir() {
        std::error_code e;
        fs::remove_all(path, e);
    }
};

void BM_ToolsCallRoundTrip(benchmark::State& state) {
    TempDir tmp;
    const std::string socket = (tmp.path / "mcp/kestrune.sock").string();
    mcpkit::MCPSocketServer server(socket, 1048576, echoHandler);
    server.start();
    std::string last;
    mcpkit::MCPShim shim(std::make_unique<mcpkit::MCPSocketLink>(socket, 240), "bench-token",
                         [&](const std::string& line) { last = line; });
    const std::string line =
        R"({"jsonrpc":"2.0","id":42,"method":"tools/call","params":{"name":"search_messages",)"
        R"("arguments":{"query":"invoice from last week","limit":10,"unread_only":true}}})";
    for (auto _ : state) {
        shim.handle(line);
        benchmark::DoNotOptimize(last.data());
    }
    if (last.find("invoice from last week") == std::string::npos)
        state.SkipWithError("the call did not come back");
}
BENCHMARK(BM_ToolsCallRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

std::string helperPath() {
    // <build>/bench/Link/link_bench -> <build>/kestrune_mcp/kestrune-mcp
    const fs::path self = fs::read_symlink("/proc/self/exe");
    return (self.parent_path().parent_path().parent_path() / "kestrune_mcp/kestrune-mcp").string();
}

void BM_HelperColdStart(benchmark::State& state) {
    TempDir tmp;
    const std::string socket = (tmp.path / "mcp/kestrune.sock").string();
    mcpkit::MCPSocketServer server(socket, 1048576, echoHandler);
    server.start();
    const std::string exe = helperPath();
    std::string tokenVar = "KESTRUNE_MCP_TOKEN=bench-token";
    std::string socketVar = "KESTRUNE_SOCKET=" + socket;
    std::string homeVar = "HOME=" + tmp.path.string();
    char* envp[] = {tokenVar.data(), socketVar.data(), homeVar.data(), nullptr};
    char* argv[] = {const_cast<char*>(exe.c_str()), nullptr};
    const std::string initialize =
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
        R"("clientInfo":{"name":"bench","version":"1"}}})"
        "\n";
    long peakKiB = 0;
    for (auto _ : state) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            state.SkipWithError("pipe");
            break;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        const auto start = std::chrono::steady_clock::now();
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv, envp);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        if (spawned != 0) {
            ::close(in[1]);
            ::close(out[0]);
            state.SkipWithError("cannot start the helper (build the kestrune-mcp target)");
            break;
        }
        (void)!::write(in[1], initialize.data(), initialize.size());
        std::string answer;
        char c;
        while (::read(out[0], &c, 1) == 1 && c != '\n') answer.push_back(c);
        const auto answered = std::chrono::steady_clock::now();
        ::close(in[1]);  // end of input: the helper says bye and exits
        while (::read(out[0], &c, 1) == 1) {
        }
        ::close(out[0]);
        int status = 0;
        rusage usage{};
        ::wait4(pid, &status, 0, &usage);
        peakKiB = std::max(peakKiB, usage.ru_maxrss);
        if (answer.find("\"protocolVersion\":\"2025-06-18\"") == std::string::npos ||
            !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("the helper did not answer initialize and exit 0");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(answered - start).count());
    }
    state.counters["peak_rss_KiB"] = static_cast<double>(peakKiB);
}
BENCHMARK(BM_HelperColdStart)->Unit(benchmark::kMicrosecond)->UseManualTime()->Iterations(50);

}  // namespace

BENCHMARK_MAIN();
