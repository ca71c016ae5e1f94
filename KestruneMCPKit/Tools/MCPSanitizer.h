// MCPSanitizer: the plain text of mail as an agent receives it. Bodies get
// the same cleaning as text bound for a language model (markup, tracking
// links, embedded and binary data and secrets removed, quotes and long
// signatures folded) and are cut to the caller's budget.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mcpkit::MCPSanitizer {

struct PlainText {
    std::string text;
    bool truncated = false;  // true when the text was cut to the budget
};

// The cleaned body, at most `maxCharacters` characters.
PlainText plainText(std::string_view body, std::size_t maxCharacters);

// One cleaned line of at most `maxCharacters` characters for search results:
// whitespace runs become single blanks.
std::string snippet(std::string_view text, std::size_t maxCharacters);

}  // namespace mcpkit::MCPSanitizer
