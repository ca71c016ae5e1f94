// HostWorkflows: the workflow engine as the application runs it. Builds the
// engine over the store and the workflow store of one data directory, with
// the audit log as its audit sink, the person's AI provider when one is
// configured, and the extract files in the workflows directory.
//
// AI provider settings (`kestrune ai set`) live in DATA/ai (mode 0700):
// "provider.json" (0600) holds the URL, the model and whether there is a key;
// the key itself is kept in the credential store of the mail accounts (the
// keyring, or its private file), under the name "ai-provider".
//
// The runner: a background thread that passes over the workflows every few
// seconds and at once when woken (`messagesReceived`, the hook for sync,
// import and the demo mailbox). Thread-safe.
#pragma once

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "MailCore/AI/AIProvider.h"
#include "MailCore/Workflow/WorkflowEngine.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

// The AI provider settings of a data directory.
struct AISettings {
    static constexpr const char* credentialAccount = "ai-provider";

    std::string url;
    std::string model;
    bool hasKey = false;

    static std::filesystem::path directory(const HostPaths& paths);
    // None when nothing is configured; throws HostError when the
    // settings cannot be read.
    static std::optional<AISettings> load(const HostPaths& paths);
    // Writes the settings, and the key when given (an empty key removes it;
    // none keeps the one saved before). Returns where a given key went
    // ("the Secret Service", ...). Throws HostError when either is refused.
    static std::string save(const HostPaths& paths, AISettings settings,
                            const std::optional<std::string>& key);
    // Removes the settings and the key.
    static void clear(const HostPaths& paths);
    // The provider built from the settings and key; none when unconfigured.
    // Throws HostError when the key it needs is missing.
    static std::shared_ptr<mailcore::AIProvider> provider(const HostPaths& paths);
};

// Workflow runs and effects as audit log entries: the author as harness,
// "workflow_run" / "workflow_effect" as tool, the workflow in the summary.
class WorkflowAuditAdapter : public mailcore::WorkflowAuditSink {
public:
    explicit WorkflowAuditAdapter(std::shared_ptr<mcpkit::MCPAuditLog> log)
        : log_(std::move(log)) {}
    void record(const mailcore::WorkflowAuditEvent& event) override;

private:
    std::shared_ptr<mcpkit::MCPAuditLog> log_;
};

class HostWorkflows {
public:
    // `store` and `workflows` must outlive this object. Reports what the
    // runner did through `report` (may be empty).
    HostWorkflows(const HostPaths& paths, mailcore::SQLiteMailStore& store,
                  mailcore::WorkflowStore& workflows, std::shared_ptr<mcpkit::MCPAuditLog> audit,
                  mailcore::Clock clock = mailcore::systemClock(),
                  std::function<void(const std::string&)> report = {});
    ~HostWorkflows();

    mailcore::WorkflowEngine& engine() { return *engine_; }

    // Starts the background runner (passing every `interval`).
    void start(std::chrono::milliseconds interval = std::chrono::seconds(5));
    // The "message received" hook: wakes the runner at once.
    void messagesReceived();
    // Finishes the pass that a message received before it asked for, then
    // stops the runner.
    void stop();

private:
    void loop(std::chrono::milliseconds interval);

    std::shared_ptr<mcpkit::MCPAuditLog> auditLog_;
    WorkflowAuditAdapter auditSink_;
    std::unique_ptr<mailcore::WorkflowEngine> engine_;
    std::function<void(const std::string&)> report_;
    std::mutex lock_;
    std::condition_variable wake_;
    bool woken_ = false;     // guarded by lock_
    bool stopping_ = false;  // guarded by lock_
    std::thread thread_;
};

}  // namespace kestrune
