#include "MailCore/Common/DisplayText.h"

#include <optional>

#include "MailCore/Common/UTF8.h"

namespace mailcore::DisplayText {

namespace {

constexpr std::size_t wrapAt = 400;

bool isLineBreak(char32_t c) { return c == U'\n' || c == U'\r' || c == 0x2028 || c == 0x2029; }

bool isBidiFormatting(char32_t c) {
    return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E ||
           c == 0x200F || c == 0x061C;
}

// Appends the shaped form of the character at text[pos..next).
void appendShaped(std::string& out, std::string_view text, std::size_t pos, std::size_t next,
                  char32_t c) {
    if (isLineBreak(c))
        out += "\u23CE";
    else if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || isBidiFormatting(c))
        out += "\u00B7";
    else if (c == 0xFFFD && next - pos == 1)
        out += "\uFFFD";  // a malformed byte is shown, never passed through raw
    else
        out.append(text.substr(pos, next - pos));
}

}  // namespace

bool isControl(char32_t c) {
    return isLineBreak(c) || c < 0x20 || (c >= 0x7F && c <= 0x9F) || isBidiFormatting(c);
}

bool hasControlCharacters(std::string_view text, bool allowLineBreaks) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        const char32_t c = utf8::decode(text, pos);
        if (allowLineBreaks && (c == U'\n' || c == U'\r' || c == U'\t')) continue;
        if (isControl(c)) return true;
    }
    return false;
}

std::string cutMarker(std::size_t more) {
    return " \u2026 " + std::to_string(more) + (more == 1 ? " more character" : " more characters");
}

std::string line(std::string_view text, std::size_t max) {
    std::string out;
    std::size_t count = 0;
    std::size_t pos = 0;
    while (pos < text.size() && count < max) {
        const std::size_t start = pos;
        const char32_t c = utf8::decode(text, pos);
        appendShaped(out, text, start, pos, c);
        ++count;
    }
    if (pos < text.size()) out += cutMarker(utf8::characterCount(text.substr(pos)));
    return out;
}

Block block(std::string_view text, std::size_t maxCharacters, std::size_t maxLines) {
    Block result;
    std::size_t used = 0;   // characters shown
    std::size_t shown = 0;  // display lines
    std::size_t lineStart = 0;
    int lines = 0;                         // input lines
    int begun = 0;                         // input lines shown at least in part
    std::optional<std::size_t> stoppedAt;  // byte offset of what is left out
    while (true) {
        const std::size_t nl = text.find('\n', lineStart);
        const std::size_t lineEnd = nl == std::string_view::npos ? text.size() : nl;
        std::string_view rest = text.substr(lineStart, lineEnd - lineStart);
        if (!rest.empty() && rest.back() == '\r') rest.remove_suffix(1);
        ++lines;
        bool first = true;
        while (!stoppedAt && (first || !rest.empty())) {
            if (shown == maxLines || used >= maxCharacters) {
                stoppedAt = static_cast<std::size_t>(rest.data() - text.data());
                break;
            }
            const std::string_view piece =
                utf8::prefix(rest, std::min(wrapAt, maxCharacters - used));
            if (shown > 0) result.text.push_back('\n');
            std::size_t pos = 0;
            while (pos < piece.size()) {
                const std::size_t at = pos;
                const char32_t c = utf8::decode(piece, pos);
                appendShaped(result.text, piece, at, pos, c);
            }
            used += utf8::characterCount(piece);
            rest.remove_prefix(piece.size());
            ++shown;
            if (first) ++begun;
            first = false;
        }
        if (nl == std::string_view::npos) break;
        lineStart = nl + 1;
    }
    result.omitted = lines - begun;
    if (stoppedAt) {
        const std::size_t more = utf8::characterCount(text.substr(*stoppedAt));
        if (more > 0) result.text += "\n" + cutMarker(more).substr(1);
    }
    return result;
}

}  // namespace mailcore::DisplayText
