// UTF-8 helpers for the sanitizer (internal to MailCoreAI). A "character"
// of the sanitizer is one Unicode scalar value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace mailcore::utf8text {

// Length of the valid UTF-8 sequence starting at `pos`, or 0 when the bytes
// there are not one.
std::size_t sequenceLength(std::string_view text, std::size_t pos);

// The first `maxCharacters` characters of `text`, each invalid byte replaced
// by U+FFFD (which counts as one character).
std::string repairedPrefix(std::string_view text, std::int64_t maxCharacters);

// Number of characters of valid UTF-8 text (continuation bytes not counted).
std::size_t characterCount(std::string_view text);

// Byte offset after the first `count` characters (or the size).
std::size_t offsetAfterCharacters(std::string_view text, std::size_t count);

// Byte offset where the last `count` characters begin (or 0).
std::size_t offsetOfLastCharacters(std::string_view text, std::size_t count);

// The scalar at `pos` of valid UTF-8 text and the byte after it.
char32_t decodeAt(std::string_view text, std::size_t pos, std::size_t& next);

void append(std::string& out, char32_t scalar);

}  // namespace mailcore::utf8text
