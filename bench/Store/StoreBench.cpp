// Store benchmark over a generated corpus (bench/corpus). Modes:
//
//   store_bench run --corpus DIR --db FILE [--batch N] [--repeat N]
//                   [--subject-fallback all|replies]
//       Files every record of DIR/records.jsonl through upsertSync in
//       batches of N (default 500) with their bodies, then measures
//       threading accuracy against the recorded conversations, the queries
//       of DIR/queries.txt, and the inbox lists. Prints one JSON object.
//   store_bench query --db FILE TEXT
//       One search in a fresh process (for timing whole processes against
//       other tools); prints the number of hits.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "MailCore/Store/SQLiteMailStore.h"

using namespace mailcore;
using Clock_ = std::chrono::steady_clock;

namespace {

double msSince(Clock_::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock_::now() - start).count();
}

// CPU seconds used by this process so far (user + system). On a machine
// shared with other work, CPU time is steadier than wall time.
double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    double rank = p * static_cast<double>(v.size() - 1);
    auto lo = static_cast<std::size_t>(rank);
    auto hi = std::min(lo + 1, v.size() - 1);
    return v[lo] + (v[hi] - v[lo]) * (rank - static_cast<double>(lo));
}

std::vector<MailAddress> addresses(const nlohmann::json& list) {
    std::vector<MailAddress> out;
    for (const auto& a : list) {
        out.push_back(MailAddress{a.value("name", ""), a.value("email", "")});
    }
    return out;
}

struct Record {
    MessageIndexFields fields;
    std::string text;
    std::int64_t thread = 0;
};

Record toRecord(const nlohmann::json& j, const AccountID& account, FolderID folder) {
    Record r;
    auto& f = r.fields;
    f.accountID = account;
    f.folderID = folder;
    f.uid = IMAPUID(j["uid"].get<std::uint32_t>());
    f.threading = ThreadingKeys::fromHeaders(
        j["messageID"].get<std::string>(), j["inReplyTo"].get<std::string>(),
        j["references"].get<std::string>(), j["subject"].get<std::string>());
    f.subject = j["subject"].get<std::string>();
    f.from = addresses(j["from"]);
    f.to = addresses(j["to"]);
    f.cc = addresses(j["cc"]);
    f.date = dateFromSeconds(j["date"].get<double>());
    f.internalDate = f.date;
    f.flags.system = (j["seen"].get<bool>() ? std::int64_t{MessageFlags::seen} : 0) |
                     (j["flagged"].get<bool>() ? std::int64_t{MessageFlags::flagged} : 0);
    f.size = j["size"].get<std::int64_t>();
    f.hasAttachments = j["hasAttachments"].get<bool>();
    f.snippet = j["snippet"].get<std::string>();
    r.text = j["text"].get<std::string>();
    r.thread = j["thread"].get<std::int64_t>();
    return r;
}

// Pairwise precision and recall of `predicted` against `truth` (both map a
// message to its cluster).
nlohmann::json pairwiseScores(const std::vector<std::pair<std::int64_t, std::int64_t>>& pairs) {
    // pairs: (predicted, truth) per message
    std::map<std::int64_t, std::int64_t> predicted, truth;
    std::map<std::pair<std::int64_t, std::int64_t>, std::int64_t> both;
    for (const auto& [p, t] : pairs) {
        ++predicted[p];
        ++truth[t];
        ++both[{p, t}];
    }
    auto choose2 = [](std::int64_t n) { return static_cast<double>(n) * (n - 1) / 2.0; };
    double tp = 0, pp = 0, tt = 0;
    for (const auto& [k, n] : both) tp += choose2(n);
    for (const auto& [k, n] : predicted) pp += choose2(n);
    for (const auto& [k, n] : truth) tt += choose2(n);
    return {{"precision", pp > 0 ? tp / pp : 1.0},
            {"recall", tt > 0 ? tp / tt : 1.0},
            {"predictedThreads", predicted.size()},
            {"trueThreads", truth.size()}};
}

