// ModifiedUTF7: the mailbox-name encoding of the IMAP wire (UTF-16 code units
// in a base64 variant with ',' for '/', shifted between '&' and '-').
// Stateless; safe to call from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

struct ModifiedUTF7 {
    // The modified base64 alphabet; '=' is never written or accepted.
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

    // Encodes UTF-8 text. Never fails: invalid UTF-8 is read as U+FFFD.
    static std::string encode(std::string_view text);

    // Decodes a name as a server sends it. Never fails: a malformed shifted
    // sequence ('&' up to the next '-') is copied unchanged, and invalid
    // UTF-8 in the result becomes U+FFFD.
    static std::string decode(std::string_view text);

    // The text of one shifted sequence (the characters between '&' and '-'),
    // or nothing when it is not valid modified base64 of UTF-16 text free of
    // NUL, CR and LF.
    static std::optional<std::string> decodeShifted(std::string_view base64);
};

}  // namespace mailcore
