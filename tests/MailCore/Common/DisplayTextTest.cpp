#include <gtest/gtest.h>

#include <algorithm>

#include "MailCore/Common/DisplayText.h"

namespace mailcore {
namespace {

TEST(DisplayTextTest, LineNeutralisesWhatCouldFakeOrReorderText) {
    const std::pair<std::string, std::string> rows[] = {
        {"Re: hi\nthere", "Re: hi\u23CEthere"},
        {"a\r\nb\u2028c\u2029d", "a\u23CE\u23CEb\u23CEc\u23CEd"},
        // A terminal escape cannot clear the screen or print a fake prompt.
        {"tab\there\x1b[2J\x7f\u0085", "tab\u00B7here\u00B7[2J\u00B7\u00B7"},
        // Overrides, isolates and marks cannot reverse "exe.pdf" into view.
        {"invoice\u202Efdp.exe\u2066x\u2069\u200F\u061C",
         "invoice\u00B7fdp.exe\u00B7x\u00B7\u00B7\u00B7"},
        {"bad \xFF byte", "bad \uFFFD byte"},
        {"", ""},
    };
    for (const auto& [in, out] : rows) EXPECT_EQ(DisplayText::line(in, 100), out) << in;
}

TEST(DisplayTextTest, EveryCutSaysWhatItCut) {
    EXPECT_EQ(DisplayText::line("caf\u00E9 \U0001F600 end", 6),
              "caf\u00E9 \U0001F600 \u2026 4 more characters");
    EXPECT_EQ(DisplayText::line(std::string(1012, 'a'), 400),
              std::string(400, 'a') + " \u2026 612 more characters");

    // A long line continues instead of being cut.
    auto b = DisplayText::block(std::string(1000, 'x') + "\nnext", 3000, 60);
    EXPECT_EQ(b.text, std::string(400, 'x') + "\n" + std::string(400, 'x') + "\n" +
                          std::string(200, 'x') + "\nnext");
    EXPECT_EQ(b.omitted, 0);

    b = DisplayText::block("one\r\ntwo\nthree\nfour", 3000, 2);
    EXPECT_EQ(b.text, "one\ntwo\n\u2026 10 more characters");
    EXPECT_EQ(b.omitted, 2);

    b = DisplayText::block("short", 3000, 60);
    EXPECT_EQ(b.text, "short");
    EXPECT_EQ(b.omitted, 0);

    // The character budget holds whatever the line count allows, and the
    // marker counts what is left.
    std::string text;
    for (int i = 0; i < 100; ++i) text += std::string(100, static_cast<char>('a' + i % 26)) + "\n";
    b = DisplayText::block(text, 3000, 60);
    EXPECT_EQ(b.omitted, 71);  // 70 lines and the empty one after the last break
    EXPECT_TRUE(b.text.ends_with("\n\u2026 7070 more characters"))
        << b.text.substr(b.text.size() - 40);
}

TEST(DisplayTextTest, ControlCheckAllowsLineBreaksOnlyWhenAsked) {
    EXPECT_FALSE(DisplayText::hasControlCharacters("two\nlines\tok", true));
    EXPECT_TRUE(DisplayText::hasControlCharacters("two\nlines", false));
    EXPECT_TRUE(DisplayText::hasControlCharacters("a\u202Eb", true));
}

}  // namespace
}  // namespace mailcore
