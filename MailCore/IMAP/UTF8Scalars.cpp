#include "MailCore/IMAP/UTF8Scalars.h"

namespace mailcore::utf8 {

char32_t next(std::string_view text, std::size_t& pos) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(pos);
    if (lead < 0x80) {
        ++pos;
        return lead;
    }
    int length = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
        ++pos;
        return 0xFFFD;
    }
    if (pos + length > text.size()) {
        ++pos;
        return 0xFFFD;
    }
    for (int i = 1; i < length; ++i) {
        unsigned char c = byte(pos + i);
        if ((c & 0xC0) != 0x80) {
            ++pos;
            return 0xFFFD;
        }
        value = (value << 6) | (c & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        ++pos;
        return 0xFFFD;
    }
    pos += length;
    return value;
}

std::string repaired(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t start = pos;
        char32_t scalar = next(text, pos);
        if (scalar == 0xFFFD && pos - start == 1 &&
            static_cast<unsigned char>(text[start]) >= 0x80) {
            append(out, 0xFFFD);
        } else {
            out.append(text.substr(start, pos - start));
        }
    }
    return out;
}

}  // namespace mailcore::utf8
