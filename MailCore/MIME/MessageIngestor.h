// MessageIngestor: files raw messages into the mail store. One message (or
// one batch) is one write transaction covering its headers, thread, search
// row, references, participants, body and attachment records, so a crash
// never leaves half a message behind.
//
// prepareMessage() is the pure mapping from a parsed message to the store's
// records; it runs on any thread. MessageIngestor itself only adds the
// store's own serialisation (the store's lock); it holds no other state.
#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/MIME/MessageParser.h"
#include "MailCore/Store/MessageRecords.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

// Where a raw message goes and what the source says about it.
struct IncomingMessage {
    FolderID folderID;
    std::optional<IMAPUID> uid;
    MessageFlags flags;
    // When the message arrived (server internal date, file time, mbox
    // "From " line); also the date of a message without a usable Date header.
    std::optional<Date> internalDate;
    std::optional<ModSeq> modSeq;
};

// Everything the store keeps for one message.
struct PreparedMessage {
    MessageIndexFields fields;
    StoredBody body;
    std::vector<AttachmentInfo> attachments;
};

// Maps a parsed message to the store's records. The date is the Date
// header, else the internal date, else `now`.
PreparedMessage prepareMessage(const ParsedMessage& parsed, const AccountID& account,
                               const IncomingMessage& incoming, Date now);

// The threading keys of a parsed message (invalid identifiers dropped).
ThreadingKeys threadingKeys(const ParsedMessage& parsed);

class MessageIngestor {
public:
    explicit MessageIngestor(SQLiteMailStore& store, MessageParserLimits limits = {},
                             Clock clock = systemClock());

    // Parses `raw` and files it in one transaction; returns its id. A message
    // with a UID already in the folder is updated instead of added. Throws
    // MailError (protocolViolation "empty message", storage errors).
    MessageID ingest(const AccountID& account, const IncomingMessage& incoming,
                     std::string_view raw);

    // Files prepared messages in one transaction and returns their ids in
    // order. `inSameTransaction`, when given, runs inside that transaction
    // after the messages are filed (importers record their progress there).
    std::vector<MessageID> file(
        std::vector<PreparedMessage> batch,
        const std::function<void(SQLiteDatabase&, const std::vector<MessageID>&)>&
            inSameTransaction = {});

    const MessageParser& parser() const { return parser_; }

private:
    SQLiteMailStore& store_;
    MessageParser parser_;
    Clock clock_;
};

}  // namespace mailcore
