#include "kestrune_app/Host/AppHost.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPPaths.h"
#include "KestruneMCPKit/Link/MCPSocketError.h"
#include "MailCore/Common/DisplayText.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Workflow/WorkflowDescription.h"
#include "kestrune_app/Host/ConfirmChannel.h"
#include "kestrune_app/Host/HostAccounts.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/MailIngest.h"
#include "kestrune_app/Host/ServerSending.h"

namespace kestrune {

namespace fs = std::filesystem;
using mailcore::Json;

namespace {

constexpr const char* demoAccount = "alex@example.com";

std::string fileText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool validRequestName(const std::string& stem) {
    return !stem.empty() && stem.size() <= 64 && std::all_of(stem.begin(), stem.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
    });
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) out += (out.empty() ? "" : ", ") + item;
    return out;
}

}  // namespace

std::string sendSummary(const mcpkit::MCPOutgoing& m) {
    std::vector<std::string> all = m.to;
    all.insert(all.end(), m.cc.begin(), m.cc.end());
    if (m.fromDraft) all.insert(all.end(), m.fromDraft->bcc.begin(), m.fromDraft->bcc.end());
    // Agent text: shown by the display rule, every recipient in full.
    return "\"" + mailcore::DisplayText::line(m.subject, 200) + "\" to " +
           mailcore::DisplayText::line(joined(all), 100000);
}

std::string undoNotice(const mcpkit::MCPOutgoing& m, std::chrono::milliseconds window) {
    return "Sending " + sendSummary(m) + " in " +
           std::to_string(std::chrono::duration_cast<std::chrono::seconds>(window).count()) +
           " s.\n";
}

std::string questionText(const PendingQuestion& q, const std::string& code, bool answerHere,
                         const std::optional<std::filesystem::path>& dataDir) {
    std::string text = "\n== " + std::string(q.kind == "undo" ? "Undo send" : "Confirm") + " [" +
                       q.id + "] ==\n" + q.text;
    const std::string command =
        "kestrune confirm" + (dataDir ? " --data-dir " + dataDir->string() : std::string());
    if (q.kind == "undo")
        return text + (answerHere ? "Type u to undo (or: " + command + " undo " + q.id + ")"
                                  : "Undo with: " + command + " undo " + q.id);
    if (answerHere) text += "Type y to allow or n to refuse.\n";
    return text + "From another terminal: " + command + " yes " + q.id +
           " and type the one-time code " + code + " when asked (or: " + command + " no " + q.id +
           ")";
}

Json handleControl(mailcore::WorkflowStore& workflows, mcpkit::MCPService* service,
                   const Json& request, mailcore::Date now) {
    auto reply = [](bool ok, const std::string& message) {
        return Json{{"ok", ok}, {"message", message}};
    };
    if (!request.is_object()) return reply(false, "not a request");
    const std::string op = request.value("op", "");
    if (op == "reset") {
        std::optional<std::string> harness;
        if (request.contains("harness") && request["harness"].is_string())
            harness = request["harness"].get<std::string>();
        if (service) service->clearMailInfluence(harness);
        return reply(true, harness ? "Mail-read state of " + *harness + " cleared."
                                   : "Mail-read state of every harness cleared.");
    }
    if (op == "workflow") {
        const std::string action = request.value("action", "");
        const std::string id = request.value("id", "");
        mailcore::WorkflowStore::Change change;
        if (action == "approve")
            change = workflows.approve(id, now);
        else if (action == "pause")
            change = workflows.pause(id, now);
        else if (action == "resume")
            change = workflows.resume(id, now);
        else if (action == "delete")
            change = workflows.removeByUser(id);
        else
            return reply(false, "unknown workflow action " + action);
        using Outcome = mailcore::WorkflowStore::Outcome;
        if (change.outcome == Outcome::notFound) return reply(false, "No workflow " + id + ".");
        if (change.outcome == Outcome::unchanged)
            return reply(true, "Workflow " + id + " unchanged (status " +
                                   std::string(mailcore::statusName(change.workflow.status)) +
                                   ").");
        return reply(true, action == "delete"
                               ? "Workflow " + id + " deleted."
                               : "Workflow " + id + " is now " +
                                     std::string(mailcore::statusName(change.workflow.status)) +
                                     ".");
    }
    return reply(false, "unknown request " + op);
}

