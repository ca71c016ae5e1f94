// What active workflows cost on new mail: matching one message against 25
// workflows of 12 conditions each, and an import of a Maildir with and
// without those workflows running on it.
//
//   python3 bench/corpus/generate_corpus.py --messages 10000 --out /tmp/wf-corpus
//   KESTRUNE_IMPORT_MAILDIR=/tmp/wf-corpus/Maildir build/release/bench/Workflow/workflow_bench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "MailCore/MIME/MailImporter.h"
#include "MailCore/Workflow/WorkflowEngine.h"

namespace {

namespace fs = std::filesystem;
using namespace mailcore;

// Workflow `n`: 12 value conditions, none of which a typical message meets
// when `match` is "any" (every condition is then judged), all of which it
// meets when "all".
WorkflowSpec benchSpec(int n) {
    const bool any = n % 2 == 0;
    Json conditions = Json::array();
    const char* types[] = {
        "from",      "from_domain",    "to",   "subject", "body", "text", "attachment_kind",
        "in_thread", "sender_outside", "from", "subject", "text"};
    for (int i = 0; i < 12; ++i) {
        // "sender_outside" with absent domains would hold for every sender.
        const std::string type = any && i == 8 ? "to" : types[i];
        Json values = Json::array();
        for (int v = 0; v < 3; ++v) {
            if (any)
                values.push_back("absent-" + std::to_string(n) + "-" + std::to_string(i * 3 + v));
            else if (type == "from" || type == "from_domain")
                values.push_back("example.org");
            else if (type == "to")
                values.push_back("alex");
            else if (type == "attachment_kind")
                values.push_back("pdf");
            else if (type == "sender_outside")
                values.push_back("mycompany.com");
            else
                values.push_back("quarterly");
        }
        conditions.push_back(Json{{"type", type}, {"values", values}});
    }
    return WorkflowSpec::fromJson(
        Json{{"name", "Bench " + std::to_string(n)},
             {"trigger", {{"type", "new_message"}}},
             {"match", any ? "any" : "all"},
             {"conditions", conditions},
             {"actions",
              Json::array({Json{{"type", "apply_label"}, {"label", "B" + std::to_string(n)}}})}});
}

std::string bodyText() {
    std::string body;
    for (int i = 0; i < 40; ++i)
        body += "Line " + std::to_string(i) + " of the quarterly report, with figures and notes.\n";
    return body;
}

void BM_MatchNewMessage25x12(benchmark::State& state) {
    std::vector<WorkflowSpec> specs;
    for (int n = 0; n < 25; ++n) specs.push_back(benchSpec(n));
    WorkflowMailMessage m;
    m.id = "m1";
    m.account = "alex@mycompany.com";
    m.from = "Dana Reyes <dana@example.org>";
    m.to = {"alex@mycompany.com", "team@mycompany.com"};
    m.subject = "Re: Quarterly report for review";
    m.bodyText = bodyText();
    m.attachments = {{"report.pdf", "application/pdf"}};
    m.threadSubjects = {"Quarterly report for review"};
    WorkflowMatcher::MatchContext context;
    context.ownAddresses = {"alex@mycompany.com"};
    int matched = 0;
    for (auto _ : state) {
        WorkflowMatcher::FoldedMessage folded(m);  // once per message, as the engine does
        for (const auto& spec : specs) matched += WorkflowMatcher::matches(spec, folded, context);
        benchmark::DoNotOptimize(matched);
    }
    state.counters["matched_per_message"] = static_cast<double>(matched) / state.iterations();
}
BENCHMARK(BM_MatchNewMessage25x12)->Unit(benchmark::kMicrosecond);

struct TempDir {
    fs::path path;
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "workflow-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

// Imports the Maildir named by KESTRUNE_IMPORT_MAILDIR (the generator's
// corpus) into a new store, with the 25 workflows approved and running on
// the new mail (argument 1) or without them (0). The first workflow labels
// the mail whose subject names a common word of the corpus.
void BM_ImportMaildir(benchmark::State& state) {
    const char* root = std::getenv("KESTRUNE_IMPORT_MAILDIR");
    if (root == nullptr || *root == '\0') {
        state.SkipWithError("set KESTRUNE_IMPORT_MAILDIR to a Maildir tree");
        return;
    }
    const bool withWorkflows = state.range(0) != 0;
    const AccountID account("robin@kestrune.test");
    for (auto _ : state) {
        state.PauseTiming();
        TempDir work;
        SQLiteMailStore store(StoreLocation::file((work.path / "mail.sqlite").string()));
        store.saveAccount(account, Json{{"email", account.value}}, systemClock()());
        WorkflowStore workflows(work.path / "workflows");
        for (int n = 0; n < 25; ++n) {
            StoredWorkflow w;
            w.id = "W" + std::to_string(n);
            w.author = "bench";
            w.spec = benchSpec(n);
            if (n == 0) w.spec.conditions = {WorkflowCondition{"subject", {"the"}, "", ""}};
            workflows.insert(w, 25);
            workflows.approve(w.id, systemClock()());
        }
        WorkflowEngineOptions options;
        options.extractDirectory = work.path / "extracts";
        options.limits.effectsPerHour = 1'000'000;  // measure the work, not the cap
        WorkflowEngine engine(store, workflows, systemClock(), options);
        if (withWorkflows) engine.prime();
        state.ResumeTiming();
        const auto report = MailImporter(store, account).importMaildir(root);
        if (withWorkflows) state.counters["effects"] = engine.messagesArrived().effects;
        state.counters["imported"] = static_cast<double>(report.imported);
    }
}
BENCHMARK(BM_ImportMaildir)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
