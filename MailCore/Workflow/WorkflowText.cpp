#include "MailCore/Workflow/WorkflowText.h"

#include "MailCore/Common/DisplayText.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore::workflowtext {

namespace {

bool isSpace(char32_t cp) {
    return cp == U' ' || cp == U'\t' || cp == U'\n' || cp == U'\r' || cp == 0x0B || cp == 0x0C ||
           cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200B) || cp == 0x2028 ||
           cp == 0x2029 || cp == 0x202F || cp == 0x205F || cp == 0x3000 || cp == 0xFEFF;
}

}  // namespace

bool hasControlCharacters(std::string_view text, bool allowLineBreaks) {
    return DisplayText::hasControlCharacters(text, allowLineBreaks);
}

bool isBlank(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (!isSpace(utf8::decode(text, pos))) return false;
    }
    return true;
}

std::string displayText(std::string_view text, std::size_t maxCharacters) {
    return DisplayText::line(text, maxCharacters);
}

}  // namespace mailcore::workflowtext
