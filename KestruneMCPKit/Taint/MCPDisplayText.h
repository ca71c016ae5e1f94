// MCPDisplayText: shaping of untrusted text (subjects, addresses, bodies an
// agent wrote) for display in a confirmation, so that it cannot fake lines
// or hide content with control characters.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mcpkit::MCPDisplayText {

// One line: line feeds, carriage returns and the Unicode line and paragraph
// separators become "⏎", other control characters "·"; cut to `max` characters.
std::string line(std::string_view text, std::size_t max);

struct Block {
    std::string text;
    int omitted = 0;  // lines left out
};

// Keeps the line structure with each line shaped by line() and cut to 400
// characters; stops at `maxCharacters` characters or `maxLines` lines.
Block block(std::string_view text, std::size_t maxCharacters, std::size_t maxLines);

}  // namespace mcpkit::MCPDisplayText
