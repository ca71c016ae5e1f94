// WorkflowPattern: one compiled PCRE2 pattern (UTF, UCP, invalid UTF-8
// tolerated, $ only at the very end) with a match limit. A pattern that
// hits its limit counts as not matching. Compiled once; matching is
// thread-safe (each call has its own match data).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mailcore {

class WorkflowPattern {
public:
    // Throws std::logic_error when the pattern does not compile (a bug).
    explicit WorkflowPattern(const char* pattern);
    ~WorkflowPattern();
    WorkflowPattern(const WorkflowPattern&) = delete;
    WorkflowPattern& operator=(const WorkflowPattern&) = delete;

    bool matches(std::string_view subject) const;

    // Capture group 1 of every non-overlapping match, in order.
    std::vector<std::string> firstGroups(std::string_view subject) const;

private:
    void* code_;  // pcre2_code_8
};

}  // namespace mailcore
