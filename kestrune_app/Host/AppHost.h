// AppHost: the running application. Opens the mail store and the
// agent-access files of one data directory, fills the demonstration mailbox
// when asked, and serves harnesses through one MCPService on the link socket
// until stopped.
//
// The user's commands reach the running host in two ways: policy changes
// through "state.json" (reloaded by the policy store, which prunes the audit
// log and forgets the mail-read state of revoked harnesses), and requests
// that need its memory (resetting mail-read state, workflow decisions)
// through request files in the private control directory, answered by
// `pollControl`.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Link/MCPSocketServer.h"
#include "KestruneMCPKit/Policy/MCPStorage.h"
#include "KestruneMCPKit/Service/MCPService.h"
#include "MailCore/Engine/OutboxWorker.h"
#include "MailCore/Engine/SendExecutor.h"
#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Workflow/WorkflowStore.h"
#include "MailCore/Workflow/WorkflowStoreMail.h"
#include "kestrune_app/Host/HostPaths.h"
#include "kestrune_app/Host/HostSync.h"
#include "kestrune_app/Host/HostWorkflows.h"
#include "kestrune_app/Host/LocalDelivery.h"
#include "kestrune_app/Host/MCPWorkflowBridge.h"
#include "kestrune_app/Host/PendingQuestions.h"
#include "kestrune_app/Host/StoreMailBackend.h"

namespace kestrune {

struct ServeOptions {
    std::optional<std::filesystem::path> dataDir;
    std::filesystem::path home;
    bool demo = false;
    std::filesystem::path demoMessages;  // the bundled .eml files
    std::chrono::milliseconds undoWindow{5000};
    bool answerHere = false;  // questions may be answered by typing in this terminal
    // Asked when the store has no account and `demo` is off: true creates
    // the demonstration mailbox.
    std::function<bool()> offerDemo;
};

// A user's request to the running host, and its answer.
mailcore::Json handleControl(mailcore::WorkflowStore& workflows, mcpkit::MCPService* service,
                             const mailcore::Json& request, mailcore::Date now);

class AppHost {
public:
    using Print = std::function<void(const std::string&)>;

    AppHost(ServeOptions options, Print out);
    ~AppHost();

    // Opens everything and starts listening. Throws HostError with a sentence
    // for the user: dataDirectory, alreadyRunning, cannotListen, notFound (no
    // demonstration messages).
    void start();

    // Answers waiting control requests and reloads a changed policy file.
    void pollControl();

    // Stops accepting, waits (up to `grace`) for calls in progress to be
    // answered, removes the socket file and releases the data directory.
    void stop(std::chrono::milliseconds grace = std::chrono::milliseconds(10000));

    // The "message received" hook: mail was filed in the store (by sync,
    // an import or the demo); approved new_message workflows run on it.
    void messagesReceived();

    const HostPaths& paths() const { return paths_; }
    const std::filesystem::path& socketPath() const { return storage_.socketPath; }
    std::shared_ptr<mailcore::SQLiteMailStore> store() const { return store_; }
    // The open questions; answers typed in the serving terminal go here.
    std::shared_ptr<PendingQuestions> questions() const { return questions_; }

private:
    void fillDemo();
    // Keeps as drafts the sends a stop cut short (waiting for a yes, or
    // inside their undo window) and tells the user.
    void keepInterruptedSends(const std::vector<mailcore::Json>& records,
                              const std::vector<mailcore::OutboxSend>& unreleased);
    void settingsChanged();

    ServeOptions options_;
    Print out_;
    HostPaths paths_;
    int lockFD_ = -1;
    mcpkit::MCPStorage storage_;
    std::shared_ptr<mailcore::SQLiteMailStore> store_;
    std::shared_ptr<PendingQuestions> questions_;
    std::shared_ptr<LocalDelivery> delivery_;
    // Flag changes, moves and deletes of server accounts; everything else
    // goes on to delivery_.
    std::shared_ptr<mailcore::IMAPOutboxExecutor> imapOutbox_;
    // Sends of server accounts; everything else goes on to imapOutbox_.
    std::shared_ptr<mailcore::SendExecutor> sender_;
    std::shared_ptr<mailcore::OutboxWorker> outbox_;  // works on store_ through sender_
    std::shared_ptr<StoreMailBackend> backend_;
    std::shared_ptr<mcpkit::MCPAuditLog> audit_;
    std::unique_ptr<mailcore::WorkflowStore> workflows_;
    std::unique_ptr<mailcore::WorkflowStoreMail> workflowMail_;
    std::unique_ptr<HostWorkflows> workflowRunner_;
    std::unique_ptr<ServeSync> sync_;  // the server accounts' sync, on store_
    std::shared_ptr<mcpkit::MCPWorkflowBridge> bridge_;
    std::unique_ptr<mcpkit::MCPService> service_;
    std::unique_ptr<mcpkit::MCPSocketServer> server_;
    std::unique_ptr<mcpkit::MCPSocketServer> answers_;  // `kestrune confirm`
    std::atomic<int> inFlight_{0};
    std::mutex knownLock_;
    std::set<std::string> allowedHarnesses_;  // guarded by knownLock_
};

// "\"<subject>\" to <every recipient>", and the undo notice built on it.
std::string sendSummary(const mcpkit::MCPOutgoing& message);
std::string undoNotice(const mcpkit::MCPOutgoing& message, std::chrono::milliseconds window);
// A question as the terminal running `serve` shows it, with its one-time
// code (the only place the code appears).
std::string questionText(const PendingQuestion& q, const std::string& code, bool answerHere,
                         const std::optional<std::filesystem::path>& dataDir);

// True when a host holds the data directory's lock (is serving).
bool hostIsRunning(const HostPaths& paths);

// Sends a control request to the running host and waits up to `timeout` for
// its answer; none when no host answered.
std::optional<mailcore::Json> sendControl(const HostPaths& paths, const mailcore::Json& request,
                                          std::chrono::milliseconds timeout);

}  // namespace kestrune
