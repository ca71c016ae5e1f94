// PCRE2Pattern: the one wrapper of PCRE2 in the code base, for patterns
// over mail text and everything else. 8-bit code units
// with PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF (invalid bytes never
// fail a whole match), ANYCRLF newlines, JIT-compiled once. Immutable after
// construction and shared read-only between threads; matching uses
// per-thread match data, a per-thread JIT stack and a match limit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mailcore {

class PCRE2Pattern {
public:
    // Throws std::logic_error when the pattern does not compile: patterns are
    // constants of this code base, so that is a programming error. A pattern
    // meant to be tried at chosen offsets is compiled with PCRE2_ANCHORED:
    // anchoring at match time would leave the JIT for the interpreter, which
    // with PCRE2_MATCH_INVALID_UTF checks the whole subject on every call.
    explicit PCRE2Pattern(std::string_view pattern, std::uint32_t extraOptions = 0);
    ~PCRE2Pattern();
    PCRE2Pattern(const PCRE2Pattern&) = delete;
    PCRE2Pattern& operator=(const PCRE2Pattern&) = delete;

    static constexpr std::size_t maxGroups = 4;
    // Work allowed per match attempt. A 4 MB input (the most that one
    // million characters can take) needs about a tenth of it for the most
    // demanding pattern.
    static constexpr std::uint32_t matchLimit = 50'000'000;

    struct Match {
        std::size_t start = 0;
        std::size_t end = 0;
        // Byte offsets of the capture groups; npos when a group did not take part.
        std::array<std::size_t, maxGroups + 1> groupStart{};
        std::array<std::size_t, maxGroups + 1> groupEnd{};
        bool hasGroup(std::size_t i) const {
            return i <= maxGroups && groupStart[i] != std::string_view::npos;
        }
    };

    enum class Outcome { matched, noMatch, failed };

    // The leftmost match at or after `offset` (exactly at `offset` for a
    // pattern compiled with PCRE2_ANCHORED, or when `anchored`). `failed`
    // means the match limit, the JIT stack or another matching resource ran
    // out: the caller decides how to go on. `anchored` runs PCRE2's
    // interpreter, which reads the whole subject on every call: fine for a
    // short subject, but repeated searches in long text want a pattern
    // compiled with PCRE2_ANCHORED instead.
    Outcome search(std::string_view subject, std::size_t offset, Match& match,
                   bool anchored = false) const;

    // Whether the JIT compiled the pattern (else PCRE2's interpreter runs it).
    bool usesJIT() const { return jit_; }

    // True when the pattern matches somewhere in `subject`; false on failure.
    bool contains(std::string_view subject) const;

    // Capture group `group` of every non-overlapping match, left to right;
    // the search stops at a failed match attempt.
    std::vector<std::string> groups(std::string_view subject, std::size_t group) const;

    // Extra compile options: PCRE2_ANCHORED and PCRE2_DOTALL.
    static constexpr std::uint32_t optionAnchored = 0x80000000u;
    static constexpr std::uint32_t optionDotAll = 0x00000020u;

private:
    void* code_ = nullptr;  // pcre2_code_8
    bool jit_ = false;
};

// What a replacement callback returns: the text to write instead of the
// match, or nothing to keep the match as it is.
using Replacement = std::optional<std::string>;
using Replacer = std::function<Replacement(const PCRE2Pattern::Match&)>;

// Every non-overlapping match, left to right, handed to `replace`. When a
// match attempt fails (match limit), `onFailure` is asked where to go on: it
// gets the text and the offset where the search started, may append to `out`
// what the text from that offset becomes up to the returned offset, and the
// search resumes there; an offset not past the start keeps the rest as it
// is. The default copies the rest of the line unchanged.
using FailureHandler =
    std::function<std::size_t(std::string_view text, std::size_t from, std::string& out)>;
std::string replaceAll(const PCRE2Pattern& pattern, std::string_view text, const Replacer& replace,
                       const FailureHandler& onFailure = {});

}  // namespace mailcore
