// IMAPCommand: builds the bytes of one tagged IMAP command from its
// arguments. Arguments are atoms (written as given), strings (quoted when
// they can be, otherwise sent as literals), mailbox names (modified UTF-7,
// or UTF-8 once UTF8=ACCEPT is enabled, then quoted) and literals.
//
// Literals are non-synchronising ("{n+}") when the server offers LITERAL+,
// or LITERAL- and the literal is at most 4096 bytes; otherwise they are
// synchronising ("{n}"), and the command is cut into segments: the client
// writes a segment, waits for the server's "+" and writes the next.
// Stateless values; safe to copy between threads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/IMAP/UIDSet.h"

namespace mailcore {

enum class IMAPLiteralMode { synchronising, literalPlus, literalMinus };

struct IMAPCommandOptions {
    IMAPLiteralMode literals = IMAPLiteralMode::synchronising;
    bool utf8 = false;  // UTF8=ACCEPT enabled: names and strings go as UTF-8
};

struct IMAPArgument {
    enum class Kind { atom, string, mailbox, literal };
    Kind kind = Kind::atom;
    std::string text;

    static IMAPArgument atom(std::string text) { return {Kind::atom, std::move(text)}; }
    static IMAPArgument string(std::string text) { return {Kind::string, std::move(text)}; }
    static IMAPArgument mailbox(std::string name) { return {Kind::mailbox, std::move(name)}; }
    static IMAPArgument literal(std::string bytes) { return {Kind::literal, std::move(bytes)}; }
    static IMAPArgument number(std::uint64_t n) { return atom(std::to_string(n)); }
};

struct IMAPWireCommand {
    // Each segment but the last ends with a synchronising literal's count
    // and line end; the last ends with the command's CR LF.
    std::vector<std::string> segments;
    // The command as a trace shows it: literals replaced by their length.
    std::string traceText;
};

struct IMAPCommand {
    // Throws protocolViolation(invalidInput, "invalid mailbox name") for a
    // name IMAPQuote refuses, and protocolViolation(invalidInput, "invalid
    // command argument") for an empty atom, one with CR, LF or NUL, or a
    // string or literal with NUL. Atoms are written as given; one that ends
    // with "(" is not followed by a space, one that starts with ")" not
    // preceded by one.
    static IMAPWireCommand build(const std::string& tag, const std::vector<IMAPArgument>& arguments,
                                 const IMAPCommandOptions& options);

    // The wire form of a mailbox name under `options`.
    static std::string mailboxName(std::string_view name, const IMAPCommandOptions& options);
};

// Search keys for UID SEARCH, as command arguments.
class IMAPSearchCriteria {
public:
    // Every message ("ALL").
    static IMAPSearchCriteria all();

    IMAPSearchCriteria& uids(const UIDSet& uids);
    // HEADER <field> <value>: the field contains the value.
    IMAPSearchCriteria& header(std::string field, std::string value);
    IMAPSearchCriteria& since(Date date);
    IMAPSearchCriteria& before(Date date);
    IMAPSearchCriteria& text(std::string value);
    // Atoms written as they are: "UNSEEN", "DELETED", "NOT", "MODSEQ 42".
    IMAPSearchCriteria& keyword(std::string atoms);

    const std::vector<IMAPArgument>& arguments() const { return arguments_; }
    // True when a string holds non-ASCII text (the search then names its
    // charset, UTF-8).
    bool needsCharset() const;

private:
    std::vector<IMAPArgument> arguments_;
};

}  // namespace mailcore
