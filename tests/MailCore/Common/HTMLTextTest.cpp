// HTML to text: block elements, tags, line breaks, character references.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MailCore/Common/HTMLText.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

struct Case {
    std::string input;
    std::string output;
};

template <typename Step>
void expectEach(const std::vector<Case>& cases, Step step) {
    for (const Case& c : cases) EXPECT_EQ(step(c.input), c.output) << c.input;
}

std::string repeated(std::string_view unit, std::size_t size) {
    std::string s;
    while (s.size() < size) s.append(unit);
    return s;
}

TEST(HTMLText, BlockElementsGoWithTheirContent) {
    expectEach({{"a<script>var x = '<p>';</script>b", "ab"},
                {"a<SCRIPT type=\"text/javascript\">x()</SCRIPT >b", "ab"},
                {"a<style>.x{}</style><title>T</title><template><p>t</p></template>b", "ab"},
                {"a<noscript>enable js</noscript><svg><text>chart</text></svg>b", "ab"},
                {"a<iframe src=x>inner</iframe><object data=x>fallback</object>b", "ab"},
                {"a<embed src=\"x.swf\">b", "ab"},  // void element: the tag alone
                {"a<embed src=\"x.swf\"/>b", "ab"},
                {"a<svg/>b", "ab"},
                {"<head><meta charset=utf-8><title>x</title></head>body", "body"},
                {"a<!-- comment <p>hidden</p> -->b", "ab"},
                {"a<!--[if mso]><table>MSO only</table><![endif]-->b", "ab"},
                {"a<script>never closed", "a"},  // raw text runs to the end
                {"a<style>never closed", "a"},
                {"a<head>open head<p>b", "aopen head<p>b"},  // others lose only their tag
                {"a<svg>open svg", "aopen svg"},
                {"a<!-- unclosed comment", "a"},
                {"a<script", "a"},  // an unfinished tag hides the rest
                {"<header>kept</header><scripts>kept</scripts>",
                 "<header>kept</header><scripts>kept</scripts>"},
                // Nested and repeated blocks are removed in one pass.
                {repeated("<svg>x", 120000) + "</svg>tail", "tail"},
                {repeated("<object>y", 180000), std::string(20000, 'y')}},
               removeHTMLBlockElements);
}

TEST(HTMLText, TrackingPixelsLineBreaksAndTags) {
    expectEach(
        {{"a<img src=\"t.gif\" width=\"1\" height=\"1\">b", "ab"},
         {"a<img src=t.gif height='0' />b", "ab"},
         {"a<img style=\"display:none\" src=x>b", "ab"},
         {"a<img src=\"logo.png\" width=\"200\" alt=\"Logo\">b", "ab"},  // ordinary image: a tag
         {"one<br>two<br/>three<BR>four", "one\ntwo\nthreefour"},        // <BR>: a tag, not a break
         {"<p>one</p><p>two</p><div>three</div>", "one\ntwo\nthree"},
         {"<ul><li>x</li><li>y</li></ul>", "x\ny"},
         {"<h1>Title</h1>text<hr>more", "Title\ntext\nmore"},
         {"<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", "a b\nc"},
         {"<a href=\"https://example.com\">link text</a>", "link text"},
         {"<!DOCTYPE html><html><body>x</body></html>", "x"},
         {"<p>\n   spread\n   over   lines\n</p>", "spread over lines"},
         {"<p>a &lt; b</p>", "a < b"},
         {"x < y and <p>z</p>", "x < y and z"},
         {"<<<<p>z</p>", "<<<z"},
         {"<div>Preview&nbsp;text&zwnj;&nbsp;&zwnj;&nbsp;&#847;&shy;</div>"
          "<p>&nbsp;&nbsp;Body&nbsp;&nbsp; text&nbsp;</p>",
          "Preview text\nBody text"}},  // invisible padding dropped, spaces tidied
        [](std::string_view html) { return htmlToText(html); });
}

TEST(HTMLText, EntitiesAreDecoded) {
    const std::string fffd(utf8::replacementCharacter);
    expectEach(
        {{"&amp; &lt; &gt; &quot; &apos;", "& < > \" '"},
         {"caf&eacute; &euro;5 &copy; &mdash;", "café €5 © —"},
         {"&#65;&#x42;&#X43;&#100", "ABCd"},
         {"&#128512; &#x1F600;", "😀 😀"},
         {"&#150; &#146;", "– ’"},  // windows-1252 meanings
         {"&#0; &#xD800; &#x110000; &#99999999999;", fffd + " " + fffd + " " + fffd + " " + fffd},
         {"bell&#7;less &#9;tab", "bellless \ttab"},
         {"&amp &lt; &nbsp", "& < \u00A0"},             // amp and nbsp read without ';'
         {"&unknown; &copy &;", "&unknown; &copy &;"},  // unknown or unterminated: kept
         {"&amp;lt;", "&lt;"},                          // decoded once only
         {"AT&T", "AT&T"}},
        decodeHTMLEntities);
}

TEST(HTMLText, StopsAtTheLimitOnACharacterBoundary) {
    // "é\n" is three bytes: 100 would cut the 34th "é" in half.
    const std::string text = htmlToText(repeated("<p>\xC3\xA9</p>", 8000), 100);
    EXPECT_EQ(text.size(), 99u);
    EXPECT_TRUE(utf8::isValid(text));
    EXPECT_EQ(htmlToText("<p>a\xFF</p>"), "a\uFFFD");
}

}  // namespace
}  // namespace mailcore