AppHost::AppHost(ServeOptions options, Print out)
    : options_(std::move(options)),
      out_(std::move(out)),
      paths_(HostPaths::make(options_.dataDir, options_.home)) {}

AppHost::~AppHost() { stop(std::chrono::milliseconds(0)); }

void AppHost::start() {
    try {
        mcpkit::MCPPaths::preparePrivateDirectory(paths_.root);
        mcpkit::MCPPaths::preparePrivateDirectory(paths_.mcp);
    } catch (const std::exception& e) {
        throw HostError(
            HostError::Kind::dataDirectory,
            "The data directory " + paths_.root.string() + " cannot be used: " + e.what());
    }
    lockFD_ = ::open(paths_.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFD_ < 0)
        throw HostError(HostError::Kind::dataDirectory, "Cannot open " + paths_.lock.string());
    if (::flock(lockFD_, LOCK_EX | LOCK_NB) != 0) {
        ::close(lockFD_);
        lockFD_ = -1;
        throw HostError(HostError::Kind::alreadyRunning,
                        "Kestrune is already running for " + paths_.root.string() + ".");
    }

    storage_ = mcpkit::MCPStorage::open(options_.dataDir, std::nullopt, options_.home);
    store_ = std::make_shared<mailcore::SQLiteMailStore>(
        mailcore::StoreLocation::file(paths_.store.string()));
    if (hostAccounts(*store_).empty()) {
        if (options_.demo || (options_.offerDemo && options_.offerDemo())) {
            fillDemo();
        } else {
            out_(
                "No mail account yet. Run `kestrune serve --demo` for the demonstration mailbox, "
                "or `kestrune import` a Maildir or mbox.");
        }
    }

    questions_ = std::make_shared<PendingQuestions>(
        paths_.pending, mailcore::systemClock(), [this](const std::string& line) { out_(line); });
    mcpkit::MCPPaths::preparePrivateDirectory(paths_.pending);
    mcpkit::MCPPaths::preparePrivateDirectory(paths_.control);
    const auto withdrawn = questions_->withdrawPrevious();
    auto show = [this](const PendingQuestion& q, const std::string& code) {
        out_(questionText(q, code, options_.answerHere, options_.dataDir));
    };
    auto questions = questions_;
    const auto window = options_.undoWindow;
    delivery_ = std::make_shared<LocalDelivery>(store_);
    imapOutbox_ = std::make_shared<mailcore::IMAPOutboxExecutor>(
        *store_, serverIMAPSessions(store_, paths_), *delivery_);
    sender_ = std::make_shared<mailcore::SendExecutor>(
        *store_,
        serverSendServices(store_, [paths = paths_] { return openCredentialStore(paths); }),
        *imapOutbox_);
    outbox_ = std::make_shared<mailcore::OutboxWorker>(*store_, *sender_);
    const auto recovered = outbox_->recoverAtLaunch();
    if (recovered.requeued > 0)
        out_("Resuming " + std::to_string(recovered.requeued) +
             " outbox operation(s) interrupted by the last stop" +
             (recovered.heldSends > 0 ? "; a send that may have gone out is looked for in Sent "
                                        "before it is tried again."
                                      : "."));
    outbox_->start(2, 1.0);
    SendPath sending;
    sending.outbox = outbox_;
    sending.undoWindow = std::chrono::duration<double>(window).count();
    if (window.count() > 0) {
        auto out = out_;
        sending.holdForUndo = [questions, window, show, out](
                                  const mcpkit::MCPOutgoing& m,
                                  const std::function<bool()>& takeBack) {
            const auto end = questions->ask(
                "undo", undoNotice(m, window), window, show, nullptr, [&](const std::string&) {
                    return takeBack() ? "Undone: nothing was sent; the message is in Drafts."
                                      : "Too late: the send had already started.";
                });
            using End = SendPath::HoldEnd;
            if (end.kind == QuestionEnd::Kind::withdrawn) {
                out("The send " + sendSummary(m) +
                    " was inside its undo window and is kept as a draft.");
                return End::stopped;
            }
            return end.kind == QuestionEnd::Kind::answered ? End::undone : End::windowOver;
        };
    }
    backend_ = std::make_shared<StoreMailBackend>(store_, mailcore::systemClock(), sending);
    auto confirmer = std::make_shared<FileConfirmer>(questions_, show);
    keepInterruptedSends(withdrawn, recovered.unreleased);

    audit_ = std::make_shared<mcpkit::MCPAuditLog>(storage_.auditURL);
    const auto state = storage_.policy->snapshot();
    audit_->prune(state.settings.retentionDays);
    {
        std::lock_guard guard(knownLock_);
        for (const auto& h : state.harnesses)
            if (h.allowed) allowedHarnesses_.insert(h.id);
    }
    storage_.policy->setOnChange([this] { settingsChanged(); });

    workflows_ = std::make_unique<mailcore::WorkflowStore>(paths_.workflows);
    workflowRunner_ = std::make_unique<HostWorkflows>(paths_, *store_, *workflows_, audit_,
                                                      mailcore::systemClock(), out_);
    workflowRunner_->engine().prime();
    workflowRunner_->start();
    sync_ = std::make_unique<ServeSync>(store_, paths_, out_, [this] { messagesReceived(); });
    sync_->start();
    workflowMail_ = std::make_unique<mailcore::WorkflowStoreMail>(*store_);
    const bool ai = workflowRunner_->engine().hasAIProvider();
    bridge_ = std::make_shared<mcpkit::MCPWorkflowBridge>(
        *workflows_, *backend_, *workflowMail_, mailcore::systemClock(), [ai] { return ai; });
    service_ =
        std::make_unique<mcpkit::MCPService>(storage_.policy, audit_, backend_, confirmer, bridge_);
    server_ = std::make_unique<mcpkit::MCPSocketServer>(
        storage_.socketPath.string(), mcpkit::MCP::maxFrameBytes, [this](const std::string& frame) {
            ++inFlight_;
            struct Done {
                std::atomic<int>& n;
                ~Done() { --n; }
            } done{inFlight_};
            return service_->handleFrame(frame);
        });
    answers_ = std::make_unique<mcpkit::MCPSocketServer>(
        paths_.answers.string(), 64 * 1024,
        [questions](const std::string& frame) { return answerFrame(*questions, frame); });
    try {
        answers_->start();
    } catch (const std::exception& e) {
        throw HostError(
            HostError::Kind::cannotListen,
            "Cannot listen for answers at " + paths_.answers.string() + ": " + e.what());
    }
    try {
        server_->start();
    } catch (const mcpkit::MCPSocketError& e) {
        if (e.kind() == mcpkit::MCPSocketError::Kind::alreadyRunning)
            throw HostError(HostError::Kind::alreadyRunning,
                            "Kestrune is already running at " + storage_.socketPath.string() + ".");
        throw HostError(HostError::Kind::cannotListen,
                        "Cannot listen at " + storage_.socketPath.string() + ": " + e.what());
    }
}

