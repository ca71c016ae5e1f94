// The whole sanitizer: its documented examples, the order of its steps, its
// options, and the character budget with head and tail.
#include <cmath>

#include "SanitizerTestSupport.h"

namespace mailcore::testing {
namespace {

// The options' values are settings, not behaviour; only the clamp is.
TEST(AIContentSanitizerTest, ANegativeBudgetIsZero) {
    EXPECT_EQ(AIContentSanitizerOptions::standard(-5).maxCharacters, 0);
}

TEST(AIContentSanitizerTest, DocumentedExamples) {
    const std::vector<Case> cases = {
        {"Card 4111 1111 1111 1111 on file", "Card [number redacted] on file"},
        {"Order 1234 5678 9012 3456 shipped", "Order 1234 5678 9012 3456 shipped"},
        {"password: hunter22", "password: [token redacted]"},
        {"<html><head><style>p { color: red }</style></head><body><p>Visible text</p>"
         "<img src=\"https://pixel.example.com/o.gif\" width=\"1\" height=\"1\"></body></html>",
         "Visible text"},
        {"Read it at https://click.example.com/ABC123", "Read it at [tracking link removed]"},
        {"", ""},
        {"caf\xe9 \xff\xfe ok \xe2\x82",
         "caf\uFFFD \uFFFD\uFFFD ok \uFFFD\uFFFD"},  // invalid UTF-8
    };
    for (const auto& c : cases)
        EXPECT_EQ(clean(c.input), (SanitizedText{c.output, false})) << c.input;
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
    SanitizedText cut = clean("password: hunter22\n\n\n\n" + repeated("filler ", 280) + "end", 80);
    EXPECT_TRUE(cut.truncated);
    EXPECT_EQ(cut.text.rfind("password: [token redacted]", 0), 0u) << cut.text;
    EXPECT_EQ(cut.text.find("hunter22"), std::string::npos);
}

TEST(AIContentSanitizerTest, OptionsSwitchRedactionInputCapAndFormat) {
    AIContentSanitizerOptions options = AIContentSanitizerOptions::standard(1000);
    options.redactSecrets = false;
    EXPECT_EQ(S::sanitize("password: hunter22", options).text, "password: hunter22");
    // The input cap counts characters, not bytes; nothing beyond it is read.
    options = AIContentSanitizerOptions::standard(1000);
    for (const auto& [cap, output] :
         {std::pair<std::int64_t, std::string>{3, "äöü"}, {0, ""}, {-1, ""}}) {
        options.maxInputCharacters = cap;
        EXPECT_EQ(S::sanitize("äöüß", options).text, output) << cap;
    }
    const std::string input = repeated("word ", 1'000'000) + " password: hunter22";
    SanitizedText result = S::sanitize(input, AIContentSanitizerOptions::standard(100));
    EXPECT_TRUE(result.truncated);
    EXPECT_EQ(result.text.find("hunter22"), std::string::npos);
    options = AIContentSanitizerOptions::standard(1'000'000);
    options.maxInputCharacters = 10;
    EXPECT_EQ(S::sanitize(input, options).text, "word word");

    EXPECT_EQ(S::sanitize("Joe <b>bold</b>", {}, AIContentFormat::plainText).text,
              "Joe <b>bold</b>");
    EXPECT_EQ(S::sanitize("Joe <b>bold</b>", {}, AIContentFormat::html).text, "Joe bold");
    EXPECT_EQ(S::sanitize("x &lt; y", {}, AIContentFormat::html).text, "x < y");
    EXPECT_EQ(S::sanitize("x &lt; y", {}, AIContentFormat::detect).text, "x &lt; y");
}

TEST(AIContentSanitizerTest, PlainTextWithAngleBracketsIsNotHTML) {
    for (const char* text :
         {"From: Joe <joe@example.com>", "Mail <a.b@example.com> and <b.smith@example.org>",
          "if (a < b && c > d) return;", "<https://example.com/path>", "I <3 this <<<< >>>>"}) {
        EXPECT_FALSE(S::looksLikeHTML(text)) << text;
        EXPECT_EQ(clean(text).text, text);
    }
    for (const char* text : {"<p>x</p>", "<!DOCTYPE html><x>", "<div class=\"a\">", "<BR>",
                             "<a href=\"https://example.com\">x</a>", "text<br/>more"}) {
        EXPECT_TRUE(S::looksLikeHTML(text)) << text;
    }
}

TEST(AIContentSanitizerTest, EstimatedTokensCountCharacters) {
    const std::pair<std::string, std::int64_t> cases[] = {
        {"", 0}, {"a", 1}, {"abcd", 1}, {"abcde", 2}, {"ääää", 1}, {std::string(4000, 'x'), 1000}};
    for (const auto& [text, tokens] : cases) EXPECT_EQ(S::estimatedTokens(text), tokens) << text;
}

TEST(AIContentSanitizerTest, TruncationJoinsHeadAndTailAtWordsWithinTheBudget) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += "word" + std::to_string(i) + " ";
    text += "END";
    SanitizedText result = S::truncateHeadTail(text, 200, 0.7);
    EXPECT_TRUE(result.truncated);
    EXPECT_LE(utf8::characterCount(result.text), 200u);
    std::size_t marker = result.text.find(S::truncationMarker);
    ASSERT_NE(marker, std::string::npos);
    // Head gets about 70 % of what the marker leaves, words stay whole.
    std::string head = result.text.substr(0, marker);
    std::string tail = result.text.substr(marker + S::truncationMarker.size());
    EXPECT_GE(utf8::characterCount(head), 100u);
    EXPECT_LE(utf8::characterCount(head), 124u);
    EXPECT_GE(utf8::characterCount(tail), 30u);
    EXPECT_EQ(text.find(head + " "), 0u);                         // ends at a word
    EXPECT_NE(text.find(" " + tail), std::string::npos) << tail;  // starts at a word
    EXPECT_EQ(tail.substr(tail.size() - 3), "END");

