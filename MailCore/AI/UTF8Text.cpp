#include "MailCore/AI/UTF8Text.h"

namespace mailcore::utf8text {

std::size_t sequenceLength(std::string_view text, std::size_t pos) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(pos);
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;   // no overlong forms
        if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (pos + length > text.size()) return 0;
    if (byte(pos + 1) < low || byte(pos + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(pos + i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

std::string repairedPrefix(std::string_view text, std::int64_t maxCharacters) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    std::int64_t count = 0;
    while (pos < text.size() && count < maxCharacters) {
        // Copy a whole run of ASCII at once: the common case.
        std::size_t run = pos;
        while (run < text.size() && static_cast<unsigned char>(text[run]) < 0x80 &&
               count + static_cast<std::int64_t>(run - pos) < maxCharacters) {
            ++run;
        }
        if (run > pos) {
            out.append(text.substr(pos, run - pos));
            count += static_cast<std::int64_t>(run - pos);
            pos = run;
            continue;
        }
        std::size_t length = sequenceLength(text, pos);
        if (length == 0) {
            out.append("\xEF\xBF\xBD");
            pos += 1;
        } else {
            out.append(text.substr(pos, length));
            pos += length;
        }
        ++count;
    }
    return out;
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return count;
}

std::size_t offsetAfterCharacters(std::string_view text, std::size_t count) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if ((static_cast<unsigned char>(text[pos]) & 0xC0) != 0x80) {
            if (count == 0) return pos;
            --count;
        }
        ++pos;
    }
    return text.size();
}

std::size_t offsetOfLastCharacters(std::string_view text, std::size_t count) {
    std::size_t pos = text.size();
    while (pos > 0 && count > 0) {
        --pos;
        if ((static_cast<unsigned char>(text[pos]) & 0xC0) != 0x80) --count;
    }
    return pos;
}

char32_t decodeAt(std::string_view text, std::size_t pos, std::size_t& next) {
    std::size_t length = sequenceLength(text, pos);
    if (length <= 1) {
        next = pos + 1;
        return length == 1 ? static_cast<unsigned char>(text[pos]) : 0xFFFD;
    }
    auto byte = [&](std::size_t i) {
        return static_cast<char32_t>(static_cast<unsigned char>(text[i]));
    };
    char32_t value = byte(pos) & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
    for (std::size_t i = 1; i < length; ++i) value = (value << 6) | (byte(pos + i) & 0x3F);
    next = pos + length;
    return value;
}

void append(std::string& out, char32_t scalar) {
    if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) scalar = 0xFFFD;
    if (scalar < 0x80) {
        out.push_back(static_cast<char>(scalar));
    } else if (scalar < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (scalar >> 6)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else if (scalar < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (scalar >> 12)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (scalar >> 18)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    }
}

}  // namespace mailcore::utf8text
