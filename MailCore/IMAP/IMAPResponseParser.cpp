#include "MailCore/IMAP/IMAPResponseParser.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPDate.h"
#include "MailCore/IMAP/ModifiedUTF7.h"

namespace mailcore {
namespace {

using PIK = ProtocolIssueKind;

MailError malformed(const std::string& what) {
    return MailError::protocolViolation(PIK::malformedResponse, "malformed " + what);
}

MailError tooLarge(const std::string& what) {
    return MailError::protocolViolation(PIK::responseTooLarge, what);
}

std::string upper(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
        if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
        if (x != y) return false;
    }
    return true;
}

bool isDigit(int c) { return c >= '0' && c <= '9'; }

// Characters that end an atom: controls, space, the list and string
// delimiters, the wildcards, '\' (flags start with it), '[' and ']'.
bool isAtomChar(int c) {
    if (c <= 0x20 || c == 0x7f) return false;
    switch (c) {
        case '(':
        case ')':
        case '{':
        case '"':
        case '%':
        case '*':
        case '\\':
        case '[':
        case ']':
            return false;
        default:
            return true;
    }
}

// The literal announced at the end of a line: "{n}", "{n+}" or "~{n}", or
// nothing when the line does not end with one. Throws for a count that
// does not fit in 64 bits.
std::optional<std::uint64_t> literalAtLineEnd(const std::uint8_t* line, std::size_t length) {
    if (length < 3 || line[length - 1] != '}') return std::nullopt;
    std::size_t i = length - 1;
    if (line[i - 1] == '+') --i;
    std::size_t digitsEnd = i;
    while (i > 0 && isDigit(line[i - 1])) --i;
    if (i == digitsEnd || i == 0 || line[i - 1] != '{') return std::nullopt;
    if (digitsEnd - i > 19) throw tooLarge("literal too large");
    std::uint64_t n = 0;
    for (std::size_t k = i; k < digitsEnd; ++k) n = n * 10 + (line[k] - '0');
    return n;
}

// Recursive-descent parser over one complete response, literals inline,
// without its final line end.
class Cursor {
public:
    Cursor(std::string_view text, const ProtocolLimits& limits, bool utf8)
        : p_(text.data()), end_(text.data() + text.size()), limits_(limits), utf8_(utf8) {}

    IMAPResponse response();

private:
    struct Depth {
        explicit Depth(Cursor& c) : cursor(c) {
            if (++cursor.depth_ > IMAPResponseParser::maxNestingDepth) {
                throw tooLarge("response nested too deeply");
            }
        }
        ~Depth() { --cursor.depth_; }
        Cursor& cursor;
    };

    int peek() const { return p_ < end_ ? static_cast<unsigned char>(*p_) : -1; }
    int peekAt(std::size_t offset) const {
        return p_ + offset < end_ ? static_cast<unsigned char>(p_[offset]) : -1;
    }
    bool atEnd() const { return p_ >= end_; }
    void expect(char c, const char* what) {
        if (peek() != static_cast<unsigned char>(c)) throw malformed(what);
        ++p_;
    }
    void space(const char* what) { expect(' ', what); }
    bool skipSpaces() {
        const char* before = p_;
        while (peek() == ' ') ++p_;
        return p_ != before;
    }
    std::string_view rest() {
        std::string_view r(p_, static_cast<std::size_t>(end_ - p_));
        p_ = end_;
        return r;
    }
    void finish(const char* what) {
        skipSpaces();
        if (!atEnd()) throw malformed(what);
    }
    void countItem(std::size_t& count) {
        if (++count > IMAPResponseParser::maxListItems) throw tooLarge("list too long");
    }

    std::uint64_t number64(const char* what) {
        if (!isDigit(peek())) throw malformed(what);
        std::uint64_t n = 0;
        while (isDigit(peek())) {
            const unsigned digit = static_cast<unsigned>(*p_++ - '0');
            if (n > (UINT64_MAX - digit) / 10) throw malformed(what);
            n = n * 10 + digit;
        }
        return n;
    }
    std::uint32_t number32(const char* what) {
        const std::uint64_t n = number64(what);
        if (n > UINT32_MAX) throw malformed(what);
        return static_cast<std::uint32_t>(n);
    }