int runAll(const std::string& corpus, const std::string& dbPath, std::size_t batchSize, int repeat,
           bool repliesOnly) {
    std::remove(dbPath.c_str());
    std::remove((dbPath + "-wal").c_str());
    std::remove((dbPath + "-shm").c_str());
    SQLiteMailStore store(StoreLocation::file(dbPath));
    store.setSubjectFallbackForRepliesOnly(repliesOnly);
    AccountID account("bench");
    store.saveAccount(account, nlohmann::ordered_json::object(), dateFromSeconds(0));
    FolderID inbox =
        store.createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});

    std::vector<Record> records;
    {
        std::ifstream in(corpus + "/records.jsonl");
        std::string line;
        while (std::getline(in, line)) {
            records.push_back(toRecord(nlohmann::json::parse(line), account, inbox));
        }
    }
    if (records.empty()) {
        std::cerr << "no records in " << corpus << "/records.jsonl\n";
        return 1;
    }

    // Writes: headers through upsertSync, then the batch's bodies, batch by batch.
    double upsertMs = 0, bodyMs = 0, upsertCPU = 0, bodyCPU = 0;
    std::unordered_map<std::int64_t, std::int64_t> truthByMessage;
    for (std::size_t start = 0; start < records.size(); start += batchSize) {
        std::size_t end = std::min(records.size(), start + batchSize);
        std::vector<MessageIndexFields> batch;
        for (std::size_t i = start; i < end; ++i) batch.push_back(records[i].fields);
        auto t0 = Clock_::now();
        double c0 = cpuSeconds();
        auto ids = store.upsertSync(batch);
        upsertMs += msSince(t0);
        upsertCPU += cpuSeconds() - c0;
        std::vector<std::pair<MessageID, StoredBody>> bodies;
        for (std::size_t i = start; i < end; ++i) {
            StoredBody b;
            b.text = records[i].text;
            b.fetchedAt = records[i].fields.date;
            b.bytes = static_cast<std::int64_t>(records[i].text.size());
            bodies.emplace_back(ids[i - start], std::move(b));
            truthByMessage[ids[i - start].value] = records[i].thread;
        }
        t0 = Clock_::now();
        c0 = cpuSeconds();
        store.saveBodies(bodies);
        bodyMs += msSince(t0);
        bodyCPU += cpuSeconds() - c0;
    }
    double n = static_cast<double>(records.size());
    nlohmann::json out;
    out["messages"] = records.size();
    out["batchSize"] = batchSize;
    out["subjectFallback"] = repliesOnly ? "replies" : "all";
    out["write"] = {{"upsertSyncSeconds", upsertMs / 1000},
                    {"upsertSyncPerSecond", n / (upsertMs / 1000)},
                    {"bodiesSeconds", bodyMs / 1000},
                    {"withBodiesPerSecond", n / ((upsertMs + bodyMs) / 1000)},
                    {"upsertSyncCPUSeconds", upsertCPU},
                    {"upsertSyncPerCPUSecond", n / upsertCPU},
                    {"bodiesCPUSeconds", bodyCPU},
                    {"withBodiesPerCPUSecond", n / (upsertCPU + bodyCPU)}};
    struct stat st {};
    if (::stat(dbPath.c_str(), &st) == 0) out["databaseBytes"] = st.st_size;

    // Threading accuracy.
    std::vector<std::pair<std::int64_t, std::int64_t>> pairs;
    store.read([&](SQLiteDatabase& db) {
        db.forEachRow("SELECT id, thread_id FROM messages", {}, [&](const SQLRow& row) {
            pairs.emplace_back(row.int64(1), truthByMessage.at(row.int64(0)));
            return true;
        });
    });
    out["threading"] = pairwiseScores(pairs);

    // Search: every query `repeat` times.
    std::vector<std::string> queries;
    {
        std::ifstream in(corpus + "/queries.txt");
        std::string line;
        while (std::getline(in, line)) {
            if (!line.empty()) queries.push_back(line);
        }
    }
    std::vector<double> samples;
    double searchCPU0 = cpuSeconds();
    nlohmann::json perQuery = nlohmann::json::array();
    for (const auto& q : queries) {
        std::vector<double> times;
        std::size_t hits = 0;
        for (int r = 0; r < repeat; ++r) {
            auto t0 = Clock_::now();
            hits = store.search(SearchQuery{q, std::nullopt, std::nullopt, false, 50}).size();
            times.push_back(msSince(t0));
        }
        samples.insert(samples.end(), times.begin(), times.end());
        perQuery.push_back({{"query", q}, {"hits", hits}, {"medianMs", percentile(times, 0.5)}});
    }
    double searchCPU = cpuSeconds() - searchCPU0;
    out["search"] = {{"queries", queries.size()},
                     {"repeat", repeat},
                     {"meanCPUMs", searchCPU * 1000 / static_cast<double>(samples.size())},
                     {"medianMs", percentile(samples, 0.5)},
                     {"p99Ms", percentile(samples, 0.99)},
                     {"perQuery", perQuery}};

    // Lists: first page and a page halfway down, plain and collapsed.
    auto middle = store.read([&](SQLiteDatabase& db) {
        return db.queryOne<PageCursor>(
            "SELECT date, id FROM messages WHERE folder_id = ? ORDER BY date DESC, id DESC LIMIT 1 "
            "OFFSET ?",
            {inbox, static_cast<std::int64_t>(records.size() / 2)}, [](const SQLRow& row) {
                return PageCursor{row.date(0), row.id<MessageID>(1)};
            });
    });
    nlohmann::json lists = nlohmann::json::object();
    for (bool collapsed : {false, true}) {
        for (bool deep : {false, true}) {
            MessageQuery q;
            q.folderID = inbox;
            q.collapseThreads = collapsed;
            q.pageSize = 50;
            if (deep) q.cursor = middle;
            std::vector<double> times;
            std::size_t rows = 0;
            for (int r = 0; r < 20; ++r) {
                auto t0 = Clock_::now();
                rows = store.messages(q).rows.size();
                times.push_back(msSince(t0));
            }
            std::string key =
                std::string(collapsed ? "collapsed" : "plain") + (deep ? "DeepPage" : "FirstPage");
            lists[key] = {{"medianMs", percentile(times, 0.5)},
                          {"p99Ms", percentile(times, 0.99)},
                          {"rows", rows}};
        }
    }
    out["lists"] = lists;
    std::cout << out.dump(2) << "\n";
    return 0;
}

