#include "kestrune_app/Host/HostCommands.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "KestruneMCPKit/Tools/MCPTools.h"
#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Common/DisplayText.h"
#include "MailCore/Workflow/WorkflowDescription.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "kestrune_app/Host/AppHost.h"
#include "kestrune_app/Host/ConfirmChannel.h"
#include "kestrune_app/Host/HostAccounts.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostSync.h"
#include "kestrune_app/Host/MCPWorkflowBridge.h"
#include "kestrune_app/Host/MailCommands.h"
#include "kestrune_app/Host/MailIngest.h"
#include "kestrune_app/Host/PendingQuestions.h"
#include "kestrune_app/Host/ProgressDisplay.h"
#include "kestrune_app/Host/RawMessageSource.h"
#include "kestrune_app/Host/StoreMailBackend.h"
#include "kestrune_app/Host/WorkflowCommands.h"

namespace kestrune::HostCommands {

namespace fs = std::filesystem;
using mailcore::Json;

namespace {

constexpr int ok = 0;
constexpr int failure = 1;
constexpr int usageError = 64;

// The two kinds the commands throw themselves: exit status 64 and 1.
struct UsageError : HostError {
    explicit UsageError(std::string detail) : HostError(Kind::usage, std::move(detail)) {}
};
struct Failure : HostError {
    explicit Failure(std::string detail) : HostError(Kind::failed, std::move(detail)) {}
};

struct Context {
    const Environment& env;
    std::optional<fs::path> dataDir;
    std::vector<std::string> args;  // after the command word
    HostPaths paths;

    void out(const std::string& text) const { env.out(text); }

    // Bytes to standard output as they are.
    void write(std::string_view bytes) const {
        if (env.write) {
            env.write(bytes);
            return;
        }
        std::string text(bytes);
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            env.out(text.substr(0, end));
            text.erase(0, end + 1);
        }
        if (!text.empty()) env.out(text);
    }

    // Progress redrawn in place on a terminal, plain lines elsewhere.
    std::unique_ptr<ProgressDisplay> progress(bool quiet) const {
        const auto mode = quiet               ? ProgressDisplay::Mode::quiet
                          : env.outIsTerminal ? ProgressDisplay::Mode::terminal
                                              : ProgressDisplay::Mode::lines;
        return std::make_unique<ProgressDisplay>(
            mode, [this](std::string_view bytes) { write(bytes); }, ProgressDisplay::steadyClock(),
            env.columns);
    }

    const std::string& arg(std::size_t i, const char* what) const {
        if (i >= args.size()) throw UsageError(std::string("missing ") + what);
        return args[i];
    }
    void noMoreThan(std::size_t n) const {
        if (args.size() > n) throw UsageError("unexpected argument " + args[n]);
    }
    // The policy store as loaded from the data directory, whatever its state
    // file held.
    std::shared_ptr<mcpkit::MCPPolicyStore> loadedPolicy() const {
        try {
            return mcpkit::MCPStorage::open(dataDir, std::nullopt, env.home).policy;
        } catch (const std::exception& e) {
            throw Failure("the data directory cannot be used: " + std::string(e.what()));
        }
    }
    // The policy store for a command that shows or changes the state: refused
    // (with the reason and what to do) when the state file could not be read,
    // so that nothing shows defaults in its place or saves over it.
    std::shared_ptr<mcpkit::MCPPolicyStore> policy() const {
        auto store = loadedPolicy();
        if (auto refusal = store->refusalToChange()) throw Failure(*refusal);
        return store;
    }
};

// Options "--name value" taken out of args; flags "--name" too.
std::optional<std::string> takeOption(std::vector<std::string>& args, const std::string& name) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
            std::string value = args[i + 1];
            args.erase(args.begin() + static_cast<long>(i),
                       args.begin() + static_cast<long>(i) + 2);
            return value;
        }
    }
    return std::nullopt;
}

bool takeFlag(std::vector<std::string>& args, const std::string& name) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

std::int64_t integer(const std::string& text, const char* what) {
    try {
        std::size_t used = 0;
        const long long value = std::stoll(text, &used);
        if (used != text.size()) throw std::invalid_argument(text);
        return value;
    } catch (const std::exception&) {
        throw UsageError(std::string(what) + " must be a whole number");
    }
}

std::string onOff(bool on) { return on ? "on" : "off"; }

