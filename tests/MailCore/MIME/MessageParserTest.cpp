// Parsing messages into what the store keeps: headers, charsets, body
// choice, attachments, snippets, hostile structures and a real corpus.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "MIMETestSupport.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/MIMEText.h"
#include "MailCore/MIME/MessageParser.h"

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

TEST(MessageParserHeaders, SubjectsDecodeToUTF8) {
    const std::pair<std::string, std::string> cases[] = {
        {"Hello world", "Hello world"},
        {"=?UTF-8?B?R3LDvMOfZSBhdXMgS8O2bG4=?=", "Grüße aus Köln"},      // base64 utf8
        {"=?iso-8859-1?Q?Caf=E9_cr=E8me?=", "Café crème"},               // q latin1
        {"=?utf-8?q?Hal?= =?utf-8?q?lo?=", "Hallo"},                     // adjacent words join
        {"Re: =?utf-8?b?0J/RgNC40LLQtdGC?= there", "Re: Привет there"},  // mixed with plain
        {"first\n second", "first second"},                              // folded
        {"Gr\xC3\xBC\xC3\x9F"
         "e",
         "Grüße"},  // raw utf8 header
        {"Gr\xFC\xDF"
         "e",
         "Grüße"},                                                       // raw latin1 header
        {"=?x-unknown-thing?Q?abc?=", "abc"},                            // unknown charset word
        {"=?shift_jis?B?k/qWe4zq?=", "日本語"},                          // shift jis word
        {"=?utf-8?B?not base64 at all", "=?utf-8?B?not base64 at all"},  // broken word kept
    };
    for (const auto& [header, expected] : cases) {
        EXPECT_EQ(parse("From: a@example.com\nSubject: " + header + "\n\nbody\n").subject, expected)
            << header;
    }
}

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
    EXPECT_EQ(m.references, (std::vector<std::string>{"root@example.com", "mid@example.com",
                                                      "parent@example.com"}));
    ASSERT_TRUE(m.date.has_value());
    EXPECT_EQ(secondsSince1970(*m.date), 1000181105.0);
}

