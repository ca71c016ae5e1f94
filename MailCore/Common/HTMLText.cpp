#include "MailCore/Common/HTMLText.h"

#include <algorithm>
#include <array>
#include <unordered_map>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/PCRE2Pattern.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

// The patterns are used exactly as written; their quirks are part of the
// behaviour (the pixel pattern is case-sensitive and does not match an
// unquoted `width=1>`: the generic tag step removes such images anyway;
// "<BR>" is a tag, not a break).
struct TagPatterns {
    PCRE2Pattern trackingPixel{
        R"(<img\b[^>]*?(?:(?:width|height)\s*=\s*["']?[0-2]["'\s/>]|display\s*:\s*none)[^>]*>)"};
    PCRE2Pattern lineBreakTag{R"(<\s*(?:br|/p|/div|/li|/tr|/h[1-6]|hr)\b[^>]*>)"};
    // The end of a table cell keeps the words of neighbouring cells apart.
    PCRE2Pattern cellEnd{R"(</t[dh]\b[^>]*>)"};
    PCRE2Pattern anyTag{R"(</?[A-Za-z][^<>]{0,2000}>|<![A-Za-z][^<>]*>)"};

    static const TagPatterns& shared() {
        static const TagPatterns patterns;
        return patterns;
    }
};

struct BlockElement {
    std::string_view name;
    // Raw-text elements run to the end of the text when never closed, as a
    // browser reads them; the others lose only their opening tag.
    bool swallowsRestWhenUnclosed;
};

constexpr std::array<BlockElement, 10> blockElements{{
    {"script", true},
    {"style", true},
    {"head", false},
    {"title", true},
    {"template", false},
    {"noscript", true},
    {"svg", false},
    {"iframe", true},
    {"object", false},
    {"embed", false},
}};

// Finds closing tags "</name ...>" case-insensitively. Remembers the last
// answer per element so that a flood of unclosed opening tags costs one scan
// of the text in all, not one per tag.
class ClosingTagFinder {
public:
    explicit ClosingTagFinder(std::string_view html) : html_(html) {}

    // Start of the closing tag at or after `from` and the offset after its
    // '>', or npos.
    std::pair<std::size_t, std::size_t> find(std::size_t element, std::size_t from) {
        Cache& cache = cache_[element];
        if (cache.valid && from >= cache.searchedFrom &&
            (cache.start == std::string_view::npos || from <= cache.start)) {
            return {cache.start, cache.end};
        }
        std::string_view name = blockElements[element].name;
        std::size_t pos = from;
        std::size_t start = std::string_view::npos;
        std::size_t end = std::string_view::npos;
        while ((pos = html_.find("</", pos)) != std::string_view::npos) {
            std::size_t after = pos + 2 + name.size();
            if (startsWithNoCase(html_, pos + 2, name) &&
                (after >= html_.size() || isSpace(html_[after]) || html_[after] == '>')) {
                std::size_t close = html_.find('>', after);
                start = pos;
                end = close == std::string_view::npos ? html_.size() : close + 1;
                break;
            }
            pos += 2;
        }
        cache = Cache{true, from, start, end};
        return {start, end};
    }

private:
    struct Cache {
        bool valid = false;
        std::size_t searchedFrom = 0;
        std::size_t start = std::string_view::npos;
        std::size_t end = std::string_view::npos;
    };
    std::string_view html_;
    std::array<Cache, blockElements.size()> cache_{};
};

// Replaces every run of HTML whitespace by one space, as a browser lays out
// text outside <pre>.
std::string collapseSourceWhitespace(std::string_view html) {
    std::string out;
    out.reserve(html.size());
    bool inSpace = false;
    for (char c : html) {
        if (isSpace(c)) {
            if (!inSpace) out.push_back(' ');
            inSpace = true;
        } else {
            out.push_back(c);
            inSpace = false;
        }
    }
    return out;
}