    std::string_view atom(const char* what) {
        const char* start = p_;
        while (isAtomChar(peek())) ++p_;
        if (p_ == start) throw malformed(what);
        return {start, static_cast<std::size_t>(p_ - start)};
    }
    // A flag or list attribute: "\Seen", "\*", "$Junk", "keyword".
    std::string flag(const char* what) {
        const char* start = p_;
        if (peek() == '\\') {
            ++p_;
            if (peek() == '*') {
                ++p_;
                return "\\*";
            }
        }
        while (isAtomChar(peek()) || peek() == ']') ++p_;
        if (p_ == start || (p_ == start + 1 && *start == '\\')) throw malformed(what);
        return std::string(start, static_cast<std::size_t>(p_ - start));
    }
    std::vector<std::string> flagList(const char* what) {
        Depth d(*this);
        expect('(', what);
        std::vector<std::string> flags;
        std::size_t count = 0;
        skipSpaces();
        while (peek() != ')') {
            countItem(count);
            flags.push_back(flag(what));
            if (peek() != ')') space(what);
            skipSpaces();
        }
        ++p_;
        return flags;
    }

    std::string quoted(const char* what) {
        expect('"', what);
        std::string out;
        for (;;) {
            const int c = peek();
            if (c < 0 || c == '\r' || c == '\n') throw malformed(what);
            ++p_;
            if (c == '"') return out;
            if (c == '\\') {
                const int escaped = peek();
                if (escaped < 0 || escaped == '\r' || escaped == '\n') throw malformed(what);
                ++p_;
                out.push_back(static_cast<char>(escaped));
            } else {
                out.push_back(static_cast<char>(c));
            }
        }
    }
    std::string_view literal(const char* what) {
        if (peek() == '~') ++p_;
        expect('{', what);
        const std::uint64_t n = number64(what);
        if (peek() == '+') ++p_;
        expect('}', what);
        if (peek() == '\r') ++p_;
        expect('\n', what);
        if (n > static_cast<std::uint64_t>(std::max<std::int64_t>(limits_.maxLiteralBytes, 0))) {
            throw tooLarge("literal too large");
        }
        if (n > static_cast<std::uint64_t>(end_ - p_)) throw malformed(what);
        std::string_view data(p_, static_cast<std::size_t>(n));
        p_ += n;
        return data;
    }
    bool atLiteral() const { return peek() == '{' || (peek() == '~' && peekAt(1) == '{'); }
    std::string string(const char* what) {
        if (peek() == '"') return quoted(what);
        if (atLiteral()) return std::string(literal(what));
        throw malformed(what);
    }
    bool atNil() {
        if ((peek() | 0x20) == 'n' && (peekAt(1) | 0x20) == 'i' && (peekAt(2) | 0x20) == 'l') {
            const int after = peekAt(3);
            if (after == -1 || after == ' ' || after == ')' || after == ']') {
                p_ += 3;
                return true;
            }
        }
        return false;
    }
    std::optional<std::string> nstring(const char* what) {
        if (atNil()) return std::nullopt;
        return string(what);
    }
    // An atom (']' allowed, as in astrings) or a string.
    std::string astring(const char* what) {
        if (peek() == '"' || atLiteral()) return string(what);
        const char* start = p_;
        while (isAtomChar(peek()) || peek() == ']' || peek() == '\\' || peek() == '%' ||
               peek() == '*') {
            ++p_;
        }
        if (p_ == start) throw malformed(what);
        return std::string(start, static_cast<std::size_t>(p_ - start));
    }

    // A sequence or UID set as sent ("3:5,9"), '*' refused; ranges kept.
    UIDSet uidSet(const char* what) {
        std::vector<UIDRange> ranges;
        std::size_t count = 0;
        for (;;) {
            countItem(count);
            const std::uint32_t a = number32(what);
            std::uint32_t b = a;
            if (peek() == ':') {
                ++p_;
                b = number32(what);
            }
            ranges.push_back(UIDRange{std::min(a, b), std::max(a, b)});
            if (peek() != ',') break;
            ++p_;
        }
        return UIDSet::fromRanges(std::move(ranges));
    }

