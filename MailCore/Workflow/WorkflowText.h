// Text rules shared by the workflow model, its validation and its
// descriptions (UTF-8 itself is read through MailCore/Common/UTF8.h). Every
// function accepts any bytes; an invalid byte reads as U+FFFD. Pure functions,
// thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore::workflowtext {

// True when `text` holds a C0 or C1 control character, DEL, or a bidirectional
// formatting character (U+202A-U+202E, U+2066-U+2069), which could make text
// shown to the user read differently from what it is. With `allowLineBreaks`,
// line feed, carriage return and tab are accepted (multi-line texts).
bool hasControlCharacters(std::string_view text, bool allowLineBreaks);

// True when `text` is empty or only white space.
bool isBlank(std::string_view text);

// `text` cut to at most `maxCharacters` code points (an ellipsis marks the
// cut), with control characters and invalid bytes replaced by U+FFFD: safe to
// quote inside a message or a summary.
std::string displayText(std::string_view text, std::size_t maxCharacters);

}  // namespace mailcore::workflowtext