// Applies a change to the agent-access state; a change that could not be
// saved fails the command with the reason.
void change(mcpkit::MCPPolicyStore& policy, const std::function<void(mcpkit::MCPState&)>& edit) {
    if (!policy.mutate(edit)) {
        throw Failure(policy.lastSaveError().value_or("the settings could not be saved"));
    }
}

// The lines typed in the terminal running `serve`.
class TerminalLines {
public:
    explicit TerminalLines(int fd) : fd_(fd) {}

    // False once the terminal is gone and every typed line was taken.
    bool isOpen() const { return fd_ >= 0 || typed_.find('\n') != std::string::npos; }

    // The next complete line, waiting at most 100 ms for more input.
    std::optional<std::string> next() {
        if (typed_.find('\n') == std::string::npos && fd_ >= 0) {
            pollfd ready{fd_, POLLIN, 0};
            if (::poll(&ready, 1, 100) > 0) {
                char buffer[512];
                const ssize_t n = ::read(fd_, buffer, sizeof buffer);
                if (n <= 0)
                    fd_ = -1;  // answers still come from `kestrune confirm`
                else
                    typed_.append(buffer, static_cast<std::size_t>(n));
            }
        }
        const auto end = typed_.find('\n');
        if (end == std::string::npos) {
            if (typed_.size() > 4096) typed_.clear();
            return std::nullopt;
        }
        std::string line = typed_.substr(0, end);
        typed_.erase(0, end + 1);
        return line;
    }

private:
    int fd_;
    std::string typed_;
};

int serve(Context& c) {
    ServeOptions options;
    options.dataDir = c.dataDir;
    options.home = c.env.home;
    options.demo = takeFlag(c.args, "--demo");
    if (auto undo = takeOption(c.args, "--undo-seconds")) {
        const auto seconds = integer(*undo, "--undo-seconds");
        if (seconds < 0 || seconds > 60) throw UsageError("--undo-seconds must be 0 to 60");
        options.undoWindow = std::chrono::seconds(seconds);
    }
    options.demoMessages = c.env.demoMessages;
    options.answerHere = c.env.input >= 0;
    TerminalLines terminal(c.env.input);
    if (terminal.isOpen()) {
        options.offerDemo = [&] {
            c.out("No mail account yet. Create the demonstration mailbox? [y/N]");
            while (terminal.isOpen() && (!c.env.stop || !c.env.stop->load())) {
                if (const auto answer = terminal.next()) return *answer == "y" || *answer == "yes";
            }
            return false;
        };
    }
    if (auto dir = takeOption(c.args, "--demo-messages")) options.demoMessages = *dir;
    c.noMoreThan(0);
    AppHost host(options, c.env.out);
    try {
        host.start();
    } catch (const std::exception& e) {
        throw Failure(e.what());
    }
    const auto policy = c.loadedPolicy();
    const auto state = policy->snapshot();
    c.out("Kestrune is serving agents at " + host.socketPath().string());
    if (auto problem = policy->lastLoadError()) c.out(*problem);
    if (hasServerAccounts(c.paths))
        if (const auto warning = credentialStoreWarning(c.paths)) c.out(*warning);
    c.out("Agent access is " + onOff(state.settings.masterEnabled) +
          (state.settings.masterEnabled ? "." : " (turn it on with: kestrune access on)."));
    c.out("Ready.");
    while (!c.env.stop || !c.env.stop->load()) {
        host.pollControl();
        if (!terminal.isOpen()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        } else if (const auto line = terminal.next()) {
            const std::string reply = host.questions()->answerTyped(*line);
            if (!reply.empty()) c.out(reply);
        }
    }
    c.out("Stopping.");
    host.stop();
    c.out("Stopped.");
    return ok;
}

int confirm(Context& c) { return confirmCommand(c.args, c.paths, c.env.out, c.env.err); }

int access(Context& c) {
    auto policy = c.policy();
    const std::string verb = c.args.empty() ? "status" : c.args[0];
    c.noMoreThan(1);
    if (verb == "on" || verb == "off") {
        change(*policy, [&](mcpkit::MCPState& s) { s.settings.masterEnabled = verb == "on"; });
    } else if (verb != "status") {
        throw UsageError("access takes on, off or status");
    }
    c.out("Agent access is " + onOff(policy->snapshot().settings.masterEnabled) + ".");
    return ok;
}

