#include "MailCore/SMTP/SMTPReply.h"

namespace mailcore {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The length of "c.s.d" at the start of `text` when it is an enhanced status
// code of class `cls` (subject and detail of one to three digits each),
// followed by a space or the end; 0 otherwise.
std::size_t enhancedLength(std::string_view text, int cls) {
    if (text.size() < 5 || text[0] != static_cast<char>('0' + cls) || text[1] != '.') return 0;
    std::size_t i = 2;
    for (int part = 0; part < 2; ++part) {
        std::size_t start = i;
        while (i < text.size() && isDigit(text[i]) && i - start < 4) ++i;
        if (i == start || i - start > 3) return 0;
        if (part == 0) {
            if (i >= text.size() || text[i] != '.') return 0;
            ++i;
        }
    }
    if (i < text.size() && text[i] != ' ') return 0;
    return i;
}

}  // namespace

std::string SMTPReply::summary() const {
    std::string out = std::to_string(code);
    if (enhancedCode) out += " " + *enhancedCode;
    for (const auto& l : lines) {
        if (!l.empty()) out += " " + l;
    }
    for (auto& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    }
    return out;
}

SMTPReplyParser::SMTPReplyParser(const ProtocolLimits& limits)
    : maxLine_(limits.maxLineBytes > 0 ? static_cast<std::size_t>(limits.maxLineBytes) : 8192),
      maxReply_(limits.maxResponseBytes > 0 ? static_cast<std::size_t>(limits.maxResponseBytes)
                                            : 65536) {}

void SMTPReplyParser::fail(MailError error) {
    failure_ = error;
    partial_.clear();
    throw error;
}

void SMTPReplyParser::feed(std::string_view bytes) {
    if (failure_) throw *failure_;
    while (!bytes.empty()) {
        const auto lf = bytes.find('\n');
        const auto take = lf == std::string_view::npos ? bytes.size() : lf;
        // The line's length without its line end: a CR right before the LF
        // does not count, so allow one byte of slack until the LF is seen.
        std::size_t length = partial_.size() + take;
        if (lf != std::string_view::npos && length > 0 &&
            (take > 0 ? bytes[take - 1] == '\r' : partial_.back() == '\r'))
            --length;
        const std::size_t bound = lf == std::string_view::npos ? maxLine_ + 1 : maxLine_;
        if (length > bound)
            fail(MailError::protocolViolation(ProtocolIssueKind::responseTooLarge,
                                              "reply line too long"));
        partial_.append(bytes.substr(0, take));
        if (lf == std::string_view::npos) return;
        // Checked once the line is whole, so that how the bytes were split
        // never changes which failure is reported.
        if (currentBytes_ + length > maxReply_)
            fail(MailError::protocolViolation(ProtocolIssueKind::responseTooLarge,
                                              "reply too large"));
        bytes.remove_prefix(lf + 1);
        std::string text = std::move(partial_);
        partial_.clear();
        if (!text.empty() && text.back() == '\r') text.pop_back();
        line(text);
    }
}

void SMTPReplyParser::line(std::string_view text) {
    auto malformed = [this] {
        fail(MailError::protocolViolation(ProtocolIssueKind::malformedResponse,
                                          "malformed reply line"));
    };
    if (text.size() < 3 || !isDigit(text[0]) || !isDigit(text[1]) || !isDigit(text[2])) malformed();
    const int code = (text[0] - '0') * 100 + (text[1] - '0') * 10 + (text[2] - '0');
    if (text[0] < '2' || text[0] > '5' || text[1] > '5') malformed();
    bool last = true;
    std::string_view rest;
    if (text.size() > 3) {
        if (text[3] == '-')
            last = false;
        else if (text[3] != ' ')
            malformed();
        rest = text.substr(4);
    }
    if (current_.lines.empty()) {
        current_.code = code;
        if (auto n = enhancedLength(rest, code / 100))
            current_.enhancedCode = std::string(rest.substr(0, n));
    } else if (code != current_.code) {
        fail(MailError::protocolViolation(ProtocolIssueKind::malformedResponse,
                                          "reply code changed within a reply"));
    }
    if (current_.enhancedCode &&
        rest.substr(0, current_.enhancedCode->size()) == *current_.enhancedCode) {
        rest.remove_prefix(current_.enhancedCode->size());
        if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    }
    current_.lines.emplace_back(rest);
    currentBytes_ += text.size() + 2;
    if (!last) return;
    ready_.push_back(std::move(current_));
    current_ = SMTPReply{};
    currentBytes_ = 0;
}

std::optional<SMTPReply> SMTPReplyParser::next() {
    if (ready_.empty()) return std::nullopt;
    SMTPReply reply = std::move(ready_.front());
    ready_.pop_front();
    return reply;
}

}  // namespace mailcore
