// MessageBuilder: writes a draft or an outgoing message as RFC 5322 text
// ready for SMTP submission or for saving to a Drafts folder.
//
// The output uses CRLF line ends, only 7-bit characters, and no line longer
// than 998 bytes (header lines are folded at 78 where they can be): bodies
// are quoted-printable or base64 as their content needs, non-ASCII header
// text is RFC 2047 encoded and non-ASCII file names RFC 2231 encoded. Parsing
// the output with MessageParser gives back the same fields.
//
// Thread-safety: build() is a pure function of its input (plus the random
// source for a missing Message-ID); it may run on many threads at once.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/MIME/AddressFormat.h"

namespace mailcore {

struct OutgoingAttachment {
    std::string filename;
    std::string mimeType;  // "application/pdf"; empty means application/octet-stream
    std::string data;      // the raw bytes
    std::optional<std::string> contentID;  // without angle brackets
    bool isInline = false;
};

struct ComposedMessage {
    MailAddress from;
    std::vector<MailAddress> to;
    std::vector<MailAddress> cc;
    std::vector<MailAddress> bcc;
    std::vector<MailAddress> replyTo;
    std::string subject;
    Date date;
    // Without angle brackets; empty means a new one is made from a random
    // UUID and the domain of the From address.
    std::string messageID;
    // For replies: the identifiers of the message answered, and the thread's
    // References followed by that message's identifier.
    std::vector<std::string> inReplyTo;
    std::vector<std::string> references;
    // Bodies; line ends become CRLF and a text that does not end with a line
    // break gets one.
    std::string text;
    std::optional<std::string> html;
    std::vector<OutgoingAttachment> attachments;
};

struct BuiltMessage {
    std::string data;       // the message, CRLF line ends
    std::string messageID;  // without angle brackets
};

struct MessageBuildOptions {
    // Drafts keep their Bcc header; messages handed to SMTP do not.
    bool includeBcc = false;
};

class MessageBuilder {
public:
    // Throws MailError::protocolViolation(invalidInput, ...) with the detail
    // "missing from address", "invalid address: <address>", "header contains
    // a line break" or "invalid message id".
    static BuiltMessage build(const ComposedMessage& message, MessageBuildOptions options = {});
};

// A reply's threading headers from the message it answers: In-Reply-To is
// that message's identifier; References are its References (or, lacking
// them, its In-Reply-To) followed by its identifier.
void setReplyHeaders(ComposedMessage& reply, const std::optional<std::string>& parentMessageID,
                     const std::vector<std::string>& parentReferences,
                     const std::vector<std::string>& parentInReplyTo);

}  // namespace mailcore
