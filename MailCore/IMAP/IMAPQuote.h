// IMAPQuote: the quoted-string form of IMAP and the wire form of mailbox
// names. Stateless; safe to call from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

struct IMAPQuote {
    // The text between double quotes with '"' and '\' escaped by a backslash;
    // non-ASCII text is kept as UTF-8. Nothing when the text holds NUL, CR or LF.
    static std::optional<std::string> quoted(std::string_view text);

    // A mailbox name encoded in modified UTF-7 and quoted, ready for a command.
    // Throws MailError protocolViolation(invalidInput, "invalid mailbox name")
    // for an empty name or one holding a control character (below 32, or 127).
    static std::string mailbox(std::string_view name);
};

}  // namespace mailcore
