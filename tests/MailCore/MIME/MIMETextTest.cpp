// Text helpers of mail content: HTML to text, UTF-8 repair and snippets.
#include <gtest/gtest.h>

#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/MIMEText.h"

namespace mailcore {
namespace {

TEST(MIMEText, HtmlToTextRendersWhatAReaderSees) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"<p>one</p><p>two</p>", "one\n\ntwo"},
        {"a<br>b<br/>c", "a\nb\nc"},
        {"<b>bold</b>   and\n\n   <i>italic</i>", "bold and italic"},
        {"<!-- hidden --><style>.x{color:red}</style><script>alert(1)</script>shown", "shown"},
        {"<SCRIPT>x</SCRIPT>after", "after"},
        {"&lt;tag&gt; &amp;amp; &#65;&#x42; &euro; &unknown; &", "<tag> &amp; AB € &unknown; &"},
        {"<a href=\"x>y\">link</a>", "link"},
        {"1 < 2 and 3 > 2", "1 < 2 and 3 > 2"},
        {"<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", "a b\nc"},
        {"unterminated <b", "unterminated"},
        {"<style>never closed", ""},
        {"&#0;&#xD800;&#1114112;x", "\xEF\xBF\xBD\xEF\xBF\xBDx"},
    };
    for (const auto& [html, text] : cases) {
        SCOPED_TRACE(html);
        EXPECT_EQ(htmlToText(html, 1000), text);
    }
}

TEST(MIMEText, HtmlToTextStopsAtTheLimitOnACharacterBoundary) {
    std::string html;
    for (int i = 0; i < 1000; ++i) html += "<p>é</p>";
    const std::string text = htmlToText(html, 101);
    EXPECT_LE(text.size(), 101u);
    EXPECT_TRUE(utf8::isValid(text));
}

TEST(MIMEText, SanitizeRepairsUTF8AndDropsNUL) {
    EXPECT_EQ(sanitizeUTF8(std::string("ok \xC3\xA9 \xC3\0b", 9)), "ok é \uFFFDb");
}

TEST(MIMEText, SnippetEdgeCases) {
    EXPECT_EQ(makeSnippet(""), "");
    EXPECT_EQ(makeSnippet("> only a quote\n> more\n"), "");
    EXPECT_EQ(makeSnippet("\xE2\x80\x8C\xC2\xA0 \t hi\xC2\xA0there"), "hi there");
    EXPECT_EQ(makeSnippet("Thanks!\r\n\r\n-- \r\nsig"), "Thanks!");
    EXPECT_EQ(makeSnippet("Ending with a colon:\nnot a quote"), "Ending with a colon: not a quote");
    EXPECT_EQ(makeSnippet("ééééé", 3), "ééé");
}

}  // namespace
}  // namespace mailcore