void AppHost::settingsChanged() {
    const auto state = storage_.policy->snapshot();
    if (audit_) audit_->prune(state.settings.retentionDays);
    std::set<std::string> allowed;
    for (const auto& h : state.harnesses)
        if (h.allowed) allowed.insert(h.id);
    std::set<std::string> gone;
    {
        std::lock_guard guard(knownLock_);
        for (const auto& id : allowedHarnesses_)
            if (!allowed.contains(id)) gone.insert(id);
        allowedHarnesses_ = allowed;
    }
    if (service_)
        for (const auto& id : gone) service_->clearMailInfluence(id);
}

void AppHost::pollControl() {
    if (!storage_.policy) return;
    storage_.policy->reloadIfChanged();
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(paths_.control, error)) {
        if (entry.path().extension() != ".request") continue;
        const std::string stem = entry.path().stem().string();
        const auto data = readControlFile(entry.path());
        std::error_code ignored;
        fs::remove(entry.path(), ignored);
        if (!validRequestName(stem) || !data) continue;
        Json reply;
        try {
            Json request;
            if (!mailcore::tryParseJson(*data, request)) request = Json();
            reply = handleControl(*workflows_, service_.get(), request, mailcore::systemClock()());
        } catch (const std::exception& e) {
            reply = Json{{"ok", false}, {"message", e.what()}};
        }
        writeControlFile(paths_.control / (stem + ".reply"), mailcore::encodeJson(reply));
    }
}

