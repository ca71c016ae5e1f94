// Text helpers for mail content: conversion of any declared charset to UTF-8
// (with a fallback for mislabelled text) and the snippet of a message's
// visible text. HTML becomes text through MailCore/Common/HTMLText.h.
//
// All functions are pure and thread-safe. Their output is always valid UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore {

// `bytes` with each invalid UTF-8 sequence replaced by U+FFFD and NUL
// characters dropped.
std::string sanitizeUTF8(std::string_view bytes);

// Converts `bytes` declared as `charset` to UTF-8.
// - No charset, US-ASCII, UTF-8, or a charset nobody knows: the bytes are
//   kept if they are valid UTF-8, otherwise read as Windows-1252.
// - ISO-8859-1 or Windows-1252 labels on text that is valid UTF-8 with
//   non-ASCII characters are taken as a mislabel: the text is read as UTF-8.
// - Any other charset goes through iconv; bytes that are invalid in that
//   charset become U+FFFD and conversion continues.
// NUL characters are dropped.
std::string convertToUTF8(std::string_view bytes, std::string_view charset);

// A preview of the visible text of a message body: quoted lines ("> ..."),
// the attribution line above them and everything after a "-- " signature
// separator are left out, invisible formatting characters are removed and
// white space is collapsed to single spaces. At most `maxCharacters` Unicode
// characters, cut at a word boundary when one is near. Empty when there is
// no visible text.
std::string makeSnippet(std::string_view text, std::size_t maxCharacters = 200);

// `text` with CRLF and lone CR line ends turned into LF.
std::string normaliseLineEnds(std::string_view text);

}  // namespace mailcore
