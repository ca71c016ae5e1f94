#include "MailCore/Workflow/WorkflowText.h"

#include "MailCore/Common/UTF8.h"

namespace mailcore::workflowtext {

namespace {

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

}  // namespace

bool hasControlCharacters(std::string_view text, bool allowLineBreaks) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (isControl(utf8::decode(text, pos), allowLineBreaks)) return true;
    }
    return false;
}

bool isBlank(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (!isSpace(utf8::decode(text, pos))) return false;
    }
    return true;
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
        const char32_t cp = utf8::decode(text, pos);
        utf8::append(out, isControl(cp, false) ? char32_t{0xFFFD} : cp);
        ++count;
    }
    return out;
}

}  // namespace mailcore::workflowtext
