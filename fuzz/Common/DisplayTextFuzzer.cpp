// Any bytes shaped for display: the result holds no character that could
// fake a line, move the cursor or reorder text (a block keeps only its own
// line feeds), and a line shown whole is never marked as cut.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "MailCore/Common/DisplayText.h"
#include "MailCore/Common/UTF8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t max = data[0];
    const std::size_t lines = data[1] % 64;
    const std::string_view text(reinterpret_cast<const char*>(data + 2), size - 2);
    const std::string line = mailcore::DisplayText::line(text, max);
    if (mailcore::DisplayText::hasControlCharacters(line, false)) std::abort();
    if (mailcore::utf8::characterCount(text) <= max && line.find("\u2026") != std::string::npos &&
        text.find("\u2026") == std::string_view::npos)
        std::abort();
    const auto block = mailcore::DisplayText::block(text, max * 16, lines);
    std::size_t pos = 0;
    while (pos < block.text.size()) {
        const char32_t c = mailcore::utf8::decode(block.text, pos);
        if (c != U'\n' && mailcore::DisplayText::isControl(c)) std::abort();
    }
    if (block.omitted < 0) std::abort();
    return 0;
}