TEST(MessageParserHeaders, MissingOrBrokenDateAndIdentifiersAreAbsent) {
    const auto m =
        parse("From: a@example.com\nDate: yesterday-ish\nReferences: <a b@x> <ok@x>\n\nbody\n");
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

TEST(MessageParserCharsets, TextBecomesUTF8) {
    const CharsetCase cases[] = {
        {"latin1_qp", "; charset=iso-8859-1", "quoted-printable", "Gr=FC=DFe\n", "Grüße\n"},
        {"windows1252_quotes", "; charset=windows-1252", "8bit", "\x93hi\x94 \x80\n", "“hi” €\n"},
        {"latin1_label_on_utf8", "; charset=iso-8859-1", "8bit",
         "Gr\xC3\xBC\xC3\x9F"
         "e\n",
         "Grüße\n"},
        {"utf8_label_on_latin1", "; charset=utf-8", "8bit",
         "Gr\xFC\xDF"
         "e\n",
         "Grüße\n"},
        {"no_label_8bit", "", "8bit", "caf\xE9\n", "café\n"},
        {"koi8r", "; charset=koi8-r", "8bit", "\xF0\xD2\xC9\xD7\xC5\xD4\n", "Привет\n"},
        {"shift_jis_base64", "; charset=shift_jis", "base64", "k/qWe4zq\n", "日本語"},
        {"utf16_base64", "; charset=utf-16", "base64", "//5oAGkA\n", "hi"},
        {"unknown_charset", "; charset=x-no-such-charset", "8bit", "plain \xC3\xA9\n", "plain é\n"},
        {"invalid_sequence_in_sjis", "; charset=shift_jis", "8bit",
         "a\x81\xFF"
         "b\n",
         "a\xEF\xBF\xBD\xEF\xBF\xBD"
         "b\n"},
        {"crlf_to_lf_and_nul_dropped", "; charset=us-ascii", "7bit", "one\ntw\0o\n"s, "one\ntwo\n"},
    };
    for (const auto& c : cases) {
        const auto m =
            parse("From: a@example.com\nMIME-Version: 1.0\nContent-Type: text/plain" +
                  c.charsetParam + "\nContent-Transfer-Encoding: " + c.encoding + "\n\n" + c.body);
        EXPECT_EQ(m.text, c.expected) << c.name;
    }
}

// --- body selection ---

struct BodyCase {
    const char* name;
    std::string message;
    std::string text;         // expected plain text
    std::string html;         // expected HTML ("" = none)
    std::string attachments;  // expected attachment summary
};

const std::string head = "From: a@example.com\nTo: b@example.com\nSubject: t\nMIME-Version: 1.0\n";

TEST(MessageParserBody, ChoosesWhatReadersExpect) {
    const BodyCase cases[] = {
        {"text_only", head + "Content-Type: text/plain\n\nJust text.\n", "Just text.\n", "", ""},
        {"no_mime_headers", "From: a@example.com\n\nOld style.\n", "Old style.\n", "", ""},
        {"html_only",
         head + "Content-Type: text/html\n\n<html><head><style>p{}</style></head><body>"
                "<p>Hello&nbsp;<b>there</b></p><p>second &amp; last</p></body></html>\n",
         "Hello there\nsecond & last",
         "<html><head><style>p{}</style></head><body><p>Hello&nbsp;<b>there</b></p><p>second "
         "&amp; last</p></body></html>\n",
         ""},
        {"alternative",
         head + "Content-Type: multipart/alternative; boundary=XX\n\n--XX\n"
                "Content-Type: text/plain\n\nplain version\n--XX\nContent-Type: text/html\n\n"
                "<p>html version</p>\n--XX--\n",
         "plain version", "<p>html version</p>", ""},
        {"related_in_alternative",
         head +
             "Content-Type: multipart/alternative; boundary=A\n\n--A\n"
             "Content-Type: text/plain\n\nsee logo\n--A\n"
             "Content-Type: multipart/related; boundary=R; type=\"text/html\"\n\n--R\n"
             "Content-Type: text/html\n\n<img src=\"cid:logo@x\">see logo\n--R\n"
             "Content-Type: image/png\nContent-ID: <logo@x>\nContent-Transfer-Encoding: base64\n\n"
             "iVBORw0KGgo=\n--R--\n--A--\n",
         "see logo", "<img src=\"cid:logo@x\">see logo",
         "2.2 image/png attachment.png 8 cid=logo@x inline"},
        {"mixed_with_attachment_and_footer",
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                "Content-Type: text/plain\n\nmain text\n--M\n"
                "Content-Type: application/pdf; name=\"report.pdf\"\n"
                "Content-Disposition: attachment; filename=\"report.pdf\"\n"
                "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n--M\n"
                "Content-Type: text/plain\n\n-- list footer\n--M--\n",
         "main text\n\n-- list footer", "", "2 application/pdf report.pdf 9"},
        {"nested_forward_inline",
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
        {"forward_as_attachment_not_shown",
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\n"
                "Content-Type: text/plain\n\nsee attached\n--M\nContent-Type: message/rfc822\n"
                "Content-Disposition: attachment; filename=\"old mail.eml\"\n\n"
                "Subject: Original\n\ninner text\n--M--\n",
         "see attached", "", "2 message/rfc822 old mail.eml 29"},
        {"signed_hides_signature",
         head + "Content-Type: multipart/signed; boundary=S; "
                "protocol=\"application/pgp-signature\"\n\n"
                "--S\nContent-Type: text/plain\n\nsigned words\n--S\n"
                "Content-Type: application/pgp-signature; name=signature.asc\n\nsig\n--S--\n",
         "signed words", "", ""},
        {"encrypted_has_no_body",
         head + "Content-Type: multipart/encrypted; boundary=E; "
                "protocol=\"application/pgp-encrypted\"\n\n"
                "--E\nContent-Type: application/pgp-encrypted\n\nVersion: 1\n--E\n"
                "Content-Type: application/octet-stream; name=encrypted.asc\n\nciphertext\n--E--\n",
         "", "",
         "1 application/pgp-encrypted attachment 10; 2 application/octet-stream encrypted.asc 10"},
        {"text_attachment_with_filename_is_attachment",
         head +
             "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\nbody\n"
             "--M\nContent-Type: text/plain; name=\"notes.txt\"\n\nnotes\n--M--\n",
         "body", "", "2 text/plain notes.txt 5"},
        {"rfc2231_filename_and_path_stripped",
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
        {"inline_image_in_mixed",
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: "
                "text/plain\n\nphoto:\n"
                "--M\nContent-Type: image/jpeg\nContent-Disposition: inline; filename=a.jpg\n"
                "Content-ID: <a@b>\nContent-Transfer-Encoding: base64\n\n/9j/4AAQ\n--M--\n",
         "photo:", "", "2 image/jpeg a.jpg 6 cid=a@b inline"},
        {"html_and_text_pieces_in_mixed",
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/html\n\n"
                "<p>first</p>\n--M\nContent-Type: text/plain\n\nsecond <b>\n--M--\n",
         "first\n\nsecond <b>", "<p>first</p>\n<pre>second &lt;b&gt;</pre>", ""},
        {"top_level_attachment_only",
         head + "Content-Type: application/pdf\nContent-Disposition: attachment; filename=x.pdf\n"
                "Content-Transfer-Encoding: base64\n\nJVBERi0xLjQK\n",
         "", "", "1 application/pdf x.pdf 9"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto m = parse(c.message);
        EXPECT_EQ(m.text, c.text);
        EXPECT_EQ(m.html.value_or(""), c.html);
        EXPECT_EQ(attachmentSummary(m), c.attachments);
        EXPECT_FALSE(m.isTruncated);
        // Inline resources (a logo in a related part) do not count as attachments.
        EXPECT_EQ(m.hasAttachments, std::any_of(m.attachments.begin(), m.attachments.end(),
                                                [](const auto& a) { return !a.isInline; }));
    }
}

TEST(MessageParserBody, PartListFollowsImapSectionNumbers) {
    const auto m = parse(
        head +
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

TEST(MessageParserSnippet, ComesFromTheVisibleTextAndEndsAtAWord) {
    auto m = parse(head +
                   "Content-Type: text/plain\n\nSounds good,\nsee you   there.\n\n"
                   "On Monday, Bob wrote:\n> earlier text\n> more\n\n-- \nAlice\nPhone\n");
    EXPECT_EQ(m.snippet, "Sounds good, see you there.");  // no quote, attribution or signature
    m = parse(head +
              "Content-Type: text/html\n\n<div>\xE2\x80\x8C\xC2\xAD Big&nbsp;sale</div>"
              "<script>var x=1;</script><p>today only</p>\n");
    EXPECT_TRUE(m.textFromHTML);
    EXPECT_EQ(m.snippet, "Big sale today only");
    std::string words;
    for (int i = 0; i < 100; ++i) words += "word" + std::to_string(i) + " ";
    m = parse(head + "Content-Type: text/plain\n\n" + words + "\n");
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
         head + "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: "
                "text/plain\n\nhalf a bo"},
        {"boundary_never_appears",
         head + "Content-Type: multipart/mixed; boundary=M\n\nno parts here\n"},
        {"missing_boundary_parameter",
         head + "Content-Type: multipart/mixed\n\n--x\n\nsomething\n--x--\n"},
        {"wrong_boundary", head + "Content-Type: multipart/alternative; boundary=A\n\n--B\n"
                                  "Content-Type: text/plain\n\ntext under wrong boundary\n--B--\n"},
        {"binary_garbage", "\x00\xFF\xFE\x01garbage\r\n\r\n\x80\x81"s},
        {"header_without_colon", "this is not a header\n\nbody\n"},
        {"bad_base64",
         head + "Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\n!!!@@@\n"},
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
    std::string raw =
        head +
        "Content-Type: multipart/mixed; boundary=M\n\n--M\nContent-Type: text/plain\n\n"
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

struct CorpusCase {
    const char* subject;
    const char* textStart;    // prefix of the text
    const char* attachments;  // expected summary
};

TEST(MessageParserCorpus, EveryPythonTestMessageParsesAndKnownOnesReadAsExpected) {
    const std::string dir = testing::pythonEmailDataDirectory();
    if (dir.empty()) GTEST_SKIP() << "libpython3.11-testsuite is not installed";
    const std::map<std::string, CorpusCase> known = {
        {"msg_01.txt", {"This is a test message", "\nHi,\n\nDo you like this message?", ""}},
        {"msg_07.txt",
         {"Here is your dingus fish", "Hi there,\n\nThis is the dingus fish.",
          "2 image/gif dingusfish.gif 3512"}},
        {"msg_11.txt",
         {"The enclosing message",
          "---------- Forwarded message ----------\nSubject: An enclosed message",
          "1 message/rfc822 An enclosed message.eml 63"}},
        {"msg_22.txt",
         {"", "Text text text.",
          "2 image/jpeg wibble.JPG 272 cid=a05001902b7f1c33773e9@[134.84.183.138].0.0; "
          "3 image/jpeg wibble2.JPG 317 cid=a05001902b7f1c33773e9@[134.84.183.138].0.1"}},
        {"msg_44.txt",
         {"a simple multipart", "", "1 text/plain msg.txt 48; 2 text/plain msg.txt 48"}},
        {"msg_45.txt", {"test", "This is the signed contents.", ""}},
    };
    int count = 0;
    std::size_t checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("msg_", 0) != 0) continue;
        SCOPED_TRACE(name);
        const auto m = MessageParser().parse(testing::readFile(entry.path().string()));
        EXPECT_TRUE(utf8::isValid(m.text));
        EXPECT_TRUE(utf8::isValid(m.subject));
        EXPECT_FALSE(m.isTruncated);
        ++count;
        if (auto c = known.find(name); c != known.end()) {
            EXPECT_EQ(m.subject, c->second.subject);
            EXPECT_EQ(m.text.substr(0, std::string(c->second.textStart).size()),
                      c->second.textStart)
                << m.text;
            EXPECT_EQ(attachmentSummary(m), c->second.attachments);
            ++checked;
        }
    }
    EXPECT_GE(count, 40);
    EXPECT_EQ(checked, known.size());
}

}  // namespace
}  // namespace mailcore
