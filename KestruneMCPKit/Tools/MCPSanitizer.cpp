#include "KestruneMCPKit/Tools/MCPSanitizer.h"

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit::MCPSanitizer {

namespace utf8 = mailcore::utf8;

PlainText plainText(std::string_view body, std::size_t maxCharacters) {
    // The agent gets what a language model gets: one level of quotes, short
    // signatures only, secrets redacted, head and tail kept when cut.
    const auto options =
        mailcore::AIContentSanitizerOptions::standard(static_cast<std::int64_t>(maxCharacters));
    auto cleaned = mailcore::AIContentSanitizer::sanitize(body, options);
    return {std::move(cleaned.text), cleaned.truncated};
}

std::string snippet(std::string_view text, std::size_t maxCharacters) {
    mailcore::AIContentSanitizerOptions options;
    options.maxQuoteLevels = 0;
    options.maxCharacters = static_cast<std::int64_t>(maxCharacters) * 4;
    options.maxInputCharacters = static_cast<std::int64_t>(maxCharacters) * 8 + 4096;
    const auto cleaned = mailcore::AIContentSanitizer::sanitize(text, options);
    std::string line;
    bool space = false;
    for (std::size_t pos = 0; pos < cleaned.text.size();) {
        const std::size_t len = utf8::sequenceLength(cleaned.text, pos);
        const char c = cleaned.text[pos];
        if (len == 1 && (c == ' ' || c == '\n' || c == '\r' || c == '\t')) {
            space = !line.empty();
        } else {
            if (space) line.push_back(' ');
            space = false;
            line.append(cleaned.text, pos, len);
        }
        pos += len;
    }
    return std::string(utf8::prefix(line, maxCharacters));
}

}  // namespace mcpkit::MCPSanitizer
