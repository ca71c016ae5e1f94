// MessageParser: turns one raw RFC 5322 message into what the store keeps
// about it: decoded headers, threading identifiers, address lists, the body
// a reader expects to see (plain text and HTML), attachment records and a
// snippet.
//
// Bad input never aborts. Whatever the bytes, parsing returns the best
// reading it can make within fixed bounds on work and memory (see
// MessageParserLimits): structure beyond the limits is not examined and the
// result says so with `isTruncated`. Only an empty input is refused.
//
// Thread-safety: a MessageParser holds only its limits; parse() may run on
// many threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/MIME/AddressFormat.h"

namespace mailcore {

struct MessageParserLimits {
    // MIME entities examined (multiparts, leaves, embedded messages). The raw
    // text is cut before GMime builds more than about this many.
    std::size_t maxParts = 1000;
    // Nesting of multiparts and embedded messages.
    std::size_t maxDepth = 24;
    // Bytes of decoded body text kept, for the plain text and for the HTML each.
    std::size_t maxBodyBytes = 2 * 1024 * 1024;
    // Attachment records kept.
    std::size_t maxAttachments = 256;
    // Addresses kept per address header, identifiers per References header.
    std::size_t maxAddresses = 500;
    std::size_t maxReferences = 100;
    // Bytes of the decoded subject kept.
    std::size_t maxSubjectBytes = 2000;
    std::size_t snippetCharacters = 200;
};

// One attachment or inline resource. `partID` is the IMAP section number
// ("2", "1.2", "3.1"); `size` is the decoded size in bytes.
struct ParsedAttachment {
    std::string partID;
    int position = 0;
    std::string filename;
    std::string mimeType;
    std::int64_t size = 0;
    std::optional<std::string> contentID;
    bool isInline = false;

    bool operator==(const ParsedAttachment&) const = default;
};

// One MIME entity of the message, in document order, for the stored body
// structure.
struct ParsedPart {
    std::string partID;
    std::string mimeType;
    std::int64_t size = 0;
    std::string charset;
    std::string disposition;

    bool operator==(const ParsedPart&) const = default;
};

struct ParsedMessage {
    std::string subject;
    std::vector<MailAddress> from;
    std::vector<MailAddress> to;
    std::vector<MailAddress> cc;
    std::vector<MailAddress> bcc;
    std::vector<MailAddress> replyTo;
    // The Date header; absent when missing, unreadable or outside 1900-2199.
    std::optional<Date> date;
    // Identifiers without angle brackets, as written.
    std::optional<std::string> messageID;
    std::vector<std::string> inReplyTo;
    std::vector<std::string> references;

    // The readable text: the plain-text body, or a rendering of the HTML body
    // when the message has no plain text. `html` is the HTML body, if any.
    std::string text;
    std::optional<std::string> html;
    bool textFromHTML = false;

    std::vector<ParsedAttachment> attachments;
    // True when an attachment that is not an inline resource is present.
    bool hasAttachments = false;
    std::vector<ParsedPart> parts;
    std::string snippet;

    // Size of the raw message in bytes.
    std::int64_t size = 0;
    // Body text, parts or attachments were cut at a limit.
    bool isTruncated = false;
};

class MessageParser {
public:
    explicit MessageParser(MessageParserLimits limits = {});

    // Throws MailError::protocolViolation(invalidInput, "empty message") for
    // an empty input; never throws for any other input.
    ParsedMessage parse(std::string_view raw) const;

    const MessageParserLimits& limits() const { return limits_; }

private:
    MessageParserLimits limits_;
};

}  // namespace mailcore