int permissions(Context& c) {
    auto policy = c.policy();
    const std::string verb = c.args.empty() ? "list" : c.args[0];
    if (verb == "enable" || verb == "disable") {
        const std::string id = c.arg(1, "the permission");
        c.noMoreThan(2);
        const auto& ids = mcpkit::MCPTools::permissionIDs();
        if (std::find(ids.begin(), ids.end(), id) == ids.end())
            throw UsageError("unknown permission " + id);
        change(*policy, [&](mcpkit::MCPState& s) {
            if (verb == "enable")
                s.settings.enabledPermissions.insert(id);
            else
                s.settings.enabledPermissions.erase(id);
        });
    } else if (verb != "list") {
        throw UsageError("permissions takes list, enable or disable");
    } else {
        c.noMoreThan(1);
    }
    const auto settings = policy->snapshot().settings;
    for (const auto& id : mcpkit::MCPTools::permissionIDs())
        c.out(id + ": " + onOff(settings.enabledPermissions.contains(id)));
    return ok;
}

int accounts(Context& c) {
    const std::string verb = c.args.empty() ? "list" : c.args[0];
    if (verb == "add" || verb == "test" || verb == "remove") {
        AccountCommandIO io{c.env.out, c.env.input, STDIN_FILENO};
        return runAccountCommand(verb, {c.args.begin() + 1, c.args.end()}, c.paths, io);
    }
    auto policy = c.policy();
    if (verb == "exclude" || verb == "include") {
        const std::string email = c.arg(1, "the account");
        c.noMoreThan(2);
        change(*policy, [&](mcpkit::MCPState& s) {
            if (verb == "exclude")
                s.settings.excludedAccounts.insert(email);
            else
                s.settings.excludedAccounts.erase(email);
        });
    } else if (verb != "list") {
        throw UsageError("accounts takes list, add, test, remove, exclude or include");
    }
    const auto settings = policy->snapshot().settings;
    std::set<std::string> listed;
    if (fs::exists(c.paths.store)) {
        mailcore::SQLiteMailStore store(mailcore::StoreLocation::file(c.paths.store.string()));
        for (const auto& a : mailcore::AccountDirectory(store).all()) {
            listed.insert(a.address);
            c.out(a.address + " (" + a.label + ")" +
                  (settings.excludedAccounts.contains(a.address) ? ": excluded from agents"
                                                                 : ": shared with agents") +
                  accountDetails(a));
        }
    }
    for (const auto& e : settings.excludedAccounts)
        if (!listed.contains(e)) c.out(e + ": excluded from agents");
    return ok;
}

const std::map<std::string, std::pair<std::int64_t mcpkit::MCPLimits::*, mcpkit::MCPLimitRange>>&
limitFields() {
    static const std::map<std::string,
                          std::pair<std::int64_t mcpkit::MCPLimits::*, mcpkit::MCPLimitRange>>
        fields{
            {"requests-per-minute",
             {&mcpkit::MCPLimits::requestsPerMinute, mcpkit::requestsPerMinuteRange}},
            {"max-search-limit", {&mcpkit::MCPLimits::maxSearchLimit, mcpkit::maxSearchLimitRange}},
            {"max-body-characters",
             {&mcpkit::MCPLimits::maxBodyCharacters, mcpkit::maxBodyCharactersRange}},
            {"max-result-bytes", {&mcpkit::MCPLimits::maxResultBytes, mcpkit::maxResultBytesRange}},
            {"max-argument-bytes",
             {&mcpkit::MCPLimits::maxArgumentBytes, mcpkit::maxArgumentBytesRange}}};
    return fields;
}

