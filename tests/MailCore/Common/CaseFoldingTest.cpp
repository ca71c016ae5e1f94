// ASCII folding for protocol tokens, Unicode folding for what people write.
#include <gtest/gtest.h>

#include "MailCore/Common/CaseFolding.h"

namespace mailcore {
namespace {

TEST(CaseFolding, AsciiFoldingTouchesOnlyAsciiLetters) {
    EXPECT_EQ(asciiLower("Content-TYPE: \xC3\x89t\xC3\xA9 [Z@]"),
              "content-type: \xC3\x89t\xC3\xA9 [z@]");
    EXPECT_TRUE(equalsNoCase("UTF-8", "utf-8"));
    EXPECT_FALSE(equalsNoCase("utf-8", "utf-8 "));
    EXPECT_FALSE(equalsNoCase("k", "\xE2\x84\xAA"));  // KELVIN SIGN is not an ASCII k
    EXPECT_TRUE(startsWithNoCase("x-Status: RO", 0, "X-STATUS:"));
    EXPECT_TRUE(startsWithNoCase("<!DOCTYPE", 2, "doc"));
    EXPECT_FALSE(startsWithNoCase("Re", 0, "re:"));
    EXPECT_FALSE(startsWithNoCase("Re", 3, ""));  // past the end
}

TEST(CaseFolding, UnicodeFoldingMakesOneKeyForTheSameWords) {
    const std::vector<std::pair<std::string, std::string>> same = {
        {"R\xC3\x89SUM\xC3\x89", "r\xC3\xA9sum\xC3\xA9"},    // É é
        {"re\xCC\x81sume\xCC\x81", "r\xC3\xA9sum\xC3\xA9"},  // e + combining acute
        {"STRASSE",
         "stra\xC3\x9F"
         "e"},                                                     // ß folds to ss
        {"\xCE\xA3\xCE\x99\xCE\xA3", "\xCF\x83\xCE\xB9\xCF\x82"},  // ΣΙΣ and σις
        {"\xD0\x9F\xD0\xA0\xD0\x98\xD0\x92\xD0\x95\xD0\xA2",
         "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"},
    };
    for (const auto& [a, b] : same) EXPECT_EQ(foldCase(a), foldCase(b)) << a << " / " << b;
    EXPECT_EQ(foldCase("Hello World"), "hello world");
    EXPECT_EQ(foldCase("\xC3\x89t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");    // composed form out
    EXPECT_NE(foldCase("resume"), foldCase("r\xC3\xA9sum\xC3\xA9"));  // accents still count
}

TEST(CaseFolding, UnicodeFoldingAcceptsAnyBytes) {
    EXPECT_EQ(foldCase("A\xFF\xC3"), "a\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(foldCase(std::string("\xC3\x89\0B", 4)), std::string("\xC3\xA9\0b", 4));
    EXPECT_EQ(foldCase(std::string(3, '\0')), std::string(3, '\0'));
    EXPECT_EQ(foldCase(""), "");
}

}  // namespace
}  // namespace mailcore
