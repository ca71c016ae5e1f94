// StoreMailBackend: the agent tools' mail operations over the local mail
// store.
//
// Message handles given to agents are "m" followed by the store's message
// number; folder ids are the folder's role ("inbox", "sent", "drafts",
// "archive", "trash", ...) or, for folders without one, their path.
//
// Reads come from the store. Writes (read state, labels, stars, drafts) are
// applied to the store at once; flag changes are also queued in the outbox
// for the server. Sends wait through the undo-send window
// (`holdForUndo`) and are then delivered: a demo account files the message
// in its own Sent folder; other accounts have no transport in this build and
// their sends end as failed. Every failure of the store throws, so the agent
// sees an error and never an empty answer.
//
// Thread-safe: the store serialises its operations.
#pragma once

#include <functional>
#include <memory>

#include "KestruneMCPKit/Service/MCPMailBackend.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Store/OutboxRecords.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace kestrune {

class StoreMailBackend : public mcpkit::MCPMailBackend {
public:
    // Called after a confirmed send, before delivery; true when the user
    // undid the send during the window. The default never undoes.
    using UndoHold = std::function<bool(const mcpkit::MCPOutgoing&)>;

    StoreMailBackend(std::shared_ptr<mailcore::SQLiteMailStore> store,
                     mailcore::Clock clock = mailcore::systemClock(), UndoHold holdForUndo = {});

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
    // 2026-11-20T09:00:00Z
    static std::string isoDate(mailcore::Date date);

private:
    mailcore::MessageID requireMessage(const std::string& id, const std::string& account);
    // Queues a flag change for the server (the outbox folds repeated ones).
    void queueFlags(mailcore::MessageID id, const mailcore::FlagChange& change);
    mailcore::MessageID fileLocal(const mcpkit::MCPOutgoing& message, mailcore::FolderRole role,
                                  const std::optional<std::string>& inReplyTo);
    mcpkit::MCPMessageSummary summary(const mailcore::MessageListRow& row,
                                      const std::optional<std::string>& snippet);
    std::string folderKey(mailcore::FolderID id);

    std::shared_ptr<mailcore::SQLiteMailStore> store_;
    mailcore::Clock clock_;
    UndoHold holdForUndo_;
};

}  // namespace kestrune
