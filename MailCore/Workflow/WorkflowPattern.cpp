#define PCRE2_CODE_UNIT_WIDTH 8
#include "MailCore/Workflow/WorkflowPattern.h"

#include <pcre2.h>

#include <memory>
#include <stdexcept>

namespace mailcore {

namespace {

constexpr uint32_t matchLimit = 1'000'000;

struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};
struct MatchContextDeleter {
    void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
};

pcre2_code* asCode(void* code) { return static_cast<pcre2_code*>(code); }

}  // namespace

WorkflowPattern::WorkflowPattern(const char* pattern) {
    int error = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code* code =
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED,
                      PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | PCRE2_DOLLAR_ENDONLY,
                      &error, &offset, nullptr);
    if (!code) throw std::logic_error(std::string("pattern does not compile: ") + pattern);
    pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);  // falls back to the interpreter if refused
    code_ = code;
}

WorkflowPattern::~WorkflowPattern() { pcre2_code_free(asCode(code_)); }

bool WorkflowPattern::matches(std::string_view subject) const {
    std::unique_ptr<pcre2_match_data, MatchDataDeleter> data(
        pcre2_match_data_create_from_pattern(asCode(code_), nullptr));
    std::unique_ptr<pcre2_match_context, MatchContextDeleter> context(
        pcre2_match_context_create(nullptr));
    if (!data || !context) return false;
    pcre2_set_match_limit(context.get(), matchLimit);
    const int rc = pcre2_match(asCode(code_), reinterpret_cast<PCRE2_SPTR>(subject.data()),
                               subject.size(), 0, 0, data.get(), context.get());
    return rc > 0;
}

std::vector<std::string> WorkflowPattern::firstGroups(std::string_view subject) const {
    std::vector<std::string> out;
    std::unique_ptr<pcre2_match_data, MatchDataDeleter> data(
        pcre2_match_data_create_from_pattern(asCode(code_), nullptr));
    std::unique_ptr<pcre2_match_context, MatchContextDeleter> context(
        pcre2_match_context_create(nullptr));
    if (!data || !context) return out;
    pcre2_set_match_limit(context.get(), matchLimit);
    PCRE2_SIZE start = 0;
    while (start <= subject.size()) {
        const int rc = pcre2_match(asCode(code_), reinterpret_cast<PCRE2_SPTR>(subject.data()),
                                   subject.size(), start, 0, data.get(), context.get());
        if (rc <= 0) break;
        const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data.get());
        if (rc >= 2 && ovector[2] != PCRE2_UNSET) {
            out.emplace_back(subject.substr(ovector[2], ovector[3] - ovector[2]));
        }
        // The workflow patterns never match the empty string; guard anyway.
        start = ovector[1] > ovector[0] ? ovector[1] : ovector[1] + 1;
    }
    return out;
}

}  // namespace mailcore
