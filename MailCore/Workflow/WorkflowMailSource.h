// WorkflowMailSource: the mail a workflow preview looks at. The host adapts
// its mail backend to it (the agent service's bridge does so over
// MCPMailBackend); tests use an in-memory list. Implementations must be
// safe to call from several threads at once.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"

namespace mailcore {

struct WorkflowMailAttachment {
    std::string name;
    std::string type;  // MIME type, for example "application/pdf"
};

struct WorkflowMailMessage {
    std::string id;       // the message handle agents know as message_id
    std::string account;  // account key (email)
    std::string folder;
    std::string from;             // "Name <address>" or a bare address
    std::vector<std::string> to;  // recipients (to and cc), bare addresses
    std::string subject;
    std::string date;            // as the backend shows it
    std::optional<Date> sentAt;  // when known
    std::string snippet;
    std::string bodyText;  // may be empty when only the snippet is known
    bool unread = false;
    bool hasAttachment = false;
    std::vector<WorkflowMailAttachment> attachments;
    // The subjects of the conversation's messages, when the source knows the
    // thread (in_thread then looks at all of them).
    std::vector<std::string> threadSubjects;
};

class WorkflowMailSource {
public:
    virtual ~WorkflowMailSource() = default;

    // The newest messages of `accounts`, newest first, at most `limit`. The
    // caller always names the accounts; an empty list reads nothing. May throw; callers treat any
    // exception as "the mail could not be read" and never show its text to an agent.
    virtual std::vector<WorkflowMailMessage> recentMessages(
        const std::vector<std::string>& accounts, int limit) = 0;

    // The last message of each conversation of `accounts` that the person
    // wrote last and nobody answered, sent at or before `cutoff`, newest
    // first, at most `limit`. None when the source cannot see conversations.
    virtual std::optional<std::vector<WorkflowMailMessage>> unansweredThreads(
        const std::vector<std::string>& /*accounts*/, Date /*cutoff*/, int /*limit*/) {
        return std::nullopt;
    }
};

}  // namespace mailcore