    // Skips one value of any shape and returns its text.
    std::string_view value(const char* what) {
        Depth d(*this);
        const char* start = p_;
        const int c = peek();
        if (c == '(') {
            ++p_;
            std::size_t count = 0;
            for (;;) {
                skipSpaces();
                if (peek() == ')') break;
                if (atEnd()) throw malformed(what);
                countItem(count);
                value(what);
            }
            ++p_;
        } else if (c == '"') {
            quoted(what);
        } else if (atLiteral()) {
            literal(what);
        } else {
            while (!atEnd() && peek() != ' ' && peek() != ')' && peek() != '(') {
                if (peek() == '[') {
                    const char* close = static_cast<const char*>(std::memchr(p_, ']', end_ - p_));
                    if (!close) throw malformed(what);
                    p_ = close;
                } else if (peek() == '"' || peek() == '{' || peek() < 0x20) {
                    throw malformed(what);
                }
                ++p_;
            }
            if (p_ == start) throw malformed(what);
        }
        return {start, static_cast<std::size_t>(p_ - start)};
    }

    std::string mailboxName(const std::string& raw) const {
        if (equalsNoCase(raw, "INBOX")) return "INBOX";
        return utf8_ ? raw : ModifiedUTF7::decode(raw);
    }

    IMAPResponseCode responseCode();
    IMAPStatusResponse statusResponse(std::string tag, IMAPStatus status);
    IMAPListData list(bool lsub);
    IMAPMailboxStatusData mailboxStatus();
    IMAPSearchData search(std::size_t responseBytes);
    IMAPESearchData esearch(std::size_t responseBytes);
    IMAPIDData id();
    IMAPVanishedData vanished();
    IMAPFetchData fetch(std::uint32_t sequenceNumber);
    Date internalDate(const std::string& text);
    IMAPEnvelope envelope();
    std::vector<IMAPAddress> addresses();
    IMAPBodyStructure body();
    std::vector<std::pair<std::string, std::string>> bodyParameters();
    void bodyExtensions(IMAPBodyStructure& b);
    IMAPBodySection bodySection(bool binary);

