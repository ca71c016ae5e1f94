#include "MailCore/IMAP/ModifiedUTF7.h"

#include <cstdint>
#include <vector>

#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

int alphabetIndex(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == ',') return 63;
    return -1;
}

void flushRun(std::vector<std::uint16_t>& run, std::string& out) {
    if (run.empty()) return;
    out.push_back('&');
    std::uint32_t bits = 0;
    int bitCount = 0;
    auto pushByte = [&](std::uint8_t byte) {
        bits = (bits << 8) | byte;
        bitCount += 8;
        while (bitCount >= 6) {
            bitCount -= 6;
            out.push_back(ModifiedUTF7::alphabet[(bits >> bitCount) & 0x3F]);
        }
    };
    for (std::uint16_t unit : run) {
        pushByte(static_cast<std::uint8_t>(unit >> 8));
        pushByte(static_cast<std::uint8_t>(unit & 0xFF));
    }
    if (bitCount > 0) out.push_back(ModifiedUTF7::alphabet[(bits << (6 - bitCount)) & 0x3F]);
    out.push_back('-');
    run.clear();
}

}  // namespace

std::string ModifiedUTF7::encode(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 8);
    std::vector<std::uint16_t> run;
    std::size_t pos = 0;
    while (pos < text.size()) {
        char32_t scalar = utf8::decode(text, pos);
        if (scalar >= 0x20 && scalar <= 0x7E) {
            flushRun(run, out);
            out.push_back(static_cast<char>(scalar));
            if (scalar == '&') out.push_back('-');
        } else if (scalar > 0xFFFF) {
            char32_t v = scalar - 0x10000;
            run.push_back(static_cast<std::uint16_t>(0xD800 + (v >> 10)));
            run.push_back(static_cast<std::uint16_t>(0xDC00 + (v & 0x3FF)));
        } else {
            run.push_back(static_cast<std::uint16_t>(scalar));
        }
    }
    flushRun(run, out);
    return out;
}

std::optional<std::string> ModifiedUTF7::decodeShifted(std::string_view base64) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(base64.size() * 6 / 8);
    std::uint32_t bits = 0;
    int bitCount = 0;
    for (char c : base64) {
        int index = alphabetIndex(static_cast<unsigned char>(c));
        if (index < 0) return std::nullopt;
        bits = (bits << 6) | static_cast<std::uint32_t>(index);
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes.push_back(static_cast<std::uint8_t>((bits >> bitCount) & 0xFF));
        }
    }
    if (bytes.size() % 2 != 0) return std::nullopt;

    // Big-endian UTF-16; an unpaired surrogate, NUL, LF or CR fails the run.
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        char32_t unit = static_cast<char32_t>((bytes[i] << 8) | bytes[i + 1]);
        char32_t scalar = unit;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (i + 3 >= bytes.size()) return std::nullopt;
            char32_t low = static_cast<char32_t>((bytes[i + 2] << 8) | bytes[i + 3]);
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            scalar = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            i += 2;
        } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
            return std::nullopt;
        }
        if (scalar == 0 || scalar == '\n' || scalar == '\r') return std::nullopt;
        utf8::append(out, scalar);
    }
    return out;
}

std::string ModifiedUTF7::decode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t amp = text.find('&', pos);
        if (amp == std::string_view::npos) {
            out.append(text.substr(pos));
            break;
        }
        out.append(text.substr(pos, amp - pos));
        std::size_t dash = text.find('-', amp + 1);
        if (dash == std::string_view::npos) {
            out.append(text.substr(amp));
            break;
        }
        if (dash == amp + 1) {
            out.push_back('&');
        } else if (auto decoded = decodeShifted(text.substr(amp + 1, dash - amp - 1))) {
            out.append(*decoded);
        } else {
            out.append(text.substr(amp, dash - amp + 1));
        }
        pos = dash + 1;
    }
    return utf8::repaired(out);
}

}  // namespace mailcore
