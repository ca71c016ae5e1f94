#include "MailCore/MIME/MIMEText.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/GMimeSupport.h"

namespace mailcore {

namespace {

void appendCodePoint(std::string& out, std::uint32_t cp) {
    if (cp == 0) return;
    mailcore::utf8::append(out, cp);
}

// The C1 range of Windows-1252; 0 marks the five undefined bytes.
constexpr std::array<std::uint16_t, 32> windows1252High = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

std::string decodeWindows1252(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (b >= 0x80 && b < 0xA0) {
            const std::uint16_t cp = windows1252High[b - 0x80];
            appendCodePoint(out, cp == 0 ? b : cp);
        } else {
            appendCodePoint(out, b);
        }
    }
    return out;
}

bool hasHighBytes(std::string_view bytes) {
    for (char c : bytes) {
        if (static_cast<unsigned char>(c) >= 0x80) return true;
    }
    return false;
}

bool isUTF8Label(const std::string& name) {
    return name.empty() || name == "utf-8" || name == "utf8" || name == "us-ascii" ||
           name == "ascii" || name == "unicode-1-1-utf-8" || name == "x-unknown" ||
           name == "unknown-8bit" || name == "x-user-defined" || name == "default";
}

bool isLatinLabel(const std::string& name) {
    return name == "iso-8859-1" || name == "iso8859-1" || name == "latin1" || name == "latin-1" ||
           name == "l1" || name == "iso_8859-1" || name == "cp1252" || name == "windows-1252" ||
           name == "cp819" || name == "ibm819";
}

std::string dropNUL(std::string text) {
    if (text.find('\0') == std::string::npos) return text;
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c != '\0') out += c;
    }
    return out;
}

// Converts through iconv; false when the charset is unknown.
bool convertWithIconv(std::string_view bytes, std::string_view charset, std::string& out) {
    ensureGMime();
    const std::string name(charset);
    iconv_t cd = g_mime_iconv_open("UTF-8", name.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    out.clear();
    out.reserve(bytes.size() + bytes.size() / 2 + 16);
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    std::array<char, 4096> buffer{};
    while (inLeft > 0) {
        char* outPtr = buffer.data();
        std::size_t outLeft = buffer.size();
        const std::size_t rc = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
        out.append(buffer.data(), buffer.size() - outLeft);
        if (rc != static_cast<std::size_t>(-1)) continue;
        if (errno == E2BIG) continue;
        // EILSEQ or EINVAL (a sequence cut short at the end): mark and move on.
        out += utf8::replacementCharacter;
        ++in;
        --inLeft;
    }
    char* outPtr = buffer.data();
    std::size_t outLeft = buffer.size();
    iconv(cd, nullptr, nullptr, &outPtr, &outLeft);
    out.append(buffer.data(), buffer.size() - outLeft);
    g_mime_iconv_close(cd);
    return true;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

}  // namespace

std::string sanitizeUTF8(std::string_view bytes) { return dropNUL(utf8::repaired(bytes)); }

std::string convertToUTF8(std::string_view bytes, std::string_view charset) {
    const std::string name = asciiLower(charset);
    const bool valid = utf8::isValid(bytes);
    if (isUTF8Label(name)) {
        return dropNUL(valid ? std::string(bytes) : decodeWindows1252(bytes));
    }
    if (isLatinLabel(name)) {
        if (valid && hasHighBytes(bytes)) return dropNUL(std::string(bytes));
        return dropNUL(decodeWindows1252(bytes));
    }
    if (!hasHighBytes(bytes) && name.find("utf-16") == std::string::npos &&
        name.find("utf-32") == std::string::npos && name.find("ucs") == std::string::npos &&
        name.find("utf-7") == std::string::npos && name.find("2022") == std::string::npos &&
        name.find("hz") == std::string::npos) {
        return dropNUL(std::string(bytes));  // ASCII is the same in every other charset
    }
    std::string out;
    if (convertWithIconv(bytes, name, out)) return dropNUL(sanitizeUTF8(out));
    return dropNUL(valid ? std::string(bytes) : decodeWindows1252(bytes));
}

std::string makeSnippet(std::string_view text, std::size_t maxCharacters) {
    // Split into lines, drop quoted lines and what follows the signature.
    std::string visible;
    std::size_t start = 0;
    bool previousQuoted = false;
    std::string_view lastKeptLine;
    std::size_t lastKeptOffset = 0;
    while (start <= text.size() && visible.size() < maxCharacters * 8) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        start = end + 1;
        if (line == "-- " || line == "--") break;
        std::size_t firstNonSpace = 0;
        while (firstNonSpace < line.size() &&
               (line[firstNonSpace] == ' ' || line[firstNonSpace] == '\t'))
            ++firstNonSpace;
        const bool quoted = firstNonSpace < line.size() && line[firstNonSpace] == '>';
        if (quoted) {
            // The attribution line ("On ... wrote:") just above a quote goes too.
            if (!previousQuoted && !lastKeptLine.empty() && lastKeptLine.back() == ':') {
                visible.resize(lastKeptOffset);
                lastKeptLine = {};
            }
            previousQuoted = true;
            continue;
        }
        previousQuoted = false;
        if (firstNonSpace == line.size()) continue;
        lastKeptOffset = visible.size();
        if (!visible.empty()) visible += ' ';
        visible.append(line);
        lastKeptLine = line;
        if (start > text.size()) break;
    }

    // Remove invisible characters, collapse white space, cut.
    const std::string clean = sanitizeUTF8(visible);
    std::string out;
    std::size_t characters = 0;
    std::size_t lastSpaceBytes = 0;
    bool pendingSpace = false;
    for (std::size_t i = 0; i < clean.size() && characters < maxCharacters;) {
        const std::string_view ch(clean.data() + i, utf8::sequenceLength(clean, i));
        i += ch.size();
        if (ch == "\xE2\x80\x8B" || ch == "\xE2\x80\x8C" || ch == "\xE2\x80\x8D" ||
            ch == "\xC2\xAD" || ch == "\xCD\x8F" || ch == "\xEF\xBB\xBF" || ch == "\xE2\x80\x8E" ||
            ch == "\xE2\x80\x8F") {
            continue;
        }
        if (ch.size() == 1 && (isSpace(ch[0]) || ch[0] == '\v')) {
            pendingSpace = !out.empty();
            continue;
        }
        if (ch == "\xC2\xA0") {
            pendingSpace = !out.empty();
            continue;
        }
        if (ch.size() == 1 && static_cast<unsigned char>(ch[0]) < 0x20) continue;
        if (pendingSpace) {
            lastSpaceBytes = out.size();
            out += ' ';
            ++characters;
            pendingSpace = false;
            if (characters >= maxCharacters) break;
        }
        out.append(ch);
        ++characters;
    }
    const bool cut = characters >= maxCharacters;
    if (cut && lastSpaceBytes > out.size() * 3 / 4) out.resize(lastSpaceBytes);
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

std::string normaliseLineEnds(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r') {
            out += text[i];
        } else if (i + 1 >= text.size() || text[i + 1] != '\n') {
            out += '\n';
        }
    }
    return out;
}

}  // namespace mailcore
