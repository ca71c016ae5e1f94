#include "MailCore/Common/UTF8.h"

namespace mailcore::utf8 {
namespace {

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Where the character that ends at `end` (a character boundary, > 0) begins.
std::size_t previousStart(std::string_view text, std::size_t end) {
    std::size_t start = end - 1;
    const std::size_t limit = end >= 4 ? end - 4 : 0;
    while (start > limit && isContinuation(static_cast<unsigned char>(text[start]))) --start;
    return sequenceLength(text, start) == end - start ? start : end - 1;
}

}  // namespace

std::size_t sequenceLength(std::string_view text, std::size_t pos) {
    const auto c = static_cast<unsigned char>(text[pos]);
    std::size_t need = 0;
    char32_t min = 0;
    if (c < 0x80) return 1;
    if (c >= 0xC2 && c <= 0xDF) {
        need = 2;
        min = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
        need = 3;
        min = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
        need = 4;
        min = 0x10000;
    } else {
        return 1;
    }
    if (pos + need > text.size()) return 1;
    char32_t cp = c & (0x7F >> need);
    for (std::size_t i = 1; i < need; ++i) {
        const auto b = static_cast<unsigned char>(text[pos + i]);
        if (!isContinuation(b)) return 1;
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 1;
    return need;
}

bool isValid(std::string_view text) {
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t len = sequenceLength(text, pos);
        if (len == 1 && static_cast<unsigned char>(text[pos]) >= 0x80) return false;
        pos += len;
    }
    return true;
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t pos = 0; pos < text.size(); pos += sequenceLength(text, pos)) ++count;
    return count;
}

std::string_view prefix(std::string_view text, std::size_t maxCharacters) {
    std::size_t pos = 0;
    for (std::size_t n = 0; n < maxCharacters && pos < text.size(); ++n) {
        pos += sequenceLength(text, pos);
    }
    return text.substr(0, pos);
}

std::string_view suffix(std::string_view text, std::size_t maxCharacters) {
    std::size_t pos = text.size();
    for (std::size_t n = 0; n < maxCharacters && pos > 0; ++n) pos = previousStart(text, pos);
    return text.substr(pos);
}

std::size_t safeCutBytes(std::string_view text, std::size_t maxBytes) {
    if (maxBytes >= text.size()) return text.size();
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t len = sequenceLength(text, pos);
        if (pos + len > maxBytes) break;
        pos += len;
    }
    return pos;
}

char32_t decode(std::string_view text, std::size_t& pos) {
    std::size_t len = sequenceLength(text, pos);
    const auto c = static_cast<unsigned char>(text[pos]);
    if (len == 1) {
        ++pos;
        return c < 0x80 ? c : 0xFFFD;
    }
    char32_t cp = c & (0x7F >> len);
    for (std::size_t i = 1; i < len; ++i) {
        cp = (cp << 6) | (static_cast<unsigned char>(text[pos + i]) & 0x3F);
    }
    pos += len;
    return cp;
}

void append(std::string& out, char32_t cp) {
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string repaired(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        // Copy a whole run of ASCII at once: the common case.
        std::size_t run = pos;
        while (run < text.size() && static_cast<unsigned char>(text[run]) < 0x80) ++run;
        out.append(text.substr(pos, run - pos));
        if (run == text.size()) break;
        const std::size_t len = sequenceLength(text, run);
        if (len == 1) {
            out.append(replacementCharacter);
        } else {
            out.append(text.substr(run, len));
        }
        pos = run + len;
    }
    return out;
}

}  // namespace mailcore::utf8
