#include "MailCore/MIME/MIMEText.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <string_view>

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

std::string lowerASCII(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
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

// --- HTML ---

std::size_t findNoCase(std::string_view text, std::size_t from, std::string_view needle) {
    for (std::size_t i = from; i + needle.size() <= text.size(); ++i) {
        if (startsWithNoCase(text, i, needle)) return i;
    }
    return std::string_view::npos;
}

struct NamedEntity {
    std::string_view name;
    std::uint32_t codePoint;
};

constexpr NamedEntity namedEntities[] = {
    {"nbsp", 0xA0},    {"amp", '&'},      {"lt", '<'},       {"gt", '>'},        {"quot", '"'},
    {"apos", '\''},    {"mdash", 0x2014}, {"ndash", 0x2013}, {"hellip", 0x2026}, {"rsquo", 0x2019},
    {"lsquo", 0x2018}, {"rdquo", 0x201D}, {"ldquo", 0x201C}, {"copy", 0xA9},     {"reg", 0xAE},
    {"trade", 0x2122}, {"euro", 0x20AC},  {"pound", 0xA3},   {"yen", 0xA5},      {"bull", 0x2022},
    {"middot", 0xB7},  {"laquo", 0xAB},   {"raquo", 0xBB},   {"zwnj", 0x200C},   {"zwj", 0x200D},
    {"shy", 0xAD},     {"auml", 0xE4},    {"ouml", 0xF6},    {"uuml", 0xFC},     {"Auml", 0xC4},
    {"Ouml", 0xD6},    {"Uuml", 0xDC},    {"szlig", 0xDF},   {"eacute", 0xE9},   {"egrave", 0xE8},
    {"agrave", 0xE0},  {"ccedil", 0xE7},  {"deg", 0xB0},     {"times", 0xD7},
};

// Decodes the character reference at text[i] == '&'; returns the number of
// bytes consumed, 0 when it is not a reference.
std::size_t decodeEntity(std::string_view text, std::size_t i, std::string& out) {
    const std::size_t end = text.find(';', i + 1);
    if (end == std::string_view::npos || end - i > 12) return 0;
    const std::string_view body = text.substr(i + 1, end - i - 1);
    if (body.empty()) return 0;
    if (body[0] == '#') {
        std::uint32_t cp = 0;
        const bool hex = body.size() > 1 && (body[1] == 'x' || body[1] == 'X');
        const std::string_view digits = body.substr(hex ? 2 : 1);
        if (digits.empty()) return 0;
        for (char c : digits) {
            int v = -1;
            if (c >= '0' && c <= '9')
                v = c - '0';
            else if (hex && c >= 'a' && c <= 'f')
                v = c - 'a' + 10;
            else if (hex && c >= 'A' && c <= 'F')
                v = c - 'A' + 10;
            if (v < 0) return 0;
            cp = cp * (hex ? 16 : 10) + static_cast<std::uint32_t>(v);
            if (cp > 0x10FFFF) cp = 0xFFFD;
        }
        appendCodePoint(out, cp);
        return end - i + 1;
    }
    for (const auto& entity : namedEntities) {
        if (entity.name == body) {
            appendCodePoint(out, entity.codePoint);
            return end - i + 1;
        }
    }
    return 0;
}

// How a tag breaks the text: 0 not at all, 1 starts a new line (rows, list
// items, divisions), 2 separates paragraphs (a blank line), 3 is an explicit
// line break (<br>).
int breakKind(std::string_view name) {
    static constexpr std::string_view lines[] = {"tr", "li", "div", "dd", "dt", "header", "footer"};
    static constexpr std::string_view paragraphs[] = {
        "p",          "h1", "h2",  "h3", "h4", "h5",      "h6",     "table",
        "blockquote", "hr", "pre", "ul", "ol", "section", "article"};
    if (name == "br") return 3;
    for (auto b : lines) {
        if (b == name) return 1;
    }
    for (auto b : paragraphs) {
        if (b == name) return 2;
    }
    return 0;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

// Appends text with white space collapsed, as a browser would lay it out.
class CollapsingWriter {
public:
    explicit CollapsingWriter(std::string& out) : out_(out) {}

    void space() { pendingSpace_ = !out_.empty(); }
    // At most `limit` line breaks in a row (2: a blank line).
    void lineBreak(int limit) {
        if (out_.empty()) return;
        pendingSpace_ = false;
        if (trailingBreaks_ < limit) {
            out_ += '\n';
            ++trailingBreaks_;
        }
    }
    void text(std::string_view piece) {
        if (piece.empty()) return;
        if (pendingSpace_ && trailingBreaks_ == 0) out_ += ' ';
        pendingSpace_ = false;
        trailingBreaks_ = 0;
        out_ += piece;
    }

private:
    std::string& out_;
    bool pendingSpace_ = false;
    int trailingBreaks_ = 0;
};

}  // namespace

std::string sanitizeUTF8(std::string_view bytes) { return dropNUL(utf8::repaired(bytes)); }

std::string convertToUTF8(std::string_view bytes, std::string_view charset) {
    const std::string name = lowerASCII(charset);
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

std::string htmlToText(std::string_view html, std::size_t maxBytes) {
    std::string out;
    CollapsingWriter writer(out);
    std::size_t i = 0;
    std::size_t runStart = 0;
    auto flushRun = [&](std::size_t end) {
        std::size_t k = runStart;
        while (k < end) {
            if (isSpace(html[k])) {
                writer.space();
                while (k < end && isSpace(html[k])) ++k;
                continue;
            }
            std::size_t wordEnd = k;
            while (wordEnd < end && !isSpace(html[wordEnd]) && html[wordEnd] != '&') ++wordEnd;
            writer.text(html.substr(k, wordEnd - k));
            k = wordEnd;
            if (k < end && html[k] == '&') {
                std::string decoded;
                const std::size_t used = decodeEntity(html, k, decoded);
                if (used == 0 || k + used > end) {
                    writer.text("&");
                    ++k;
                } else {
                    if (decoded == "\xC2\xA0")
                        writer.space();
                    else
                        writer.text(decoded);
                    k += used;
                }
            }
        }
    };
    while (i < html.size() && out.size() < maxBytes) {
        if (html[i] != '<') {
            ++i;
            continue;
        }
        flushRun(i);
        if (startsWithNoCase(html, i, "<!--")) {
            const std::size_t end = html.find("-->", i + 4);
            i = end == std::string_view::npos ? html.size() : end + 3;
            runStart = i;
            continue;
        }
        std::size_t k = i + 1;
        const bool closing = k < html.size() && html[k] == '/';
        if (closing) ++k;
        const std::size_t nameStart = k;
        while (k < html.size() && (std::isalnum(static_cast<unsigned char>(html[k])) != 0)) ++k;
        const std::string name = lowerASCII(html.substr(nameStart, k - nameStart));
        if (name.empty() && !closing && !(k < html.size() && html[k] == '!')) {
            writer.text("<");  // a lone "<" in text
            i = k;
            runStart = i;
            continue;
        }
        // Skip to the end of the tag, honouring quoted attribute values.
        char quote = 0;
        while (k < html.size()) {
            const char c = html[k];
            if (quote != 0) {
                if (c == quote) quote = 0;
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '>') {
                break;
            }
            ++k;
        }
        i = k < html.size() ? k + 1 : html.size();
        if (!closing && (name == "script" || name == "style" || name == "head" || name == "title" ||
                         name == "template")) {
            const std::string closeTag = "</" + name;
            const std::size_t end = findNoCase(html, i, closeTag);
            if (end == std::string_view::npos) {
                i = html.size();
            } else {
                const std::size_t gt = html.find('>', end);
                i = gt == std::string_view::npos ? html.size() : gt + 1;
            }
        } else if (const int kind = breakKind(name); kind == 3) {
            writer.lineBreak(2);
        } else if (kind != 0) {
            writer.lineBreak(kind);
        } else if (name == "td" || name == "th") {
            writer.space();
        }
        runStart = i;
    }
    if (out.size() < maxBytes) flushRun(std::min(i, html.size()));
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    out.resize(utf8::safeCutBytes(out, maxBytes));
    return sanitizeUTF8(out);
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

bool startsWithNoCase(std::string_view text, std::size_t at, std::string_view prefix) {
    if (at + prefix.size() > text.size()) return false;
    for (std::size_t k = 0; k < prefix.size(); ++k) {
        char c = text[at + k];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != prefix[k]) return false;
    }
    return true;
}

}  // namespace mailcore
