// SMTP replies and their parser. A reply is one or more lines that share a
// three-digit code ("250-first", "250 last"); with enhanced status codes the
// text of each line starts with "class.subject.detail".
//
// SMTPReplyParser is a push parser: bytes go in as they arrive, in pieces of
// any size, and complete replies come out in order. It never reads a socket.
// Input is bounded by ProtocolLimits: a line longer than maxLineBytes fails
// as soon as that is certain (before its line end arrives), a reply longer
// than maxResponseBytes (all its lines) fails likewise, so an endless run of
// continuation lines cannot grow memory. A failure is sticky.
//
// Not thread-safe: one client owns a parser.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

struct SMTPReply {
    int code = 0;
    // "5.1.1" when the first line carries an enhanced status code whose class
    // matches the reply's; then each line's copy of it is left out of `lines`.
    std::optional<std::string> enhancedCode;
    std::vector<std::string> lines;  // the text of each line, without the code

    int codeClass() const { return code / 100; }
    bool isPositive() const { return code >= 200 && code < 400; }
    // One line for the user: code, enhanced code and the lines joined by
    // spaces, control characters replaced by spaces: "550 5.1.1 No such user".
    std::string summary() const;
};

class SMTPReplyParser {
public:
    // Limits of zero or below mean 8192 bytes per line and 65536 per reply.
    explicit SMTPReplyParser(const ProtocolLimits& limits);

    // Takes the next bytes. Throws protocolViolation(malformedResponse,
    // "malformed reply line"), (malformedResponse, "reply code changed within
    // a reply"), (responseTooLarge, "reply line too long") or
    // (responseTooLarge, "reply too large"); after a failure every call fails
    // the same way.
    void feed(std::string_view bytes);
    // The oldest complete reply not yet taken.
    std::optional<SMTPReply> next();
    // Bytes received that are not part of a reply taken yet.
    bool hasPendingInput() const {
        return !partial_.empty() || !current_.lines.empty() || !ready_.empty();
    }

private:
    void line(std::string_view text);
    [[noreturn]] void fail(MailError error);

    std::size_t maxLine_;
    std::size_t maxReply_;
    std::string partial_;  // the line being received
    SMTPReply current_;    // the reply being received
    std::size_t currentBytes_ = 0;
    std::deque<SMTPReply> ready_;
    std::optional<MailError> failure_;
};

}  // namespace mailcore
