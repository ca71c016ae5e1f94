// DisplayText: the one rule for untrusted text that a person reads
// (confirmations, the undo notice, the terminal running `serve`, the audit
// log's text output, workflow descriptions), so that such text can neither
// fake lines, move the cursor, reorder what is shown, nor be cut silently.
//
// Line breaks (line feed, carriage return, U+2028, U+2029) become "⏎";
// every other control character (C0, DEL, C1) and every bidirectional
// formatting character (embeddings and overrides U+202A-U+202E, isolates
// U+2066-U+2069, the marks U+200E, U+200F and U+061C) becomes "·"; a
// malformed byte becomes U+FFFD. Every cut says what it cut. Pure functions,
// thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore::DisplayText {

// True for the characters that line() replaces (line breaks included).
bool isControl(char32_t c);

// True when `text` holds a character that line() would replace; with
// `allowLineBreaks`, line feed, carriage return and tab are accepted.
bool hasControlCharacters(std::string_view text, bool allowLineBreaks);

// " … N more characters": what a cut appends.
std::string cutMarker(std::size_t more);

// One line, shaped as above. Longer than `max` characters, it is cut there
// and the marker follows.
std::string line(std::string_view text, std::size_t max);

struct Block {
    std::string text;
    int omitted = 0;  // lines of the input not shown at all
};

// Keeps the line structure, each line shaped by line(); a line longer than
// 400 characters continues on the next display line rather than being cut.
// Stops at `maxCharacters` characters or `maxLines` display lines; when it
// stops early, a last line "… N more characters" says how much is left.
Block block(std::string_view text, std::size_t maxCharacters, std::size_t maxLines);

}  // namespace mailcore::DisplayText