// Drops invisible padding (zero-width space and non-joiner, soft hyphen,
// combining grapheme joiner, word joiner, byte-order mark) that newsletters
// use to pad their preview text, collapses runs of spaces and trims each line.
std::string tidyLines(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::string line;
    auto flushLine = [&] {
        std::size_t first = line.find_first_not_of(' ');
        if (first != std::string::npos) {
            std::size_t last = line.find_last_not_of(' ');
            out.append(line, first, last - first + 1);
        }
        line.clear();
    };
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t next = pos;
        char32_t c = utf8::decode(text, next);
        if (c == '\n') {
            flushLine();
            out.push_back('\n');
        } else if (c == 0x200B || c == 0x200C || c == 0x00AD || c == 0x034F || c == 0x2060 ||
                   c == 0xFEFF) {
            // invisible: dropped
        } else if (c == ' ' || c == '\t' || c == 0x00A0) {  // "&nbsp;" lays out as a space
            if (line.empty() || line.back() != ' ') line.push_back(' ');
        } else {
            line.append(text.substr(pos, next - pos));
        }
        pos = next;
    }
    flushLine();
    return out;
}

const std::unordered_map<std::string_view, char32_t>& namedEntities() {
    static const std::unordered_map<std::string_view, char32_t> table{
        {"amp", '&'},       {"lt", '<'},        {"gt", '>'},        {"quot", '"'},
        {"apos", '\''},     {"nbsp", 0x00A0},   {"ensp", ' '},      {"emsp", ' '},
        {"thinsp", ' '},    {"zwnj", 0x200C},   {"zwj", 0x200D},    {"lrm", 0x200E},
        {"rlm", 0x200F},    {"shy", 0x00AD},    {"copy", 0x00A9},   {"reg", 0x00AE},
        {"trade", 0x2122},  {"hellip", 0x2026}, {"mdash", 0x2014},  {"ndash", 0x2013},
        {"minus", 0x2212},  {"lsquo", 0x2018},  {"rsquo", 0x2019},  {"sbquo", 0x201A},
        {"ldquo", 0x201C},  {"rdquo", 0x201D},  {"bdquo", 0x201E},  {"laquo", 0x00AB},
        {"raquo", 0x00BB},  {"lsaquo", 0x2039}, {"rsaquo", 0x203A}, {"bull", 0x2022},
        {"middot", 0x00B7}, {"dagger", 0x2020}, {"Dagger", 0x2021}, {"permil", 0x2030},
        {"prime", 0x2032},  {"euro", 0x20AC},   {"pound", 0x00A3},  {"yen", 0x00A5},
        {"cent", 0x00A2},   {"curren", 0x00A4}, {"sect", 0x00A7},   {"para", 0x00B6},
        {"deg", 0x00B0},    {"plusmn", 0x00B1}, {"times", 0x00D7},  {"divide", 0x00F7},
        {"frac12", 0x00BD}, {"frac14", 0x00BC}, {"frac34", 0x00BE}, {"sup1", 0x00B9},
        {"sup2", 0x00B2},   {"sup3", 0x00B3},   {"micro", 0x00B5},  {"iexcl", 0x00A1},
        {"iquest", 0x00BF}, {"ordf", 0x00AA},   {"ordm", 0x00BA},   {"not", 0x00AC},
        {"macr", 0x00AF},   {"acute", 0x00B4},  {"cedil", 0x00B8},  {"uml", 0x00A8},
        {"brvbar", 0x00A6}, {"larr", 0x2190},   {"uarr", 0x2191},   {"rarr", 0x2192},
        {"darr", 0x2193},   {"harr", 0x2194},   {"hearts", 0x2665}, {"check", 0x2713},
        {"star", 0x2606},   {"infin", 0x221E},  {"ne", 0x2260},     {"le", 0x2264},
        {"ge", 0x2265},     {"asymp", 0x2248},  {"Agrave", 0x00C0}, {"Aacute", 0x00C1},
        {"Acirc", 0x00C2},  {"Atilde", 0x00C3}, {"Auml", 0x00C4},   {"Aring", 0x00C5},
        {"AElig", 0x00C6},  {"Ccedil", 0x00C7}, {"Egrave", 0x00C8}, {"Eacute", 0x00C9},
        {"Ecirc", 0x00CA},  {"Euml", 0x00CB},   {"Igrave", 0x00CC}, {"Iacute", 0x00CD},
        {"Icirc", 0x00CE},  {"Iuml", 0x00CF},   {"ETH", 0x00D0},    {"Ntilde", 0x00D1},
        {"Ograve", 0x00D2}, {"Oacute", 0x00D3}, {"Ocirc", 0x00D4},  {"Otilde", 0x00D5},
        {"Ouml", 0x00D6},   {"Oslash", 0x00D8}, {"Ugrave", 0x00D9}, {"Uacute", 0x00DA},
        {"Ucirc", 0x00DB},  {"Uuml", 0x00DC},   {"Yacute", 0x00DD}, {"THORN", 0x00DE},
        {"szlig", 0x00DF},  {"agrave", 0x00E0}, {"aacute", 0x00E1}, {"acirc", 0x00E2},
        {"atilde", 0x00E3}, {"auml", 0x00E4},   {"aring", 0x00E5},  {"aelig", 0x00E6},
        {"ccedil", 0x00E7}, {"egrave", 0x00E8}, {"eacute", 0x00E9}, {"ecirc", 0x00EA},
        {"euml", 0x00EB},   {"igrave", 0x00EC}, {"iacute", 0x00ED}, {"icirc", 0x00EE},
        {"iuml", 0x00EF},   {"eth", 0x00F0},    {"ntilde", 0x00F1}, {"ograve", 0x00F2},
        {"oacute", 0x00F3}, {"ocirc", 0x00F4},  {"otilde", 0x00F5}, {"ouml", 0x00F6},
        {"oslash", 0x00F8}, {"ugrave", 0x00F9}, {"uacute", 0x00FA}, {"ucirc", 0x00FB},
        {"uuml", 0x00FC},   {"yacute", 0x00FD}, {"thorn", 0x00FE},  {"yuml", 0x00FF},
        {"OElig", 0x0152},  {"oelig", 0x0153},  {"Scaron", 0x0160}, {"scaron", 0x0161},
        {"Yuml", 0x0178},   {"fnof", 0x0192},   {"circ", 0x02C6},   {"tilde", 0x02DC},
        {"alpha", 0x03B1},  {"beta", 0x03B2},   {"gamma", 0x03B3},  {"delta", 0x03B4},
        {"pi", 0x03C0},     {"mu", 0x03BC},     {"Omega", 0x03A9},  {"omega", 0x03C9},
        {"sum", 0x2211},    {"loz", 0x25CA},
    };
    return table;
}

