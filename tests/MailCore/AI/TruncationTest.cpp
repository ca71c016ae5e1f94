#include <gtest/gtest.h>

#include <random>
#include <string>

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

using S = AIContentSanitizer;

TEST(TruncationTest, ShortTextIsUntouched) {
    EXPECT_EQ(S::truncateHeadTail("hello", 5, 0.7), (SanitizedText{"hello", false}));
    EXPECT_EQ(S::truncateHeadTail("äöü", 3, 0.7), (SanitizedText{"äöü", false}));
    EXPECT_EQ(S::truncateHeadTail("", 0, 0.7), (SanitizedText{"", false}));
}

TEST(TruncationTest, MarkerJoinsHeadAndTailWithinTheBudget) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += "word" + std::to_string(i) + " ";
    text += "END";
    SanitizedText result = S::truncateHeadTail(text, 200, 0.7);
    EXPECT_TRUE(result.truncated);
    EXPECT_LE(utf8::characterCount(result.text), 200u);
    std::size_t marker = result.text.find(S::truncationMarker);
    ASSERT_NE(marker, std::string::npos);
    EXPECT_EQ(result.text.rfind("word0 word1 ", 0), 0u);
    EXPECT_EQ(result.text.substr(result.text.size() - 3), "END");
    // Head gets about 70 % of what the marker leaves, words stay whole.
    std::string head = result.text.substr(0, marker);
    std::string tail = result.text.substr(marker + S::truncationMarker.size());
    EXPECT_GE(utf8::characterCount(head), 100u);
    EXPECT_LE(utf8::characterCount(head), 124u);
    EXPECT_GE(utf8::characterCount(tail), 30u);
    EXPECT_EQ(text.find(head), 0u);
    EXPECT_NE(text.find(" " + tail), std::string::npos) << tail;  // starts at a word
    EXPECT_EQ(head.back() != ' ', true);
}

TEST(TruncationTest, HeadFractionIsHonouredAndClamped) {
    std::string text(1000, 'a');
    struct Case {
        double fraction;
        std::size_t head;
    };
    const std::size_t available = 100 - utf8::characterCount(S::truncationMarker);
    const Case cases[] = {{0.7, available * 7 / 10}, {0.0, 0},
                          {1.0, available},          {-2.0, 0},
                          {5.0, available},          {std::nan(""), available * 7 / 10}};
    for (const auto& c : cases) {
        SanitizedText result = S::truncateHeadTail(text, 100, c.fraction);
        std::size_t marker = result.text.find(S::truncationMarker);
        ASSERT_NE(marker, std::string::npos);
        EXPECT_EQ(marker, c.head) << c.fraction;
        EXPECT_EQ(utf8::characterCount(result.text), 100u) << c.fraction;
    }
}

TEST(TruncationTest, TinyBudgetsKeepOnlyTheBeginning) {
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
}

TEST(TruncationTest, NeverExceedsTheBudgetNorSplitsACharacter) {
    // Random multi-byte text without spaces (no word boundary to move to) and
    // with them, at every budget from 0 to past its length.
    std::mt19937 rng(7);
    const char* const pieces[] = {"a", "é", "€", "😀", " ", "\n", "日本"};
    for (int round = 0; round < 20; ++round) {
        std::string text;
        for (int i = 0; i < 120; ++i) text += pieces[rng() % (round % 2 ? 7 : 4)];
        std::size_t length = utf8::characterCount(text);
        for (std::int64_t limit = 0; limit <= static_cast<std::int64_t>(length) + 2; ++limit) {
            SanitizedText result = S::truncateHeadTail(text, limit, 0.7);
            ASSERT_LE(utf8::characterCount(result.text), static_cast<std::size_t>(limit));
            ASSERT_TRUE(utf8::isValid(result.text));
            ASSERT_EQ(result.truncated, static_cast<std::int64_t>(length) > limit);
            if (!result.truncated) {
                ASSERT_EQ(result.text, text);
            }
        }
    }
}

TEST(TruncationTest, SanitizeMarksShortenedResults) {
    std::string mail = "Dear team,\n\n";
    for (int i = 0; i < 400; ++i) mail += "Line " + std::to_string(i) + " of the report.\n";
    mail += "Regards";
    SanitizedText result = S::sanitize(mail, AIContentSanitizerOptions::standard(500));
    EXPECT_TRUE(result.truncated);
    EXPECT_LE(utf8::characterCount(result.text), 500u);
    EXPECT_NE(result.text.find("\n[… content omitted …]\n"), std::string::npos);
    EXPECT_EQ(result.text.rfind("Dear team,", 0), 0u);
    EXPECT_EQ(result.text.substr(result.text.size() - 7), "Regards");
    EXPECT_EQ(S::sanitize(mail, AIContentSanitizerOptions::standard(0)), (SanitizedText{"", true}));
}

}  // namespace
}  // namespace mailcore
