// MCPMailBackend: the mail operations behind the agent tools, supplied by the
// host application, and the plain records that cross that boundary.
//
// Implementations must be thread-safe: the agent service calls them from
// several request threads at once. Every call blocks its caller until done.
// Any operation may throw (any std::exception); the service never shows the
// exception's text to the agent and answers "The request failed." instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mcpkit {

struct MCPAccount {
    std::string email;  // the account's key everywhere in the tools
    std::string label;  // display label

    bool operator==(const MCPAccount&) const = default;
};

struct MCPFolder {
    std::string id;  // for example "inbox"
    std::string name;
    std::int64_t unread = 0;  // unread count

    bool operator==(const MCPFolder&) const = default;
};

struct MCPSearchQuery {
    std::vector<std::string> accounts;  // account emails to search
    std::string text;                   // the query; may be empty
    std::optional<std::string> folder;  // folder id
    std::optional<std::string> from;
    bool unreadOnly = false;
    std::int64_t limit = 10;
    std::int64_t offset = 0;

    bool operator==(const MCPSearchQuery&) const = default;
};

struct MCPMessageSummary {
    std::string id;  // the opaque handle given to the agent as message_id
    std::string account;
    std::string folder;
    std::string from;
    std::string subject;
    std::string date;
    std::string snippet;
    bool unread = false;

    bool operator==(const MCPMessageSummary&) const = default;
};

// One page of search results and the total number of matches.
struct MCPSearchPage {
    std::vector<MCPMessageSummary> results;
    std::int64_t total = 0;

    bool operator==(const MCPSearchPage&) const = default;
};

struct MCPAttachment {
    std::string name;
    std::string type;  // media type, for example "application/pdf"

    bool operator==(const MCPAttachment&) const = default;
};

struct MCPMessage {
    std::string id;
    std::string account;
    std::string from;
    std::vector<std::string> to;  // bare addresses
    std::vector<std::string> cc;  // bare addresses
    std::string date;
    std::string subject;
    std::string bodyText;  // sanitized plain text
    std::vector<MCPAttachment> attachments;

    bool operator==(const MCPMessage&) const = default;
};

// What a saved draft sends besides the fields an agent can set: shown to the
// user with the draft, so that nothing goes out unseen.
struct MCPDraftExtras {
    std::string id;  // the draft's handle
    std::vector<std::string> bcc;
    std::vector<std::string> replyTo;
    std::optional<std::size_t> htmlCharacters = std::nullopt;       // present with an HTML part
    std::vector<std::pair<std::string, std::int64_t>> attachments;  // name, size in bytes

    bool operator==(const MCPDraftExtras&) const = default;
};

struct MCPOutgoing {
    std::string account;
    std::vector<std::string> to;
    std::vector<std::string> cc;
    std::string subject;
    std::string body;
    std::optional<MCPDraftExtras> fromDraft = std::nullopt;  // present when sent from a draft

    bool operator==(const MCPOutgoing&) const = default;
};

// How a confirmed send ended: handed to the outbox and sent; undone by the
// user during the undo-send window (the message stays in Drafts); or failed.
enum class MCPSendDelivery { sent, undone, failed };

// "sent", "undone", "failed".
const char* toString(MCPSendDelivery delivery);

class MCPMailBackend {
public:
    virtual ~MCPMailBackend() = default;

    // Every configured account (the service removes the excluded ones).
    virtual std::vector<MCPAccount> accounts() = 0;

    // The folders of one account.
    virtual std::vector<MCPFolder> folders(const std::string& account) = 0;

    // One page of results for `query` and the total number of matches.
    virtual MCPSearchPage search(const MCPSearchQuery& query) = 0;

    // The message with handle `id`, or none if the handle is unknown. With an
    // account, only that account is searched; without one, any account (the
    // caller checks the returned message's `account`).
    virtual std::optional<MCPMessage> message(const std::string& id,
                                              const std::optional<std::string>& account) = 0;

    // Sets (true) or clears (false) the read flag.
    virtual void setRead(const std::string& id, const std::string& account, bool read) = 0;

    // Adds `label` when given, and stars (true) or unstars (false) when `star`
    // is given.
    virtual void applyLabel(const std::string& id, const std::string& account,
                            const std::optional<std::string>& label,
                            const std::optional<bool>& star) = 0;

    // Saves `outgoing` as a draft in its account's Drafts, as a reply to
    // message `inReplyTo` when given. Returns the draft's id.
    virtual std::string saveDraft(const MCPOutgoing& outgoing,
                                  const std::optional<std::string>& inReplyTo) = 0;

    // A saved draft, or none if `id` is unknown.
    virtual std::optional<MCPOutgoing> draft(const std::string& id) = 0;

    // Hands a message the user has confirmed to the outbox and waits through
    // the undo-send window. `draftID` names the draft it came from, if any.
    virtual MCPSendDelivery send(const MCPOutgoing& message,
                                 const std::optional<std::string>& draftID) = 0;
};

// JSON coding by field name (optional fields are left out when absent).
void to_json(mailcore::Json& json, const MCPAccount& value);
void from_json(const mailcore::Json& json, MCPAccount& value);
void to_json(mailcore::Json& json, const MCPFolder& value);
void from_json(const mailcore::Json& json, MCPFolder& value);
void to_json(mailcore::Json& json, const MCPSearchQuery& value);
void from_json(const mailcore::Json& json, MCPSearchQuery& value);
void to_json(mailcore::Json& json, const MCPMessageSummary& value);
void from_json(const mailcore::Json& json, MCPMessageSummary& value);
void to_json(mailcore::Json& json, const MCPSearchPage& value);
void from_json(const mailcore::Json& json, MCPSearchPage& value);
void to_json(mailcore::Json& json, const MCPAttachment& value);
void from_json(const mailcore::Json& json, MCPAttachment& value);
void to_json(mailcore::Json& json, const MCPMessage& value);
void from_json(const mailcore::Json& json, MCPMessage& value);
void to_json(mailcore::Json& json, const MCPOutgoing& value);
void from_json(const mailcore::Json& json, MCPOutgoing& value);

}  // namespace mcpkit