    const char* p_;
    const char* end_;
    const ProtocolLimits& limits_;
    bool utf8_;
    int depth_ = 0;
};

IMAPResponse Cursor::response() {
    const std::size_t total = static_cast<std::size_t>(end_ - p_);
    IMAPResponse r;
    if (peek() == '+') {
        ++p_;
        if (peek() == ' ') ++p_;
        r.value = IMAPContinuation{std::string(rest())};
        return r;
    }
    if (peek() == '*') {
        ++p_;
        space("untagged response");
        if (isDigit(peek())) {
            const std::uint32_t n = number32("message number");
            space("message data");
            const std::string name = upper(atom("message data"));
            if (name == "FETCH") {
                space("FETCH");
                r.value = fetch(n);
                finish("FETCH");
            } else if (name == "EXISTS" || name == "RECENT" || name == "EXPUNGE") {
                using K = IMAPMessageCountData::Kind;
                const K kind = name == "EXISTS"   ? K::exists
                               : name == "RECENT" ? K::recent
                                                  : K::expunge;
                r.value = IMAPMessageCountData{kind, n};
                finish("message data");
            } else {
                skipSpaces();
                r.value = IMAPOtherData{name, std::to_string(n) + " " + std::string(rest())};
            }
            return r;
        }
        const std::string name = upper(atom("untagged response"));
        if (name == "OK" || name == "NO" || name == "BAD" || name == "PREAUTH" || name == "BYE") {
            const IMAPStatus status = name == "OK"        ? IMAPStatus::ok
                                      : name == "NO"      ? IMAPStatus::no
                                      : name == "BAD"     ? IMAPStatus::bad
                                      : name == "PREAUTH" ? IMAPStatus::preauth
                                                          : IMAPStatus::bye;
            r.value = statusResponse("", status);
        } else if (name == "CAPABILITY") {
            IMAPCapabilityData data;
            std::size_t count = 0;
            while (skipSpaces() && !atEnd()) {
                countItem(count);
                data.capabilities.emplace_back(atom("CAPABILITY"));
            }
            finish("CAPABILITY");
            r.value = std::move(data);
        } else if (name == "LIST" || name == "LSUB") {
            r.value = list(name == "LSUB");
        } else if (name == "STATUS") {
            r.value = mailboxStatus();
        } else if (name == "FLAGS") {
            space("FLAGS");
            r.value = IMAPFlagsData{flagList("FLAGS")};
            finish("FLAGS");
        } else if (name == "SEARCH" || name == "SORT") {
            r.value = search(total);
        } else if (name == "ESEARCH") {
            r.value = esearch(total);
        } else if (name == "ENABLED") {
            IMAPEnabledData data;
            std::size_t count = 0;
            while (skipSpaces() && !atEnd()) {
                countItem(count);
                data.capabilities.emplace_back(atom("ENABLED"));
            }
            finish("ENABLED");
            r.value = std::move(data);
        } else if (name == "ID") {
            r.value = id();
        } else if (name == "VANISHED") {
            r.value = vanished();
        } else {
            skipSpaces();
            r.value = IMAPOtherData{name, std::string(rest())};
        }
        return r;
    }
    const char* start = p_;
    while (isAtomChar(peek()) && peek() != '+') ++p_;
    if (p_ == start) throw malformed("response");
    std::string tag(start, static_cast<std::size_t>(p_ - start));
    space("tagged response");
    const std::string word = upper(atom("tagged response"));
    IMAPStatus status;
    if (word == "OK") {
        status = IMAPStatus::ok;
    } else if (word == "NO") {
        status = IMAPStatus::no;
    } else if (word == "BAD") {
        status = IMAPStatus::bad;
    } else {
        throw malformed("tagged response");
    }
    r.value = statusResponse(std::move(tag), status);
    return r;
}

IMAPStatusResponse Cursor::statusResponse(std::string tag, IMAPStatus status) {
    IMAPStatusResponse s;
    s.tag = std::move(tag);
    s.status = status;
    skipSpaces();
    if (peek() == '[') {
        s.code = responseCode();
        skipSpaces();
    }
    s.text = std::string(rest());
    return s;
}

IMAPResponseCode Cursor::responseCode() {
    expect('[', "response code");
    IMAPResponseCode code;
    code.name = upper(atom("response code"));
    const char* argumentStart = p_;
    const auto& n = code.name;
    const char* what = "response code";
    if (n == "CAPABILITY") {
        std::size_t count = 0;
        while (skipSpaces() && peek() != ']') {
            countItem(count);
            code.list.emplace_back(atom(what));
        }
    } else if (n == "PERMANENTFLAGS") {
        space(what);
        code.list = flagList(what);
    } else if (n == "BADCHARSET" && peek() == ' ') {
        space(what);
        Depth d(*this);
        expect('(', what);
        std::size_t count = 0;
        while (peek() != ')') {
            countItem(count);
            code.list.push_back(astring(what));
            skipSpaces();
        }
        ++p_;
    } else if (n == "UIDNEXT" || n == "UIDVALIDITY" || n == "UNSEEN") {
        space(what);
        code.number = number32(what);
    } else if (n == "HIGHESTMODSEQ") {
        space(what);
        code.number = number64(what);
    } else if (n == "APPENDUID") {
        space(what);
        code.number = number32(what);
        space(what);
        code.destinationUIDs = uidSet(what);
    } else if (n == "COPYUID") {
        space(what);
        code.number = number32(what);
        space(what);
        code.sourceUIDs = uidSet(what);
        space(what);
        code.destinationUIDs = uidSet(what);
    } else if (n == "MODIFIED") {
        space(what);
        code.modified = uidSet(what);
    } else {
        const char* close = static_cast<const char*>(std::memchr(p_, ']', end_ - p_));
        if (!close) throw malformed(what);
        p_ = close;
    }
    std::string_view argument(argumentStart, static_cast<std::size_t>(p_ - argumentStart));
    while (!argument.empty() && argument.front() == ' ') argument.remove_prefix(1);
    code.argument = std::string(argument);
    skipSpaces();
    expect(']', what);
    return code;
}

IMAPListData Cursor::list(bool lsub) {
    const char* what = lsub ? "LSUB" : "LIST";
    IMAPListData data;
    data.lsub = lsub;
    space(what);
    data.attributes = flagList(what);
    space(what);
    if (!atNil()) {
        const std::string delimiter = quoted(what);
        if (delimiter.size() != 1) throw malformed(what);
        data.delimiter = delimiter[0];
    }
    space(what);
    data.rawName = astring(what);
    data.name = mailboxName(data.rawName);
    skipSpaces();
    if (peek() == '(') {
        Depth d(*this);
        ++p_;
        std::size_t count = 0;
        for (;;) {
            skipSpaces();
            if (peek() == ')') break;
            countItem(count);
            std::string tag = upper(astring(what));
            space(what);
            const char* valueStart = p_;
            if (tag == "OLDNAME" && peek() == '(') {
                ++p_;
                data.oldName = mailboxName(astring(what));
                skipSpaces();
                expect(')', what);
            } else {
                value(what);
            }
            data.extended.emplace_back(
                std::move(tag), std::string(valueStart, static_cast<std::size_t>(p_ - valueStart)));
        }
        ++p_;
    }
    finish(what);
    return data;
}

IMAPMailboxStatusData Cursor::mailboxStatus() {
    const char* what = "STATUS";
    IMAPMailboxStatusData data;
    space(what);
    data.rawName = astring(what);
    data.name = mailboxName(data.rawName);
    space(what);
    Depth d(*this);
    expect('(', what);
    std::size_t count = 0;
    for (;;) {
        skipSpaces();
        if (peek() == ')') break;
        countItem(count);
        std::string name = upper(atom(what));
        space(what);
        data.attributes[std::move(name)] = number64(what);
    }
    ++p_;
    finish(what);
    return data;
}

IMAPSearchData Cursor::search(std::size_t responseBytes) {
    const char* what = "SEARCH";
    if (responseBytes >
        static_cast<std::size_t>(std::max<std::int64_t>(limits_.maxSearchResultBytes, 0))) {
        throw tooLarge("search result too large");
    }
    IMAPSearchData data;
    while (skipSpaces() && !atEnd()) {
        if (peek() == '(') {
            Depth d(*this);
            ++p_;
            if (!equalsNoCase(atom(what), "MODSEQ")) throw malformed(what);
            space(what);
            data.modSeq = number64(what);
            expect(')', what);
            continue;
        }
        data.numbers.push_back(number32(what));
    }
    finish(what);
    return data;
}

IMAPESearchData Cursor::esearch(std::size_t responseBytes) {
    const char* what = "ESEARCH";
    if (responseBytes >
        static_cast<std::size_t>(std::max<std::int64_t>(limits_.maxSearchResultBytes, 0))) {
        throw tooLarge("search result too large");
    }
    IMAPESearchData data;
    skipSpaces();
    if (peek() == '(') {
        Depth d(*this);
        ++p_;
        if (!equalsNoCase(atom(what), "TAG")) throw malformed(what);
        space(what);
        data.tag = string(what);
        expect(')', what);
    }
    std::size_t count = 0;
    for (;;) {
        skipSpaces();
        if (atEnd()) break;
        countItem(count);
        const std::string name = upper(atom(what));
        if (name == "UID") {
            data.uid = true;
            continue;
        }
        space(what);
        if (name == "MIN") {
            data.min = number32(what);
        } else if (name == "MAX") {
            data.max = number32(what);
        } else if (name == "COUNT") {
            data.count = number64(what);
        } else if (name == "ALL") {
            data.all = uidSet(what);
        } else if (name == "MODSEQ") {
            data.modSeq = number64(what);
        } else {
            value(what);
        }
    }
    finish(what);
    return data;
}

IMAPIDData Cursor::id() {
    const char* what = "ID";
    IMAPIDData data;
    space(what);
    if (!atNil()) {
        Depth d(*this);
        expect('(', what);
        std::size_t count = 0;
        for (;;) {
            skipSpaces();
            if (peek() == ')') break;
            countItem(count);
            std::string field = string(what);
            space(what);
            data.fields.emplace_back(std::move(field), nstring(what));
        }
        ++p_;
    }
    finish(what);
    return data;
}

IMAPVanishedData Cursor::vanished() {
    const char* what = "VANISHED";
    IMAPVanishedData data;
    space(what);
    if (peek() == '(') {
        Depth d(*this);
        ++p_;
        if (!equalsNoCase(atom(what), "EARLIER")) throw malformed(what);
        expect(')', what);
        space(what);
        data.earlier = true;
    }
    data.uids = uidSet(what);
    finish(what);
    return data;
}

Date Cursor::internalDate(const std::string& text) {
    // "17-Jul-1996 02:44:25 -0700"; the day may be one digit or space-padded.
    static const char* const months[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                         "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
    const char* what = "INTERNALDATE";
    std::size_t i = 0;
    auto digits = [&](std::size_t count) {
        int v = 0;
        for (std::size_t k = 0; k < count; ++k, ++i) {
            if (i >= text.size() || !isDigit(static_cast<unsigned char>(text[i]))) {
                throw malformed(what);
            }
            v = v * 10 + (text[i] - '0');
        }
        return v;
    };
    auto expectChar = [&](char c) {
        if (i >= text.size() || text[i] != c) throw malformed(what);
        ++i;
    };
    if (i < text.size() && text[i] == ' ') ++i;
    int day = digits(1);
    if (i < text.size() && isDigit(static_cast<unsigned char>(text[i]))) day = day * 10 + digits(1);
    expectChar('-');
    if (i + 3 > text.size()) throw malformed(what);
    const std::string month = upper(std::string_view(text).substr(i, 3));
    i += 3;
    int monthNumber = 0;
    for (int m = 0; m < 12; ++m) {
        if (month == months[m]) monthNumber = m + 1;
    }
    if (monthNumber == 0) throw malformed(what);
    expectChar('-');
    const int year = digits(4);
    expectChar(' ');
    const int hour = digits(2);
    expectChar(':');
    const int minute = digits(2);
    expectChar(':');
    const int second = digits(2);
    expectChar(' ');
    if (i >= text.size() || (text[i] != '+' && text[i] != '-')) throw malformed(what);
    const int sign = text[i++] == '-' ? -1 : 1;
    const int zoneHours = digits(2);
    const int zoneMinutes = digits(2);
    // Years outside 1700..2200 are refused: a date held in nanoseconds
    // reaches only about 292 years either side of 1970.
    if (i != text.size() || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60 ||
        year < 1700 || year > 2200) {
        throw malformed(what);
    }
    const std::int64_t days = IMAPDate::daysFromCivil(year, monthNumber, day);
    const std::int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second -
                                 sign * (zoneHours * 3600 + zoneMinutes * 60);
    return Date(std::chrono::seconds(seconds));
}

std::vector<IMAPAddress> Cursor::addresses() {
    const char* what = "address";
    std::vector<IMAPAddress> list;
    if (atNil()) return list;
    Depth d(*this);
    expect('(', what);
    std::size_t count = 0;
    for (;;) {
        skipSpaces();
        if (peek() == ')') break;
        countItem(count);
        Depth inner(*this);
        expect('(', what);
        IMAPAddress a;
        a.name = nstring(what);
        space(what);
        a.adl = nstring(what);
        space(what);
        a.mailbox = nstring(what);
        space(what);
        a.host = nstring(what);
        skipSpaces();
        expect(')', what);
        list.push_back(std::move(a));
    }
    ++p_;
    return list;
}

IMAPEnvelope Cursor::envelope() {
    const char* what = "ENVELOPE";
    Depth d(*this);
    expect('(', what);
    IMAPEnvelope e;
    e.date = nstring(what);
    space(what);
    e.subject = nstring(what);
    for (auto* field : {&e.from, &e.sender, &e.replyTo, &e.to, &e.cc, &e.bcc}) {
        space(what);
        *field = addresses();
    }
    space(what);
    e.inReplyTo = nstring(what);
    space(what);
    e.messageID = nstring(what);
    skipSpaces();
    expect(')', what);
    return e;
}

std::vector<std::pair<std::string, std::string>> Cursor::bodyParameters() {
    const char* what = "body parameters";
    std::vector<std::pair<std::string, std::string>> parameters;
    if (atNil()) return parameters;
    Depth d(*this);
    expect('(', what);
    std::size_t count = 0;
    for (;;) {
        skipSpaces();
        if (peek() == ')') break;
        countItem(count);
        std::string name = string(what);
        space(what);
        parameters.emplace_back(std::move(name), string(what));
    }
    ++p_;
    return parameters;
}

void Cursor::bodyExtensions(IMAPBodyStructure& b) {
    const char* what = "BODYSTRUCTURE";
    if (peek() != ' ' || peekAt(1) == ')') return;
    space(what);
    if (!atNil()) {
        Depth d(*this);
        expect('(', what);
        b.disposition = upper(string(what));
        space(what);
        b.dispositionParameters = bodyParameters();
        skipSpaces();
        expect(')', what);
    }
    if (peek() != ' ' || peekAt(1) == ')') return;
    space(what);
    if (peek() == '(') {
        Depth d(*this);
        ++p_;
        std::size_t count = 0;
        for (;;) {
            skipSpaces();
            if (peek() == ')') break;
            countItem(count);
            b.language.push_back(string(what));
        }
        ++p_;
    } else if (auto language = nstring(what)) {
        b.language.push_back(std::move(*language));
    }
    if (peek() != ' ' || peekAt(1) == ')') return;
    space(what);
    b.location = nstring(what);
    std::size_t count = 0;
    while (peek() == ' ' && peekAt(1) != ')') {
        ++p_;
        countItem(count);
        value(what);
    }
}

IMAPBodyStructure Cursor::body() {
    const char* what = "BODYSTRUCTURE";
    Depth d(*this);
    expect('(', what);
    IMAPBodyStructure b;
    if (peek() == '(') {
        b.type = "MULTIPART";
        std::size_t count = 0;
        while (peek() == '(') {
            countItem(count);
            b.parts.push_back(body());
            skipSpaces();
        }
        b.subtype = upper(string(what));
        if (peek() == ' ' && peekAt(1) != ')') {
            space(what);
            b.parameters = bodyParameters();
            bodyExtensions(b);
        }
    } else {
        b.type = upper(string(what));
        space(what);
        b.subtype = upper(string(what));
        space(what);
        b.parameters = bodyParameters();
        space(what);
        b.id = nstring(what);
        space(what);
        b.description = nstring(what);
        space(what);
        b.encoding = upper(nstring(what).value_or(""));
        space(what);
        b.size = number64(what);
        if (b.type == "MESSAGE" && (b.subtype == "RFC822" || b.subtype == "GLOBAL") &&
            peek() == ' ' && peekAt(1) == '(') {
            space(what);
            b.envelope = envelope();
            space(what);
            b.parts.push_back(body());
            space(what);
            b.lines = number64(what);
        } else if (b.type == "TEXT" && peek() == ' ' && isDigit(peekAt(1))) {
            space(what);
            b.lines = number64(what);
        }
        if (peek() == ' ' && peekAt(1) != ')') {
            space(what);
            b.md5 = nstring(what);
            bodyExtensions(b);
        }
    }
    skipSpaces();
    expect(')', what);
    return b;
}

IMAPBodySection Cursor::bodySection(bool binary) {
    const char* what = binary ? "BINARY" : "BODY";
    IMAPBodySection s;
    s.binary = binary;
    expect('[', what);
    const char* close = static_cast<const char*>(std::memchr(p_, ']', end_ - p_));
    if (!close) throw malformed(what);
    s.section.assign(p_, static_cast<std::size_t>(close - p_));
    p_ = close + 1;
    if (peek() == '<') {
        ++p_;
        s.origin = number32(what);
        expect('>', what);
    }
    space(what);
    if (auto data = nstring(what)) s.data = std::move(*data);
    return s;
}

IMAPFetchData Cursor::fetch(std::uint32_t sequenceNumber) {
    const char* what = "FETCH";
    IMAPFetchData f;
    f.sequenceNumber = sequenceNumber;
    Depth d(*this);
    expect('(', what);
    std::size_t count = 0;
    for (;;) {
        skipSpaces();
        if (peek() == ')') break;
        countItem(count);
        const char* start = p_;
        while (isAtomChar(peek())) ++p_;
        if (p_ == start) throw malformed(what);
        const std::string name =
            upper(std::string_view(start, static_cast<std::size_t>(p_ - start)));
        if (name == "UID") {
            space(what);
            f.uid = number32(what);
        } else if (name == "FLAGS") {
            space(what);
            f.flags = flagList(what);
        } else if (name == "INTERNALDATE") {
            space(what);
            f.internalDate = internalDate(string(what));
        } else if (name == "RFC822.SIZE") {
            space(what);
            f.size = number64(what);
        } else if (name == "MODSEQ") {
            space(what);
            Depth inner(*this);
            expect('(', what);
            f.modSeq = number64(what);
            expect(')', what);
        } else if (name == "ENVELOPE") {
            space(what);
            f.envelope = envelope();
        } else if (name == "BODYSTRUCTURE" || (name == "BODY" && peek() != '[')) {
            space(what);
            f.bodyStructure = body();
        } else if (name == "BODY" || name == "BINARY") {
            f.sections.push_back(bodySection(name == "BINARY"));
        } else if (name == "RFC822" || name == "RFC822.HEADER" || name == "RFC822.TEXT") {
            space(what);
            IMAPBodySection s;
            s.section = name;
            if (auto data = nstring(what)) s.data = std::move(*data);
            f.sections.push_back(std::move(s));
        } else {
            std::string key = name;
            if (peek() == '[') {
                const char* close = static_cast<const char*>(std::memchr(p_, ']', end_ - p_));
                if (!close) throw malformed(what);
                key.append(p_, static_cast<std::size_t>(close + 1 - p_));
                p_ = close + 1;
            }
            space(what);
            f.other.emplace_back(std::move(key), std::string(value(what)));
        }
    }
    ++p_;
    return f;
}

}  // namespace

IMAPResponseParser::IMAPResponseParser(ProtocolLimits limits)
    : limits_(boundedProtocolLimits(limits)) {}

void IMAPResponseParser::fail(const MailError& error) {
    failure_ = error;
    throw error;
}

void IMAPResponseParser::feed(const std::uint8_t* data, std::size_t size) {
    if (failure_) throw *failure_;
    buffer_.insert(buffer_.end(), data, data + size);
}

void IMAPResponseParser::compact() {
    if (start_ == buffer_.size()) {
        buffer_.clear();
    } else if (start_ > 65536) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    } else {
        return;
    }
    lineStart_ -= start_;
    scan_ -= start_;
    start_ = 0;
}

