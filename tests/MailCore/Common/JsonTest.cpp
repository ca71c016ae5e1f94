// JSON text: compact ordered encoding with invalid UTF-8 replaced, and
// parsing that refuses nesting beyond maxJsonDepth instead of overflowing the
// stack while accepting everything up to it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "MailCore/Common/Json.h"

namespace mailcore {
namespace {

std::string nested(std::size_t depth, const std::string& open, const std::string& close,
                   const std::string& inner = "1") {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += open;
    text += inner;
    for (std::size_t i = 0; i < depth; ++i) text += close;
    return text;
}

TEST(JsonTest, EncodingIsCompactOrderedAndReplacesInvalidUTF8) {
    Json j = Json::object();
    j["z"] = "a/b";
    j["a"] = std::string("bad \xff byte");
    EXPECT_EQ(encodeJson(j), "{\"z\":\"a/b\",\"a\":\"bad \xEF\xBF\xBD byte\"}");
    Json out;
    EXPECT_TRUE(tryParseJson("42", out));
    EXPECT_EQ(out, 42);
    EXPECT_FALSE(tryParseJson("{", out));
}

TEST(JsonDepth, AcceptsNestingUpToTheLimit) {
    Json out;
    EXPECT_TRUE(tryParseJson(nested(maxJsonDepth, "[", "]"), out));
    EXPECT_TRUE(tryParseJson(nested(maxJsonDepth, "{\"a\":", "}"), out));
    EXPECT_NO_THROW(parseJson(nested(maxJsonDepth, "[", "]")));
    // Brackets inside strings are text, not nesting.
    EXPECT_TRUE(tryParseJson(
        "[\"" + std::string(10000, '[') + "\\\"" + std::string(10000, '{') + "\"]", out));
}

TEST(JsonDepth, RefusesDeeperNestingWithoutTouchingTheOutput) {
    Json out = Json::array({1});
    // A deep first member followed by a second one: the shape that overflowed
    // the stack while the parser built the object.
    const std::string hostile =
        R"({"arguments":{"spec":)" + nested(200000, "[", "]", "") + R"(,"x":1}})";
    EXPECT_FALSE(tryParseJson(hostile, out));
    EXPECT_FALSE(tryParseJson(nested(maxJsonDepth + 1, "[", "]"), out));
    EXPECT_FALSE(tryParseJson(nested(maxJsonDepth + 1, "{\"a\":", "}"), out));
    EXPECT_EQ(out, Json::array({1}));
    EXPECT_THROW(parseJson(hostile), std::exception);
    EXPECT_THROW(parseJson(nested(maxJsonDepth + 1, "[", "]")), nlohmann::json::parse_error);
}

TEST(JsonDepth, UnbalancedClosersDoNotHideDepth) {
    Json out;
    EXPECT_FALSE(tryParseJson("]]]]" + nested(maxJsonDepth + 1, "[", "]"), out));
    EXPECT_FALSE(tryParseJson("]]]]", out));
}

}  // namespace
}  // namespace mailcore
