// search_messages and read_message round trips from the harness's side: a
// real kestrune-mcp process on pipes (one tools/call line written, one answer
// line read) relaying over the link socket to the agent service over
// StoreMailBackend on a store of KESTRUNE_APP_BENCH_MESSAGES messages
// (default 100000; generated once, with bodies and full-text rows).
// Counters p50_us and p99_us are per-call percentiles of the measured calls.
// Run: build/release/bench/App/app_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "KestruneMCPKit/Tokens/MCPTokenStore.h"
#include "kestrune_app/Host/MCPWorkflowBridge.h"
#include "kestrune_app/Host/MailIngest.h"
#include "kestrune_app/Host/PendingQuestions.h"
#include "kestrune_app/Host/StoreMailBackend.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace mailcore;

// A vocabulary of 20000 made-up words drawn log-uniformly, so that a few
// words are very common and most are rare, as in real mail.
const std::vector<std::string>& vocabulary() {
    static const std::vector<std::string> words = [] {
        const char* syllables[] = {"ka", "ro",  "mi",  "te",  "su",  "lan", "dor",
                                   "vi", "pe",  "qua", "bel", "nor", "tis", "ga",
                                   "fu", "ren", "xo",  "ly",  "mer", "zan"};
        std::vector<std::string> out;
        for (int i = 0; out.size() < 20000; ++i) {
            std::string w;
            for (int n = i;; n /= 20) {
                w += syllables[n % 20];
                if (n < 20) break;
            }
            out.push_back(w + syllables[i % 7]);
        }
        return out;
    }();
    return words;
}

const std::string& word(std::mt19937& rng) {
    const double u = std::uniform_real_distribution<double>(0, 1)(rng);
    const auto index = static_cast<std::size_t>(std::pow(20000.0, u)) - 1;
    return vocabulary()[std::min<std::size_t>(index, 19999)];
}

std::string sentence(std::mt19937& rng, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) {
        if (i) out += ' ';
        out += word(rng);
    }
    return out;
}

struct World {
    fs::path dir;
    std::shared_ptr<SQLiteMailStore> store;
    std::unique_ptr<WorkflowStore> workflows;
    std::shared_ptr<kestrune::StoreMailBackend> backend;
    std::shared_ptr<mcpkit::MCPWorkflowBridge> bridge;
    std::unique_ptr<mcpkit::MCPService> service;
    std::unique_ptr<mcpkit::MCPSocketServer> server;
    pid_t helper = -1;
    int toHelper = -1;
    int fromHelper = -1;
    std::string buffered;
    std::vector<std::string> handles;
    int nextID = 100;

    World() {
        char pattern[] = "/tmp/kapp-bench-XXXXXX";
        if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp");
        dir = pattern;
        const char* env = std::getenv("KESTRUNE_APP_BENCH_MESSAGES");
        const long count = env ? std::atol(env) : 100000;
        store =
            std::make_shared<SQLiteMailStore>(StoreLocation::file((dir / "mail.sqlite").string()));
        const Date now = systemClock()();
        kestrune::ensureAccount(*store, {"alex@example.com", "Alex", true}, now);
        const FolderID inbox =
            kestrune::folderWithRole(*store, "alex@example.com", FolderRole::inbox);
        std::mt19937 rng(7);
        for (long done = 0; done < count;) {
            std::vector<MessageIndexFields> batch;
            std::vector<std::string> bodies;
            for (int i = 0; i < 2000 && done < count; ++i, ++done) {
                MessageIndexFields f;
                f.accountID = AccountID("alex@example.com");
                f.folderID = inbox;
                f.uid = IMAPUID(static_cast<std::uint32_t>(done + 1));
                f.subject = sentence(rng, 4);
                f.threading = ThreadingKeys::fromHeaders("<m" + std::to_string(done) + "@bench>",
                                                         "", "", f.subject);
                f.from = {{"Sender " + std::to_string(rng() % 500),
                           "s" + std::to_string(rng() % 500) + "@example.com"}};
                f.to = {{"Alex", "alex@example.com"}};
                f.date = now - std::chrono::seconds(done * 60);
                f.flags.system = (rng() % 3) ? std::int64_t{MessageFlags::seen} : std::int64_t{0};
                bodies.push_back(sentence(rng, 80));
                f.snippet = bodies.back().substr(0, 120);
                batch.push_back(std::move(f));
            }
            store->write([&](SQLiteDatabase&) {
                const auto ids = store->upsertSync(batch);
                std::vector<std::pair<MessageID, StoredBody>> saved;
                for (std::size_t i = 0; i < ids.size(); ++i) {
                    StoredBody b;
                    b.text = bodies[i];
                    b.fetchedAt = now;
                    b.bytes = static_cast<std::int64_t>(bodies[i].size());
                    saved.emplace_back(ids[i], b);
                    if (rng() % 50 == 0)
                        handles.push_back(kestrune::StoreMailBackend::handle(ids[i]));
                }
                store->saveBodies(saved);
            });
        }
        auto tokens = std::make_shared<mcpkit::MCPMemoryTokenStore>();
        auto policy = std::make_shared<mcpkit::MCPPolicyStore>(dir / "state.json", tokens);
        policy->registerHarness("bench", "Bench", {"bench"},
                                "kmt_bench_token_0123456789abcdefghij");
        policy->mutate([](mcpkit::MCPState& s) {
            s.settings.masterEnabled = true;
            s.settings.limits.requestsPerMinute = 6000;
        });
        auto audit = std::make_shared<mcpkit::MCPAuditLog>(dir / "audit.jsonl");
        backend = std::make_shared<kestrune::StoreMailBackend>(store);
        auto confirmer = std::make_shared<kestrune::FileConfirmer>(
            std::make_shared<kestrune::PendingQuestions>(dir / "pending"), nullptr);
        workflows = std::make_unique<WorkflowStore>(dir / "workflows");
        bridge = std::make_shared<mcpkit::MCPWorkflowBridge>(*workflows, *backend, systemClock());
        service = std::make_unique<mcpkit::MCPService>(policy, audit, backend, confirmer, bridge);
        const std::string socket = (dir / "mcp/kestrune.sock").string();
        server = std::make_unique<mcpkit::MCPSocketServer>(
            socket, mcpkit::MCP::maxFrameBytes,
            [this](const std::string& f) { return service->handleFrame(f); });
        server->start();
        startHelper(socket);
    }

