// Case-blind comparison, in two strengths. Protocol tokens (header and
// parameter names, charsets, tag names, IMAP atoms, month names) compare
// with ASCII case folding only: non-ASCII bytes are left as they are, which
// keeps "İ" or "K" (Kelvin) from ever matching an ASCII token. Text a person
// wrote (subjects, display names, words searched for in mail) compares with
// `foldCase`, the full Unicode case fold of the canonical form, so that
// "RÉSUMÉ", "résumé" and "re\u0301sume\u0301" are one key.
//
// Pure functions over any bytes; thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore {

// `text` with A-Z turned into a-z; every other byte unchanged.
std::string asciiLower(std::string_view text);

// Whether `a` and `b` are equal when A-Z and a-z are not told apart.
bool equalsNoCase(std::string_view a, std::string_view b);

// Whether `text` holds `prefix` at byte offset `at`, A-Z and a-z not told
// apart. False when `at` is past the end.
bool startsWithNoCase(std::string_view text, std::size_t at, std::string_view prefix);

// The Unicode case fold of `text` in normalisation form C: the key under
// which two texts that a reader takes for the same words, whatever their
// case and composition, compare equal. Malformed UTF-8 is repaired first
// (each bad byte becomes U+FFFD), so the result is always valid UTF-8.
std::string foldCase(std::string_view text);

}  // namespace mailcore