int limits(Context& c) {
    auto policy = c.policy();
    const std::string verb = c.args.empty() ? "show" : c.args[0];
    if (verb == "set") {
        const std::string name = c.arg(1, "the limit");
        const std::int64_t value = integer(c.arg(2, "the value"), "the value");
        c.noMoreThan(3);
        auto check = [&](mcpkit::MCPLimitRange r) {
            if (value < r.min || value > r.max)
                throw UsageError(name + " must be " + std::to_string(r.min) + " to " +
                                 std::to_string(r.max));
        };
        if (auto it = limitFields().find(name); it != limitFields().end()) {
            check(it->second.second);
            change(*policy,
                   [&](mcpkit::MCPState& s) { s.settings.limits.*(it->second.first) = value; });
        } else if (name == "retention-days") {
            check(mcpkit::retentionDaysRange);
            change(*policy, [&](mcpkit::MCPState& s) { s.settings.retentionDays = value; });
        } else if (name == "confirm-timeout") {
            check(mcpkit::confirmTimeoutSecondsRange);
            change(*policy, [&](mcpkit::MCPState& s) { s.settings.confirmTimeoutSeconds = value; });
        } else {
            throw UsageError("unknown limit " + name);
        }
    } else if (verb != "show") {
        throw UsageError("limits takes show or set");
    }
    const auto s = policy->snapshot().settings;
    for (const auto& [name, field] : limitFields())
        c.out(name + ": " + std::to_string(s.limits.*(field.first)));
    c.out("retention-days: " +
          (s.retentionDays ? std::to_string(*s.retentionDays) : std::string("forever")));
    c.out("confirm-timeout: " + std::to_string(s.confirmTimeoutSeconds));
    return ok;
}

int harnesses(Context& c) {
    auto policy = c.policy();
    const std::string verb = c.args.empty() ? "list" : c.args[0];
    if (verb == "list") {
        const auto state = policy->snapshot();
        if (state.harnesses.empty())
            c.out("No harness is registered. Connect one with: kestrune-mcp --install <harness>");
        for (const auto& h : state.harnesses) {
            c.out(h.id + " (" + h.name + "): " + (h.allowed ? "allowed" : "revoked") +
                  (h.lastSeen ? ", last seen " + mcpkit::MCPAuditLog::timeString(*h.lastSeen)
                              : ", never seen"));
        }
        return ok;
    }
    if (verb == "allow" || verb == "revoke") {
        const std::string id = c.arg(1, "the harness id");
        c.noMoreThan(2);
        bool found = false;
        change(*policy, [&](mcpkit::MCPState& s) {
            if (auto* h = s.harness(id)) {
                found = true;
                h->allowed = verb == "allow";
            }
        });
        if (!found) throw Failure("no harness " + id);
        c.out("Harness " + id + " " + (verb == "allow" ? "allowed." : "revoked."));
        if (verb == "revoke")
            sendControl(c.paths, Json{{"op", "reset"}, {"harness", id}}, std::chrono::seconds(5));
        return ok;
    }
    if (verb == "reset") {
        c.noMoreThan(2);
        Json request{{"op", "reset"}};
        if (c.args.size() > 1) {
            if (!policy->snapshot().harness(c.args[1])) throw Failure("no harness " + c.args[1]);
            request["harness"] = c.args[1];
        }
        auto reply = sendControl(c.paths, request, std::chrono::seconds(5));
        if (!reply) {
            c.out("Kestrune is not running: no session holds mail-read state.");
            return ok;
        }
        c.out(reply->value("message", ""));
        return reply->value("ok", false) ? ok : failure;
    }
    throw UsageError("harnesses takes list, allow, revoke or reset");
}

