// IMAPResponseParser: turns the bytes an IMAP server sends into responses.
// It is fed bytes in any split (one at a time included) and hands out each
// response once all of it (its lines and literals) has arrived.
//
// Bounds, from ProtocolLimits: a line (between literals) of at most
// maxLineBytes, a literal ({n}, {n+} or ~{n}) of at most maxLiteralBytes, a
// whole response of at most maxResponseBytes, a SEARCH result of at most
// maxSearchResultBytes; beyond them protocolViolation(responseTooLarge). The
// parser itself bounds nesting (maxNestingDepth) and the items of one list
// (maxListItems), so that what a response holds in memory stays a small
// multiple of its size. Limits of zero or less mean the standard ones
// (standardProtocolLimits). Anything that is not a response fails with
// protocolViolation(malformedResponse). A failure is sticky: the parser (and
// the connection it reads) is not used again.
//
// Not thread-safe: one session owns it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPResponse.h"
#include "MailCore/Transport/Bytes.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class IMAPResponseParser {
public:
    static constexpr int maxNestingDepth = 32;
    static constexpr std::size_t maxListItems = 100000;

    explicit IMAPResponseParser(ProtocolLimits limits);

    // Mailbox names arrive in UTF-8 instead of modified UTF-7 (after the
    // server enabled UTF8=ACCEPT).
    void setUTF8(bool enabled) { utf8_ = enabled; }

    // Appends bytes. Throws the sticky failure, if any.
    void feed(const std::uint8_t* data, std::size_t size);
    void feed(std::string_view text) {
        feed(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }

    // The next complete response, or nothing until more bytes are fed.
    // Throws MailError for a response that breaks the limits or the grammar
    // (as soon as that is certain, before the rest of it arrives).
    std::optional<IMAPResponse> next();

    // Bytes fed and not yet handed out as responses.
    std::size_t pendingBytes() const { return buffer_.size() - start_; }

    // Parses one complete response (its lines with CR LF and its literals).
    // Throws as next() does.
    static IMAPResponse parse(std::string_view response, const ProtocolLimits& limits,
                              bool utf8 = false);

private:
    [[noreturn]] void fail(const MailError& error);
    void compact();

    ProtocolLimits limits_;
    bool utf8_ = false;
    Bytes buffer_;
    std::size_t start_ = 0;      // first byte of the response being framed
    std::size_t lineStart_ = 0;  // first byte of its current line
    std::size_t scan_ = 0;       // bytes before this index hold no line end of the line
    std::size_t literalLeft_ = 0;
    std::optional<MailError> failure_;
};

}  // namespace mailcore
