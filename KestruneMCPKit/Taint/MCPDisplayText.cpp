#include "KestruneMCPKit/Taint/MCPDisplayText.h"

#include <vector>

#include "MailCore/Common/UTF8.h"

namespace mcpkit::MCPDisplayText {

namespace utf8 = mailcore::utf8;

std::string line(std::string_view text, std::size_t max) {
    std::string out;
    std::size_t count = 0;
    std::size_t pos = 0;
    while (pos < text.size() && count < max) {
        const std::size_t start = pos;
        const char32_t c = utf8::decode(text, pos);
        if (c == U'\n' || c == U'\r' || c == 0x2028 || c == 0x2029) {
            out += "\u23CE";
        } else if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) {
            out += "\u00B7";
        } else if (c == 0xFFFD && pos - start == 1) {
            out += "\uFFFD";  // a malformed byte is shown, never passed through raw
        } else {
            out.append(text.substr(start, pos - start));
        }
        ++count;
    }
    return out;
}

Block block(std::string_view text, std::size_t maxCharacters, std::size_t maxLines) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (true) {
        const std::size_t nl = text.find('\n', start);
        std::string_view l = text.substr(start, nl == std::string_view::npos ? nl : nl - start);
        if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
        lines.push_back(l);
        if (nl == std::string_view::npos) break;
        start = nl + 1;
    }
    Block result;
    std::size_t used = 0;
    std::size_t shown = 0;
    for (const auto l : lines) {
        if (shown == maxLines || used >= maxCharacters) break;
        const std::size_t separator = shown == 0 ? 0 : 1;
        if (used + separator >= maxCharacters && shown > 0) break;
        std::size_t budget = std::min<std::size_t>(400, maxCharacters - used - separator);
        std::string shaped = line(l, budget);
        if (separator) result.text.push_back('\n');
        used += separator + utf8::characterCount(shaped);
        result.text += shaped;
        ++shown;
    }
    result.omitted = static_cast<int>(lines.size() - shown);
    return result;
}

}  // namespace mcpkit::MCPDisplayText
