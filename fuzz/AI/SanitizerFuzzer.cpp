// The sanitizer on arbitrary bytes, read as HTML, as plain text and detected:
// it never crashes, its result is valid UTF-8 within the budget (drawn from
// the first bytes), marked truncated exactly when cut, and a result that was
// not cut comes out of a second plain-text pass (signatures kept) with every
// secret placeholder it had (placeholders are never undone).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/Common/UTF8.h"

namespace {

std::size_t occurrences(std::string_view text, std::string_view needle) {
    std::size_t count = 0;
    for (std::size_t pos = text.find(needle); pos != std::string_view::npos;
         pos = text.find(needle, pos + needle.size())) {
        ++count;
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using mailcore::AIContentFormat;
    using mailcore::AIContentSanitizer;
    if (size < 2) return 0;
    const std::int64_t budget = (data[0] << 4) | (data[1] & 0x0F);
    const AIContentFormat format = static_cast<AIContentFormat>((data[1] >> 4) % 3);
    std::string_view input(reinterpret_cast<const char*>(data + 2), size - 2);

    auto options = mailcore::AIContentSanitizerOptions::standard(budget);
    options.maxQuoteLevels = data[1] & 0x03;
    options.maxSignatureLines = (data[1] >> 2) & 0x07;
    mailcore::SanitizedText result = AIContentSanitizer::sanitize(input, options, format);
    if (!mailcore::utf8::isValid(result.text)) std::abort();
    if (static_cast<std::int64_t>(mailcore::utf8::characterCount(result.text)) > budget)
        std::abort();

    auto unlimited = options;
    unlimited.maxCharacters = 1 << 30;
    mailcore::SanitizedText whole = AIContentSanitizer::sanitize(input, unlimited, format);
    if (whole.truncated) std::abort();
    if (result.truncated !=
        (mailcore::utf8::characterCount(whole.text) > static_cast<std::size_t>(budget)))
        std::abort();
    if (!result.truncated && result.text != whole.text) std::abort();

    // A second pass may find an earlier signature separator once the last
    // signature is gone, so it keeps signatures: everything else it does
    // must leave the secret placeholders in place.
    auto keepSignatures = unlimited;
    keepSignatures.maxSignatureLines = 1 << 30;
    mailcore::SanitizedText again =
        AIContentSanitizer::sanitize(whole.text, keepSignatures, AIContentFormat::plainText);
    for (std::string_view placeholder :
         {AIContentSanitizer::privateKeyRedacted, AIContentSanitizer::tokenRedacted,
          AIContentSanitizer::numberRedacted}) {
        if (occurrences(again.text, placeholder) < occurrences(whole.text, placeholder))
            std::abort();
    }
    return 0;
}
