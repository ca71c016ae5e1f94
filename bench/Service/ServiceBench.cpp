// Agent service costs: one search_messages call handled on the service side
// (policy reload check, limits, taint, audit append included), and calls per
// second through the real socket server from 8 concurrent connections.
//
// Run: cmake --preset release && cmake --build --preset release --target service_bench
//      ./build/release/bench/Service/service_bench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "tests/fakes/FakeMailBackend.h"
#include "tests/fakes/RecordingWorkflows.h"
#include "tests/fakes/ScriptedConfirmer.h"

namespace {

using namespace mcpkit;
using mailcore::Json;

constexpr const char* token = "kmt_benchbenchbenchbenchbenchbenchbenchbenchbe";

struct World {
    std::filesystem::path dir;
    std::shared_ptr<MCPPolicyStore> policy;
    std::shared_ptr<MCPAuditLog> audit;
    std::unique_ptr<MCPService> service;

    World() {
        dir = std::filesystem::temp_directory_path() /
              ("kestrune-bench-" + std::to_string(::getpid()));
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        auto tokens = std::make_shared<MCPMemoryTokenStore>();
        policy = std::make_shared<MCPPolicyStore>(dir / "state.json", tokens);
        policy->registerHarness("bench", "Bench", {}, token);
        policy->mutate([](MCPState& s) {
            s.settings.masterEnabled = true;
            s.settings.limits.requestsPerMinute = 1'000'000'000;
        });
        audit = std::make_shared<MCPAuditLog>(dir / "audit.jsonl");
        service =
            std::make_unique<MCPService>(policy, audit, testing::FakeMailBackend::withSampleMail(),
                                         std::make_shared<testing::ScriptedConfirmer>(),
                                         std::make_shared<testing::RecordingWorkflows>());
    }
    ~World() { std::filesystem::remove_all(dir); }
};

Json searchRequest() {
    return {{"v", 1},
            {"op", "call"},
            {"token", token},
            {"client", {{"name", "bench"}, {"version", "1"}}},
            {"session", "B1"},
            {"name", "search_messages"},
            {"arguments", {{"query", "report"}, {"limit", 10}}}};
}

void BM_SearchMessagesServiceSide(benchmark::State& state) {
    World world;
    const std::string frame = mailcore::encodeJson(searchRequest());
    for (auto _ : state) {
        auto reply = world.service->handleFrame(frame);
        benchmark::DoNotOptimize(reply);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SearchMessagesServiceSide)->Unit(benchmark::kMicrosecond);

void BM_SocketCallsFromConcurrentConnections(benchmark::State& state) {
    static World* world = nullptr;
    static MCPSocketServer* server = nullptr;
    if (state.thread_index() == 0) {
        world = new World();
        server = new MCPSocketServer(
            (world->dir / "k.sock").string(), MCP::maxFrameBytes,
            [](const std::string& f) { return world->service->handleFrame(f); });
        server->start();
    }
    // The benchmark loop starts and ends with a barrier across threads, so
    // the server exists for the whole loop.
    const Json request = searchRequest();
    for (auto _ : state) {
        MCPSocketLink l((world->dir / "k.sock").string(), 30);
        auto reply = l.send(request);
        benchmark::DoNotOptimize(reply);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        server->stop();
        delete server;
        server = nullptr;
        delete world;
        world = nullptr;
    }
}
BENCHMARK(BM_SocketCallsFromConcurrentConnections)->Threads(8)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
