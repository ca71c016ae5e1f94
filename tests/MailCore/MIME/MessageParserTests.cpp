#include "MIMETestSupport.h"

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/MIMEText.h"
#include "MailCore/MIME/MessageParser.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace mailcore {
namespace {

using testing::crlf;
using namespace std::string_literals;

ParsedMessage parse(std::string_view text) { return MessageParser().parse(crlf(text)); }

std::string attachmentSummary(const ParsedMessage& m) {
    std::string out;
    for (const auto& a : m.attachments) {
        if (!out.empty()) out += "; ";
        out += a.partID + " " + a.mimeType + " " + a.filename + " " + std::to_string(a.size);
        if (a.contentID) out += " cid=" + *a.contentID;
        if (a.isInline) out += " inline";
    }
    return out;
}

// --- headers ---

struct SubjectCase {
    const char* name;
    const char* header;  // raw Subject header value
    const char* expected;
};

class SubjectDecoding : public ::testing::TestWithParam<SubjectCase> {};

TEST_P(SubjectDecoding, DecodesToUTF8) {
    const auto& c = GetParam();
    const auto m = parse(std::string("From: a@example.com\nSubject: ") + c.header + "\n\nbody\n");
    EXPECT_EQ(m.subject, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Headers, SubjectDecoding,
    ::testing::Values(
        SubjectCase{"plain", "Hello world", "Hello world"},
        SubjectCase{"base64_utf8", "=?UTF-8?B?R3LDvMOfZSBhdXMgS8O2bG4=?=", "Grüße aus Köln"},
        SubjectCase{"q_latin1", "=?iso-8859-1?Q?Caf=E9_cr=E8me?=", "Café crème"},
        SubjectCase{"adjacent_words_join", "=?utf-8?q?Hal?= =?utf-8?q?lo?=", "Hallo"},
        SubjectCase{"mixed_with_plain", "Re: =?utf-8?b?0J/RgNC40LLQtdGC?= there", "Re: Привет there"},
        SubjectCase{"folded", "first\n second", "first second"},
        SubjectCase{"raw_utf8_header", "Gr\xC3\xBC\xC3\x9F" "e", "Grüße"},
        SubjectCase{"raw_latin1_header", "Gr\xFC\xDF" "e", "Grüße"},
        SubjectCase{"unknown_charset_word", "=?x-unknown-thing?Q?abc?=", "abc"},
        SubjectCase{"shift_jis_word", "=?shift_jis?B?k/qWe4zq?=", "日本語"},
        SubjectCase{"broken_word_kept", "=?utf-8?B?not base64 at all", "=?utf-8?B?not base64 at all"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(MessageParserHeaders, AddressListsKeepDisplayNamesAndGroups) {
    const auto m = parse(
        "From: \"Doe, Jane\" <jane@example.com>\n"
        "To: =?utf-8?q?J=C3=BCrgen_M=C3=BCller?= <jm@example.de>, bob@example.org,\n"
        " Team: ann@example.com, \"Carl\" <carl@example.com>;\n"
        "Cc: <noname@example.net>\n"
        "Reply-To: Lists <list@example.com>\n"
        "Bcc: hidden@example.com\n"
        "Subject: s\n\nbody\n");
    ASSERT_EQ(m.from.size(), 1u);
    EXPECT_EQ(m.from[0], (MailAddress{"Doe, Jane", "jane@example.com"}));
    std::vector<MailAddress> to = {{"Jürgen Müller", "jm@example.de"},
                                   {"", "bob@example.org"},
                                   {"", "ann@example.com"},
                                   {"Carl", "carl@example.com"}};
    EXPECT_EQ(m.to, to);
    EXPECT_EQ(m.cc, (std::vector<MailAddress>{{"", "noname@example.net"}}));
    EXPECT_EQ(m.replyTo, (std::vector<MailAddress>{{"Lists", "list@example.com"}}));
    EXPECT_EQ(m.bcc, (std::vector<MailAddress>{{"", "hidden@example.com"}}));
}

TEST(MessageParserHeaders, ThreadingIdentifiersWithoutBrackets) {
    const auto m = parse(
        "From: a@example.com\n"
        "Message-ID: <abc.123@Example.COM>\n"
        "In-Reply-To: Your message of Monday <parent@example.com>\n"
        "References: <root@example.com>\n <mid@example.com>  <parent@example.com>\n"
        "Date: Tue, 11 Sep 2001 00:05:05 -0400\n"
        "\nbody\n");
    EXPECT_EQ(m.messageID, "abc.123@Example.COM");
    EXPECT_EQ(m.inReplyTo, (std::vector<std::string>{"parent@example.com"}));
    EXPECT_EQ(m.references,
              (std::vector<std::string>{"root@example.com", "mid@example.com", "parent@example.com"}));
    ASSERT_TRUE(m.date.has_value());
    EXPECT_EQ(secondsSince1970(*m.date), 1000181105.0);
}

TEST(MessageParserHeaders, MissingOrBrokenDateAndIdentifiersAreAbsent) {
    const auto m = parse("From: a@example.com\nDate: yesterday-ish\nReferences: <a b@x> <ok@x>\n\nbody\n");
    EXPECT_FALSE(m.date.has_value());
    EXPECT_FALSE(m.messageID.has_value());
    EXPECT_EQ(m.references, std::vector<std::string>{"ok@x"});  // the one with a space is dropped
}

TEST(MessageParserHeaders, LongReferenceChainsKeepRootAndNewest) {
    std::string refs;
    for (int i = 0; i < 300; ++i) refs += " <r" + std::to_string(i) + "@x>\n";
    const auto m = parse("From: a@x\nReferences:" + refs + "\nbody\n");
    ASSERT_EQ(m.references.size(), 100u);
    EXPECT_EQ(m.references.front(), "r0@x");
    EXPECT_EQ(m.references[1], "r201@x");
    EXPECT_EQ(m.references.back(), "r299@x");
}

// --- charsets ---

struct CharsetCase {
    const char* name;
    std::string charsetParam;  // e.g. "; charset=iso-8859-1", may be empty
    std::string encoding;      // Content-Transfer-Encoding
    std::string body;          // encoded body bytes
    std::string expected;
};

class BodyCharsets : public ::testing::TestWithParam<CharsetCase> {};

TEST_P(BodyCharsets, TextBecomesUTF8) {
    const auto& c = GetParam();
    const auto m = parse("From: a@example.com\nMIME-Version: 1.0\nContent-Type: text/plain" +
                         c.charsetParam + "\nContent-Transfer-Encoding: " + c.encoding + "\n\n" +
                         c.body);
    EXPECT_EQ(m.text, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Charsets, BodyCharsets,
    ::testing::Values(
        CharsetCase{"latin1_qp", "; charset=iso-8859-1", "quoted-printable", "Gr=FC=DFe\n", "Grüße\n"},
        CharsetCase{"windows1252_quotes", "; charset=windows-1252", "8bit", "\x93hi\x94 \x80\n",
                    "“hi” €\n"},
        CharsetCase{"latin1_label_on_utf8", "; charset=iso-8859-1", "8bit", "Gr\xC3\xBC\xC3\x9F" "e\n",
                    "Grüße\n"},
        CharsetCase{"utf8_label_on_latin1", "; charset=utf-8", "8bit", "Gr\xFC\xDF" "e\n", "Grüße\n"},
        CharsetCase{"no_label_8bit", "", "8bit", "caf\xE9\n", "café\n"},
        CharsetCase{"koi8r", "; charset=koi8-r", "8bit", "\xF0\xD2\xC9\xD7\xC5\xD4\n", "Привет\n"},
        CharsetCase{"shift_jis_base64", "; charset=shift_jis", "base64", "k/qWe4zq\n", "日本語"},
        CharsetCase{"utf16_base64", "; charset=utf-16", "base64", "//5oAGkA\n", "hi"},
        CharsetCase{"unknown_charset", "; charset=x-no-such-charset", "8bit", "plain \xC3\xA9\n",
                    "plain é\n"},
        CharsetCase{"invalid_sequence_in_sjis", "; charset=shift_jis", "8bit", "a\x81\xFF" "b\n",
                    "a\xEF\xBF\xBD\xEF\xBF\xBD" "b\n"},
        CharsetCase{"crlf_to_lf_and_nul_dropped", "; charset=us-ascii", "7bit", "one\ntw\0o\n"s,
                    "one\ntwo\n"}),
    [](const auto& param) { return std::string(param.param.name); });

// --- body selection ---

struct BodyCase {
    const char* name;
    std::string message;
    std::string text;         // expected plain text
    std::string html;         // expected HTML ("" = none)
    std::string attachments;  // expected attachment summary
};

class BodySelection : public ::testing::TestWithParam<BodyCase> {};

TEST_P(BodySelection, ChoosesWhatReadersExpect) {
    const auto& c = GetParam();
    const auto m = parse(c.message);
    EXPECT_EQ(m.text, c.text);
    EXPECT_EQ(m.html.value_or(""), c.html);
    EXPECT_EQ(attachmentSummary(m), c.attachments);
    EXPECT_FALSE(m.isTruncated);
}

const std::string head = "From: a@example.com\nTo: b@example.com\nSubject: t\nMIME-Version: 1.0\n";

INSTANTIATE_TEST_SUITE_P(
    Structures, BodySelection,
    ::testing::Values(
        BodyCase{"text_only", head + "Content-Type: text/plain\n\nJust text.\n", "Just text.\n", "", ""},
        BodyCase{"no_mime_headers", "From: a@example.com\n\nOld style.\n", "Old style.\n", "", ""},
        BodyCase{"html_only",
                 head + "Content-Type: text/html\n\n<html><head><style>p{}</style></head><body>"
                        "<p>Hello&nbsp;<b>there</b></p><p>second &amp; last</p></body></html>\n",
                 "Hello there\n\nsecond & last",
                 "<html><head><style>p{}</style></head><body><p>Hello&nbsp;<b>there</b></p><p>second "
                 "&amp; last</p></body></html>\n",
                 ""},
        BodyCase{"alternative",
                 head + "Content-Type: multipart/alternative; boundary=XX\n\n--XX\n"
                        "Content-Type: text/plain\n\nplain version\n--XX\nContent-Type: text/html\n\n"
                        "<p>html version</p>\n--XX--\n",
                 "plain version", "<p>html version</p>", ""},
        BodyCase{"related_in_alternative",
                 head + "Content-Type: multipart/alternative; boundary=A\n\n--A\n"
                        "Content-Type: text/plain\n\nsee logo\n--A\n"
                        "Content-Type: multipart/related; boundary=R; type=\"text/html\"\n\n--R\n"
                        "Content-Type: text/html\n\n<img src=\"cid:logo@x\">see logo\n--R\n"
                        "Content-Type: image/png\nContent-ID: <logo@x>\nContent-Transfer-Encoding: base64\n\n"
                        "iVBORw0KGgo=\n--R--\n--A--\n",
                 "see logo", "<img src=\"cid:logo@x\">see logo",
                 "2.2 image/png attachment.png 8 cid=logo@x inline"},
        BodyCase{"mixed_with_attachment_and_footer",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                        "Content-Type: text/plain\n\nmain text\n--M\n"
                        "Content-Type: application/pdf; name=\"report.pdf\"\n"
                        "Content-Disposition: attachment; filename=\"report.pdf\"\n"
                        "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n--M\n"
                        "Content-Type: text/plain\n\n-- list footer\n--M--\n",
                 "main text\n\n-- list footer", "", "2 application/pdf report.pdf 9"},
        BodyCase{"nested_forward_inline",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                        "Content-Type: text/plain\n\nFYI\n--M\nContent-Type: message/rfc822\n\n"
                        "From: Old Sender <old@example.com>\nTo: a@example.com\nSubject: Original\n"
                        "Date: Mon, 1 Jan 2024 10:00:00 +0000\nMIME-Version: 1.0\n"
                        "Content-Type: multipart/mixed; boundary=N\n\n--N\nContent-Type: text/plain\n\n"
                        "inner text\n--N\nContent-Type: image/gif; name=x.gif\n"
                        "Content-Disposition: attachment\nContent-Transfer-Encoding: base64\n\nR0lGODdh\n"
                        "--N--\n--M--\n",
                 "FYI\n\n---------- Forwarded message ----------\nFrom: Old Sender <old@example.com>\n"
                 "Date: Mon, 1 Jan 2024 10:00:00 +0000\nSubject: Original\nTo: a@example.com\n\n\n"
                 "inner text",
                 "", "2 message/rfc822 Original.eml 332; 2.2 image/gif x.gif 6"},
        BodyCase{"forward_as_attachment_not_shown",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                        "Content-Type: text/plain\n\nsee attached\n--M\nContent-Type: message/rfc822\n"
                        "Content-Disposition: attachment; filename=\"old mail.eml\"\n\n"
                        "Subject: Original\n\ninner text\n--M--\n",
                 "see attached", "", "2 message/rfc822 old mail.eml 29"},
        BodyCase{"signed_hides_signature",
                 head + "Content-Type: multipart/signed; boundary=S; protocol=\"application/pgp-signature\"\n\n"
                        "--S\nContent-Type: text/plain\n\nsigned words\n--S\n"
                        "Content-Type: application/pgp-signature; name=signature.asc\n\nsig\n--S--\n",
                 "signed words", "", ""},
        BodyCase{"encrypted_has_no_body",
                 head + "Content-Type: multipart/encrypted; boundary=E; protocol=\"application/pgp-encrypted\"\n\n"
                        "--E\nContent-Type: application/pgp-encrypted\n\nVersion: 1\n--E\n"
                        "Content-Type: application/octet-stream; name=encrypted.asc\n\nciphertext\n--E--\n",
                 "", "",
                 "1 application/pgp-encrypted attachment 10; 2 application/octet-stream encrypted.asc 10"},
        BodyCase{"text_attachment_with_filename_is_attachment",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nbody\n"
                        "--M\nContent-Type: text/plain; name=\"notes.txt\"\n\nnotes\n--M--\n",
                 "body", "", "2 text/plain notes.txt 5"},
        BodyCase{"rfc2231_filename_and_path_stripped",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nx\n"
                        "--M\nContent-Type: application/octet-stream\n"
                        "Content-Disposition: attachment;\n filename*0*=utf-8''%C3%BCber%20;\n"
                        " filename*1=\"den Berg.txt\"\n\ndata\n--M\n"
                        "Content-Type: application/octet-stream\n"
                        "Content-Disposition: attachment; filename=\"../../etc/passwd\"\n\nroot\n"
                        "--M\nContent-Type: application/octet-stream\n"
                        "Content-Disposition: attachment; filename=\"=?utf-8?q?r=C3=A9sum=C3=A9.pdf?=\"\n\n"
                        "cv\n--M--\n",
                 "x", "",
                 "2 application/octet-stream über den Berg.txt 4; 3 application/octet-stream passwd 4; "
                 "4 application/octet-stream résumé.pdf 2"},
        BodyCase{"inline_image_in_mixed",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nphoto:\n"
                        "--M\nContent-Type: image/jpeg\nContent-Disposition: inline; filename=a.jpg\n"
                        "Content-ID: <a@b>\nContent-Transfer-Encoding: base64\n\n/9j/4AAQ\n--M--\n",
                 "photo:", "", "2 image/jpeg a.jpg 6 cid=a@b inline"},
        BodyCase{"html_and_text_pieces_in_mixed",
                 head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/html\n\n"
                        "<p>first</p>\n--M\nContent-Type: text/plain\n\nsecond <b>\n--M--\n",
                 "first\n\nsecond <b>", "<p>first</p>\n<pre>second &lt;b&gt;</pre>", ""},
        BodyCase{"top_level_attachment_only",
                 head + "Content-Type: application/pdf\nContent-Disposition: attachment; filename=x.pdf\n"
                        "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n",
                 "", "", "1 application/pdf x.pdf 9"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(MessageParserBody, HasAttachmentsIgnoresInlineResources) {
    const auto related = parse(head +
                               "Content-Type: multipart/related; boundary=R\n\n--R\nContent-Type: text/html\n\n"
                               "<img src=cid:i>\n--R\nContent-Type: image/png\nContent-ID: <i>\n\nxx\n--R--\n");
    EXPECT_FALSE(related.hasAttachments);
    EXPECT_EQ(related.attachments.size(), 1u);
    const auto mixed = parse(head +
                             "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nx\n"
                             "--M\nContent-Type: application/zip\n\nzz\n--M--\n");
    EXPECT_TRUE(mixed.hasAttachments);
}

TEST(MessageParserBody, PartListFollowsImapSectionNumbers) {
    const auto m = parse(head +
                         "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                         "Content-Type: multipart/alternative; boundary=A\n\n--A\nContent-Type: text/plain\n\nt\n"
                         "--A\nContent-Type: text/html\n\n<p>t</p>\n--A--\n--M\n"
                         "Content-Type: message/rfc822\n\nSubject: in\nContent-Type: text/plain\n\nx\n--M--\n");
    std::vector<std::string> ids;
    for (const auto& p : m.parts) ids.push_back(p.partID + " " + p.mimeType);
    EXPECT_EQ(ids, (std::vector<std::string>{"TEXT multipart/mixed", "1 multipart/alternative",
                                             "1.1 text/plain", "1.2 text/html", "2 message/rfc822",
                                             "2.1 text/plain"}));
}

// --- snippets ---

TEST(MessageParserSnippet, SkipsQuotesAttributionAndSignature) {
    const auto m = parse(head + "Content-Type: text/plain\n\nSounds good,\nsee you   there.\n\n"
                                "On Monday, Bob wrote:\n> earlier text\n> more\n\n-- \nAlice\nPhone\n");
    EXPECT_EQ(m.snippet, "Sounds good, see you there.");
}

TEST(MessageParserSnippet, HtmlOnlyMessageGetsSnippetFromRenderedText) {
    const auto m = parse(head + "Content-Type: text/html\n\n<div>\xE2\x80\x8C\xC2\xAD Big&nbsp;sale</div>"
                                "<script>var x=1;</script><p>today only</p>\n");
    EXPECT_TRUE(m.textFromHTML);
    EXPECT_EQ(m.snippet, "Big sale today only");
}

TEST(MessageParserSnippet, CutsLongTextNearAWordBoundary) {
    std::string words;
    for (int i = 0; i < 100; ++i) words += "word" + std::to_string(i) + " ";
    const auto m = parse(head + "Content-Type: text/plain\n\n" + words + "\n");
    EXPECT_LE(m.snippet.size(), 200u);
    EXPECT_GT(m.snippet.size(), 150u);
    EXPECT_NE(m.snippet.back(), ' ');
    EXPECT_EQ(words.rfind(m.snippet + " ", 0), 0u) << m.snippet;
}

// --- hostile input ---

TEST(MessageParserHostile, EmptyInputIsRefused) {
    try {
        MessageParser().parse("");
        FAIL() << "expected an error";
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "empty message");
    }
}

TEST(MessageParserHostile, MalformedStructuresStillGiveText) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"truncated_in_headers", "From: a@example.com\nSubject: cut"},
        {"truncated_in_multipart",
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nhalf a bo"},
        {"boundary_never_appears", head + "Content-Type: multipart/mixed; boundary=M\n\nno parts here\n"},
        {"missing_boundary_parameter", head + "Content-Type: multipart/mixed\n\n--x\n\nsomething\n--x--\n"},
        {"wrong_boundary", head + "Content-Type: multipart/alternative; boundary=A\n\n--B\n"
                                  "Content-Type: text/plain\n\ntext under wrong boundary\n--B--\n"},
        {"binary_garbage", "\x00\xFF\xFE\x01garbage\r\n\r\n\x80\x81"s},
        {"header_without_colon", "this is not a header\n\nbody\n"},
        {"bad_base64", head + "Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\n!!!@@@\n"},
        {"nul_in_headers", "From: a\0b@example.com\nSubject: x\0y\n\nbody\n"s},
    };
    for (const auto& [name, raw] : cases) {
        SCOPED_TRACE(name);
        const auto m = MessageParser().parse(raw);
        EXPECT_EQ(m.size, static_cast<std::int64_t>(raw.size()));
        EXPECT_TRUE(utf8::isValid(m.text));
        EXPECT_TRUE(utf8::isValid(m.subject));
        EXPECT_EQ(m.subject.find('\0'), std::string::npos);
    }
    EXPECT_NE(parse(head + "Content-Type: multipart/alternative; boundary=A\n\n--B\n"
                           "Content-Type: text/plain\n\ntext under wrong boundary\n--B--\n")
                  .text.find("text under wrong boundary"),
              std::string::npos);
}

TEST(MessageParserHostile, HundredThousandPartBombIsCutAtThePartLimit) {
    std::string raw = head + "Content-Type: multipart/mixed; boundary=B\n\n";
    for (int i = 0; i < 100000; ++i) raw += "--B\nContent-Type: application/x-a\n\nx\n";
    raw += "--B--\n";
    const auto m = MessageParser().parse(raw);
    EXPECT_TRUE(m.isTruncated);
    EXPECT_LE(m.parts.size(), 1000u);
    EXPECT_EQ(m.attachments.size(), 256u);
}

TEST(MessageParserHostile, DeepNestingStopsAtTheDepthLimit) {
    std::string raw = head;
    for (int i = 0; i < 5000; ++i) raw += "Content-Type: message/rfc822\n\nSubject: level\n";
    raw += "\ninnermost\n";
    const auto m = MessageParser().parse(raw);
    EXPECT_TRUE(m.isTruncated);
    EXPECT_LE(m.parts.size(), 1000u);

    std::string multiparts = head;
    for (int i = 0; i < 3000; ++i)
        multiparts += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\n\n--b" +
                      std::to_string(i) + "\n";
    const auto m2 = MessageParser().parse(multiparts);
    EXPECT_TRUE(m2.isTruncated);
}

TEST(MessageParserHostile, FiftyMegabyteAttachmentIsSizedNotKept) {
    std::string raw = head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\n"
                             "see file\n--M\nContent-Type: application/octet-stream; name=big.bin\n"
                             "Content-Transfer-Encoding: base64\n\n";
    const std::string line = std::string(76, 'A') + "\n";  // 57 bytes per line
    const std::size_t lines = 50 * 1024 * 1024 / 57 + 1;
    raw.reserve(raw.size() + lines * line.size() + 16);
    for (std::size_t i = 0; i < lines; ++i) raw += line;
    raw += "--M--\n";
    const auto m = MessageParser().parse(raw);
    ASSERT_EQ(m.attachments.size(), 1u);
    EXPECT_EQ(m.attachments[0].size, static_cast<std::int64_t>(lines * 57));
    EXPECT_EQ(m.text, "see file");
    EXPECT_FALSE(m.isTruncated);
}

TEST(MessageParserHostile, HugeTextBodyIsCutAtTheBodyLimit) {
    MessageParserLimits limits;
    limits.maxBodyBytes = 1000;
    std::string raw = head + "Content-Type: text/plain; charset=utf-8\n\n";
    for (int i = 0; i < 2000; ++i) raw += "\xC3\xA9";
    const auto m = MessageParser(limits).parse(raw);
    EXPECT_TRUE(m.isTruncated);
    EXPECT_LE(m.text.size(), 1000u);
    EXPECT_TRUE(utf8::isValid(m.text));
}

// --- Python's e-mail test messages ---

TEST(MessageParserCorpus, EveryPythonTestMessageParses) {
    const std::string dir = testing::pythonEmailDataDirectory();
    if (dir.empty()) GTEST_SKIP() << "libpython3.11-testsuite is not installed";
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("msg_", 0) != 0) continue;
        SCOPED_TRACE(name);
        const auto m = MessageParser().parse(testing::readFile(entry.path().string()));
        EXPECT_TRUE(utf8::isValid(m.text));
        EXPECT_TRUE(utf8::isValid(m.subject));
        EXPECT_FALSE(m.isTruncated);
        ++count;
    }
    EXPECT_GE(count, 40);
}

struct CorpusCase {
    const char* file;
    const char* subject;
    const char* textStart;    // prefix of the text
    const char* attachments;  // expected summary
};

class PythonCorpus : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(PythonCorpus, KnownMessagesReadAsExpected) {
    const std::string dir = testing::pythonEmailDataDirectory();
    if (dir.empty()) GTEST_SKIP() << "libpython3.11-testsuite is not installed";
    const auto& c = GetParam();
    const auto m = MessageParser().parse(testing::readFile(dir + "/" + c.file));
    EXPECT_EQ(m.subject, c.subject);
    EXPECT_EQ(m.text.substr(0, std::string(c.textStart).size()), c.textStart) << m.text;
    EXPECT_EQ(attachmentSummary(m), c.attachments);
}

INSTANTIATE_TEST_SUITE_P(
    Python, PythonCorpus,
    ::testing::Values(
        CorpusCase{"msg_01.txt", "This is a test message", "\nHi,\n\nDo you like this message?", ""},
        CorpusCase{"msg_07.txt", "Here is your dingus fish", "Hi there,\n\nThis is the dingus fish.",
                   "2 image/gif dingusfish.gif 3512"},
        CorpusCase{"msg_11.txt", "The enclosing message",
                   "---------- Forwarded message ----------\nSubject: An enclosed message",
                   "1 message/rfc822 An enclosed message.eml 63"},
        CorpusCase{"msg_22.txt", "", "Text text text.",
                   "2 image/jpeg wibble.JPG 272 cid=a05001902b7f1c33773e9@[134.84.183.138].0.0; "
                   "3 image/jpeg wibble2.JPG 317 cid=a05001902b7f1c33773e9@[134.84.183.138].0.1"},
        CorpusCase{"msg_44.txt", "a simple multipart", "",
                   "1 text/plain msg.txt 48; 2 text/plain msg.txt 48"},
        CorpusCase{"msg_45.txt", "test", "This is the signed contents.", "" }),
    [](const auto& param) {
        std::string n = param.param.file;
        return n.substr(0, n.find('.'));
    });

}  // namespace
}  // namespace mailcore
