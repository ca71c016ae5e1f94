// Costs on the request path: recording one audit entry with a nearly full
// log, the per-request policy snapshot when the state file has not changed,
// the token lookup, and the redactor.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Audit/MCPRedactor.h"
#include "KestruneMCPKit/Policy/MCPPolicyStore.h"
#include "KestruneMCPKit/Tokens/MCPFileTokenStore.h"
#include "KestruneMCPKit/Tokens/MCPToken.h"

namespace {

using namespace mcpkit;
namespace fs = std::filesystem;

struct ScratchDirectory {
    ScratchDirectory() {
        std::string pattern = (fs::temp_directory_path() / "kestrune-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        path = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path path;
};

constexpr double kStart = 1767225600.0;
const std::string kSummary =
    "query \"quarterly report from finance\" in inbox, 25 results, session now mail-influenced";

// A log file of `count` entries, one second apart from kStart.
void writeLog(const fs::path& url, std::size_t count) {
    std::ofstream out(url, std::ios::binary | std::ios::trunc);
    for (std::size_t i = 0; i < count; ++i) {
        MCPAuditEntry e;
        e.id = "00000000-0000-4000-8000-" + std::to_string(100000000000 + i);
        e.time = mailcore::dateFromSeconds(kStart + static_cast<double>(i));
        e.harness = "Claude Code";
        e.tool = "search_messages";
        e.account = "me@example.com";
        e.summary = kSummary;
        e.mailInfluenced = true;
        out << MCPAuditLog::encode(e) << '\n';
    }
}

// One record while the log holds 19,999 entries (the append path). Between
// iterations, with timing paused, the oldest entry is pruned away again.
void BM_AuditRecordWith19999Held(benchmark::State& state) {
    ScratchDirectory dir;
    const fs::path url = dir.path / "audit.jsonl";
    writeLog(url, MCPAuditLog::maxEntries - 1);
    auto now = std::make_shared<double>(0);
    MCPAuditLog log(url, [now] { return mailcore::dateFromSeconds(*now); });
    std::size_t k = 0;
    for (auto _ : state) {
        *now = kStart + static_cast<double>(MCPAuditLog::maxEntries - 1 + k);
        benchmark::DoNotOptimize(log.record("Claude Code", "search_messages", "me@example.com",
                                            MCPResult::ok, kSummary, true));
        state.PauseTiming();
        *now = kStart + static_cast<double>(k + 1) + 86400.0;
        log.prune(1);  // drops exactly entry k
        ++k;
        state.ResumeTiming();
    }
    if (log.entries().size() != MCPAuditLog::maxEntries - 1) state.SkipWithError("not 19,999");
}
BENCHMARK(BM_AuditRecordWith19999Held)->Unit(benchmark::kMicrosecond)->Iterations(300);

// The same record on a log that starts empty (no pausing between iterations),
// to show what holding 19,999 entries adds.
void BM_AuditRecordSmallLog(benchmark::State& state) {
    ScratchDirectory dir;
    MCPAuditLog log(dir.path / "audit.jsonl");
    for (auto _ : state) {
        benchmark::DoNotOptimize(log.record("Claude Code", "search_messages", "me@example.com",
                                            MCPResult::ok, kSummary, true));
    }
}
BENCHMARK(BM_AuditRecordSmallLog)->Unit(benchmark::kMicrosecond)->Iterations(5000);

// Appends in a row, from 18,999 held up to 19,998 held (1,000 iterations,
// none of which reaches the cap): the append path without pausing.
void BM_AuditRecordNear19999Held(benchmark::State& state) {
    ScratchDirectory dir;
    const fs::path url = dir.path / "audit.jsonl";
    writeLog(url, MCPAuditLog::maxEntries - 1001);
    MCPAuditLog log(url);
    for (auto _ : state) {
        benchmark::DoNotOptimize(log.record("Claude Code", "search_messages", "me@example.com",
                                            MCPResult::ok, kSummary, true));
    }
    if (log.entries().size() != MCPAuditLog::maxEntries - 1) state.SkipWithError("miscounted");
}
BENCHMARK(BM_AuditRecordNear19999Held)->Unit(benchmark::kMicrosecond)->Iterations(1000);

// One record with the log full: the oldest is dropped and the file rewritten.
void BM_AuditRecordAtTheCap(benchmark::State& state) {
    ScratchDirectory dir;
    const fs::path url = dir.path / "audit.jsonl";
    writeLog(url, MCPAuditLog::maxEntries);
    MCPAuditLog log(url);
    for (auto _ : state) {
        benchmark::DoNotOptimize(log.record("Claude Code", "search_messages", "me@example.com",
                                            MCPResult::ok, kSummary, true));
    }
}
BENCHMARK(BM_AuditRecordAtTheCap)->Unit(benchmark::kMillisecond)->Iterations(50);

std::unique_ptr<MCPPolicyStore> makePolicy(const fs::path& dir, int harnesses,
                                           std::string* lastToken) {
    auto tokens = std::make_shared<MCPFileTokenStore>(dir / "tokens.json");
    auto store = std::make_unique<MCPPolicyStore>(dir / "state.json", tokens);
    for (int i = 0; i < harnesses; ++i) {
        std::string token = MCPToken::generate();
        store->registerHarness("harness-" + std::to_string(i), "Harness " + std::to_string(i),
                               {"client-" + std::to_string(i)}, token);
        if (lastToken) *lastToken = token;
    }
    store->mutate([](MCPState& s) {
        s.settings.masterEnabled = true;
        s.settings.excludedAccounts = {"private@example.com"};
    });
    return store;
}

// The per-request reload check and copy when the state file is unchanged.
void BM_PolicySnapshotUnchangedFile(benchmark::State& state) {
    ScratchDirectory dir;
    auto store = makePolicy(dir.path, static_cast<int>(state.range(0)), nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(store->snapshot());
}
BENCHMARK(BM_PolicySnapshotUnchangedFile)->Arg(5)->Unit(benchmark::kMicrosecond);

// Finding the harness of a token with the file token store (the last of N
// registered harnesses, so every token is read).
void BM_PolicyHarnessForToken(benchmark::State& state) {
    ScratchDirectory dir;
    std::string token;
    auto store = makePolicy(dir.path, static_cast<int>(state.range(0)), &token);
    for (auto _ : state) benchmark::DoNotOptimize(store->harness(token));
}
BENCHMARK(BM_PolicyHarnessForToken)->Arg(1)->Arg(5)->Unit(benchmark::kMicrosecond);

void BM_RedactorScrubSummary(benchmark::State& state) {
    const std::string text = "Authorization: Bearer " + std::string(40, 'a') + " from " +
                             "alice@example.com " + kSummary + " " + kSummary;
    for (auto _ : state) benchmark::DoNotOptimize(MCPRedactor::scrub(text, 200));
}
BENCHMARK(BM_RedactorScrubSummary)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
