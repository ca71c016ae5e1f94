#include <gtest/gtest.h>

#include "KestruneMCPKit/Taint/MCPDisplayText.h"

namespace mcpkit {
namespace {

TEST(MCPDisplayTextTest, LineReplacesBreaksAndControlCharacters) {
    EXPECT_EQ(MCPDisplayText::line("Re: hi\nthere", 100), "Re: hi\u23CEthere");
    EXPECT_EQ(MCPDisplayText::line("a\r\nb\u2028c\u2029d", 100), "a\u23CE\u23CEb\u23CEc\u23CEd");
    EXPECT_EQ(MCPDisplayText::line("tab\there\x1b[31m\x7f", 100), "tab\u00B7here\u00B7[31m\u00B7");
    EXPECT_EQ(MCPDisplayText::line("caf\u00E9 \U0001F600 end", 6), "caf\u00E9 \U0001F600");
    EXPECT_EQ(MCPDisplayText::line("", 5), "");
    EXPECT_EQ(MCPDisplayText::line("bad \xFF byte", 20), "bad \uFFFD byte");
}

TEST(MCPDisplayTextTest, BlockKeepsLinesWithinItsBudgetsAndCountsWhatItLeavesOut) {
    auto b = MCPDisplayText::block("one\r\ntwo\nthree\nfour", 3000, 2);
    EXPECT_EQ(b.text, "one\ntwo");
    EXPECT_EQ(b.omitted, 2);

    b = MCPDisplayText::block("short", 3000, 60);
    EXPECT_EQ(b.text, "short");
    EXPECT_EQ(b.omitted, 0);

    const std::string longLine(1000, 'x');
    b = MCPDisplayText::block(longLine + "\nnext", 3000, 60);
    EXPECT_EQ(b.text, std::string(400, 'x') + "\nnext");
    EXPECT_EQ(b.omitted, 0);

    // The character budget holds whatever the line count allows.
    std::string text;
    for (int i = 0; i < 100; ++i) text += std::string(100, 'a' + i % 26) + "\n";
    b = MCPDisplayText::block(text, 3000, 60);
    EXPECT_LE(b.text.size(), 3000u);
    EXPECT_GT(b.omitted, 0);
    const auto lines = 1 + std::count(b.text.begin(), b.text.end(), '\n');
    EXPECT_EQ(lines + b.omitted, 101);  // 100 lines and the empty one after the last break
}

}  // namespace
}  // namespace mcpkit
