// Mailbox names on the wire: modified UTF-7 both ways, and the quoted form
// commands carry.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/IMAP/IMAPQuote.h"
#include "MailCore/IMAP/ModifiedUTF7.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

const std::string fffd(utf8::replacementCharacter);

TEST(ModifiedUTF7Test, EncodesAndDecodesKnownNames) {
    const std::pair<std::string, std::string> cases[] = {
        {"INBOX", "INBOX"},
        {"", ""},
        {"Tom & Jerry", "Tom &- Jerry"},
        {"&&", "&-&-"},
        {"Entwürfe", "Entw&APw-rfe"},
        {"Grüße aus Köln", "Gr&APwA3w-e aus K&APY-ln"},  // one run per non-ASCII stretch
        {"Входящие", "&BBIERQQ+BDQETwRJBDgENQ-"},
        {"~peter/mail/台北/日本語", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
        {"Ideas 😀", "Ideas &2D3eAA-"},
        {"日本語😀", "&ZeVnLIqe2D3eAA-"},  // one run across planes
        {"é-é", "&AOk--&AOk-"},           // a hyphen right after a run
        {"a\tb", "a&AAk-b"},              // controls go into a run too
        {"\x7f", "&AH8-"},
        {"a" + fffd + "b", "a&,,0-b"},
    };
    for (const auto& [text, wire] : cases) {
        EXPECT_EQ(ModifiedUTF7::encode(text), wire) << text;
        EXPECT_EQ(ModifiedUTF7::decode(wire), text) << wire;
    }
    EXPECT_EQ(ModifiedUTF7::encode("a\xff"
                                   "b"),
              "a&,,0-b");  // invalid UTF-8 encodes as U+FFFD
}

TEST(ModifiedUTF7Test, MalformedRunsPassThroughAndInvalidUTF8IsRepaired) {
    const std::pair<std::string, std::string> cases[] = {
        {"Trailing &", "Trailing &"},          // no closing hyphen
        {"Half &ZeVnLIqe", "Half &ZeVnLIqe"},  // letters without a closing hyphen
        {"Bang &AG!-", "Bang &AG!-"},          // character outside the alphabet
        {"Slash &U/BTFw-", "Slash &U/BTFw-"},  // '/' belongs to standard base64 only
        {"Pad &AOk=-", "Pad &AOk=-"},          // '=' is never accepted
        {"Odd &AOkA-", "Odd &AOkA-"},          // three bytes: odd count
        {"Odd &AA-", "Odd &AA-"},              // one byte
        {"Lone high &2D0-", "Lone high &2D0-"},
        {"Lone low &3gA-", "Lone low &3gA-"},
        {"Reversed &3gDYPQ-", "Reversed &3gDYPQ-"},
        {"Newline &AAo-", "Newline &AAo-"},  // line feed, carriage return, NUL refused
        {"Return &AA0-", "Return &AA0-"},
        {"Nul &AAA-", "Nul &AAA-"},
        {"Mixed &AGEACg-", "Mixed &AGEACg-"},  // 'a' then line feed: the whole run stays
        {"&AG!-&APw-&-", "&AG!-ü&"},           // decoding goes on after a malformed run
        {"&APw x-y", "&APw x-y"},              // the next hyphen closes the run
        {"x&A-y", "xy"},                       // six bits make no byte: empty text
        {"caf\xe9", "caf" + fffd},
        {"ok \xE2\x82\xAC", "ok \xE2\x82\xAC"},
    };
    for (const auto& [wire, text] : cases) EXPECT_EQ(ModifiedUTF7::decode(wire), text) << wire;
    EXPECT_EQ(ModifiedUTF7::decodeShifted("A"), std::string());
}

// Random scalars from every plane, weighted towards the characters that
// exercise the encoder: '&', '-', ASCII, astral. NUL, CR and LF are left out:
// a decoder must refuse them, so they cannot round-trip.
TEST(ModifiedUTF7Test, DecodeOfEncodeIsIdentityForRandomUnicode) {
    const std::pair<char32_t, char32_t> ranges[] = {
        {'&', '&'},    {'-', '-'},      {0x20, 0x7E},     {0x20, 0x7E},        {0x01, 0x1F},
        {0x7F, 0x7FF}, {0x800, 0xD7FF}, {0xE000, 0xFFFF}, {0x10000, 0x10FFFF}, {0x10000, 0x10FFFF}};
    std::mt19937 rng(20261121);
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (int n = std::uniform_int_distribution<int>(0, 24)(rng); n > 0; --n) {
            const auto& [low, high] = ranges[rng() % std::size(ranges)];
            char32_t c = std::uniform_int_distribution<char32_t>(low, high)(rng);
            utf8::append(text, c == '\n' || c == '\r' ? U'&' : c);
        }
        const std::string wire = ModifiedUTF7::encode(text);
        for (char c : wire) ASSERT_TRUE(c >= 0x20 && c <= 0x7E) << "non-printable: " << wire;
        ASSERT_EQ(ModifiedUTF7::decode(wire), text) << wire;
    }
}

TEST(IMAPQuoteTest, QuotedEscapesQuotesAndBackslashesAndRefusesLineBreaks) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"INBOX", "\"INBOX\""},
        {"", "\"\""},
        {"say \"hi\"", "\"say \\\"hi\\\"\""},
        {"a\\b", "\"a\\\\b\""},
        {"Grüße", "\"Grüße\""},  // UTF-8 inside the quotes
        {"tab\there", "\"tab\there\""},
        {"line\nbreak", std::nullopt},
        {"carriage\rreturn", std::nullopt},
        {std::string("nul\0byte", 8), std::nullopt},
    };
    for (const auto& [text, quoted] : cases) EXPECT_EQ(IMAPQuote::quoted(text), quoted) << text;
}

TEST(IMAPQuoteTest, MailboxIsEncodedThenQuotedAndControlsAreRefused) {
    EXPECT_EQ(IMAPQuote::mailbox("Tom & \"Jerry\""), "\"Tom &- \\\"Jerry\\\"\"");
    EXPECT_EQ(IMAPQuote::mailbox("Archiv/Entwürfe"), "\"Archiv/Entw&APw-rfe\"");
    EXPECT_EQ(IMAPQuote::mailbox("back\\slash"), "\"back\\\\slash\"");
    const MailError invalid =
        MailError::protocolViolation(ProtocolIssueKind::invalidInput, "invalid mailbox name");
    for (const std::string& name :
         {std::string(), std::string("tab\tname"), std::string("new\nline"),
          std::string("nul\0", 4), std::string("del\x7f"), std::string("us\x1f")}) {
        EXPECT_EQ(testfiles::caught<MailError>([&] { IMAPQuote::mailbox(name); }), invalid) << name;
    }
}

}  // namespace
}  // namespace mailcore
