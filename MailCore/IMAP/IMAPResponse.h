// IMAPResponse: one server response as the response parser gives it. Each
// kind of response is a plain value; IMAPResponse holds exactly one of them.
// Texts are the bytes the server sent (strings with their quoting and
// escapes removed, literals as they came); mailbox names are given both
// decoded (modified UTF-7, or UTF-8 once the server enabled UTF8=ACCEPT) and
// raw, so that a folder can be named again exactly as the server knows it.
// Sets of UIDs or sequence numbers stay as ranges (never expanded). Plain
// values; safe to copy between threads.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/IMAP/UIDSet.h"

namespace mailcore {

using ModSeqValue = std::uint64_t;

enum class IMAPStatus { ok, no, bad, preauth, bye };

// A response code, "[NAME arguments]". Known codes fill their fields; every
// code keeps its name (upper case) and its argument text as sent.
struct IMAPResponseCode {
    std::string name;      // "UIDNEXT", "APPENDUID", "X-SOMETHING"
    std::string argument;  // everything after the name, up to "]"
    // CAPABILITY (atoms), PERMANENTFLAGS (flags), BADCHARSET (charsets).
    std::vector<std::string> list;
    // UIDNEXT, UIDVALIDITY, UNSEEN, HIGHESTMODSEQ; the UIDVALIDITY of
    // APPENDUID and COPYUID.
    std::optional<std::uint64_t> number;
    UIDSet sourceUIDs;       // COPYUID
    UIDSet destinationUIDs;  // COPYUID, APPENDUID
    UIDSet modified;         // MODIFIED (what UNCHANGEDSINCE refused)

    bool operator==(const IMAPResponseCode&) const = default;
};

// OK, NO, BAD (tagged or untagged), PREAUTH and BYE.
struct IMAPStatusResponse {
    std::string tag;  // empty when untagged
    IMAPStatus status = IMAPStatus::ok;
    std::optional<IMAPResponseCode> code;
    std::string text;

    bool operator==(const IMAPStatusResponse&) const = default;
};

// "+ text": the server waits for more of the command (a literal, a SASL
// response, DONE).
struct IMAPContinuation {
    std::string text;

    bool operator==(const IMAPContinuation&) const = default;
};

struct IMAPCapabilityData {
    std::vector<std::string> capabilities;  // as sent

    bool operator==(const IMAPCapabilityData&) const = default;
};

// LIST or LSUB.
struct IMAPListData {
    bool lsub = false;
    std::vector<std::string> attributes;  // "\HasNoChildren", "\Sent", ...
    std::optional<char> delimiter;        // none: a flat name space (NIL)
    std::string name;                     // decoded
    std::string rawName;                  // as sent
    std::optional<std::string> oldName;   // OLDNAME extended data, decoded
    // Every extended data item as its tag and its value's text as sent.
    std::vector<std::pair<std::string, std::string>> extended;

    bool operator==(const IMAPListData&) const = default;
};

// STATUS: the attributes the server returned, by upper-case name
// (MESSAGES, UIDNEXT, UIDVALIDITY, UNSEEN, RECENT, HIGHESTMODSEQ, SIZE...).
struct IMAPMailboxStatusData {
    std::string name;
    std::string rawName;
    std::map<std::string, std::uint64_t> attributes;

    bool operator==(const IMAPMailboxStatusData&) const = default;
};

struct IMAPFlagsData {
    std::vector<std::string> flags;

    bool operator==(const IMAPFlagsData&) const = default;
};

// EXISTS, RECENT, EXPUNGE: a number and what it counts.
struct IMAPMessageCountData {
    enum class Kind { exists, recent, expunge };
    Kind kind = Kind::exists;
    std::uint32_t number = 0;

    bool operator==(const IMAPMessageCountData&) const = default;
};

struct IMAPVanishedData {
    bool earlier = false;
    UIDSet uids;

    bool operator==(const IMAPVanishedData&) const = default;
};

// SEARCH: numbers (UIDs for UID SEARCH), with the CONDSTORE MODSEQ.
struct IMAPSearchData {
    std::vector<std::uint32_t> numbers;
    std::optional<ModSeqValue> modSeq;

    bool operator==(const IMAPSearchData&) const = default;
};

// ESEARCH: the items the server returned.
struct IMAPESearchData {
    std::string tag;  // the command's tag, when correlated
    bool uid = false;
    std::optional<std::uint32_t> min;
    std::optional<std::uint32_t> max;
    std::optional<std::uint64_t> count;
    UIDSet all;
    std::optional<ModSeqValue> modSeq;

