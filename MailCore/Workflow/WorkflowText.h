// Text rules shared by the workflow model, its validation and its
// descriptions (UTF-8 itself is read through MailCore/Common/UTF8.h). Every
// function accepts any bytes; an invalid byte reads as U+FFFD. Pure functions,
// thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore::workflowtext {

// True when `text` holds a character that the display-text rule replaces
// (MailCore/Common/DisplayText.h: controls and bidirectional formatting),
// which could make text shown to the user read differently from what it is.
// With `allowLineBreaks`, line feed, carriage return and tab are accepted.
bool hasControlCharacters(std::string_view text, bool allowLineBreaks);

// True when `text` is empty or only white space.
bool isBlank(std::string_view text);

// `text` as one display line (DisplayText::line): at most `maxCharacters`
// characters, a cut saying how much it left out: safe to quote inside a
// message or a summary.
std::string displayText(std::string_view text, std::size_t maxCharacters);

}  // namespace mailcore::workflowtext