// Windows-1252 meanings that browsers give to the numeric references 128-159.
constexpr std::array<char32_t, 32> windows1252{
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

// Appends the scalar a numeric reference names; controls other than tab and
// line feed are dropped, invalid values become U+FFFD.
void appendReference(std::string& out, std::uint32_t value) {
    if (value == '\t' || value == '\n') {
        out.push_back(static_cast<char>(value));
    } else if (value == 0) {
        utf8::append(out, 0xFFFD);
    } else if (value >= 0x80 && value <= 0x9F) {
        if (char32_t mapped = windows1252[value - 0x80]) utf8::append(out, mapped);
    } else if (value >= 0x20 && value != 0x7F) {
        utf8::append(out, value);  // U+FFFD for surrogates and values past U+10FFFF
    }
}

bool isAlnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

}  // namespace

std::string removeHTMLBlockElements(std::string_view html) {
    std::string out;
    out.reserve(html.size());
    ClosingTagFinder closing(html);
    std::size_t pos = 0;
    std::size_t copied = 0;
    while ((pos = html.find('<', pos)) != std::string_view::npos) {
        if (html.compare(pos, 4, "<!--") == 0) {
            // A comment runs to "-->"; an unclosed one to the end, as in a browser.
            std::size_t close = html.find("-->", pos + 4);
            std::size_t end = close == std::string_view::npos ? html.size() : close + 3;
            out.append(html.substr(copied, pos - copied));
            copied = pos = end;
            continue;
        }
        std::size_t element = blockElements.size();
        for (std::size_t i = 0; i < blockElements.size(); ++i) {
            std::string_view name = blockElements[i].name;
            std::size_t after = pos + 1 + name.size();
            if (startsWithNoCase(html, pos + 1, name) &&
                (after >= html.size() || isSpace(html[after]) || html[after] == '>' ||
                 html[after] == '/')) {
                element = i;
                break;
            }
        }
        if (element == blockElements.size()) {
            ++pos;
            continue;
        }
        std::size_t openEnd = html.find('>', pos);
        std::size_t end = html.size();  // an opening tag never closed hides the rest
        if (openEnd != std::string_view::npos) {
            bool selfClosing = openEnd > pos && html[openEnd - 1] == '/';
            auto [closeStart, closeEnd] = closing.find(element, openEnd + 1);
            if (selfClosing) {
                end = openEnd + 1;
            } else if (closeStart != std::string_view::npos) {
                end = closeEnd;
            } else if (!blockElements[element].swallowsRestWhenUnclosed) {
                end = openEnd + 1;
            }
        }
        out.append(html.substr(copied, pos - copied));
        copied = pos = end;
    }
    out.append(html.substr(std::min(copied, html.size())));
    return out;
}

