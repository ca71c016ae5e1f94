// PCRE2Pattern: one compiled PCRE2 pattern for mail text. 8-bit code units
// with PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF (invalid bytes never
// fail a whole match), ANYCRLF newlines, JIT-compiled once. Immutable after
// construction and shared read-only between threads; matching uses
// per-thread match data, a per-thread JIT stack and a match limit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

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

private:
    void* code_ = nullptr;  // pcre2_code_8
    bool jit_ = false;
};

}  // namespace mailcore
