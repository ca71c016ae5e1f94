#include "KestruneMCPKit/Audit/MCPRedactor.h"

#include <array>

#include "MailCore/Common/PCRE2Pattern.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit::MCPRedactor {

namespace {

struct Replacement {
    const char* pattern;
    const char* replacement;
};

constexpr std::array<Replacement, 6> kReplacements = {{
    {R"re(kmt_[A-Za-z0-9_\-]{8,})re", "[token]"},
    {R"re((?i)bearer\s+[A-Za-z0-9._~+/=\-]{8,})re", "[token]"},
    {R"re((?i)\b(sk|pk|ghp|gho|xox[a-z])[-_][A-Za-z0-9_\-]{12,})re", "[secret]"},
    {R"re([A-Za-z0-9._%+\-]+@[A-Za-z0-9.\-]+\.[A-Za-z]{2,})re", "[email]"},
    {R"re([A-Za-z0-9+/_\-]{32,}={0,2})re", "[redacted]"},
    {R"re([\r\n\t]+)re", " "},
}};

// The patterns, compiled once.
const std::array<mailcore::PCRE2Pattern, kReplacements.size()>& patterns() {
    static const std::array<mailcore::PCRE2Pattern, kReplacements.size()> compiled{
        mailcore::PCRE2Pattern(kReplacements[0].pattern),
        mailcore::PCRE2Pattern(kReplacements[1].pattern),
        mailcore::PCRE2Pattern(kReplacements[2].pattern),
        mailcore::PCRE2Pattern(kReplacements[3].pattern),
        mailcore::PCRE2Pattern(kReplacements[4].pattern),
        mailcore::PCRE2Pattern(kReplacements[5].pattern)};
    return compiled;
}

bool dropped(char32_t c) {
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) return true;       // control characters
    if (c == 0x2028 || c == 0x2029) return true;                 // line, paragraph separators
    if (c == 0x200E || c == 0x200F || c == 0x061C) return true;  // directional marks
    if (c >= 0x202A && c <= 0x202E) return true;                 // embeddings, overrides
    if (c >= 0x2066 && c <= 0x2069) return true;                 // isolates
    return false;
}

// Malformed bytes become U+FFFD, and the characters that the final filter
// drops (other than CR, LF and tab, which the last replacement turns into a
// space) are dropped already here: otherwise a control character inside a
// token would hide it from the expressions and the filter would rebuild it.
std::string prepared(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        char32_t c = mailcore::utf8::decode(text, pos);
        if (dropped(c) && c != '\r' && c != '\n' && c != '\t') continue;
        mailcore::utf8::append(out, c);
    }
    return out;
}

}  // namespace

std::string scrub(std::string_view text, std::size_t limit) {
    std::string current = prepared(text);
    // A pattern that runs out of its match limit hides the whole text.
    bool failed = false;
    auto giveUp = [&failed](std::string_view whole, std::size_t, std::string&) {
        failed = true;
        return whole.size();
    };
    for (std::size_t i = 0; i < kReplacements.size() && !failed; ++i) {
        const mailcore::Replacement replacement(kReplacements[i].replacement);
        current = mailcore::replaceAll(
            patterns()[i], current,
            [&](const mailcore::PCRE2Pattern::Match&) { return replacement; }, giveUp);
    }
    if (failed) current = "[redacted]";
    std::string out;
    out.reserve(current.size());
    std::size_t characters = 0;
    bool cut = false;
    std::size_t pos = 0;
    while (pos < current.size()) {
        char32_t c = mailcore::utf8::decode(current, pos);
        if (dropped(c)) continue;
        if (characters == limit) {
            cut = true;
            break;
        }
        mailcore::utf8::append(out, c);
        ++characters;
    }
    if (cut) out += "...";
    return out;
}

}  // namespace mcpkit::MCPRedactor