int audit(Context& c) {
    mcpkit::MCPAuditFilter filter;
    filter.harness = takeOption(c.args, "--harness");
    filter.tool = takeOption(c.args, "--tool");
    filter.account = takeOption(c.args, "--account");
    if (auto result = takeOption(c.args, "--result")) {
        filter.result = mcpkit::mcpResultFromRawValue(*result);
        if (!filter.result) throw UsageError("unknown result " + *result);
    }
    if (auto since = takeOption(c.args, "--since")) {
        // Clock times end in 2262; later years are refused before parsing.
        const bool tooLate = since->size() >= 4 &&
                             std::all_of(since->begin(), since->begin() + 4, ::isdigit) &&
                             std::stoi(since->substr(0, 4)) >= 2200;
        if (!tooLate) filter.since = mcpkit::MCPWorkflowMailSource::parseDate(*since);
        if (!filter.since) throw UsageError("--since takes a date like 2026-11-20T09:00:00Z");
    }
    const std::string format = takeOption(c.args, "--format").value_or("text");
    const auto output = takeOption(c.args, "--output");
    c.noMoreThan(0);
    const auto base = HostPaths::make(c.dataDir, c.env.home).mcp;
    mcpkit::MCPAuditLog log(base / "audit.jsonl");
    std::string text;
    if (format == "jsonl" || format == "csv") {
        text = log.exportEntries(filter, format == "csv"
                                             ? mcpkit::MCPAuditLog::ExportFormat::csv
                                             : mcpkit::MCPAuditLog::ExportFormat::jsonLines);
    } else if (format == "text") {
        // Each field shaped as one line by the display rule: whatever a file
        // or an agent put there, an entry prints as exactly one line.
        auto field = [](const std::string& value, std::size_t max) {
            return value.empty() ? std::string("-") : mailcore::DisplayText::line(value, max);
        };
        for (const auto& e : log.filtered(filter)) {
            text += mcpkit::MCPAuditLog::timeString(e.time) + "  " + field(e.harness, 64) + "  " +
                    field(e.tool, 64) + "  " + field(e.account, 124) + "  " +
                    std::string(mcpkit::rawValue(e.result)) + "  " + field(e.summary, 204) +
                    (e.mailInfluenced.value_or(false) ? "  [mail-influenced]" : "") + "\n";
        }
    } else {
        throw UsageError("--format takes text, jsonl or csv");
    }
    if (output) {
        std::ofstream file(*output, std::ios::binary | std::ios::trunc);
        if (!(file << text)) throw Failure("cannot write " + *output);
        return ok;
    }
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!text.empty()) c.out(text);
    return ok;
}

int workflows(Context& c) {
    const std::string verb = c.args.empty() ? "list" : c.args[0];
    if (verb == "list") {
        c.noMoreThan(1);
        WorkflowCommands::list(c.paths, mailcore::systemClock()(), c.env.out);
        return ok;
    }
    if (verb == "runs") {
        const std::string id = c.arg(1, "the workflow id");
        c.noMoreThan(2);
        WorkflowCommands::runs(c.paths, id, c.env.out);
        return ok;
    }
    if (verb == "approve" || verb == "pause" || verb == "resume" || verb == "delete") {
        const std::string id = c.arg(1, "the workflow id");
        c.noMoreThan(2);
        const Json request{{"op", "workflow"}, {"action", verb}, {"id", id}};
        auto reply = sendControl(c.paths, request, std::chrono::seconds(5));
        if (!reply) {
            if (hostIsRunning(c.paths)) throw Failure("Kestrune did not answer; try again.");
            mailcore::WorkflowStore store(c.paths.workflows);
            reply = handleControl(store, nullptr, request, mailcore::systemClock()());
        }
        c.out(reply->value("message", ""));
        return reply->value("ok", false) ? ok : failure;
    }
    throw UsageError("workflows takes list, runs, approve, pause, resume or delete");
}

int import(Context& c) {
    const auto account = takeOption(c.args, "--account");
    const auto label = takeOption(c.args, "--label");
    const auto maildir = takeOption(c.args, "--maildir");
    const auto mbox = takeOption(c.args, "--mbox");
    const bool quiet = takeFlag(c.args, "--quiet");
    c.noMoreThan(0);
    if (!account) throw UsageError("import needs --account EMAIL");
    if (maildir.has_value() == mbox.has_value())
        throw UsageError("import needs one of --maildir DIR or --mbox FILE");
    if (account->find('@') == std::string::npos)
        throw UsageError("--account must be a mail address");
    try {
        mcpkit::MCPPaths::preparePrivateDirectory(c.paths.root);
        mailcore::SQLiteMailStore store(mailcore::StoreLocation::file(c.paths.store.string()));
        const auto now = mailcore::systemClock()();
        ensureAccount(store, {*account, label.value_or(*account), false}, now);
        WorkflowCommands::ImportPass workflowPass(c.paths, store);
        const auto display = c.progress(quiet);
        const auto shown = [&](const mailcore::ImportProgress& p) {
            const auto done = static_cast<std::int64_t>(p.imported + p.skipped + p.failed);
            display->report("", p.folder, done, static_cast<std::int64_t>(p.found));
            // Ctrl-C ends the import after the batch just filed.
            if (c.env.stop && c.env.stop->load())
                throw Failure("the import stopped after " + groupedNumber(done) + " of " +
                              groupedNumber(static_cast<std::int64_t>(p.found)) +
                              " messages; the same command continues it.");
        };
        const auto result = maildir ? importMaildir(store, *account, *maildir, now, shown)
                                    : importMbox(store, *account, *mbox, now, shown);
        display->clear();
        rememberImportSource(store, *account, maildir ? *maildir : *mbox, mbox.has_value());
        c.out("Imported " + std::to_string(result.imported) + " messages into " + *account +
              (result.skipped ? " (" + std::to_string(result.skipped) + " skipped)." : "."));
        if (const auto ran = workflowPass.finish(); !ran.empty()) c.out(ran);
    } catch (const UsageError&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(e.what());
    }
    return ok;
}

