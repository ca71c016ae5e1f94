// SearchExpression: turns the text a user (or an agent) types into a safe
// FTS5 match expression. Pure function; thread-safe.
//
// - Words separated by white space must all match (implicit AND).
// - "quoted text" is a phrase; an unterminated quote runs to the end.
// - A word ending in "*" is a prefix ("budg*").
// Every term is emitted as an FTS5 string ("...", inner quotes doubled), so
// operators, parentheses, column filters and stray quotes in the input are
// plain text and never an FTS5 syntax error. Terms with no letter or digit
// are dropped, since the tokenizer would make nothing of them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

struct SearchExpression {
    // Nothing when the text holds no searchable term.
    static std::optional<std::string> build(std::string_view userText);
};

}  // namespace mailcore