void AppHost::stop(std::chrono::milliseconds grace) {
    // Nothing waits for an answer that can no longer come: open questions
    // end, and what they held is kept for the next start.
    if (questions_) questions_->withdrawAll();
    if (server_) {
        server_->stop();
        const auto deadline = std::chrono::steady_clock::now() + grace;
        while (inFlight_.load() > 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        server_.reset();
    }
    if (sync_) sync_->stop();
    if (workflowRunner_) workflowRunner_->stop();
    answers_.reset();
    if (outbox_) outbox_->stop();
    if (storage_.policy) storage_.policy->setOnChange(nullptr);
    if (lockFD_ >= 0) {
        ::close(lockFD_);
        lockFD_ = -1;
    }
}

void AppHost::messagesReceived() {
    if (workflowRunner_) workflowRunner_->messagesReceived();
}

void AppHost::keepInterruptedSends(const std::vector<Json>& records,
                                   const std::vector<mailcore::OutboxSend>& unreleased) {
    std::vector<std::string> kept;
    for (const auto& record : records) {
        if (!record.is_object() || !record.contains("keepAsDraft")) continue;
        try {
            const auto message = record["keepAsDraft"].get<mcpkit::MCPOutgoing>();
            backend_->saveDraft(message, std::nullopt);
            kept.push_back(sendSummary(message));
        } catch (const std::exception& e) {
            out_(std::string("A send interrupted by the last stop could not be kept: ") + e.what());
        }
    }
    for (const auto& send : unreleased) {
        mcpkit::MCPOutgoing m;
        for (const auto& a : send.message.to) m.to.push_back(a.email);
        for (const auto& a : send.message.cc) m.cc.push_back(a.email);
        m.fromDraft = mcpkit::MCPDraftExtras{};
        for (const auto& a : send.message.bcc) m.fromDraft->bcc.push_back(a.email);
        m.subject = send.message.subject;
        kept.push_back(sendSummary(m));
    }
    if (kept.empty()) return;
    std::string list;
    for (const auto& k : kept) list += (list.empty() ? "" : "; ") + k;
    out_(kept.size() == 1
             ? "1 send was interrupted and kept as a draft: " + list +
                   "; `kestrune outbox` to see it."
             : std::to_string(kept.size()) + " sends were interrupted and kept as drafts: " + list +
                   "; `kestrune outbox` to see them.");
}

void AppHost::fillDemo() {
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(options_.demoMessages, error))
        if (entry.path().extension() == ".eml") files.push_back(entry.path());
    if (files.empty())
        throw HostError(HostError::Kind::notFound,
                        "No demonstration messages in " + options_.demoMessages.string());
    std::sort(files.begin(), files.end());
    const auto now = mailcore::systemClock()();
    ensureAccount(*store_, {demoAccount, "Alex Morgan (demo)", true}, now);
    for (const auto& file : files) {
        const std::string name = file.filename().string();
        const bool sent = name.find("sent") != std::string::npos;
        mailcore::MessageFlags flags;
        if (sent || name.find("read") != std::string::npos)
            flags.system |= mailcore::MessageFlags::seen;
        const auto folder = folderWithRole(
            *store_, demoAccount, sent ? mailcore::FolderRole::sent : mailcore::FolderRole::inbox);
        fileMessage(*store_, demoAccount, folder, fileText(file), flags, now);
    }
    out_("Demonstration mailbox " + std::string(demoAccount) + " created with " +
         std::to_string(files.size()) + " messages.");
}

bool hostIsRunning(const HostPaths& paths) {
    const int fd = ::open(paths.lock.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0;
    ::close(fd);
    return locked;
}

std::optional<Json> sendControl(const HostPaths& paths, const Json& request,
                                std::chrono::milliseconds timeout) {
    if (!hostIsRunning(paths)) return std::nullopt;
    const std::string id = mailcore::makeUUID();
    const fs::path replyPath = paths.control / (id + ".reply");
    if (!writeControlFile(paths.control / (id + ".request"), mailcore::encodeJson(request)))
        return std::nullopt;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (auto data = readControlFile(replyPath)) {
            std::error_code ignored;
            fs::remove(replyPath, ignored);
            Json json;
            if (mailcore::tryParseJson(*data, json)) return json;
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::error_code ignored;
    fs::remove(paths.control / (id + ".request"), ignored);
    return std::nullopt;
}

}  // namespace kestrune