int ai(Context& c) {
    try {
        WorkflowCommands::ai(
            c.args, c.paths,
            [] { return std::string(std::istreambuf_iterator<char>(std::cin), {}); }, c.env.out);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    return ok;
}

// "\"<subject>\" to <every recipient>", shown by the display rule.
std::string describe(const mailcore::OutgoingMessage& m) {
    std::string to;
    for (const auto* list : {&m.to, &m.cc, &m.bcc})
        for (const auto& a : *list) to += (to.empty() ? "" : ", ") + a.email;
    return "\"" + mailcore::DisplayText::line(m.subject, 200) + "\" to " +
           mailcore::DisplayText::line(to, 100000);
}

std::string describe(const mailcore::OutboxOperation& op) {
    using Kind = mailcore::OutboxOperation::Kind;
    switch (op.kind()) {
        case Kind::send:
            return "send " + describe(op.sendPayload().message);
        case Kind::saveDraft:
            return "save draft " + describe(op.draftSave().message);
        case Kind::setFlags:
            return "flags of " + StoreMailBackend::handle(op.message().messageID);
        case Kind::move:
            return "move " + StoreMailBackend::handle(op.message().messageID);
        case Kind::deleteMessage:
            return "delete " + StoreMailBackend::handle(op.message().messageID);
    }
    return "";
}

// The store's queue of work for the accounts' servers: list it, retry a
// failed item, or cancel one that has not started.
int outbox(Context& c) {
    const std::string verb = c.args.empty() ? "list" : c.args[0];
    if (verb != "list" && verb != "retry" && verb != "cancel")
        throw UsageError("outbox takes list, retry ID or cancel ID");
    const std::string id = verb == "list" ? "" : c.arg(1, "the item id");
    c.noMoreThan(verb == "list" ? 1 : 2);
    if (!fs::exists(c.paths.store)) throw Failure("no mail store in " + c.paths.root.string());
    try {
        mailcore::SQLiteMailStore store(mailcore::StoreLocation::file(c.paths.store.string()));
        const auto now = mailcore::systemClock()();
        if (verb == "retry") {
            if (!store.retryFailed(mailcore::OutboxItemID(id), now))
                throw Failure("outbox item " + id + " has not failed");
            c.out("Outbox item " + id + " queued again.");
        } else if (verb == "cancel") {
            store.cancel(mailcore::OutboxItemID(id));
            c.out("Outbox item " + id + " cancelled.");
        } else {
            for (const auto& a : mailcore::AccountDirectory(store).all())
                if (a.authState == mailcore::AccountAuthState::reauthorizationRequired)
                    c.out(a.address +
                          ": re-authorization required; its mail waits until you "
                          "sign in again with: kestrune accounts add " +
                          a.address + " --oauth");
            const auto rows = store.outboxItems(std::nullopt);
            if (rows.empty()) c.out("The outbox is empty.");
            for (const auto& row : rows) {
                const auto& item = row.item;
                std::string line = item.id.value + "  " + item.accountID.value + "  " +
                                   std::string(mailcore::rawValue(item.state)) + "  " +
                                   describe(item.operation) + "  attempts " +
                                   std::to_string(item.attemptCount);
                if (item.notBefore >= mailcore::OutboxWorker::heldUntilReleased())
                    line += "  held in its undo window";
                else if (item.state == mailcore::OutboxItemState::queued && item.notBefore > now)
                    line += "  next " + StoreMailBackend::isoDate(item.notBefore);
                if (item.lastError) line += "  (" + item.lastError->detail() + ")";
                c.out(line);
            }
            // Sends kept as drafts (undone, failed, or cut short by a stop)
            // wait here for the user.
            for (const auto& d : store.drafts(std::nullopt))
                c.out("draft " + StoreMailBackend::draftHandle(d.id) + "  " + d.accountID.value +
                      "  not sent  " + describe(d.message));
        }
    } catch (const mailcore::MailError& e) {
        throw Failure("outbox item " + id + ": " + e.detail());
    }
    return ok;
}

MailCommandIO mailIO(const Context& c) {
    return {c.env.out, c.env.err, [&c](std::string_view bytes) { c.write(bytes); },
            c.env.outIsTerminal};
}

int search(Context& c) {
    SearchRequest request;
    request.account = takeOption(c.args, "--account");
    request.folder = takeOption(c.args, "--folder");
    request.unreadOnly = takeFlag(c.args, "--unread");
    request.json = takeFlag(c.args, "--json");
    if (const auto limit = takeOption(c.args, "--limit")) {
        request.limit = integer(*limit, "--limit");
        if (request.limit < 1 || request.limit > 1000)
            throw UsageError("--limit must be 1 to 1000");
    }
    for (const auto& word : c.args) {
        if (word.starts_with("--")) throw UsageError("unknown option " + word);
        request.text += (request.text.empty() ? "" : " ") + word;
    }
    searchMail(request, c.paths, mailIO(c));
    return ok;
}

int show(Context& c) {
    ShowRequest request;
    request.raw = takeFlag(c.args, "--raw");
    request.json = takeFlag(c.args, "--json");
    request.handle = c.arg(0, "the message handle (for example m123)");
    c.noMoreThan(1);
    if (request.raw && request.json) throw UsageError("show takes --raw or --json, not both");
    try {
        showMail(request, c.paths, mailIO(c));
    } catch (const mailcore::MailError& e) {
        throw Failure(e.detail());
    }
    return ok;
}

// The accounts' server mail brought into the store in the foreground.
int sync(Context& c) {
    const auto display = c.progress(takeFlag(c.args, "--quiet"));
    return runSyncCommand(c.args, c.paths, {c.env.out, *display, c.env.stop});
}

}  // namespace

