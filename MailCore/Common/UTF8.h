// UTF-8 helpers for texts measured and cut in characters (Unicode scalar
// values). Malformed bytes count as one character each and are never split.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore::utf8 {

// Length in bytes of the sequence starting at text[pos] (1 for a malformed byte).
std::size_t sequenceLength(std::string_view text, std::size_t pos);

// Number of characters in `text`.
std::size_t characterCount(std::string_view text);

// The first `maxCharacters` characters of `text` (all of it when shorter).
std::string_view prefix(std::string_view text, std::size_t maxCharacters);

// The largest byte count <= maxBytes that does not cut a sequence.
std::size_t safeCutBytes(std::string_view text, std::size_t maxBytes);

// Decodes the character at `pos`; malformed bytes give U+FFFD. Advances `pos`.
char32_t decode(std::string_view text, std::size_t& pos);

// Appends the UTF-8 form of a scalar; surrogates and values above 0x10FFFF
// are written as U+FFFD.
void append(std::string& out, char32_t codePoint);

}  // namespace mailcore::utf8
