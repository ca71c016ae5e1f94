#include "MailCore/Workflow/WorkflowText.h"

#include "MailCore/Common/UTF8.h"

#include <cstdint>

namespace mailcore::workflowtext {

namespace {

constexpr char32_t invalidCodePoint = 0xFFFFFFFF;

// Decodes one code point at `pos`, advancing it; an invalid sequence yields
// invalidCodePoint and advances by one byte.
char32_t decode(std::string_view text, std::size_t& pos) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(pos);
    if (lead < 0x80) {
        ++pos;
        return lead;
    }
    std::size_t length = 0;
    char32_t cp = 0;
    char32_t minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        cp = lead & 0x1F;
        minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        cp = lead & 0x0F;
        minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        cp = lead & 0x07;
        minimum = 0x10000;
    } else {
        ++pos;
        return invalidCodePoint;
    }
    if (pos + length > text.size()) {
        ++pos;
        return invalidCodePoint;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const std::uint8_t b = byte(pos + i);
        if ((b & 0xC0) != 0x80) {
            ++pos;
            return invalidCodePoint;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++pos;
        return invalidCodePoint;
    }
    pos += length;
    return cp;
}

bool isControl(char32_t cp, bool allowLineBreaks) {
    if (allowLineBreaks && (cp == U'\n' || cp == U'\r' || cp == U'\t')) return false;
    if (cp < 0x20 || cp == 0x7F) return true;
    if (cp >= 0x80 && cp <= 0x9F) return true;
    if (cp >= 0x202A && cp <= 0x202E) return true;
    if (cp >= 0x2066 && cp <= 0x2069) return true;
    return false;
}

bool isSpace(char32_t cp) {
    return cp == U' ' || cp == U'\t' || cp == U'\n' || cp == U'\r' || cp == 0x0B || cp == 0x0C ||
           cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200B) || cp == 0x2028 ||
           cp == 0x2029 || cp == 0x202F || cp == 0x205F || cp == 0x3000 || cp == 0xFEFF;
}

void appendUTF8(std::string& out, char32_t cp) {
    mailcore::utf8::append(out, cp);
}

}  // namespace

bool isValidUTF8(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (decode(text, pos) == invalidCodePoint) return false;
    }
    return true;
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    std::size_t pos = 0;
    while (pos < text.size()) {
        decode(text, pos);
        ++count;
    }
    return count;
}

bool hasControlCharacters(std::string_view text, bool allowLineBreaks) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        const char32_t cp = decode(text, pos);
        if (cp != invalidCodePoint && isControl(cp, allowLineBreaks)) return true;
    }
    return false;
}

bool isBlank(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (!isSpace(decode(text, pos))) return false;
    }
    return true;
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string displayText(std::string_view text, std::size_t maxCharacters) {
    std::string out;
    std::size_t pos = 0;
    std::size_t count = 0;
    while (pos < text.size()) {
        if (count == maxCharacters) {
            out += "\xE2\x80\xA6";  // …
            break;
        }
        const char32_t cp = decode(text, pos);
        if (cp == invalidCodePoint || isControl(cp, false)) {
            appendUTF8(out, 0xFFFD);
        } else {
            appendUTF8(out, cp);
        }
        ++count;
    }
    return out;
}

}  // namespace mailcore::workflowtext
