#include <gtest/gtest.h>

#include <string>

#include "MailCore/AI/AIContentSanitizer.h"

namespace mailcore {
namespace {

using S = AIContentSanitizer;

SanitizedText clean(std::string_view text, std::int64_t budget = 100000) {
    return S::sanitize(text, AIContentSanitizerOptions::standard(budget));
}

TEST(AIContentSanitizerTest, StandardOptionsAndDefaults) {
    AIContentSanitizerOptions standard = AIContentSanitizerOptions::standard(4000);
    EXPECT_EQ(standard.maxQuoteLevels, 1);
    EXPECT_EQ(standard.maxSignatureLines, 6);
    EXPECT_EQ(standard.maxCharacters, 4000);
    EXPECT_DOUBLE_EQ(standard.headFraction, 0.7);
    EXPECT_TRUE(standard.redactSecrets);
    EXPECT_EQ(standard.maxInputCharacters, 1000000);
    EXPECT_EQ(AIContentSanitizerOptions::standard(-5).maxCharacters, 0);

    AIContentSanitizerOptions defaults;
    EXPECT_EQ(defaults.maxQuoteLevels, 1);
    EXPECT_EQ(defaults.maxSignatureLines, 6);
    EXPECT_DOUBLE_EQ(defaults.headFraction, 0.7);
    EXPECT_TRUE(defaults.redactSecrets);
    EXPECT_EQ(defaults.maxInputCharacters, 1000000);
}

TEST(AIContentSanitizerTest, DocumentedExamples) {
    struct Case {
        std::string input;
        std::string output;
    };
    const Case cases[] = {
        {"Card 4111 1111 1111 1111 on file", "Card [number redacted] on file"},
        {"Order 1234 5678 9012 3456 shipped", "Order 1234 5678 9012 3456 shipped"},
        {"password: hunter22", "password: [token redacted]"},
        {"<html><head><style>p { color: red }</style></head><body><p>Visible text</p>"
         "<img src=\"https://pixel.example.com/o.gif\" width=\"1\" height=\"1\"></body></html>",
         "Visible text"},
        {"Read it at https://click.example.com/ABC123", "Read it at [tracking link removed]"},
        {"", ""},
    };
    for (const auto& c : cases) {
        SanitizedText result = clean(c.input);
        EXPECT_EQ(result.text, c.output) << c.input;
        EXPECT_FALSE(result.truncated);
    }
}

TEST(AIContentSanitizerTest, StepsRunInTheWrittenOrder) {
    // Entities are decoded before links are examined (step 3 before 5), so an
    // escaped tracking address is still found.
    EXPECT_EQ(clean("<p>Go: https://example.com/p?utm_source=x&amp;page=2</p>").text,
              "Go: https://example.com/p?page=2");
    // Embedded data goes before secrets (4 before 8): a long base64 run is
    // binary data, not a token.
    EXPECT_EQ(clean("token " + std::string(80, 'A')).text, "token [binary data removed]");
    // Quotes go before signatures (6 before 7): a quoted separator is no separator.
    EXPECT_EQ(clean("Hi\n> -- \n> a\n> b\n> c\n> d\n> e\n> f\n> g").text,
              "Hi\n> --\n> a\n> b\n> c\n> d\n> e\n> f\n> g");
    // Secrets go before blank-line collapsing and truncation (8, 9, 10).
    std::string filler;
    for (int i = 0; i < 40; ++i) filler += "filler ";
    SanitizedText cut = clean("password: hunter22\n\n\n\n" + filler + "end", 80);
    EXPECT_TRUE(cut.truncated);
    EXPECT_EQ(cut.text.rfind("password: [token redacted]", 0), 0u) << cut.text;
    EXPECT_EQ(cut.text.find("hunter22"), std::string::npos);
}

TEST(AIContentSanitizerTest, RedactionCanBeTurnedOff) {
    AIContentSanitizerOptions options = AIContentSanitizerOptions::standard(1000);
    options.redactSecrets = false;
    EXPECT_EQ(S::sanitize("password: hunter22", options).text, "password: hunter22");
}

TEST(AIContentSanitizerTest, InputCapCountsCharactersNotBytes) {
    AIContentSanitizerOptions options = AIContentSanitizerOptions::standard(1000);
    options.maxInputCharacters = 3;
    EXPECT_EQ(S::sanitize("äöüß", options).text, "äöü");
    options.maxInputCharacters = 0;
    EXPECT_EQ(S::sanitize("anything", options).text, "");
    options.maxInputCharacters = -1;
    EXPECT_EQ(S::sanitize("anything", options).text, "");
}

TEST(AIContentSanitizerTest, InvalidUTF8BecomesReplacementCharacters) {
    SanitizedText result = clean("caf\xe9 \xff\xfe ok \xe2\x82");
    EXPECT_EQ(result.text, "caf\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD ok \xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(AIContentSanitizerTest, ControlCharactersAreStrippedAndLineBreaksNormalised) {
    struct Case {
        std::string input;
        std::string output;
    };
    const Case cases[] = {
        {"a\x01"
         "b\x1b[31mc\x7f",
         "ab[31mc"},
        {"tab\tkept\r\nCRLF\rCR\nLF", "tab\tkept\nCRLF\nCR\nLF"},
        {std::string("nul\0byte", 8), "nulbyte"},
        {"c1\xC2\x85here\xC2\x9F", "c1here"},
        {"line\xE2\x80\xA8sep\xE2\x80\xA9para", "line\nsep\npara"},
        {"emoji 😀 kept", "emoji 😀 kept"},
    };
    for (const auto& c : cases) EXPECT_EQ(S::stripControlCharacters(c.input), c.output);
}

TEST(AIContentSanitizerTest, EstimatedTokensCountsCharacters) {
    EXPECT_EQ(S::estimatedTokens(""), 0);
    EXPECT_EQ(S::estimatedTokens("a"), 1);
    EXPECT_EQ(S::estimatedTokens("abcd"), 1);
    EXPECT_EQ(S::estimatedTokens("abcde"), 2);
    EXPECT_EQ(S::estimatedTokens("ääää"), 1);  // 4 characters, 8 bytes
    EXPECT_EQ(S::estimatedTokens(std::string(4000, 'x')), 1000);
}

TEST(AIContentSanitizerTest, FormatCanBeForced) {
    EXPECT_EQ(S::sanitize("Joe <b>bold</b>", {}, AIContentFormat::plainText).text,
              "Joe <b>bold</b>");
    EXPECT_EQ(S::sanitize("Joe <b>bold</b>", {}, AIContentFormat::html).text, "Joe bold");
    EXPECT_EQ(S::sanitize("x &lt; y", {}, AIContentFormat::html).text, "x < y");
    EXPECT_EQ(S::sanitize("x &lt; y", {}, AIContentFormat::detect).text, "x &lt; y");
}

TEST(AIContentSanitizerTest, PlainTextWithAngleBracketsIsNotHTML) {
    const char* const plain[] = {
        "From: Joe <joe@example.com>", "Mail <a.b@example.com> and <b.smith@example.org>",
        "if (a < b && c > d) return;", "<https://example.com/path>",
        "I <3 this <<<< >>>>",
    };
    for (const char* text : plain) {
        EXPECT_FALSE(S::looksLikeHTML(text)) << text;
        EXPECT_EQ(clean(text).text, text);
    }
    const char* const html[] = {"<p>x</p>",
                                "<!DOCTYPE html><x>",
                                "<div class=\"a\">",
                                "<BR>",
                                "<a href=\"https://example.com\">x</a>",
                                "text<br/>more"};
    for (const char* text : html) EXPECT_TRUE(S::looksLikeHTML(text)) << text;
}

}  // namespace
}  // namespace mailcore
