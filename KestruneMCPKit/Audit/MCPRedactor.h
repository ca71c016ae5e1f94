// The cleaning of every text that reaches the audit log, so that nothing
// secret is written there. scrub() applies, in order, over the whole text:
//   1. kmt_[A-Za-z0-9_\-]{8,}                              -> "[token]"
//   2. (?i)bearer\s+[A-Za-z0-9._~+/=\-]{8,}                -> "[token]"
//   3. (?i)\b(sk|pk|ghp|gho|xox[a-z])[-_][A-Za-z0-9_\-]{12,} -> "[secret]"
//   4. [A-Za-z0-9._%+\-]+@[A-Za-z0-9.\-]+\.[A-Za-z]{2,}    -> "[email]"
//   5. [A-Za-z0-9+/_\-]{32,}={0,2}                         -> "[redacted]"
//   6. [\r\n\t]+                                           -> " "
// then drops control characters (C0, DEL, C1), the line and paragraph
// separators and the bidirectional formatting characters, and cuts the result
// to `limit` characters followed by "..." when it is longer. Before the
// replacements, malformed UTF-8 becomes U+FFFD and the dropped characters
// other than CR, LF and tab are removed, so that a control character inside
// a token cannot hide it from the expressions. If a replacement cannot complete (a match limit on a
// hostile input), the whole text becomes "[redacted]": the redactor fails
// closed. Thread-safe; the expressions are compiled once.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mcpkit::MCPRedactor {

std::string scrub(std::string_view text, std::size_t limit);

}  // namespace mcpkit::MCPRedactor