int oneQuery(const std::string& dbPath, const std::string& text) {
    SQLiteMailStore store(StoreLocation::file(dbPath));
    auto hits = store.search(SearchQuery{text, std::nullopt, std::nullopt, false, 50});
    std::cout << hits.size() << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string mode = args.empty() ? "" : args[0];
    std::map<std::string, std::string> options;
    std::vector<std::string> rest;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i].rfind("--", 0) == 0 && i + 1 < args.size()) {
            options[args[i]] = args[i + 1];
            ++i;
        } else {
            rest.push_back(args[i]);
        }
    }
    try {
        if (mode == "run" && options.count("--corpus") && options.count("--db")) {
            std::size_t batch = options.count("--batch") ? std::stoul(options["--batch"]) : 500;
            int repeat = options.count("--repeat") ? std::stoi(options["--repeat"]) : 5;
            bool repliesOnly =
                options.count("--subject-fallback") && options["--subject-fallback"] == "replies";
            return runAll(options["--corpus"], options["--db"], batch, repeat, repliesOnly);
        }
        if (mode == "query" && options.count("--db") && rest.size() == 1) {
            return oneQuery(options["--db"], rest[0]);
        }
    } catch (const std::exception& e) {
        std::cerr << "store_bench: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: store_bench run --corpus DIR --db FILE [--batch N] [--repeat N]\n"
                 "                       [--subject-fallback all|replies]\n"
                 "       store_bench query --db FILE TEXT\n";
    return 64;
}
