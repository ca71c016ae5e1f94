// The one conversion of HTML mail bodies into plain text, used for the
// index, previews and what the AI assistance reads. In order: block
// elements and comments are removed with their content, tracking pixels
// dropped, line-breaking tags ("<br>", "</p>", "</div>", "</li>", "</tr>",
// "</h1>".."</h6>", "<hr>") become line breaks, the end of a table cell a
// space, every other tag goes, character references are decoded, source
// white space is collapsed as a browser lays it out and invisible padding
// characters are dropped. "&nbsp;" decodes to U+00A0 and lays out as a
// space like any other run of white space.
//
// Pure functions over any bytes (invalid UTF-8 reads as U+FFFD); the output
// is always valid UTF-8. Thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mailcore {

// The text a reader sees in `html`, cut on a character boundary to at most
// `maxBytes` bytes.
std::string htmlToText(std::string_view html, std::size_t maxBytes = std::string_view::npos);

// `html` without script, style, head, title, template, noscript, svg,
// iframe, object and embed elements (with their content) and comments. An
// unclosed script, style, title, noscript or iframe, or an unclosed comment,
// runs to the end of the text, as in a browser; the others lose only their
// opening tag.
std::string removeHTMLBlockElements(std::string_view html);

// Named and numeric character references decoded once. Numeric references
// 128-159 take their Windows-1252 meaning; NUL, surrogates and values past
// U+10FFFF become U+FFFD; other control characters except tab and line feed
// are dropped. Without ';' only amp, lt, gt, quot and nbsp are read; unknown
// names stay as written.
std::string decodeHTMLEntities(std::string_view text);

}  // namespace mailcore
