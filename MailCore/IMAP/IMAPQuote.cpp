#include "MailCore/IMAP/IMAPQuote.h"

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/ModifiedUTF7.h"

namespace mailcore {

std::optional<std::string> IMAPQuote::quoted(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    // Byte by byte: the ASCII bytes examined never occur inside a UTF-8
    // multi-byte sequence, so this equals a walk over the scalars.
    for (char c : text) {
        if (c == '\0' || c == '\n' || c == '\r') return std::nullopt;
        if (c == '"' || c == '\\') out.push_back('\\');
        out.push_back(c);
    }
    out.push_back('"');
    return out;
}

std::string IMAPQuote::mailbox(std::string_view name) {
    auto invalid = [] {
        return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                            "invalid mailbox name");
    };
    if (name.empty()) throw invalid();
    for (char c : name) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 32 || byte == 127) throw invalid();
    }
    auto result = quoted(ModifiedUTF7::encode(name));
    if (!result) throw invalid();
    return *result;
}

}  // namespace mailcore
