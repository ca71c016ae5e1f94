// The outbox's records: the operations queued against a server, the items
// that carry them through the `outbox` table, and local drafts. Plain values
// with JSON coding by field name; a stored value that does not decode fails
// with storage(other, "stored value is not decodable as <type>").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Store/StoreTypes.h"
#include "MailCore/Store/ThreadingKeys.h"

namespace mailcore {

// A new random outbox item identifier (an upper-case UUID).
OutboxItemID generateOutboxItemID();

// A file sent with a message. `isInline` files are shown within the
// message's HTML (referred to by `contentID`, without angle brackets); the
// others are offered as attachments. Stored with its bytes in base64.
struct OutgoingMessageAttachment {
    std::string name;
    std::string mimeType;  // "application/pdf"; empty: application/octet-stream
    std::string data;      // the raw bytes
    bool isInline = false;
    std::optional<std::string> contentID;

    bool operator==(const OutgoingMessageAttachment&) const = default;
};

// A message to be sent or kept as a draft. `messageID` is the Message-ID the
// message is sent with; it is how a sent copy is found again when a send's
// outcome is uncertain.
struct OutgoingMessage {
    std::optional<InternetMessageID> messageID;
    std::vector<MailAddress> from;
    std::vector<MailAddress> to;
    std::vector<MailAddress> cc;
    std::vector<MailAddress> bcc;
    std::vector<MailAddress> replyTo;
    std::string subject;
    std::string textBody;
    std::optional<std::string> htmlBody;
    std::vector<InternetMessageID> inReplyTo;
    std::vector<InternetMessageID> references;
    std::vector<OutgoingMessageAttachment> attachments;

    bool operator==(const OutgoingMessage&) const = default;
    Json toJson() const;
    // Throws "stored value is not decodable as OutgoingMessage".
    static OutgoingMessage fromJson(const Json& json);
};

// A change of flags: system flags and keywords to add and to remove. Applying
// `then` after this one gives `folded(then)`: a later change wins over an
// earlier one on the same flag.
struct FlagChange {
    std::int64_t addSystem = 0;
    std::int64_t removeSystem = 0;
    std::vector<std::string> addKeywords;
    std::vector<std::string> removeKeywords;

    bool operator==(const FlagChange&) const = default;
    FlagChange folded(const FlagChange& then) const;
    MessageFlags appliedTo(MessageFlags flags) const;
    Json toJson() const;
    static FlagChange fromJson(const Json& json);
};

// The message an operation acts on. `folderID` is its folder when the item
// was queued; `internetMessageID` finds it again on the server.
struct OutboxMessageRef {
    MessageID messageID;
    FolderID folderID;
    std::optional<IMAPUID> uid;
    std::optional<InternetMessageID> internetMessageID;

    bool operator==(const OutboxMessageRef&) const = default;
    Json toJson() const;
    static OutboxMessageRef fromJson(const Json& json);
};

struct OutboxSend {
    OutgoingMessage message;
    std::optional<DraftID> draftID;  // the draft the message came from
    bool saveToSent = true;          // store a copy in the Sent folder

    bool operator==(const OutboxSend&) const = default;
    Json toJson() const;
    static OutboxSend fromJson(const Json& json);
};

// A draft to be stored on the server.
struct OutboxDraftSave {
    DraftID draftID;
    OutgoingMessage message;

    bool operator==(const OutboxDraftSave&) const = default;
};

// One server operation. Closed set of cases: `kind` says which of the
// fields is meaningful.
//   setFlags:  message, flags       move: message, destination
//   delete:    message              send: send
//   saveDraft: draft
class OutboxOperation {
public:
    // Raw values "setFlags", "move", "delete", "send", "saveDraft": the
    // values of the `outbox.kind` column.
    enum class Kind { setFlags, move, deleteMessage, send, saveDraft };

    static OutboxOperation setFlags(OutboxMessageRef message, FlagChange change);
    static OutboxOperation move(OutboxMessageRef message, FolderID destination);
    static OutboxOperation deleteMessage(OutboxMessageRef message);
    static OutboxOperation send(OutboxSend send);
    static OutboxOperation saveDraft(DraftID draft, OutgoingMessage message);