    void startHelper(const std::string& socket) {
        const fs::path self = fs::read_symlink("/proc/self/exe");
        const std::string exe =
            (self.parent_path().parent_path().parent_path() / "kestrune_mcp/kestrune-mcp").string();
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        std::string tokenVar = "KESTRUNE_MCP_TOKEN=kmt_bench_token_0123456789abcdefghij";
        std::string socketVar = "KESTRUNE_SOCKET=" + socket;
        std::string homeVar = "HOME=" + dir.string();
        char* envp[] = {tokenVar.data(), socketVar.data(), homeVar.data(), nullptr};
        char* argv[] = {const_cast<char*>(exe.c_str()), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        const int spawned = posix_spawn(&helper, exe.c_str(), &actions, nullptr, argv, envp);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        if (spawned != 0) throw std::runtime_error("cannot start kestrune-mcp (build that target)");
        toHelper = in[1];
        fromHelper = out[0];
        exchange(
            R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})");
        send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
    }

    void send(const std::string& line) {
        const std::string data = line + "\n";
        if (::write(toHelper, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
            throw std::runtime_error("write");
    }

    std::string exchange(const std::string& line) {
        send(line);
        while (true) {
            const auto nl = buffered.find('\n');
            if (nl != std::string::npos) {
                std::string out = buffered.substr(0, nl);
                buffered.erase(0, nl + 1);
                return out;
            }
            char chunk[65536];
            const ssize_t n = ::read(fromHelper, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("the helper closed its output");
            buffered.append(chunk, static_cast<std::size_t>(n));
        }
    }

    std::string call(const std::string& tool, const Json& args) {
        return exchange(encodeJson(Json{{"jsonrpc", "2.0"},
                                        {"id", nextID++},
                                        {"method", "tools/call"},
                                        {"params", {{"name", tool}, {"arguments", args}}}}));
    }

    ~World() {
        if (toHelper >= 0) ::close(toHelper);
        if (helper > 0) ::waitpid(helper, nullptr, 0);
        if (fromHelper >= 0) ::close(fromHelper);
        server.reset();
        std::error_code e;
        fs::remove_all(dir, e);
    }
};

World& world() {
    static World w;
    return w;
}

void report(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

template <class Body>
void timed(benchmark::State& state, Body body) {
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const std::string answer = body(micros.size());
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
        if (answer.find("\"isError\":true") != std::string::npos) {
            state.SkipWithError(answer.substr(0, 300).c_str());
            break;
        }
    }
    report(state, micros);
}

void BM_SearchMessages(benchmark::State& state) {
    World& w = world();
    timed(state, [&](std::size_t i) {
        // Words of middle frequency, alone and in pairs.
        const auto& v = vocabulary();
        std::string query = v[50 + (i * 37) % 2000];
        if (i % 2) query += " " + v[10 + (i * 11) % 200];
        return w.call("search_messages", Json{{"query", query}, {"limit", 10}});
    });
}
BENCHMARK(BM_SearchMessages)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(400);

void BM_ListNewest(benchmark::State& state) {
    World& w = world();
    timed(state, [&](std::size_t i) {
        return w.call("search_messages", Json{{"limit", 10}, {"unread_only", i % 2 == 0}});
    });
}
BENCHMARK(BM_ListNewest)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(400);

void BM_ReadMessage(benchmark::State& state) {
    World& w = world();
    timed(state, [&](std::size_t i) {
        return w.call("read_message", Json{{"message_id", w.handles[i % w.handles.size()]}});
    });
}
BENCHMARK(BM_ReadMessage)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1000);

}  // namespace
BENCHMARK_MAIN();
