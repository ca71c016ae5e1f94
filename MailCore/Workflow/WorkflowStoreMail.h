// WorkflowStoreMail: the mail of the local store as workflows see it. Loads
// one message with its recipients, text, attachments and the subjects of
// its conversation; lists recent mail for previews; and finds the
// conversations the person wrote last that nobody answered.
//
// "The person's own addresses" are the store's account keys that are mail
// addresses, plus the "email" member of an account's configuration.
//
// Thread-safe: the store serialises its operations; nothing else is kept.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Store/SQLiteMailStore.h"
#include "MailCore/Workflow/WorkflowMailSource.h"

namespace mailcore {

class WorkflowStoreMail : public WorkflowMailSource {
public:
    // How far back before the cutoff an unanswered conversation is still
    // looked for.
    static constexpr std::chrono::hours noReplyLookback{24 * 30};

    explicit WorkflowStoreMail(SQLiteMailStore& store) : store_(store) {}

    // What to read besides the headers (the headers are always read).
    struct Parts {
        bool body = true;
        bool attachments = true;
        bool thread = true;
    };
    std::optional<WorkflowMailMessage> load(MessageID id, Parts parts);
    std::optional<WorkflowMailMessage> load(MessageID id) { return load(id, Parts{}); }

    std::vector<WorkflowMailMessage> recentMessages(const std::vector<std::string>& accounts,
                                                    int limit) override;
    std::optional<std::vector<WorkflowMailMessage>> unansweredThreads(
        const std::vector<std::string>& accounts, Date cutoff, int limit) override;

    // Lower-case, each once.
    std::vector<std::string> ownAddresses();
    // Every account key of the store.
    std::vector<std::string> accountKeys();

    // "m<n>": the handle agents know a message by.
    static std::string handle(MessageID id);
    // The store id behind a handle, when it is one.
    static std::optional<MessageID> messageID(const std::string& handle);

private:
    SQLiteMailStore& store_;
};

}  // namespace mailcore
