#include "MailCore/Store/SearchExpression.h"

#include <vector>

namespace mailcore {
namespace {

bool isSpace(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// True when the term has a character the unicode61 tokenizer keeps: an ASCII
// letter or digit, or any non-ASCII byte (letters of other scripts).
bool hasToken(std::string_view term) {
    for (unsigned char c : term) {
        if (c >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
            (c >= 'A' && c <= 'Z')) {
            return true;
        }
    }
    return false;
}

// FTS5's tokenizer would make a lone control or NUL character part of no
// token; they are turned into spaces so the string stays well formed.
std::string quoted(std::string_view term) {
    std::string out = "\"";
    for (char c : term) {
        unsigned char u = static_cast<unsigned char>(c);
        if (c == '"') {
            out += "\"\"";
        } else if (u < 0x20 || u == 0x7f) {
            out += ' ';
        } else {
            out += c;
        }
    }
    out += '"';
    return out;
}

}  // namespace

std::optional<std::string> SearchExpression::build(std::string_view text) {
    std::vector<std::string> terms;
    std::size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (isSpace(c)) {
            ++i;
            continue;
        }
        if (c == '"') {
            std::size_t close = text.find('"', i + 1);
            std::size_t end = close == std::string_view::npos ? text.size() : close;
            std::string_view phrase = text.substr(i + 1, end - i - 1);
            i = close == std::string_view::npos ? text.size() : close + 1;
            bool prefix = i < text.size() && text[i] == '*';
            if (prefix) ++i;
            if (hasToken(phrase)) terms.push_back(quoted(phrase) + (prefix ? "*" : ""));
            continue;
        }
        std::size_t start = i;
        while (i < text.size() && !isSpace(static_cast<unsigned char>(text[i])) && text[i] != '"') {
            ++i;
        }
        std::string_view word = text.substr(start, i - start);
        bool prefix = false;
        while (!word.empty() && word.back() == '*') {
            word.remove_suffix(1);
            prefix = true;
        }
        if (hasToken(word)) terms.push_back(quoted(word) + (prefix ? "*" : ""));
    }
    if (terms.empty()) return std::nullopt;
    std::string expression;
    for (const auto& term : terms) {
        if (!expression.empty()) expression += ' ';
        expression += term;
    }
    return expression;
}

}  // namespace mailcore
