// Benchmarks of the MIME layer.
//
//   BM_ParsePythonCorpus   parsing Python's e-mail test messages (messages/s)
//   BM_BuildMessage        building a message with an attachment
//   BM_ImportMaildir       a whole Maildir import into a fresh store: parse,
//                          thread, index, store bodies (messages/s). Reads
//                          the tree named by KESTRUNE_IMPORT_MAILDIR; skipped
//                          without it. KESTRUNE_IMPORT_WORKERS sets the
//                          parsing threads (default: one per core).
//
// bench/MIME/compare_import.sh runs the import side by side with other
// indexers on the same tree and reports peak memory.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "MailCore/Common/Json.h"
#include "MailCore/MIME/GMimeSupport.h"
#include "MailCore/MIME/MailImporter.h"
#include "MailCore/MIME/MessageBuilder.h"
#include "MailCore/MIME/MessageParser.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace {

using namespace mailcore;
namespace fs = std::filesystem;

std::vector<std::string> pythonMessages() {
    std::vector<std::string> out;
    const fs::path dir = "/usr/lib/python3.11/test/test_email/data";
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().filename().string().rfind("msg_", 0) != 0) continue;
        std::ifstream in(it->path(), std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        out.push_back(text.str());
    }
    return out;
}

void BM_ParsePythonCorpus(benchmark::State& state) {
    const auto messages = pythonMessages();
    if (messages.empty()) {
        state.SkipWithError("libpython3.11-testsuite is not installed");
        return;
    }
    const MessageParser parser;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        for (const auto& m : messages) {
            benchmark::DoNotOptimize(parser.parse(m));
            bytes += static_cast<std::int64_t>(m.size());
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages.size()));
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_ParsePythonCorpus);

void BM_BuildMessage(benchmark::State& state) {
    ComposedMessage m;
    m.from = {"Zoë", "zoe@example.com"};
    m.to = {{"Bob", "bob@example.org"}};
    m.subject = "Grüße – notes";
    m.date = dateFromSeconds(1700000000);
    m.text = std::string(4000, 'x');
    m.attachments.push_back(
        {"notes.pdf", "application/pdf", std::string(20000, '\x42'), std::nullopt, false});
    for (auto _ : state) benchmark::DoNotOptimize(MessageBuilder::build(m));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BuildMessage);

void BM_ImportMaildir(benchmark::State& state) {
    const char* root = std::getenv("KESTRUNE_IMPORT_MAILDIR");
    if (root == nullptr || *root == '\0') {
        state.SkipWithError("set KESTRUNE_IMPORT_MAILDIR to a Maildir tree");
        return;
    }
    const char* workers = std::getenv("KESTRUNE_IMPORT_WORKERS");
    for (auto _ : state) {
        std::string dir = (fs::temp_directory_path() / "kestrune-import-bench-XXXXXX").string();
        if (::mkdtemp(dir.data()) == nullptr) {
            state.SkipWithError("mkdtemp failed");
            return;
        }
        ImportReport report;
        {
            SQLiteMailStore store(StoreLocation::file(dir + "/mail.db"));
            const AccountID account("bench");
            store.saveAccount(account, Json::object(), systemClock()());
            ImportOptions options;
            if (workers != nullptr) options.workers = static_cast<unsigned>(std::atoi(workers));
            const auto start = std::chrono::steady_clock::now();
            report = MailImporter(store, account).importMaildir(root, options);
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            state.SetIterationTime(seconds);
            state.counters["messages"] = static_cast<double>(report.imported);
            state.counters["failed"] = static_cast<double>(report.failed);
            state.counters["messages_per_s"] = static_cast<double>(report.imported) / seconds;
        }
        std::error_code ec;
        state.counters["store_MB"] = static_cast<double>(fs::file_size(dir + "/mail.db", ec)) / 1e6;
        fs::remove_all(dir, ec);
    }
}
BENCHMARK(BM_ImportMaildir)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    mailcore::shutdownGMime();
    return 0;
}
