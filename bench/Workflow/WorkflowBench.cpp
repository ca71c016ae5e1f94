// What active workflows cost on new mail: matching one message against 25
// workflows of 12 conditions each, and an import of 10,000 messages with and
// without those workflows running on it.
//
//   build/release/bench/Workflow/workflow_bench
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

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
        const std::string type = types[i];
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
        for (const auto& spec : specs) matched += WorkflowMatcher::matches(spec, m, context);
        benchmark::DoNotOptimize(matched);
    }
    state.counters["matched_per_message"] = static_cast<double>(matched) / state.iterations();
}
BENCHMARK(BM_MatchNewMessage25x12)->Unit(benchmark::kMicrosecond);

struct TempDir {
    fs::path path;
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "workflow-bench-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

// A Maildir of 10,000 messages from 50 senders, every tenth about an invoice.
const fs::path& corpus() {
    static TempDir dir;
    static const bool made = [] {
        fs::create_directories(dir.path / "cur");
        fs::create_directories(dir.path / "new");
        fs::create_directories(dir.path / "tmp");
        for (int i = 0; i < 10000; ++i) {
            std::ofstream out(dir.path / "cur" / (std::to_string(1000000 + i) + ".bench:2,S"));
            out << "From: Sender " << i % 50 << " <s" << i % 50 << "@example" << i % 7
                << ".org>\r\nTo: alex@mycompany.com\r\nSubject: "
                << (i % 10 == 0 ? "Invoice " : "Update ") << i
                << "\r\nDate: Mon, 16 Nov 2026 11:00:00 +0000\r\nMessage-ID: <" << i
                << "@bench>\r\nContent-Type: text/plain\r\n\r\n"
                << "Hello,\r\nthis is message " << i << " about the quarterly plan.\r\n";
        }
        return true;
    }();
    (void)made;
    return dir.path;
}

void BM_Import10000(benchmark::State& state) {
    const bool withWorkflows = state.range(0) != 0;
    const fs::path& source = corpus();
    for (auto _ : state) {
        state.PauseTiming();
        TempDir work;
        SQLiteMailStore store(StoreLocation::file((work.path / "mail.sqlite").string()));
        store.saveAccount(AccountID("alex@mycompany.com"), Json{{"email", "alex@mycompany.com"}},
                          systemClock()());
        WorkflowStore workflows(work.path / "workflows");
        for (int n = 0; n < 25; ++n) {
            StoredWorkflow w;
            w.id = "W" + std::to_string(n);
            w.author = "bench";
            w.spec = benchSpec(n);
            if (n == 0)  // one that matches the invoices
                w.spec.conditions = {WorkflowCondition{"subject", {"invoice"}, "", ""}};
            workflows.insert(w, 25);
            workflows.approve(w.id, systemClock()());
        }
        WorkflowEngineOptions options;
        options.extractDirectory = work.path / "extracts";
        WorkflowEngine engine(store, workflows, systemClock(), options);
        if (withWorkflows) engine.prime();
        state.ResumeTiming();
        MailImporter importer(store, AccountID("alex@mycompany.com"));
        const auto report = importer.importMaildir(source);
        if (withWorkflows) {
            const auto done = engine.messagesArrived();
            state.counters["effects"] = done.effects;
        }
        state.counters["imported"] = static_cast<double>(report.imported);
    }
}
BENCHMARK(BM_Import10000)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
