#include "kestrune_app/Host/HostWorkflows.h"

#include <pthread.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/AI/OpenAIChatProvider.h"
#include "MailCore/Common/PrivateFiles.h"
#include "kestrune_app/Host/HostAccounts.h"
#include "kestrune_app/Host/HostError.h"

namespace kestrune {

namespace fs = std::filesystem;
using mailcore::Json;

namespace {
// The settings file and the key are a few hundred bytes; anything far larger
// is not ours.
constexpr std::size_t kSettingsBound = 64 * 1024;
}  // namespace

fs::path AISettings::directory(const HostPaths& paths) { return paths.root / "ai"; }

std::optional<AISettings> AISettings::load(const HostPaths& paths) {
    const auto file =
        mailcore::systemFiles()->read(directory(paths) / "provider.json", kSettingsBound);
    if (file.missing()) return std::nullopt;
    Json json;
    if (!file.ok() || !mailcore::tryParseJson(file.bytes, json) || !json.is_object() ||
        !json.value("url", Json()).is_string() || !json.value("model", Json()).is_string())
        throw HostError(HostError::Kind::failed,
                        "the AI provider settings cannot be read; set them again with "
                        "`kestrune ai set`");
    AISettings s;
    s.url = json["url"].get<std::string>();
    s.model = json["model"].get<std::string>();
    s.hasKey = json.value("key", false) == true;
    return s;
}

std::string AISettings::save(const HostPaths& paths, AISettings settings,
                             const std::optional<std::string>& key) {
    mcpkit::MCPPaths::preparePrivateDirectory(paths.root);
    mcpkit::MCPPaths::preparePrivateDirectory(directory(paths));
    std::string where;
    if (key) {
        const auto credentials = openCredentialStore(paths);
        try {
            if (key->empty()) {
                credentials->removeAll(credentialAccount);
            } else {
                credentials->setSecret(credentialAccount, mailcore::CredentialKind::apiKey, *key);
                where = credentials->description();
            }
        } catch (const mailcore::MailError& e) {
            throw HostError(HostError::Kind::failed, "cannot save the key: " + e.detail());
        }
        settings.hasKey = !key->empty();
    } else if (const auto before = load(paths)) {
        settings.hasKey = before->hasKey;  // the key stays
    }
    const Json json{{"url", settings.url}, {"model", settings.model}, {"key", settings.hasKey}};
    std::string error;
    if (!mailcore::systemFiles()->writeAtomically(directory(paths) / "provider.json",
                                                  mailcore::encodeJson(json), &error))
        throw HostError(HostError::Kind::failed, "cannot save the AI provider settings: " + error);
    return where;
}

void AISettings::clear(const HostPaths& paths) {
    if (const auto settings = load(paths); settings && settings->hasKey) {
        try {
            openCredentialStore(paths)->removeAll(credentialAccount);
        } catch (const mailcore::MailError& e) {
            throw HostError(HostError::Kind::failed, "cannot remove the key: " + e.detail());
        }
    }
    std::error_code ignored;
    fs::remove(directory(paths) / "provider.json", ignored);
}

std::shared_ptr<mailcore::AIProvider> AISettings::provider(const HostPaths& paths) {
    const auto settings = load(paths);
    if (!settings) return nullptr;
    mailcore::AIProviderConfig config;
    config.url = settings->url;
    config.model = settings->model;
    if (settings->hasKey) {
        config.apiKey =
            openCredentialStore(paths)->secret(credentialAccount, mailcore::CredentialKind::apiKey);
        if (!config.apiKey)
            throw HostError(HostError::Kind::failed,
                            "the AI provider's key is missing from " +
                                openCredentialStore(paths)->description() +
                                "; set it again with `kestrune ai set --key-stdin`");
    }
    try {
        return std::make_shared<mailcore::OpenAIChatProvider>(std::move(config));
    } catch (const mailcore::AIProviderError& e) {
        throw HostError(HostError::Kind::failed,
                        std::string("the AI provider settings are not usable: ") + e.what());
    }
}

void WorkflowAuditAdapter::record(const mailcore::WorkflowAuditEvent& e) {
    if (!log_) return;
    mcpkit::MCPResult result = mcpkit::MCPResult::ok;
    if (e.outcome == "failed" || e.outcome == "paused") result = mcpkit::MCPResult::error;
    if (e.outcome == "capped") result = mcpkit::MCPResult::rateLimited;
    log_->record(e.author, e.kind == "effect" ? "workflow_effect" : "workflow_run", e.account,
                 result, "workflow " + e.workflowID + " \"" + e.workflowName + "\": " + e.summary,
                 std::nullopt);
}

HostWorkflows::HostWorkflows(const HostPaths& paths, mailcore::SQLiteMailStore& store,
                             mailcore::WorkflowStore& workflows,
                             std::shared_ptr<mcpkit::MCPAuditLog> audit, mailcore::Clock clock,
                             std::function<void(const std::string&)> report)
    : auditLog_(std::move(audit)), auditSink_(auditLog_), report_(std::move(report)) {
    mailcore::WorkflowEngineOptions options;
    options.extractDirectory = paths.workflows / "extracts";
    std::shared_ptr<mailcore::AIProvider> ai;
    try {
        ai = AISettings::provider(paths);
    } catch (const std::exception& e) {
        if (report_) report_(std::string("Workflows run without an AI provider: ") + e.what());
    }
    engine_ = std::make_unique<mailcore::WorkflowEngine>(store, workflows, std::move(clock),
                                                         options, &auditSink_, std::move(ai));
}

HostWorkflows::~HostWorkflows() { stop(); }

void HostWorkflows::start(std::chrono::milliseconds interval) {
    std::lock_guard guard(lock_);
    if (thread_.joinable()) return;
    stopping_ = false;
    thread_ = std::thread([this, interval] { loop(interval); });
}

void HostWorkflows::messagesReceived() {
    {
        std::lock_guard guard(lock_);
        woken_ = true;
    }
    wake_.notify_all();
}

void HostWorkflows::stop() {
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void HostWorkflows::loop(std::chrono::milliseconds interval) {
    pthread_setname_np(pthread_self(), "kestrune-wf");
    while (true) {
        {
            std::unique_lock guard(lock_);
            wake_.wait_for(guard, interval, [this] { return woken_ || stopping_; });
            // Mail announced before the stop is acted on before stopping.
            if (stopping_ && !woken_) return;
            woken_ = false;
        }
        try {
            const auto done = engine_->tick();
            if (report_ && done.effects > 0)
                report_("Workflows: " + std::to_string(done.effects) + " action(s) in " +
                        std::to_string(done.runs) + " run(s)" +
                        (done.capped ? ", " + std::to_string(done.capped) + " at their hourly cap"
                                     : "") +
                        ".");
        } catch (const std::exception& e) {
            if (report_) report_(std::string("Workflows could not run: ") + e.what());
        }
    }
}

}  // namespace kestrune
