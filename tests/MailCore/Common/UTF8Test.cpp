#include "MailCore/Common/UTF8.h"

#include <gtest/gtest.h>

namespace mailcore::utf8 {
namespace {

TEST(UTF8Test, CountsAndCutsWholeCharacters) {
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    EXPECT_EQ(characterCount(text), 5u);
    EXPECT_EQ(prefix(text, 3), "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(prefix(text, 99), text);
    EXPECT_EQ(safeCutBytes(text, 5), 3u);  // never inside the euro sign
    EXPECT_EQ(safeCutBytes(text, 6), 6u);
}

TEST(UTF8Test, MalformedBytesAreSingleCharactersAndDecodeAsReplacement) {
    const std::string bad = "\xFF\xC3(\xED\xA0\x80";  // stray byte, cut pair, surrogate
    EXPECT_EQ(characterCount(bad), 6u);
    std::size_t pos = 0;
    EXPECT_EQ(decode(bad, pos), U'\uFFFD');
    EXPECT_EQ(pos, 1u);
    std::string out;
    append(out, U'\U0001F600');
    append(out, U'é');
    pos = 0;
    EXPECT_EQ(decode(out, pos), U'\U0001F600');
    EXPECT_EQ(decode(out, pos), U'é');
}

}  // namespace
}  // namespace mailcore::utf8
