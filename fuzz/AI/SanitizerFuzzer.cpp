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

namespace {

bool isValidUTF8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        int extra = 0;
        std::uint32_t v = c;
        if (c >= 0x80) {
            if (c >= 0xC2 && c <= 0xDF)
                extra = 1, v = c & 0x1F;
            else if (c >= 0xE0 && c <= 0xEF)
                extra = 2, v = c & 0x0F;
            else if (c >= 0xF0 && c <= 0xF4)
                extra = 3, v = c & 0x07;
            else
                return false;
        }
        if (extra > 0 && i + extra >= s.size()) return false;
        for (int k = 1; k <= extra; ++k) {
            auto d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            v = (v << 6) | (d & 0x3F);
        }
        if ((extra == 2 && v < 0x800) || (extra == 3 && (v < 0x10000 || v > 0x10FFFF)) ||
            (v >= 0xD800 && v <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

std::size_t characters(std::string_view text) {
    std::size_t count = 0;
    for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return count;
}

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
    if (!isValidUTF8(result.text)) std::abort();
    if (static_cast<std::int64_t>(characters(result.text)) > budget) std::abort();

    auto unlimited = options;
    unlimited.maxCharacters = 1 << 30;
    mailcore::SanitizedText whole = AIContentSanitizer::sanitize(input, unlimited, format);
    if (whole.truncated) std::abort();
    if (result.truncated != (characters(whole.text) > static_cast<std::size_t>(budget)))
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