    // Mail through the whole pipeline keeps its first and last lines.
    std::string mail = "Dear team,\n\n";
    for (int i = 0; i < 400; ++i) mail += "Line " + std::to_string(i) + " of the report.\n";
    result = clean(mail + "Regards", 500);
    EXPECT_TRUE(result.truncated);
    EXPECT_EQ(result.text.rfind("Dear team,", 0), 0u);
    EXPECT_EQ(result.text.substr(result.text.size() - 7), "Regards");
    EXPECT_EQ(clean(mail, 0), (SanitizedText{"", true}));
}

TEST(AIContentSanitizerTest, HeadFractionIsHonouredAndClamped) {
    const std::size_t available = 100 - utf8::characterCount(S::truncationMarker);
    const std::pair<double, std::size_t> cases[] = {
        {0.7, available * 7 / 10},         {0.0, 0}, {1.0, available}, {-2.0, 0}, {5.0, available},
        {std::nan(""), available * 7 / 10}};
    for (const auto& [fraction, head] : cases) {
        SanitizedText result = S::truncateHeadTail(std::string(1000, 'a'), 100, fraction);
        EXPECT_EQ(result.text.find(S::truncationMarker), head) << fraction;
        EXPECT_EQ(utf8::characterCount(result.text), 100u) << fraction;
    }
}

TEST(AIContentSanitizerTest, TinyBudgetsKeepOnlyTheBeginning) {
    const std::string text = "alpha beta gamma delta epsilon zeta eta theta";
    for (std::int64_t limit : {0, 1, 5, 6, 12, 23}) {
        SanitizedText result = S::truncateHeadTail(text, limit, 0.7);
        EXPECT_TRUE(result.truncated);
        EXPECT_LE(utf8::characterCount(result.text), static_cast<std::size_t>(limit));
        EXPECT_EQ(result.text.find(S::truncationMarker), std::string::npos);
        EXPECT_EQ(text.find(result.text), 0u);
    }
    EXPECT_EQ(S::truncateHeadTail(text, -5, 0.7), (SanitizedText{"", true}));
    EXPECT_EQ(S::truncateHeadTail(text, 12, 0.7).text, "alpha beta");
    // Text of exactly the budget is whole.
    EXPECT_EQ(S::truncateHeadTail("aé€😀", 4, 0.7), (SanitizedText{"aé€😀", false}));
}

}  // namespace
}  // namespace mailcore::testing