std::optional<IMAPResponse> IMAPResponseParser::next() {
    if (failure_) throw *failure_;
    const std::size_t maxLine =
        static_cast<std::size_t>(std::max<std::int64_t>(limits_.maxLineBytes, 0));
    const std::size_t maxResponse =
        static_cast<std::size_t>(std::max<std::int64_t>(limits_.maxResponseBytes, 0));
    try {
        for (;;) {
            if (literalLeft_ > 0) {
                const std::size_t take = std::min(literalLeft_, buffer_.size() - scan_);
                scan_ += take;
                literalLeft_ -= take;
                if (literalLeft_ > 0) return std::nullopt;
                lineStart_ = scan_;
            }
            const std::uint8_t* base = buffer_.data();
            const void* found = scan_ < buffer_.size()
                                    ? std::memchr(base + scan_, '\n', buffer_.size() - scan_)
                                    : nullptr;
            const std::size_t available =
                found ? static_cast<const std::uint8_t*>(found) - base : buffer_.size();
            // The line so far, and whether it already breaks a limit. When
            // both limits are broken, the one a byte-by-byte reader would
            // have noticed first is reported, so that every split of the
            // input fails alike.
            std::size_t content = available;
            if (found && content > lineStart_ && base[content - 1] == '\r') --content;
            const std::size_t lineLength = content - lineStart_;
            const bool crPending = !found && lineLength == maxLine + 1 && base[content - 1] == '\r';
            const bool lineTooLong = lineLength > maxLine && !crPending;
            const std::size_t framed = available + (found ? 1 : 0) - start_;
            const bool responseTooLarge = framed > maxResponse;
            if (lineTooLong || responseTooLarge) {
                if (lineTooLong) {
                    const std::size_t lineAt =
                        lineStart_ + maxLine + 1 + (base[lineStart_ + maxLine] == '\r' ? 1 : 0);
                    if (!responseTooLarge || lineAt <= start_ + maxResponse + 1) {
                        fail(tooLarge("line too long"));
                    }
                }
                fail(tooLarge("response too large"));
            }
            if (!found) {
                scan_ = buffer_.size();
                return std::nullopt;
            }
            const std::size_t lineEnd = available;
            const std::size_t contentEnd = content;
            const auto literal = literalAtLineEnd(base + lineStart_, contentEnd - lineStart_);
            if (literal) {
                if (*literal > static_cast<std::uint64_t>(
                                   std::max<std::int64_t>(limits_.maxLiteralBytes, 0))) {
                    fail(tooLarge("literal too large"));
                }
                if (framed + *literal > maxResponse) fail(tooLarge("response too large"));
                literalLeft_ = static_cast<std::size_t>(*literal);
                scan_ = lineStart_ = lineEnd + 1;
                continue;
            }
            std::string_view text(reinterpret_cast<const char*>(base + start_),
                                  contentEnd - start_);
            IMAPResponse response = Cursor(text, limits_, utf8_).response();
            response.wireBytes = framed;
            start_ = scan_ = lineStart_ = lineEnd + 1;
            compact();
            return response;
        }
    } catch (const MailError& error) {
        failure_ = error;
        throw;
    }
}

IMAPResponse IMAPResponseParser::parse(std::string_view response, const ProtocolLimits& limits,
                                       bool utf8) {
    IMAPResponseParser parser(limits);
    parser.setUTF8(utf8);
    parser.feed(response);
    auto parsed = parser.next();
    if (!parsed || parser.pendingBytes() != 0) throw malformed("response");
    return std::move(*parsed);
}

}  // namespace mailcore
