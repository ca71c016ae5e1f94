// The one UTF-8 decoder of the engine: validation, repair, scalar iteration
// and cuts on character boundaries. A "character" is one Unicode scalar value.
// A sequence is valid when it is the shortest form of a scalar up to U+10FFFF
// that is not a surrogate; every other byte is malformed and counts as one
// character on its own (decoded as U+FFFD), so no function here ever splits a
// valid sequence. All functions accept any bytes; pure and thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore::utf8 {

// U+FFFD REPLACEMENT CHARACTER, encoded.
inline constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

// Length in bytes of the sequence starting at text[pos] (1 for a malformed byte).
std::size_t sequenceLength(std::string_view text, std::size_t pos);

// Whether all of `text` is valid UTF-8.
bool isValid(std::string_view text);

// Number of characters in `text`.
std::size_t characterCount(std::string_view text);

// The first `maxCharacters` characters of `text` (all of it when shorter).
std::string_view prefix(std::string_view text, std::size_t maxCharacters);

// The last `maxCharacters` characters of `text` (all of it when shorter).
std::string_view suffix(std::string_view text, std::size_t maxCharacters);

// The largest byte count <= maxBytes that does not cut a sequence.
std::size_t safeCutBytes(std::string_view text, std::size_t maxBytes);

// Decodes the character at `pos`; malformed bytes give U+FFFD. Advances `pos`.
char32_t decode(std::string_view text, std::size_t& pos);

// Appends the UTF-8 form of a scalar; surrogates and values above 0x10FFFF
// are written as U+FFFD.
void append(std::string& out, char32_t codePoint);

// `text` with every malformed byte replaced by U+FFFD; valid sequences
// (an encoded U+FFFD included) are kept as they are.
std::string repaired(std::string_view text);

}  // namespace mailcore::utf8
