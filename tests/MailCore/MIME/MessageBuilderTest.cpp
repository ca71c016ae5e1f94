// Building messages for sending and saving: what goes in comes back out of
// the parser, every line fits SMTP, and header injection is refused.
#include <gtest/gtest.h>

#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/MessageBuilder.h"
#include "MailCore/MIME/MessageParser.h"

namespace mailcore {
namespace {

ComposedMessage sampleMessage() {
    ComposedMessage m;
    m.from = {"Zoë Äpfel", "zoe@example.com"};
    m.to = {{"Bob", "bob@example.org"}, {"", "carol@example.net"}};
    m.cc = {{"Dörte, the \"boss\"", "doerte@example.de"}};
    m.bcc = {{"", "secret@example.com"}};
    m.subject = "Grüße – meeting notes 📎";
    m.date = dateFromSeconds(1700000000);
    m.messageID = "note.42@example.com";
    m.inReplyTo = {"parent@example.org"};
    m.references = {"root@example.org", "parent@example.org"};
    m.text = "Hello Bob,\n\nthe notes are attached. Ça va?\n";
    return m;
}

// Every line ends in CRLF, is at most 998 bytes, and only 7-bit characters occur.
void expectValidForSMTP(const std::string& data) {
    ASSERT_FALSE(data.empty());
    ASSERT_EQ(data.substr(data.size() - 2), "\r\n");
    std::size_t start = 0;
    bool inHeaders = true;
    while (start < data.size()) {
        const std::size_t end = data.find("\r\n", start);
        ASSERT_NE(end, std::string::npos) << "line without CRLF at " << start;
        const std::string line = data.substr(start, end - start);
        EXPECT_LE(line.size(), 998u) << line.substr(0, 80);
        if (inHeaders) {
            EXPECT_LE(line.size(), 78u) << line;
        }
        if (line.empty()) inHeaders = false;
        EXPECT_EQ(line.find('\r'), std::string::npos);
        EXPECT_EQ(line.find('\n'), std::string::npos);
        for (char c : line) ASSERT_LT(static_cast<unsigned char>(c), 0x80u) << line;
        start = end + 2;
    }
}

TEST(MessageBuilder, RoundTripGivesBackTheSameFieldsBodiesAndAttachments) {
    const ComposedMessage plain = sampleMessage();
    ComposedMessage in = plain;
    in.html = "<p>Hello <b>Bob</b> – Ça va?</p>\n";
    std::string binary;
    for (int i = 0; i < 5000; ++i) binary += static_cast<char>(i * 7 % 256);
    in.attachments.push_back({"Übersicht März 2024 – final version with a long name.pdf",
                              "application/pdf", binary, std::nullopt, false});
    in.attachments.push_back({"logo.png", "image/png", "\x89PNG\r\n", std::string("logo@x"), true});
    in.attachments.push_back(
        {"notes.txt", "text/plain", std::string(3000, 'x'), std::nullopt, false});
    for (const ComposedMessage& m : {plain, in}) {
        const BuiltMessage built = MessageBuilder::build(m);
        expectValidForSMTP(built.data);
        EXPECT_EQ(built.messageID, "note.42@example.com");
        const ParsedMessage out = MessageParser().parse(built.data);
        EXPECT_EQ(out.from, std::vector<MailAddress>{m.from});
        EXPECT_EQ(out.to, m.to);
        EXPECT_EQ(out.cc, m.cc);
        EXPECT_TRUE(out.bcc.empty());  // never handed to SMTP
        EXPECT_EQ(out.subject, m.subject);
        ASSERT_TRUE(out.date.has_value());
        EXPECT_EQ(secondsSince1970(*out.date), 1700000000.0);
        EXPECT_EQ(out.messageID, "note.42@example.com");
        EXPECT_EQ(out.inReplyTo, m.inReplyTo);
        EXPECT_EQ(out.references, m.references);
        EXPECT_EQ(out.text, m.text);
        EXPECT_EQ(out.html, m.html);
        EXPECT_EQ(out.attachments.size(), m.attachments.size());
        EXPECT_EQ(out.hasAttachments, !m.attachments.empty());
    }
    const ParsedMessage out = MessageParser().parse(MessageBuilder::build(in).data);
    ASSERT_EQ(out.attachments.size(), 3u);
    EXPECT_EQ(out.attachments[0].filename, in.attachments[0].filename);
    EXPECT_EQ(out.attachments[0].mimeType, "application/pdf");
    EXPECT_EQ(out.attachments[0].size, 5000);
    EXPECT_EQ(out.attachments[0].partID, "2");
    EXPECT_FALSE(out.attachments[0].isInline);
    EXPECT_EQ(out.attachments[1].contentID, "logo@x");
    EXPECT_TRUE(out.attachments[1].isInline);
    EXPECT_EQ(out.attachments[1].size, 6);
    EXPECT_EQ(out.attachments[2].size, 3000);
}

TEST(MessageBuilder, LongLinesAndManyReferencesStayWithinLineLimits) {
    ComposedMessage in = sampleMessage();
    in.text = std::string(5000, 'a') + "\n" + "line with trailing space \nend";
    in.subject = "";
    for (int i = 0; i < 40; ++i) in.subject += "word" + std::to_string(i) + " ";
    in.subject += "ünïcödé";
    in.references.clear();
    for (int i = 0; i < 30; ++i)
        in.references.push_back("ref" + std::to_string(i) + "@example.org");
    const BuiltMessage built = MessageBuilder::build(in);
    expectValidForSMTP(built.data);
    const ParsedMessage out = MessageParser().parse(built.data);
    EXPECT_TRUE(out.text == in.text + "\n") << "a final line break is added, nothing else changes";
    EXPECT_EQ(out.subject, in.subject);
    EXPECT_EQ(out.references, in.references);
}

TEST(MessageBuilder, DraftsKeepBccAndMissingIdentifiersAreMade) {
    ComposedMessage in = sampleMessage();
    in.messageID.clear();
    const BuiltMessage built = MessageBuilder::build(in, MessageBuildOptions{.includeBcc = true});
    const ParsedMessage out = MessageParser().parse(built.data);
    EXPECT_EQ(out.bcc, in.bcc);
    EXPECT_EQ(out.messageID, built.messageID);
    EXPECT_NE(built.messageID.find("@example.com"), std::string::npos);
    EXPECT_NE(MessageBuilder::build(in).messageID, built.messageID);
}

TEST(MessageBuilder, RefusesHeaderInjectionAndBadAddresses) {
    const std::vector<std::pair<std::string, std::function<void(ComposedMessage&)>>> cases = {
        {"missing from address", [](ComposedMessage& m) { m.from = {}; }},
        {"header contains a line break",
         [](ComposedMessage& m) { m.subject = "hi\r\nBcc: victim@example.com"; }},
        {"header contains a line break", [](ComposedMessage& m) { m.to[0].name = "x\ny"; }},
        {"invalid address: bob@example.org\r\nX: y",
         [](ComposedMessage& m) { m.to[0].email = "bob@example.org\r\nX: y"; }},
        {"invalid address: not-an-address",
         [](ComposedMessage& m) { m.cc[0].email = "not-an-address"; }},
        {"invalid message id", [](ComposedMessage& m) { m.messageID = "has space@x"; }},
        {"invalid message id", [](ComposedMessage& m) { m.references = {"<bracketed@x>"}; }},
    };
    for (const auto& [detail, mutate] : cases) {
        SCOPED_TRACE(detail);
        ComposedMessage m = sampleMessage();
        mutate(m);
        try {
            MessageBuilder::build(m);
            ADD_FAILURE() << "expected an error";
        } catch (const MailError& e) {
            EXPECT_EQ(e.errorCase(), MailError::Case::protocolViolation);
            EXPECT_EQ(e.detail(), detail);
        }
    }
}

TEST(MessageBuilder, ReplyHeadersFollowTheParent) {
    ComposedMessage reply = sampleMessage();
    setReplyHeaders(reply, std::string("p@x"), {"root@x", "mid@x"}, {"mid@x"});
    EXPECT_EQ(reply.inReplyTo, std::vector<std::string>{"p@x"});
    EXPECT_EQ(reply.references, (std::vector<std::string>{"root@x", "mid@x", "p@x"}));

    setReplyHeaders(reply, std::string("p@x"), {}, {"only-parent-of-parent@x"});
    EXPECT_EQ(reply.references, (std::vector<std::string>{"only-parent-of-parent@x", "p@x"}));

    std::vector<std::string> longChain;
    for (int i = 0; i < 50; ++i) longChain.push_back("r" + std::to_string(i) + "@x");
    setReplyHeaders(reply, std::string("p@x"), longChain, {});
    ASSERT_EQ(reply.references.size(), 20u);
    EXPECT_EQ(reply.references.front(), "r0@x");
    EXPECT_EQ(reply.references.back(), "p@x");

    setReplyHeaders(reply, std::nullopt, {}, {});
    EXPECT_TRUE(reply.inReplyTo.empty());
    EXPECT_TRUE(reply.references.empty());
}

}  // namespace
}  // namespace mailcore
