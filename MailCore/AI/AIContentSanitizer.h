// AIContentSanitizer: turns a raw mail body (plain text or HTML) into
// compact plain text for a language model: no markup, no tracking links, no
// embedded or binary data, by default no secrets, and no longer than a
// character budget. A pure function of its input and options, safe to call
// from any thread; its patterns are compiled once per process.
//
// A "character" here is one Unicode scalar value. Input that is not valid
// UTF-8 is read with each invalid byte replaced by U+FFFD, so the result is
// always valid UTF-8.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace mailcore {

struct AIContentSanitizerOptions {
    // Levels of quoted earlier mail kept (lines starting with '>').
    int maxQuoteLevels = 1;
    // A signature with more non-blank lines than this is removed.
    int maxSignatureLines = 6;
    // The length budget of the result, in characters. The assistance features
    // pass the caller's remaining budget (see standard()); left at its default
    // nothing is cut.
    std::int64_t maxCharacters = std::numeric_limits<std::int64_t>::max();
    // Share of the budget given to the beginning when the text is shortened.
    double headFraction = 0.7;
    // Whether private keys, tokens, passwords and card numbers are replaced.
    bool redactSecrets = true;
    // Only this many characters of the input are looked at.
    std::int64_t maxInputCharacters = 1'000'000;

    // The options the assistance features use, with `remainingBudget`
    // characters left (a negative budget counts as 0).
    static AIContentSanitizerOptions standard(std::int64_t remainingBudget);
};

struct SanitizedText {
    std::string text;
    // True when the text was cut to the budget (step 10).
    bool truncated = false;

    bool operator==(const SanitizedText&) const = default;
};

// How the input is read. `detect` treats it as HTML when it holds a common
// HTML tag or a doctype (see looksLikeHTML).
enum class AIContentFormat { detect, plainText, html };

class AIContentSanitizer {
public:
    // Placeholders written into the text.
    static constexpr std::string_view quotedTextRemoved = "[quoted text removed]";
    static constexpr std::string_view signatureRemoved = "[signature removed]";
    static constexpr std::string_view trackingLinkRemoved = "[tracking link removed]";
    static constexpr std::string_view embeddedDataRemoved = "[embedded data removed]";
    static constexpr std::string_view binaryDataRemoved = "[binary data removed]";
    static constexpr std::string_view privateKeyRedacted = "[private key redacted]";
    static constexpr std::string_view tokenRedacted = "[token redacted]";
    static constexpr std::string_view numberRedacted = "[number redacted]";
    static constexpr std::string_view truncationMarker = "\n[… content omitted …]\n";

    // The ten steps in order: input cap, control characters, HTML to text,
    // embedded data, links, quotes, signature, secrets, blank lines, budget.
    static SanitizedText sanitize(std::string_view text,
                                  const AIContentSanitizerOptions& options = {},
                                  AIContentFormat format = AIContentFormat::detect);

    // (characters + 3) / 4, rounded down: the prompt-budget estimate.
    static std::int64_t estimatedTokens(std::string_view text);

    // The steps, usable on their own (by the agent service's shaping, and by
    // tests). Each takes and returns UTF-8 text.

    // Removes control characters other than tabs and line breaks; CR LF, lone
    // CR and U+2028/U+2029 become LF.
    static std::string stripControlCharacters(std::string_view text);

    // True when the text holds a doctype or a common HTML tag (html, body, div,
    // p, br, table, a, img, span, font, ...) written as a tag: "<p>", "<a href=...>".
    // Angle-bracketed addresses such as "<a.b@example.com>" do not count.
    static bool looksLikeHTML(std::string_view text);

    // HTML to text: the engine's one conversion, htmlToText in
    // MailCore/Common/HTMLText.h.
    static std::string stripHTML(std::string_view html);

    // Data URIs and long base64-like runs become placeholders.
    static std::string removeEmbeddedData(std::string_view text);

    // Tracking links become a placeholder; tracking parameters are dropped
    // from other links.
    static std::string cleanLinks(std::string_view text);

    static std::string collapseQuotes(std::string_view text, int maxLevels);
    static std::string dropLongSignature(std::string_view text, int maxLines);

    // Private keys, authorization headers, bearer/basic credentials, key/value
    // secrets, provider token shapes, Luhn-valid card numbers. Invalid UTF-8
    // is repaired first (U+FFFD), so that no invalid byte shields a secret.
    static std::string redact(std::string_view text);
    // True when the digits of `text` (other characters ignored; at least one
    // digit) pass the Luhn check.
    static bool luhnValid(std::string_view text);

    static std::string collapseBlankLines(std::string_view text);
    static SanitizedText truncateHeadTail(std::string_view text, std::int64_t limit,
                                          double headFraction);
};

}  // namespace mailcore
