#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "MailCore/Common/UTF8.h"

namespace mailcore::utf8 {
namespace {

const std::string fffd(replacementCharacter);

TEST(UTF8Test, EveryScalarEncodesDecodesAndValidates) {
    std::string out;
    for (char32_t cp = 0; cp <= 0x10FFFF; ++cp) {
        if (cp == 0xD800) cp = 0xE000;
        out.clear();
        append(out, cp);
        const std::size_t expected = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        ASSERT_EQ(out.size(), expected) << static_cast<unsigned>(cp);
        ASSERT_EQ(sequenceLength(out, 0), expected) << static_cast<unsigned>(cp);
        ASSERT_TRUE(isValid(out)) << static_cast<unsigned>(cp);
        std::size_t pos = 0;
        ASSERT_EQ(decode(out, pos), cp);
        ASSERT_EQ(pos, expected);
    }
    for (char32_t bad : {char32_t{0xD800}, char32_t{0xDFFF}, char32_t{0x110000}}) {
        out.clear();
        append(out, bad);
        EXPECT_EQ(out, fffd);
    }
}

// Each malformed byte is one character of its own, decoded and repaired as U+FFFD.
TEST(UTF8Test, MalformedFormsAreSingleBytes) {
    const std::vector<std::pair<std::string, std::size_t>> cases = {
        {"\x80", 1},              // stray continuation
        {"\xC3", 1},              // truncated pair
        {"\xE2\x82", 2},          // truncated triple
        {"\xC0\xAF", 2},          // overlong '/'
        {"\xC1\xBF", 2},          // overlong
        {"\xE0\x80\xAF", 3},      // overlong triple
        {"\xF0\x80\x80\xAF", 4},  // overlong quadruple
        {"\xED\xA0\x80", 3},      // surrogate
        {"\xF4\x90\x80\x80", 4},  // above U+10FFFF
        {"\xF5\x80\x80\x80", 4},  // lead byte that never starts a sequence
        {"\xFF", 1},
        {"\xC3(", 2},  // lead followed by no continuation: '(' kept
    };
    for (const auto& [bytes, characters] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_FALSE(isValid(bytes));
        EXPECT_EQ(characterCount(bytes), characters);
        EXPECT_EQ(sequenceLength(bytes, 0), 1u);
        std::size_t pos = 0;
        EXPECT_EQ(decode(bytes, pos), U'\uFFFD');
        EXPECT_EQ(pos, 1u);
        const std::string fixed = repaired(bytes);
        EXPECT_TRUE(isValid(fixed));
        EXPECT_EQ(characterCount(fixed), characters);
    }
    EXPECT_EQ(repaired("\xC3("), fffd + "(");
    EXPECT_EQ(repaired("ok \xC3\xA9 \xFF" + fffd), "ok \xC3\xA9 " + fffd + fffd);
    EXPECT_TRUE(isValid(""));
}

TEST(UTF8Test, CutsFallBetweenCharacters) {
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    EXPECT_EQ(characterCount(text), 5u);
    EXPECT_EQ(prefix(text, 3), "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(prefix(text, 99), text);
    EXPECT_EQ(suffix(text, 2), "\xF0\x9F\x98\x80z");
    EXPECT_EQ(suffix(text, 0), "");
    EXPECT_EQ(suffix(text, 99), text);
    EXPECT_EQ(safeCutBytes(text, 5), 3u);  // never inside the euro sign
    EXPECT_EQ(safeCutBytes(text, 6), 6u);
    EXPECT_EQ(safeCutBytes(text, 99), text.size());
}

// On random bytes (malformed ones included), prefix and suffix agree with a
// forward walk, and repair keeps every character.
TEST(UTF8Test, PrefixSuffixAndRepairAgreeOnRandomBytes) {
    std::mt19937 random(7);
    const std::string pieces[] = {"a",    "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x80",
                                  "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xED\xA0\x80",     "\xFF"};
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        const int n = static_cast<int>(random() % 12);
        for (int i = 0; i < n; ++i) text += pieces[random() % std::size(pieces)];
        std::vector<std::size_t> starts;
        for (std::size_t pos = 0; pos < text.size(); pos += sequenceLength(text, pos)) {
            starts.push_back(pos);
        }
        const std::size_t count = starts.size();
        ASSERT_EQ(characterCount(text), count);
        for (std::size_t k = 0; k <= count + 1; ++k) {
            const std::size_t head = k < count ? starts[k] : text.size();
            ASSERT_EQ(prefix(text, k).size(), head);
            const std::size_t tail = k == 0 ? text.size() : k <= count ? starts[count - k] : 0;
            ASSERT_EQ(suffix(text, k).size(), text.size() - tail)
                << testing::PrintToString(text) << " k=" << k;
        }
        const std::string fixed = repaired(text);
        ASSERT_TRUE(isValid(fixed));
        ASSERT_EQ(characterCount(fixed), count);
        ASSERT_EQ(isValid(text), fixed == text);
    }
}

}  // namespace
}  // namespace mailcore::utf8
