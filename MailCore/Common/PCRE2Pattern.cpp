#include "MailCore/Common/PCRE2Pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace mailcore {
namespace {

// Match data, match context and JIT stack for the calling thread, created on
// first use and freed when the thread ends.
struct ThreadMatchResources {
    pcre2_match_data* data = nullptr;
    pcre2_match_context* context = nullptr;
    pcre2_jit_stack* jitStack = nullptr;

    ThreadMatchResources() {
        data = pcre2_match_data_create(PCRE2Pattern::maxGroups + 1, nullptr);
        context = pcre2_match_context_create(nullptr);
        jitStack = pcre2_jit_stack_create(32 * 1024, 16 * 1024 * 1024, nullptr);
        if (!data || !context || !jitStack) throw std::bad_alloc();
        pcre2_jit_stack_assign(context, nullptr, jitStack);
        pcre2_set_match_limit(context, PCRE2Pattern::matchLimit);
    }
    ~ThreadMatchResources() {
        pcre2_match_data_free(data);
        pcre2_match_context_free(context);
        pcre2_jit_stack_free(jitStack);
    }
    ThreadMatchResources(const ThreadMatchResources&) = delete;
    ThreadMatchResources& operator=(const ThreadMatchResources&) = delete;
};

ThreadMatchResources& threadResources() {
    thread_local ThreadMatchResources resources;
    return resources;
}

}  // namespace

PCRE2Pattern::PCRE2Pattern(std::string_view pattern, std::uint32_t extraOptions) {
    std::unique_ptr<pcre2_compile_context, decltype(&pcre2_compile_context_free)> context(
        pcre2_compile_context_create(nullptr), &pcre2_compile_context_free);
    if (!context) throw std::bad_alloc();
    pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
    int error = 0;
    PCRE2_SIZE errorOffset = 0;
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                     PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | extraOptions,
                                     &error, &errorOffset, context.get());
    if (!code) {
        PCRE2_UCHAR message[256];
        pcre2_get_error_message(error, message, sizeof message);
        throw std::logic_error("pattern does not compile at " + std::to_string(errorOffset) + ": " +
                               reinterpret_cast<const char*>(message));
    }
    // Without JIT support PCRE2 falls back to its interpreter with the same
    // results, so a JIT failure is not an error.
    jit_ = pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) == 0;
    code_ = code;
}

PCRE2Pattern::~PCRE2Pattern() { pcre2_code_free(static_cast<pcre2_code*>(code_)); }

PCRE2Pattern::Outcome PCRE2Pattern::search(std::string_view subject, std::size_t offset,
                                           Match& match, bool anchored) const {
    if (offset > subject.size()) return Outcome::noMatch;
    ThreadMatchResources& resources = threadResources();
    int rc = pcre2_match(static_cast<const pcre2_code*>(code_),
                         reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), offset,
                         anchored ? PCRE2_ANCHORED : 0, resources.data, resources.context);
    if (rc == PCRE2_ERROR_NOMATCH) return Outcome::noMatch;
    if (rc < 0) return Outcome::failed;
    const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(resources.data);
    std::uint32_t pairs = pcre2_get_ovector_count(resources.data);
    match.start = ovector[0];
    match.end = ovector[1];
    for (std::size_t i = 0; i <= maxGroups; ++i) {
        bool set = i < pairs && (rc == 0 || i < static_cast<std::size_t>(rc)) &&
                   ovector[2 * i] != PCRE2_UNSET;
        match.groupStart[i] = set ? ovector[2 * i] : std::string_view::npos;
        match.groupEnd[i] = set ? ovector[2 * i + 1] : std::string_view::npos;
    }
    return Outcome::matched;
}

bool PCRE2Pattern::contains(std::string_view subject) const {
    Match match;
    return search(subject, 0, match) == Outcome::matched;
}

static_assert(PCRE2Pattern::optionAnchored == PCRE2_ANCHORED);
static_assert(PCRE2Pattern::optionDotAll == PCRE2_DOTALL);

std::vector<std::string> PCRE2Pattern::groups(std::string_view subject, std::size_t group) const {
    std::vector<std::string> out;
    Match match;
    std::size_t pos = 0;
    while (pos <= subject.size() && search(subject, pos, match) == Outcome::matched) {
        if (match.hasGroup(group)) {
            out.emplace_back(subject.substr(match.groupStart[group],
                                            match.groupEnd[group] - match.groupStart[group]));
        }
        pos = match.end > match.start ? match.end : match.end + 1;
    }
    return out;
}

std::string replaceAll(const PCRE2Pattern& pattern, std::string_view text, const Replacer& replace,
                       const FailureHandler& onFailure) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    PCRE2Pattern::Match match;
    while (pos < text.size()) {
        auto outcome = pattern.search(text, pos, match);
        if (outcome == PCRE2Pattern::Outcome::noMatch) break;
        if (outcome == PCRE2Pattern::Outcome::failed) {
            std::size_t next = 0;
            if (onFailure) {
                next = onFailure(text, pos, out);
            } else {
                std::size_t lineEnd = text.find('\n', pos);
                next = lineEnd == std::string_view::npos ? text.size() : lineEnd + 1;
                out.append(text.substr(pos, next - pos));
            }
            if (next <= pos) {  // a handler that cannot go on: keep the rest
                out.append(text.substr(pos));
                return out;
            }
            pos = next;
            continue;
        }
        out.append(text.substr(pos, match.start - pos));
        if (match.end == match.start) {
            // No pattern here matches empty text; step over it all the same.
            if (match.start < text.size()) out.push_back(text[match.start]);
            pos = match.start + 1;
            continue;
        }
        if (Replacement replacement = replace(match)) {
            out.append(*replacement);
        } else {
            out.append(text.substr(match.start, match.end - match.start));
        }
        pos = match.end;
    }
    if (pos < text.size()) out.append(text.substr(pos));
    return out;
}

}  // namespace mailcore
