#include "KestruneMCPKit/Audit/MCPRedactor.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <array>
#include <optional>
#include <stdexcept>

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

constexpr std::uint32_t kMatchLimit = 10'000'000;

class CompiledPatterns {
public:
    CompiledPatterns() {
        context_ = pcre2_match_context_create(nullptr);
        if (!context_) throw std::bad_alloc();
        pcre2_set_match_limit(context_, kMatchLimit);
        for (std::size_t i = 0; i < kReplacements.size(); ++i) {
            int error = 0;
            PCRE2_SIZE offset = 0;
            codes_[i] = pcre2_compile(
                reinterpret_cast<PCRE2_SPTR>(kReplacements[i].pattern), PCRE2_ZERO_TERMINATED,
                PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &error, &offset, nullptr);
            if (!codes_[i]) throw std::logic_error("redactor pattern does not compile");
            pcre2_jit_compile(codes_[i], PCRE2_JIT_COMPLETE);  // interpreter if unavailable
        }
    }
    ~CompiledPatterns() {
        for (auto* code : codes_) pcre2_code_free(code);
        pcre2_match_context_free(context_);
    }
    CompiledPatterns(const CompiledPatterns&) = delete;
    CompiledPatterns& operator=(const CompiledPatterns&) = delete;

    // The text with every match of pattern `i` replaced; none on a match error.
    std::optional<std::string> replaceAll(std::size_t i, const std::string& text) const {
        const auto* subject = reinterpret_cast<PCRE2_SPTR>(text.data());
        const auto* replacement = reinterpret_cast<PCRE2_SPTR>(kReplacements[i].replacement);
        const std::uint32_t options =
            PCRE2_SUBSTITUTE_GLOBAL | PCRE2_SUBSTITUTE_OVERFLOW_LENGTH | PCRE2_NO_UTF_CHECK;
        std::string out(text.size() + 64, '\0');
        for (int attempt = 0; attempt < 2; ++attempt) {
            PCRE2_SIZE outLength = out.size();
            int rc = pcre2_substitute(codes_[i], subject, text.size(), 0, options, nullptr,
                                      context_, replacement, PCRE2_ZERO_TERMINATED,
                                      reinterpret_cast<PCRE2_UCHAR*>(out.data()), &outLength);
            if (rc >= 0) {
                out.resize(outLength);
                return out;
            }
            if (rc != PCRE2_ERROR_NOMEMORY) return std::nullopt;
            out.assign(outLength, '\0');  // the length needed, with room for the terminator
        }
        return std::nullopt;
    }

private:
    std::array<pcre2_code*, kReplacements.size()> codes_{};
    pcre2_match_context* context_ = nullptr;
};

const CompiledPatterns& patterns() {
    static const CompiledPatterns compiled;
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
    for (std::size_t i = 0; i < kReplacements.size(); ++i) {
        auto replaced = patterns().replaceAll(i, current);
        if (!replaced) {
            current = "[redacted]";
            break;
        }
        current = std::move(*replaced);
    }
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