std::string decodeHTMLEntities(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    std::size_t copied = 0;
    const auto& named = namedEntities();
    while ((pos = text.find('&', pos)) != std::string_view::npos) {
        std::size_t end = pos + 1;
        std::string decoded;
        bool matched = false;
        if (end < text.size() && text[end] == '#') {
            bool hex = end + 1 < text.size() && (text[end + 1] == 'x' || text[end + 1] == 'X');
            std::size_t digits = end + (hex ? 2 : 1);
            std::size_t i = digits;
            std::uint32_t value = 0;
            bool overflow = false;
            while (i < text.size()) {
                char c = text[i];
                int d = (c >= '0' && c <= '9')          ? c - '0'
                        : (hex && c >= 'a' && c <= 'f') ? c - 'a' + 10
                        : (hex && c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                        : -1;
                if (d < 0) break;
                if (!overflow) value = value * (hex ? 16 : 10) + static_cast<std::uint32_t>(d);
                if (value > 0x10FFFF) overflow = true;
                ++i;
            }
            if (i > digits) {
                appendReference(decoded, overflow ? 0x110000 : value);
                end = (i < text.size() && text[i] == ';') ? i + 1 : i;
                matched = true;
            }
        } else {
            std::size_t i = end;
            while (i < text.size() && i - end < 10 && isAlnum(text[i])) ++i;
            std::string_view name = text.substr(end, i - end);
            auto found = named.find(name);
            bool terminated = i < text.size() && text[i] == ';';
            // Without ';' only the five that old mailers leave bare are read.
            bool bareAllowed =
                name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "nbsp";
            if (found != named.end() && (terminated || bareAllowed)) {
                utf8::append(decoded, found->second);
                end = terminated ? i + 1 : i;
                matched = true;
            }
        }
        if (!matched) {
            ++pos;
            continue;
        }
        out.append(text.substr(copied, pos - copied));
        out.append(decoded);
        copied = pos = end;
    }
    out.append(text.substr(copied));
    return out;
}

std::string htmlToText(std::string_view html, std::size_t maxBytes) {
    const TagPatterns& patterns = TagPatterns::shared();
    std::string text = removeHTMLBlockElements(utf8::repaired(html));
    text = replaceAll(patterns.trackingPixel, text,
                      [](const PCRE2Pattern::Match&) { return Replacement(""); });
    text = collapseSourceWhitespace(text);
    text = replaceAll(patterns.lineBreakTag, text,
                      [](const PCRE2Pattern::Match&) { return Replacement("\n"); });
    text = replaceAll(patterns.cellEnd, text,
                      [](const PCRE2Pattern::Match&) { return Replacement(" "); });
    text = replaceAll(patterns.anyTag, text,
                      [](const PCRE2Pattern::Match&) { return Replacement(""); });
    text = tidyLines(decodeHTMLEntities(text));
    std::size_t first = text.find_first_not_of('\n');
    if (first == std::string::npos) return std::string();
    std::size_t last = text.find_last_not_of('\n');
    text = text.substr(first, last - first + 1);
    text.resize(utf8::safeCutBytes(text, maxBytes));
    return text;
}

}  // namespace mailcore
