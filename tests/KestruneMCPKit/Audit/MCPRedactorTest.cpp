#include <gtest/gtest.h>

#include "KestruneMCPKit/Audit/MCPRedactor.h"
#include "KestruneMCPKit/Tokens/MCPToken.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit {
namespace {

using MCPRedactor::scrub;

TEST(MCPRedactorTest, ReplacementsApplyInOrder) {
    const std::string token = MCPToken::generate();
    struct Row {
        std::string in, out;
    };
    const Row rows[] = {
        {"used " + token + " here", "used [token] here"},
        {"kmt_abcdefgh", "[token]"},
        {"kmt_abcdefg", "kmt_abcdefg"},  // seven characters: too short for a token
        {"Authorization: Bearer abc.def-ghi_jkl~", "Authorization: [token]"},
        {"BEARER \t abcdefgh", "[token]"},
        {"bearer abcdefg", "bearer abcdefg"},
        // The token step runs first, so the bearer step finds nothing left.
        {"Bearer " + token, "Bearer [token]"},
        {"key sk-abcdefghijkl end", "key [secret] end"},
        {"key sk-abcdefghijk end", "key sk-abcdefghijk end"},
        {"ghp_ABCDEFGHIJKL1234 gho_abcdefghijklmn", "[secret] [secret]"},
        {"XOXB-123456789012", "[secret]"},
        {"PK_live_abcdefghijkl", "[secret]"},
        {"task-abcdefghijklmnop", "task-abcdefghijklmnop"},  // no word boundary before "sk"
        {"mail alice.smith+x@example.co.uk now", "mail [email] now"},
        {"a@b.cc", "[email]"},
        {"not@an-address", "not@an-address"},
        // The e-mail step runs before the long-run step.
        {std::string(40, 'a') + "@example.com", "[email]"},
        {"key " + std::string(32, 'Q') + "== end", "key [redacted] end"},
        {"key " + std::string(31, 'Q') + " end", "key " + std::string(31, 'Q') + " end"},
        {"path /usr/local/lib/x86_64-linux-gnu/libfoo", "path [redacted]"},
        {"a\r\n\tb", "a b"},
        {"a\n\nb\tc", "a b c"},
        {"", ""},
        {"plain text, nothing secret.", "plain text, nothing secret."},
    };
    for (const auto& row : rows) EXPECT_EQ(scrub(row.in, 200), row.out) << row.in;
}

TEST(MCPRedactorTest, DropsControlAndDirectionCharacters) {
    const std::string in = std::string("a\x01") + '\0' + "b\x7f c\v\f\x1b" +
                           "\xC2\x85"        // U+0085 next line
                           "d\xE2\x80\xAE"   // U+202E right-to-left override
                           "e\xE2\x80\xA8"   // U+2028 line separator
                           "f\xE2\x81\xA6"   // U+2066 left-to-right isolate
                           "g\xE2\x80\x8F";  // U+200F right-to-left mark
    EXPECT_EQ(scrub(in, 200), "ab cdefg");
    EXPECT_EQ(scrub("caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC", 200),
              "caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC");
    EXPECT_EQ(scrub("a\xff"
                    "b\xC3",
                    200),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
    // A control character inside a secret does not hide it.
    EXPECT_EQ(scrub(std::string("kmt_abc\x01"
                                "defgh"),
                    200),
              "[token]");
    EXPECT_EQ(scrub(std::string("ghp_abc") + '\0' + "defghijklm", 200), "[secret]");
}

TEST(MCPRedactorTest, CutsToTheLimitInCharactersWithAnEllipsis) {
    std::string words;
    while (words.size() < 500) words += "ab ";
    words.resize(500);
    const std::string cut = scrub(words, 200);
    EXPECT_EQ(cut, words.substr(0, 200) + "...");

    std::string sixty;
    for (int i = 0; i < 20; ++i) sixty += "xy ";
    EXPECT_EQ(scrub(sixty + "z", 60), sixty + "...");
    EXPECT_EQ(scrub("abc def", 7), "abc def");
    EXPECT_EQ(scrub("abc defg", 7), "abc def...");
    EXPECT_EQ(scrub("abc", 0), "...");

    std::string accents;
    for (int i = 0; i < 300; ++i) accents += "\xC3\xA9";  // é
    const std::string cutAccents = scrub(accents, 200);
    EXPECT_EQ(mailcore::utf8::characterCount(cutAccents), 203u);
    EXPECT_EQ(cutAccents.substr(cutAccents.size() - 3), "...");

    // Control characters do not count towards the limit.
    EXPECT_EQ(scrub(std::string(10, '\x01') + "abcde", 5), "abcde");
}

TEST(MCPRedactorTest, HostileInputsFinish) {
    std::string at, dots, mixed;
    for (int i = 0; i < 50000; ++i) at += "a@";
    for (int i = 0; i < 50000; ++i) dots += "a.";
    for (int i = 0; i < 20000; ++i) mixed += "bearer kmt_ sk-";
    EXPECT_LE(mailcore::utf8::characterCount(scrub(at, 200)), 203u);
    EXPECT_LE(mailcore::utf8::characterCount(scrub(dots, 200)), 203u);
    EXPECT_LE(mailcore::utf8::characterCount(scrub(mixed, 200)), 203u);
}

}  // namespace
}  // namespace mcpkit
