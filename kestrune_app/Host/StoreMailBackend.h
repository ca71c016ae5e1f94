// StoreMailBackend: the agent tools' mail operations over the local mail
// store.
//
// Message handles given to agents are "m" followed by the store's message
// number; folder ids are the folder's role ("inbox", "sent", "drafts",
// "archive", "trash", ...) or, for folders without one, their path.
//
// Drafts saved by agents are the store's draft records, with handles "d"
// followed by the draft's id; a message filed in a Drafts folder ("m<n>")
// can be sent as a draft too.
//
// Reads come from the store. Writes are applied to the store at once and
// queued in the outbox for the account's server: flag changes, draft saves,
// and sends. A confirmed send is queued so that it is not due before the
// undo-send window has passed; while it waits, `holdForUndo` asks the user,
// and an undo takes it back out of the outbox and keeps the message as a
// draft. After the window the outbox carries the send out and the call
// waits (at most `sendWait` seconds) for the outcome; a send that did not go
// out is kept as a draft too, so nothing the user confirmed is lost. Every
// failure of the store throws, so the agent sees an error and never an empty
// answer.
//
// Thread-safe: the store serialises its operations.
#pragma once

#include <functional>
#include <memory>

#include "KestruneMCPKit/Tools/MCPMailBackend.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Engine/OutboxWorker.h"
#include "MailCore/Store/OutboxRecords.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace kestrune {

// How confirmed sends go out.
struct SendPath {
    // Carries drafts, sends and flag changes out; without one, sends fail.
    std::shared_ptr<mailcore::OutboxWorker> outbox;
    double undoWindow = 0;  // seconds
    double sendWait = 15;   // seconds to wait for the outcome after the window
    // How the undo-send window ended.
    enum class HoldEnd { windowOver, undone, stopped };
    // Called once a confirmed send is queued (held: it goes nowhere until
    // released); returns when the window ends. When the user undoes, it
    // calls `takeBack`, which takes the send back into Drafts and says
    // whether it could. `stopped` (the application is stopping) keeps the
    // send as a draft: a window cut short never lets it go. None releases
    // the send at once.
    std::function<HoldEnd(const mcpkit::MCPOutgoing&, const std::function<bool()>& takeBack)>
        holdForUndo;
};

class StoreMailBackend : public mcpkit::MCPMailBackend {
public:
    StoreMailBackend(std::shared_ptr<mailcore::SQLiteMailStore> store,
                     mailcore::Clock clock = mailcore::systemClock(), SendPath sending = {});

    std::vector<mcpkit::MCPAccount> accounts() override;
    std::vector<mcpkit::MCPFolder> folders(const std::string& account) override;
    mcpkit::MCPSearchPage search(const mcpkit::MCPSearchQuery& query) override;
    std::optional<mcpkit::MCPMessage> message(const std::string& id,
                                              const std::optional<std::string>& account) override;
    void setRead(const std::string& id, const std::string& account, bool read) override;
    void applyLabel(const std::string& id, const std::string& account,
                    const std::optional<std::string>& label,
                    const std::optional<bool>& star) override;
    std::string saveDraft(const mcpkit::MCPOutgoing& outgoing,
                          const std::optional<std::string>& inReplyTo) override;
    std::optional<mcpkit::MCPOutgoing> draft(const std::string& id) override;
    mcpkit::MCPSendDelivery send(const mcpkit::MCPOutgoing& message,
                                 const std::optional<std::string>& draftID) override;

    // "m<number>", and back (none for anything else).
    static std::string handle(mailcore::MessageID id);
    static std::optional<mailcore::MessageID> messageID(const std::string& handle);
    // "d<draft id>", and back.
    static std::string draftHandle(const mailcore::DraftID& id);
    static std::optional<mailcore::DraftID> draftID(const std::string& handle);
    // 2026-11-20T09:00:00Z
    static std::string isoDate(mailcore::Date date);

private:
    mailcore::MessageID requireMessage(const std::string& id, const std::string& account);
    // Queues a flag change for the server (the outbox folds repeated ones).
    void queueFlags(mailcore::MessageID id, const mailcore::FlagChange& change);
    // The draft behind a handle, in `account` when one is named; a Drafts
    // folder message becomes a new (unsaved) record carrying its Message-ID.
    std::optional<mailcore::DraftRecord> draftRecord(const std::string& handle,
                                                     const std::optional<std::string>& account);
    // Saves the draft and queues its save to the server, in one transaction.
    void keepDraft(const mailcore::DraftRecord& draft);
    void kick(const std::string& account);
    mcpkit::MCPMessageSummary summary(const mailcore::MessageListRow& row,
                                      const std::optional<std::string>& snippet);
    std::string folderKey(mailcore::FolderID id);

    std::shared_ptr<mailcore::SQLiteMailStore> store_;
    mailcore::Clock clock_;
    SendPath sending_;
};

}  // namespace kestrune
