#include <gtest/gtest.h>

#include <random>
#include <string>

#include "MailCore/Common/UTF8.h"
#include "MailCore/IMAP/ModifiedUTF7.h"

namespace mailcore {
namespace {

struct EncodingCase {
    std::string text;
    std::string wire;
};

TEST(ModifiedUTF7Test, EncodesAndDecodesKnownNames) {
    const EncodingCase cases[] = {
        {"INBOX", "INBOX"},
        {"", ""},
        {"Tom & Jerry", "Tom &- Jerry"},
        {"&", "&-"},
        {"&&", "&-&-"},
        {"Entwürfe", "Entw&APw-rfe"},
        {"Входящие", "&BBIERQQ+BDQETwRJBDgENQ-"},
        {"~peter/mail/台北/日本語", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
        {"Ideas 😀", "Ideas &2D3eAA-"},
        {"日本語😀", "&ZeVnLIqe2D3eAA-"},  // one run across planes
        {"é-é", "&AOk--&AOk-"},           // a hyphen right after a run
        {"a\tb", "a&AAk-b"},              // controls go into a run too
        {"\x7f", "&AH8-"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ModifiedUTF7::encode(c.text), c.wire) << c.text;
        EXPECT_EQ(ModifiedUTF7::decode(c.wire), c.text) << c.wire;
    }
}

TEST(ModifiedUTF7Test, MixedTextYieldsOneRunPerNonASCIIStretch) {
    EXPECT_EQ(ModifiedUTF7::encode("Grüße aus Köln"), "Gr&APwA3w-e aus K&APY-ln");
}

TEST(ModifiedUTF7Test, InvalidUTF8IsEncodedAsReplacementCharacter) {
    EXPECT_EQ(ModifiedUTF7::encode("a\xff"
                                   "b"),
              "a&,,0-b");
    EXPECT_EQ(ModifiedUTF7::decode("a&,,0-b"),
              "a\xEF\xBF\xBD"
              "b");
}

TEST(ModifiedUTF7Test, MalformedSequencesPassThroughUnchanged) {
    const char* const unchanged[] = {
        "Trailing &",         // no closing hyphen
        "Half &ZeVnLIqe",     // letters without a closing hyphen
        "Bang &AG!-",         // character outside the alphabet
        "Slash &U/BTFw-",     // '/' belongs to standard base64 only
        "Pad &AOk=-",         // '=' is never accepted
        "Odd &AOkA-",         // three bytes: odd count
        "Odd &AA-",           // one byte
        "Lone high &2D0-",    // unpaired high surrogate
        "Lone low &3gA-",     // unpaired low surrogate
        "Reversed &3gDYPQ-",  // low then high
        "Newline &AAo-",      // line feed
        "Return &AA0-",       // carriage return
        "Nul &AAA-",          // NUL
        "Mixed &AGEACg-",     // 'a' then line feed: the whole run stays
    };
    for (const char* text : unchanged) EXPECT_EQ(ModifiedUTF7::decode(text), text) << text;
}

TEST(ModifiedUTF7Test, DecodingContinuesAfterAMalformedRun) {
    EXPECT_EQ(ModifiedUTF7::decode("&AG!-&APw-&-"), "&AG!-ü&");
    // The next hyphen closes the run, even when it comes much later.
    EXPECT_EQ(ModifiedUTF7::decode("&APw x-y"), "&APw x-y");
}

TEST(ModifiedUTF7Test, ShiftedRunWithFewerThanEightBitsDecodesToNothing) {
    // Six bits make no byte: an even (zero) byte count of valid, empty text.
    EXPECT_EQ(ModifiedUTF7::decodeShifted("A"), std::string());
    EXPECT_EQ(ModifiedUTF7::decode("x&A-y"), "xy");
}

TEST(ModifiedUTF7Test, InvalidUTF8OutsideRunsIsRepairedOnDecode) {
    EXPECT_EQ(ModifiedUTF7::decode("caf\xe9"), "caf\xEF\xBF\xBD");
    EXPECT_EQ(ModifiedUTF7::decode("ok \xE2\x82\xAC"), "ok \xE2\x82\xAC");
}

// Random scalars from every plane, weighted towards the characters that
// exercise the encoder: '&', '-', ASCII, astral. NUL, CR and LF are left out:
// a decoder must refuse them, so they cannot round-trip.
std::string randomText(std::mt19937& rng) {
    std::uniform_int_distribution<int> length(0, 24);
    std::uniform_int_distribution<int> kind(0, 9);
    std::string text;
    int n = length(rng);
    for (int i = 0; i < n; ++i) {
        char32_t c = 0;
        switch (kind(rng)) {
            case 0:
                c = '&';
                break;
            case 1:
                c = '-';
                break;
            case 2:
            case 3:
                c = std::uniform_int_distribution<char32_t>(0x20, 0x7E)(rng);
                break;
            case 4:
                c = std::uniform_int_distribution<char32_t>(0x01, 0x1F)(rng);
                break;
            case 5:
                c = std::uniform_int_distribution<char32_t>(0x7F, 0x7FF)(rng);
                break;
            case 6:
                c = std::uniform_int_distribution<char32_t>(0x800, 0xD7FF)(rng);
                break;
            case 7:
                c = std::uniform_int_distribution<char32_t>(0xE000, 0xFFFF)(rng);
                break;
            default:
                c = std::uniform_int_distribution<char32_t>(0x10000, 0x10FFFF)(rng);
                break;
        }
        if (c == '\n' || c == '\r') c = '&';
        utf8::append(text, c);
    }
    return text;
}

TEST(ModifiedUTF7Test, DecodeOfEncodeIsIdentityForRandomUnicode) {
    std::mt19937 rng(20261121);
    for (int i = 0; i < 20000; ++i) {
        std::string text = randomText(rng);
        std::string wire = ModifiedUTF7::encode(text);
        for (char c : wire) {
            ASSERT_TRUE(c >= 0x20 && c <= 0x7E) << "non-printable on the wire for " << wire;
        }
        ASSERT_EQ(ModifiedUTF7::decode(wire), text) << wire;
    }
}

}  // namespace
}  // namespace mailcore
