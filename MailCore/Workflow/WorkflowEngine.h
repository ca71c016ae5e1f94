// WorkflowEngine: runs the workflows the person approved.
//
// Only workflows that are approved and active run. Triggers:
// - new_message: each message the store receives after the workflow became
//   active (messages above the workflow's cursor; sent, draft and trash
//   copies are not "received"), exactly once per message and workflow: the
//   ledger entry, the effects and the cursor move are one store transaction,
//   so a restart, a second process or a repeated call never acts twice.
// - schedule: at its hour, minute and weekdays in the person's time zone; a
//   run missed while the application was stopped is made up once, at the
//   next pass. A digest collects the matching messages received since the
//   previous run, at most maxDigestMessages of them.
// - no_reply: a conversation the person wrote last, unanswered for
//   after_hours, once per conversation and workflow.
//
// Actions go through the store and its outbox: labels, read and star as
// flag changes queued for the server; reminders, notifications, notices and
// collection entries as workflow outputs; digests and reply drafts as local
// drafts that only the person can send; extracted fields as JSON lines in
// the workflow's file of the extract directory (mode 0600). Nothing here
// sends, forwards, moves or deletes mail.
//
// Limits: at most effectsPerHour effects and draftsPerHour drafts per
// workflow in any sliding hour; once a cap is reached the workflow stops
// acting until the hour has passed, and its run says so. A workflow whose
// runs fail failuresBeforePause times in a row is paused with the reason.
// Every run and every effect is reported to the audit sink with the
// workflow and its author.
//
// `classified` conditions and `instruction` drafts need the AI provider:
// without one they never match and are never made. Verdicts are cached per
// message and condition in the store.
//
// Thread-safe: passes are serialised by the engine's lock; the store and
// the workflow store have their own. Time comes only from the clock.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/AI/AIProvider.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Workflow/WorkflowLimits.h"
#include "MailCore/Workflow/WorkflowMatcher.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "MailCore/Workflow/WorkflowStoreMail.h"

namespace mailcore {

struct WorkflowAuditEvent {
    std::string workflowID;
    std::string workflowName;
    std::string author;  // the harness that proposed it
    std::string authorName;
    std::string kind;     // "run" or "effect"
    std::string account;  // the message's account, when there is one
    std::string outcome;  // "ok", "capped", "failed", "paused"
    std::string summary;  // counts and kinds; no mail text
};

class WorkflowAuditSink {
public:
    virtual ~WorkflowAuditSink() = default;
    virtual void record(const WorkflowAuditEvent& event) = 0;
};

struct WorkflowEngineOptions {
    WorkflowLimits limits;
    WorkflowMatcher::UTCOffset utcOffset = WorkflowMatcher::localUTCOffset();
    std::filesystem::path extractDirectory;  // the application's folder for extract files
    int failuresBeforePause = 3;
    int messagesPerBatch = 200;
};

struct WorkflowRunRecord {
    std::int64_t id = 0;
    std::string workflowID;
    std::string trigger;
    Date startedAt{};
    std::int64_t examined = 0;
    std::int64_t matched = 0;
    std::int64_t effects = 0;
    std::string outcome;  // "ok", "capped", "failed"
    std::string detail;
};

struct WorkflowStatusReport {
    std::int64_t effectsThisHour = 0;
    std::int64_t draftsThisHour = 0;
    std::optional<std::string> pauseReason;
    std::vector<WorkflowRunRecord> lastRuns;  // newest first
};

// What one pass did, over all workflows.
struct WorkflowPassSummary {
    int runs = 0;
    int effects = 0;
    int capped = 0;  // runs that hit an hourly cap
    int failed = 0;
};

class WorkflowEngine {
public:
    // `store`, `workflows` and `audit` (may be null) must outlive the engine;
    // `ai` may be null (no provider configured).
    WorkflowEngine(SQLiteMailStore& store, WorkflowStore& workflows, Clock clock,
                   WorkflowEngineOptions options = {}, WorkflowAuditSink* audit = nullptr,
                   std::shared_ptr<AIProvider> ai = nullptr);

    // Gives every workflow that has no cursor yet one at the newest message,
    // so that only mail filed afterwards counts as new for it. Call before
    // filing mail when the engine was not running (an import).
    void prime();

    // The "message received" hook: runs new_message workflows on every
    // message filed since the last pass. Any caller (sync, import, demo) may
    // call it after filing; calling it with nothing new is cheap.
    WorkflowPassSummary messagesArrived();

    // Runs the schedule and no_reply workflows that are due now.
    WorkflowPassSummary runDue();

    // Both of the above.
    WorkflowPassSummary tick();

    bool hasAIProvider() const { return ai_ != nullptr; }

    // The person's view, readable without an engine (another process).
    static WorkflowStatusReport status(SQLiteMailStore& store, const std::string& workflowID,
                                       Date now, int lastRuns = 3);
    static std::vector<WorkflowRunRecord> runs(SQLiteMailStore& store,
                                               const std::string& workflowID, int limit = 100);

private:
    struct Cursor;
    struct Budget;
    struct RunTally;
    struct Prepared;

    std::vector<StoredWorkflow> workflowsInOrder();
    Cursor cursorFor(const StoredWorkflow& workflow, std::int64_t newest);
    void saveCursor(const std::string& id, const Cursor& cursor);
    Budget budgetFor(const std::string& workflowID, Date now);
    // Judges classified conditions (cached) and prepares AI drafts; outside
    // any store transaction.
    bool matchesMessage(const StoredWorkflow& w, WorkflowMatcher::FoldedMessage& message,
                        MessageID id, RunTally& tally);
    // Applies the actions of `w` to `message` inside one transaction,
    // claiming `ledgerKey`; false when the key was already claimed.
    bool act(const StoredWorkflow& w, const WorkflowMailMessage& message, MessageID id,
             const std::string& ledgerKey, Budget& budget, RunTally& tally,
             std::optional<std::int64_t> cursorTo);
    void digest(const StoredWorkflow& w, Cursor& cursor, Date scheduledAt, Budget& budget,
                RunTally& tally);
    void finishRun(const StoredWorkflow& w, const std::string& trigger, RunTally& tally,
                   WorkflowPassSummary& summary);
    void audit(const StoredWorkflow& w, const std::string& kind, const std::string& account,
               const std::string& outcome, const std::string& summary);
    std::string myName(const std::string& account);

    SQLiteMailStore& store_;
    WorkflowStore& workflows_;
    Clock clock_;
    WorkflowEngineOptions options_;
    WorkflowAuditSink* audit_;
    std::shared_ptr<AIProvider> ai_;
    WorkflowStoreMail mail_;
    std::mutex lock_;                        // one pass at a time
    std::vector<std::string> ownAddresses_;  // guarded by lock_, refreshed per pass
};

}  // namespace mailcore