    // An empty setFlags; only for records that are filled in afterwards.
    OutboxOperation() = default;

    Kind kind() const { return kind_; }
    // The accessors of another kind's fields throw std::bad_optional_access.
    const OutboxMessageRef& message() const { return message_.value(); }  // setFlags, move, delete
    const FlagChange& flags() const { return flags_.value(); }            // setFlags
    FolderID destination() const { return destination_.value(); }         // move
    const OutboxSend& sendPayload() const { return send_.value(); }       // send
    const OutboxDraftSave& draftSave() const { return draft_.value(); }   // saveDraft

    // The values of the item's target columns.
    std::optional<MessageID> targetMessageID() const;
    std::optional<FolderID> targetFolderID() const;
    std::optional<DraftID> draftID() const;

    bool operator==(const OutboxOperation&) const = default;
    // {"kind":"setFlags","message":{..},"flags":{..}}, {"kind":"move",
    // "message":{..},"destination":7}, {"kind":"send","send":{..}},
    // {"kind":"saveDraft","draftID":"..","message":{..}}.
    Json toJson() const;
    // Throws "stored value is not decodable as OutboxOperation".
    static OutboxOperation fromJson(const Json& json);

private:
    Kind kind_ = Kind::setFlags;
    std::optional<OutboxMessageRef> message_;
    std::optional<FlagChange> flags_;
    std::optional<FolderID> destination_;
    std::optional<OutboxSend> send_;
    std::optional<OutboxDraftSave> draft_;
};

std::string_view rawValue(OutboxOperation::Kind kind);
std::optional<OutboxOperation::Kind> outboxKindFromRaw(std::string_view raw);

// Raw values "queued", "inFlight", "failed".
enum class OutboxItemState { queued, inFlight, failed };
std::string_view rawValue(OutboxItemState state);
std::optional<OutboxItemState> outboxStateFromRaw(std::string_view raw);

struct OutboxItem {
    OutboxItemID id;
    AccountID accountID;
    OutboxOperation operation;
    OutboxItemState state = OutboxItemState::queued;
    Date createdAt{};
    Date notBefore{};
    std::int64_t attemptCount = 0;
    std::optional<MailError> lastError;
};

// A row of `outbox` as read, payload and error decoded. `seq` orders items
// created at the same instant.
struct DecodedOutboxRow {
    std::int64_t seq = 0;
    OutboxItem item;
};

// A local draft (table `drafts`).
struct DraftRecord {
    DraftID id;
    AccountID accountID;
    OutgoingMessage message;
    std::optional<MessageID> sourceMessageID;  // the message replied to or forwarded
    Date updatedAt{};

    bool operator==(const DraftRecord&) const = default;
};

// The engine's fixed texts for outbox failures.
namespace OutboxText {
inline constexpr std::string_view accountNotFound = "account not found";
inline constexpr std::string_view itemNotFound = "outbox item not found";
inline constexpr std::string_view itemInFlight = "item is in flight";
inline constexpr std::string_view pendingDelete = "message has a pending delete";
inline constexpr std::string_view messageGone = "message no longer on the server";
inline constexpr std::string_view destinationMissing = "destination folder missing";
inline constexpr std::string_view mayHaveBeenSent = "the message may have been sent";
inline constexpr std::string_view sentNotVerified = "sent state could not be verified";
inline constexpr std::string_view undoWindowExpired = "undo-window-expired";
inline constexpr std::string_view sendNotQueued = "send was not queued";
inline constexpr std::string_view reauthorizationRequired = "re-authorization required";
inline constexpr std::string_view noAccountConfigured = "no account configured";
}  // namespace OutboxText

// network(outcomeUnknown, "the message may have been sent"): the mark of a
// send whose outcome is not known. A send carrying it is verified before it
// is ever attempted again.
MailError mayHaveBeenSentError();
bool isMayHaveBeenSent(const std::optional<MailError>& error);
// network(outcomeUnknown, "sent state could not be verified").
MailError sentNotVerifiedError();

}  // namespace mailcore
