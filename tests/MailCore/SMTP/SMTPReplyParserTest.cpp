#include <gtest/gtest.h>

#include "MailCore/SMTP/SMTPReply.h"
#include "tests/fakes/TestFiles.h"

namespace {

using namespace mailcore;

ProtocolLimits limits(std::int64_t line = 64, std::int64_t reply = 256) {
    ProtocolLimits l;
    l.maxLineBytes = line;
    l.maxResponseBytes = reply;
    return l;
}

// The replies (or the failure detail) from `input` fed in pieces of `piece`
// bytes (0: whole).
std::pair<std::vector<SMTPReply>, std::string> parse(const std::string& input, std::size_t piece) {
    SMTPReplyParser parser(limits());
    std::vector<SMTPReply> out;
    std::string failure;
    try {
        for (std::size_t i = 0; i < input.size(); i += piece ? piece : input.size()) {
            parser.feed(std::string_view(input).substr(i, piece ? piece : input.size()));
            while (auto r = parser.next()) out.push_back(*r);
        }
    } catch (const MailError& e) {
        failure = e.detail();
    }
    return {out, failure};
}

struct ReplyCase {
    std::string input;
    int code;
    std::optional<std::string> enhanced;
    std::vector<std::string> lines;
};

TEST(SMTPReplyParser, ParsesRepliesWholeAndByteByByte) {
    const std::vector<ReplyCase> cases = {
        {"250 ok\r\n", 250, std::nullopt, {"ok"}},
        {"250-mx.test\r\n250-PIPELINING\r\n250 SIZE 100\r\n",
         250,
         std::nullopt,
         {"mx.test", "PIPELINING", "SIZE 100"}},
        {"550-5.1.1 no such\r\n550 5.1.1 user\r\n", 550, "5.1.1", {"no such", "user"}},
        {"451 4.3.0\n", 451, "4.3.0", {""}},
        {"250 5.1.1 class differs\r\n", 250, std::nullopt, {"5.1.1 class differs"}},
        {"354\r\n", 354, std::nullopt, {""}},
        {"221 a\rb\r\n", 221, std::nullopt, {"a\rb"}},
    };
    for (const auto& c : cases) {
        for (std::size_t piece : {0, 1, 3}) {
            auto [replies, failure] = parse(c.input, piece);
            ASSERT_EQ(replies.size(), 1u) << c.input << " " << failure;
            EXPECT_EQ(replies[0].code, c.code) << c.input;
            EXPECT_EQ(replies[0].enhancedCode, c.enhanced) << c.input;
            EXPECT_EQ(replies[0].lines, c.lines) << c.input;
        }
    }
}

TEST(SMTPReplyParser, HostileRepliesFailWithTheSameErrorHoweverSplit) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"abc hello\r\n", "malformed reply line"},
        {"099 low\r\n", "malformed reply line"},
        {"2500 x\r\n", "malformed reply line"},
        {"\r\n", "malformed reply line"},
        {"250-a\r\n550 b\r\n", "reply code changed within a reply"},
        {"250 " + std::string(61, 'x') + "\r\n", "reply line too long"},
        {"250 " + std::string(200, 'x'), "reply line too long"},
        {[] {
             std::string endless;
             for (int i = 0; i < 40; ++i) endless += "250-continued\r\n";
             return endless;
         }(),
         "reply too large"},
    };
    for (const auto& [input, detail] : cases) {
        for (std::size_t piece : {0, 1, 7}) EXPECT_EQ(parse(input, piece).second, detail) << input;
    }
}

TEST(SMTPReplyParser, LineOfExactlyTheLimitIsAcceptedAndFailureIsSticky) {
    SMTPReplyParser parser(limits(10));
    parser.feed("250 678901\r\n");  // ten bytes before CR LF
    ASSERT_TRUE(parser.next());
    EXPECT_TRUE(testfiles::caught<MailError>([&] { parser.feed("250 6789012\r\n"); }));
    EXPECT_TRUE(testfiles::caught<MailError>([&] { parser.feed("250 ok\r\n"); }));
}

TEST(SMTPReplyParser, SummaryKeepsTheServersTextWithoutControlCharacters) {
    SMTPReplyParser parser(limits());
    parser.feed("550-5.7.1 Relaying\r\n550 5.7.1 denied\x07 here\r\n");
    EXPECT_EQ(parser.next()->summary(), "550 5.7.1 Relaying denied  here");
}

}  // namespace