const std::string& usage() {
    static const std::string text =
        "usage: kestrune <command> [--data-dir DIR] ...\n"
        "\n"
        "  serve [--demo] [--undo-seconds N]   run the application for agents (Ctrl-C stops)\n"
        "  confirm [list]                      show the confirmations waiting for you\n"
        "  confirm yes|no ID                   answer a confirmation (a yes asks for the code\n"
        "                                      that serve shows next to the question)\n"
        "  confirm undo ID                     undo a send during its undo window\n"
        "  access [status|on|off]              agent access as a whole\n"
        "  permissions [list]                  what agents may do\n"
        "  permissions enable|disable TOOL\n"
        "  accounts [list]                     accounts and whether agents see them\n"
        "  accounts exclude|include EMAIL\n"
        "  accounts add EMAIL [--name NAME] [--imap HOST[:PORT]] [--imap-security tls|starttls]\n"
        "        [--smtp HOST[:PORT]] [--smtp-security tls|starttls] [--user LOGIN]\n"
        "        [--password-stdin] [--oauth] [--ca-file PEM] [--no-check]\n"
        "                                      add a mail account (servers found for known "
        "providers)\n"
        "  accounts test EMAIL                 connect to the account's servers and sign in\n"
        "  accounts remove EMAIL [--yes]       remove the account, its mail here and its "
        "credentials\n"
        "  limits [show]                       request and size limits\n"
        "  limits set NAME VALUE               requests-per-minute, max-search-limit, "
        "max-body-characters,\n"
        "                                      max-result-bytes, max-argument-bytes, "
        "retention-days,\n"
        "                                      confirm-timeout\n"
        "  harnesses [list]                    registered harnesses\n"
        "  harnesses allow|revoke ID\n"
        "  harnesses reset [ID]                forget what their sessions have read\n"
        "  audit [--harness H] [--tool T] [--account A] [--result R] [--since DATE]\n"
        "        [--format text|jsonl|csv] [--output FILE]\n"
        "  workflows [list]                    workflows agents proposed\n"
        "  workflows runs ID                   a workflow's run history\n"
        "  workflows approve|pause|resume|delete ID\n"
        "  ai [show] | clear                   the AI provider workflows use\n"
        "  ai set --url URL --model NAME [--key-stdin]\n"
        "  import --account EMAIL (--maildir DIR | --mbox FILE) [--label NAME] [--quiet]\n"
        "                                      file local mail here, showing its progress\n"
        "  outbox [list] | retry ID | cancel ID   work queued for the accounts' servers\n"
        "  sync [EMAIL] [--once] [--quiet]     bring the accounts' server mail here (again every "
        "minute\n"
        "                                      until Ctrl-C, or once)\n"
        "  search [QUERY] [--account EMAIL] [--folder NAME] [--unread] [--limit N] [--json]\n"
        "                                      the messages that match, best first: date, sender,\n"
        "                                      subject and the handle agents get (m123); N is 1 "
        "to\n"
        "                                      1000 (50 if not given). No QUERY: the newest "
        "messages.\n"
        "                                      NAME is a role (inbox, sent, drafts, archive, "
        "trash)\n"
        "                                      or a folder path. No match is no error: nothing on\n"
        "                                      standard output (--json: []), a sentence on "
        "standard\n"
        "                                      error, exit status 0.\n"
        "  show HANDLE [--raw | --json]        a message's headers and text; --raw the original\n"
        "                                      message from its server or its imported file. Exit\n"
        "                                      status 1 when no message has the handle.\n"
        "\n"
        "The QUERY language is the one agents search with: every word must match (in the "
        "subject,\n"
        "the sender, the recipients or the text), \"quoted words\" match as a phrase, and a "
        "word\n"
        "ending in * matches as a prefix (budg*). Other punctuation is plain text.\n"
        "On a terminal, control characters from mail show as \u00B7 and line breaks inside "
        "headers as\n"
        "\u23CE, so that no message can drive the terminal; that holds for --raw too, which "
        "writes the\n"
        "bytes as they are only when standard output is not a terminal (a file or a pipe).\n"
        "import and sync show their progress in place on a terminal, as a line every five "
        "seconds\n"
        "otherwise, and not at all with --quiet.\n"
        "\n"
        "Files live in ~/.local/share/kestrune, or in DIR with --data-dir (agent-access files in "
        "DIR/mcp,\n"
        "as `kestrune-mcp --data-dir DIR` expects). Exit status: 0 success, 1 failure, 64 usage "
        "error.";
    return text;
}

