#include <gtest/gtest.h>

#include <set>

#include "KestruneMCPKit/Tokens/MCPToken.h"

namespace mcpkit {
namespace {

bool isTokenForm(const std::string& token) {
    if (token.size() != 47 || token.rfind("kmt_", 0) != 0) return false;
    for (char c : token.substr(4)) {
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_';
        if (!ok) return false;
    }
    return true;
}

TEST(MCPTokenTest, GeneratedTokensHaveTheFormAndDiffer) {
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i) {
        std::string token = MCPToken::generate();
        EXPECT_TRUE(isTokenForm(token)) << token;
        EXPECT_EQ(token.find_first_of("+/="), std::string::npos) << token;
        seen.insert(token);
    }
    EXPECT_EQ(seen.size(), 500u);
}

TEST(MCPTokenTest, EncodingIsUrlSafeUnpaddedBase64) {
    struct Case {
        std::vector<std::uint8_t> bytes;
        std::string expected;
    };
    std::vector<std::uint8_t> ff(32, 0xFF), plus;
    std::vector<std::uint8_t> counting;
    for (int i = 0; i < 32; ++i) counting.push_back(static_cast<std::uint8_t>(i));
    for (int i = 0; i < 10; ++i) plus.insert(plus.end(), {0xFB, 0xEF, 0xBE});
    plus.insert(plus.end(), {0xFB, 0xEF});
    const Case cases[] = {
        {std::vector<std::uint8_t>(32, 0), "kmt_" + std::string(43, 'A')},
        {ff, "kmt_" + std::string(42, '_') + "8"},
        {plus, "kmt_" + std::string(42, '-') + "8"},
        {counting, "kmt_AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8"},
    };
    for (const auto& c : cases) EXPECT_EQ(MCPToken::fromBytes(c.bytes), c.expected);
}

TEST(MCPTokenTest, UsesTheGivenSourceAndFallsBackWhenItFails) {
    std::vector<std::uint8_t> zeros(32, 0);
    EXPECT_EQ(MCPToken::generate([&] { return std::optional(zeros); }),
              "kmt_" + std::string(43, 'A'));

    std::set<std::string> fallback;
    for (int i = 0; i < 20; ++i) {
        std::string token =
            MCPToken::generate([] { return std::optional<std::vector<std::uint8_t>>(); });
        EXPECT_TRUE(isTokenForm(token)) << token;
        fallback.insert(token);
    }
    EXPECT_EQ(fallback.size(), 20u);
    // A source that answers the wrong number of bytes counts as failed.
    EXPECT_TRUE(isTokenForm(
        MCPToken::generate([] { return std::optional(std::vector<std::uint8_t>(5, 1)); })));
}

TEST(MCPTokenTest, EqualComparesLengthAndEveryByte) {
    const std::string token = MCPToken::generate();
    std::string lastByteDiffers = token;
    lastByteDiffers.back() = lastByteDiffers.back() == 'A' ? 'B' : 'A';
    struct Case {
        std::string a, b;
        bool equal;
    };
    const Case cases[] = {
        {token, token, true},
        {"", "", true},
        {token, token + "x", false},
        {token + "x", token, false},
        {token, lastByteDiffers, false},
        {"x" + token.substr(1), token, token[0] == 'x'},
        {"", "a", false},
        // Only the length term of the accumulator tells these apart: the
        // extra bytes are NUL, which XOR with the implicit 0 to nothing.
        {"abc", std::string("abc\0", 4), false},
        {"", std::string(1, '\0'), false},
        {std::string(300, '\0'), std::string(44, '\0'), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MCPToken::equal(c.a, c.b), c.equal) << c.a.size() << " vs " << c.b.size();
    }
}

}  // namespace
}  // namespace mcpkit