    bool operator==(const IMAPESearchData&) const = default;
};

struct IMAPEnabledData {
    std::vector<std::string> capabilities;

    bool operator==(const IMAPEnabledData&) const = default;
};

// ID: the server's fields; NIL values are absent, an ID of NIL is empty.
struct IMAPIDData {
    std::vector<std::pair<std::string, std::optional<std::string>>> fields;

    bool operator==(const IMAPIDData&) const = default;
};

struct IMAPAddress {
    std::optional<std::string> name;
    std::optional<std::string> adl;
    std::optional<std::string> mailbox;  // the group's name at a group start
    std::optional<std::string> host;     // absent: a group start or end

    bool operator==(const IMAPAddress&) const = default;
};

// ENVELOPE, fields as the server sent them (header encodings left alone).
struct IMAPEnvelope {
    std::optional<std::string> date;
    std::optional<std::string> subject;
    std::vector<IMAPAddress> from, sender, replyTo, to, cc, bcc;
    std::optional<std::string> inReplyTo;
    std::optional<std::string> messageID;

    bool operator==(const IMAPEnvelope&) const = default;
};

// BODYSTRUCTURE (or BODY without a section). Types and subtypes are upper
// case. A multipart has `parts`; a message/rfc822 part has its envelope and
// its body as the one element of `parts`.
struct IMAPBodyStructure {
    std::string type;     // "TEXT", "MULTIPART", "MESSAGE", ...
    std::string subtype;  // "PLAIN", "MIXED", "RFC822", ...
    std::vector<std::pair<std::string, std::string>> parameters;
    std::optional<std::string> id;
    std::optional<std::string> description;
    std::string encoding;  // upper case; empty for a multipart
    std::uint64_t size = 0;
    std::optional<std::uint64_t> lines;  // text and message parts
    std::vector<IMAPBodyStructure> parts;
    std::optional<IMAPEnvelope> envelope;  // message/rfc822 only
    // Extension data, when sent.
    std::optional<std::string> md5;
    std::optional<std::string> disposition;  // upper case
    std::vector<std::pair<std::string, std::string>> dispositionParameters;
    std::vector<std::string> language;
    std::optional<std::string> location;

    bool isMultipart() const { return type == "MULTIPART"; }

    bool operator==(const IMAPBodyStructure&) const = default;
};

// BODY[section]<origin>, BINARY[section]<origin> and RFC822, RFC822.HEADER,
// RFC822.TEXT. `section` is the text between the brackets as sent
// ("HEADER.FIELDS (SUBJECT)", "1.2", ""); for RFC822 forms the item name.
struct IMAPBodySection {
    bool binary = false;
    std::string section;
    std::optional<std::uint32_t> origin;
    std::optional<std::string> data;  // absent: NIL

    bool operator==(const IMAPBodySection&) const = default;
};

struct IMAPFetchData {
    std::uint32_t sequenceNumber = 0;
    std::optional<UIDValue> uid;
    std::optional<std::vector<std::string>> flags;
    std::optional<Date> internalDate;
    std::optional<std::uint64_t> size;  // RFC822.SIZE
    std::optional<ModSeqValue> modSeq;
    std::optional<IMAPEnvelope> envelope;
    std::optional<IMAPBodyStructure> bodyStructure;
    std::vector<IMAPBodySection> sections;
    // Items this parser does not model, by name, with their value as sent.
    std::vector<std::pair<std::string, std::string>> other;

    // The data of the first section whose `section` text is `name`
    // (compared without regard to case), nothing when absent or NIL.
    const std::string* section(std::string_view name) const;

    bool operator==(const IMAPFetchData&) const = default;
};

// Any other untagged response (NAMESPACE, METADATA, ...): its name in upper
// case and the rest of its first line.
struct IMAPOtherData {
    std::string name;
    std::string text;

    bool operator==(const IMAPOtherData&) const = default;
};

struct IMAPResponse {
    std::variant<IMAPStatusResponse, IMAPContinuation, IMAPCapabilityData, IMAPListData,
                 IMAPMailboxStatusData, IMAPFlagsData, IMAPMessageCountData, IMAPVanishedData,
                 IMAPSearchData, IMAPESearchData, IMAPEnabledData, IMAPIDData, IMAPFetchData,
                 IMAPOtherData>
        value;
    // Bytes of the response on the wire, literals included.
    std::size_t wireBytes = 0;

    template <typename T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
    // The tagged status response's tag; empty for every other response.
    const std::string& tag() const;

    bool operator==(const IMAPResponse&) const = default;
};

}  // namespace mailcore