int run(const std::vector<std::string>& arguments, const Environment& env) {
    std::vector<std::string> args = arguments;
    try {
        if (args.empty()) {
            env.err(usage());
            return usageError;
        }
        if (takeFlag(args, "--help") || takeFlag(args, "-h") || args[0] == "help") {
            env.out(usage());
            return ok;
        }
        std::optional<fs::path> dataDir;
        if (auto dir = takeOption(args, "--data-dir")) {
            if (dir->empty()) throw UsageError("--data-dir needs a directory");
            dataDir = fs::absolute(*dir);
        }
        if (args.empty()) throw UsageError("missing command");
        const std::string command = args[0];
        Context c{env, dataDir, std::vector<std::string>(args.begin() + 1, args.end()),
                  HostPaths::make(dataDir, env.home)};
        static const std::map<std::string, int (*)(Context&)> commands{{"serve", serve},
                                                                       {"confirm", confirm},
                                                                       {"access", access},
                                                                       {"permissions", permissions},
                                                                       {"accounts", accounts},
                                                                       {"limits", limits},
                                                                       {"harnesses", harnesses},
                                                                       {"audit", audit},
                                                                       {"workflows", workflows},
                                                                       {"import", import},
                                                                       {"outbox", outbox},
                                                                       {"ai", ai},
                                                                       {"sync", sync},
                                                                       {"search", search},
                                                                       {"show", show}};
        auto it = commands.find(command);
        if (it == commands.end()) throw UsageError("unknown command " + command);
        for (const auto& a : c.args)
            if (a.starts_with("--") && command != "serve" && command != "audit" &&
                command != "import" && command != "accounts" && command != "ai" &&
                command != "sync" && command != "search" && command != "show")
                throw UsageError("unknown option " + a);
        return it->second(c);
    } catch (const HostError& e) {
        if (e.kind() != HostError::Kind::usage) {
            env.err(std::string("kestrune: ") + e.what());
            return failure;
        }
        env.err(std::string("kestrune: ") + e.what() + " (see kestrune --help)");
        return usageError;
    } catch (const std::exception& e) {
        env.err(std::string("kestrune: ") + e.what());
        return failure;
    }
}

}  // namespace kestrune::HostCommands
