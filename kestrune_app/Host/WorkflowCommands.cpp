#include "kestrune_app/Host/WorkflowCommands.h"

#include <fmt/format.h>

#include <optional>
#include <stdexcept>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Workflow/WorkflowDescription.h"
#include "MailCore/Workflow/WorkflowEngine.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/StoreMailBackend.h"

namespace kestrune::WorkflowCommands {

namespace fs = std::filesystem;

namespace {

constexpr const char* noProviderText =
    "No AI provider is configured: classified conditions never match and drafts from an "
    "instruction are not made (set one with: kestrune ai set --url URL --model NAME).";

std::string runLine(const mailcore::WorkflowRunRecord& r) {
    std::string line = StoreMailBackend::isoDate(r.startedAt) + "  " + r.trigger + "  " +
                       r.outcome +
                       fmt::format(": {} examined, {} matched, {} effect{}", r.examined, r.matched,
                                   r.effects, r.effects == 1 ? "" : "s");
    if (!r.detail.empty()) line += " (" + r.detail + ")";
    return line;
}

bool usesAI(const mailcore::WorkflowSpec& spec) {
    for (const auto& c : spec.conditions)
        if (c.type == "classified") return true;
    for (const auto& a : spec.actions)
        if (a.instruction) return true;
    return false;
}

std::optional<std::string> take(std::vector<std::string>& args, const std::string& name) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] != name) continue;
        if (i + 1 >= args.size()) throw std::invalid_argument(name + " needs a value");
        std::string value = args[i + 1];
        args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
        return value;
    }
    return std::nullopt;
}

}  // namespace

void list(const HostPaths& paths, mailcore::Date now, const Print& out) {
    mailcore::WorkflowStore workflows(paths.workflows);
    const auto all = workflows.all();
    if (all.empty()) {
        out("No workflow.");
        return;
    }
    std::unique_ptr<mailcore::SQLiteMailStore> store;
    if (fs::exists(paths.store))
        store = std::make_unique<mailcore::SQLiteMailStore>(
            mailcore::StoreLocation::file(paths.store.string()));
    const mailcore::WorkflowLimits limits;
    std::optional<AISettings> ai;
    try {
        ai = AISettings::load(paths);
    } catch (const std::exception&) {
    }
    bool aiNeeded = false;
    for (const auto& w : all) {
        out(w.id + "  " + std::string(mailcore::statusName(w.status)) + "  risk " + w.risk +
            "  by " + w.authorName + "\n  " + mailcore::describeWorkflow(w.spec));
        aiNeeded = aiNeeded || usesAI(w.spec);
        if (!store) continue;
        const auto report = mailcore::WorkflowEngine::status(*store, w.id, now);
        std::string caps =
            fmt::format("  this hour: {} of {} effects, {} of {} drafts", report.effectsThisHour,
                        limits.effectsPerHour, report.draftsThisHour, limits.draftsPerHour);
        if (report.effectsThisHour >= limits.effectsPerHour)
            caps += " (cap reached: it stops acting until the hour has passed)";
        out(caps);
        if (report.pauseReason && w.status == mailcore::WorkflowStatus::paused)
            out("  paused by Kestrune: " + *report.pauseReason);
        if (report.lastRuns.empty())
            out(w.status == mailcore::WorkflowStatus::active ? "  no run yet" : "  never ran");
        for (const auto& r : report.lastRuns) out("  " + runLine(r));
    }
    if (aiNeeded) out(ai ? "AI provider: " + ai->model + " at " + ai->url : noProviderText);
}

void runs(const HostPaths& paths, const std::string& id, const Print& out) {
    mailcore::WorkflowStore workflows(paths.workflows);
    const auto w = workflows.find(id);
    if (!w) throw HostError(HostError::Kind::notFound, "no workflow " + id);
    if (!fs::exists(paths.store)) {
        out("Workflow " + id + " has not run.");
        return;
    }
    mailcore::SQLiteMailStore store(mailcore::StoreLocation::file(paths.store.string()));
    const auto records = mailcore::WorkflowEngine::runs(store, id, 1000);
    out("\"" + w->spec.name + "\" (" + std::string(mailcore::statusName(w->status)) + ")");
    if (records.empty()) out("No run yet.");
    for (const auto& r : records) out(runLine(r));
}

void ai(std::vector<std::string> args, const HostPaths& paths,
        const std::function<std::string()>& readKey, const Print& out) {
    const std::string verb = args.empty() ? "show" : args[0];
    if (!args.empty()) args.erase(args.begin());
    if (verb == "set") {
        const auto url = take(args, "--url");
        const auto model = take(args, "--model");
        bool keyFromStdin = false;
        for (auto it = args.begin(); it != args.end(); ++it) {
            if (*it == "--key-stdin") {
                keyFromStdin = true;
                args.erase(it);
                break;
            }
        }
        if (!args.empty()) throw std::invalid_argument("unexpected argument " + args[0]);
        if (!url || !model) throw std::invalid_argument("ai set needs --url URL and --model NAME");
        if (!url->starts_with("http://") && !url->starts_with("https://"))
            throw std::invalid_argument("--url must start with http:// or https://");
        if (model->empty()) throw std::invalid_argument("--model must not be empty");
        std::optional<std::string> key;
        if (keyFromStdin) {
            key = readKey();
            while (!key->empty() && (key->back() == '\n' || key->back() == '\r')) key->pop_back();
        }
        const std::string where = AISettings::save(paths, {*url, *model, false}, key);
        out("AI provider set: " + *model + " at " + *url +
            (where.empty() ? "." : " (key kept in " + where + ")."));
        out("A running Kestrune uses it after its next start.");
        return;
    }
    if (!args.empty()) throw std::invalid_argument("unexpected argument " + args[0]);
    if (verb == "clear") {
        AISettings::clear(paths);
        out("AI provider removed.");
        return;
    }
    if (verb != "show") throw std::invalid_argument("ai takes show, set or clear");
    const auto settings = AISettings::load(paths);
    if (!settings) {
        out(noProviderText);
        return;
    }
    out("AI provider: " + settings->model + " at " + settings->url +
        (settings->hasKey ? " (with a key)" : " (no key)"));
}

ImportPass::ImportPass(const HostPaths& paths, mailcore::SQLiteMailStore& store) {
    mcpkit::MCPPaths::preparePrivateDirectory(paths.mcp);
    workflows_ = std::make_unique<mailcore::WorkflowStore>(paths.workflows);
    auto audit = std::make_shared<mcpkit::MCPAuditLog>(paths.mcp / "audit.jsonl");
    host_ = std::make_unique<HostWorkflows>(paths, store, *workflows_, std::move(audit));
    host_->engine().prime();
}

std::string ImportPass::finish() {
    const auto done = host_->engine().messagesArrived();
    if (done.runs == 0) return "";
    std::string text =
        fmt::format("Workflows: {} action{} in {} run{}", done.effects,
                    done.effects == 1 ? "" : "s", done.runs, done.runs == 1 ? "" : "s");
    if (done.capped) text += fmt::format(", {} stopped at the hourly cap", done.capped);
    if (done.failed) text += fmt::format(", {} failed", done.failed);
    return text + " (details: kestrune workflows).";
}

}  // namespace kestrune::WorkflowCommands
