#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/UIDSet.h"

namespace mailcore {
namespace {

constexpr IMAPUID maxUID = std::numeric_limits<IMAPUID>::max();

std::vector<std::string> texts(const std::vector<UIDSet>& sets) {
    std::vector<std::string> out;
    for (const auto& s : sets) out.push_back(s.imapString());
    return out;
}

TEST(UIDSetTest, BuildsSortedCoalescedRangesFromUIDs) {
    struct Case {
        std::vector<IMAPUID> uids;
        std::string text;
    };
    const Case cases[] = {
        {{5, 3, 4, 9, 3}, "3:5,9"},
        {{}, ""},
        {{7}, "7"},
        {{1, 2, 3, 4, 5, 6}, "1:6"},
        {{10, 8, 6, 4}, "4,6,8,10"},
        {{maxUID, maxUID - 1, 0}, "0,4294967294:4294967295"},
        {{1, 2, 4, 5, 7}, "1:2,4:5,7"},
    };
    for (const auto& c : cases) {
        UIDSet set = UIDSet::fromUIDs(c.uids);
        EXPECT_EQ(set.imapString(), c.text);
        EXPECT_EQ(set.isEmpty(), c.uids.empty());
    }
    EXPECT_EQ(UIDSet::fromUIDs({5, 3, 4, 9, 3}).ranges, (std::vector<UIDRange>{{3, 5}, {9, 9}}));
    EXPECT_EQ(UIDSet::fromUIDs(std::set<IMAPUID>{2, 1}), UIDSet::fromRanges({{1, 2}}));
    EXPECT_EQ(UIDSet(42).imapString(), "42");
}

TEST(UIDSetTest, TextFormWritesRangesInStoredOrder) {
    UIDSet set =
        UIDSet::fromRanges({{9, 9}, {1, 3}, {12, std::nullopt}, {4294967295u, 4294967295u}});
    EXPECT_EQ(set.imapString(), "9,1:3,12:*,4294967295");
}

TEST(UIDSetTest, ChunksCutClosedRangesAndIsolateOpenOnes) {
    struct Case {
        std::vector<UIDRange> ranges;
        std::int64_t limit;
        std::vector<std::string> chunks;
    };
    const Case cases[] = {
        {{{1, 5}}, 2, {"1:2", "3:4", "5"}},
        {{{1, 3}, {7, std::nullopt}}, 2, {"1:2", "3", "7:*"}},
        {{{1, 3}, {7, std::nullopt}, {9, 9}}, 10, {"1:3", "7:*", "9"}},
        {{{7, std::nullopt}}, 5, {"7:*"}},
        {{}, 5, {}},
        {{{1, 2}, {5, 6}, {9, 9}}, 3, {"1:2,5", "6,9"}},
        {{{1, 3}}, 0, {"1", "2", "3"}},  // limit below 1 counts as 1
        {{{1, 3}}, -7, {"1", "2", "3"}},
        {{{5, 3}}, 2, {"3:4", "5"}},  // written high to low
        {{{maxUID - 2, maxUID}}, 2, {"4294967293:4294967294", "4294967295"}},
        {{{0, maxUID}}, std::int64_t{1} << 33, {"0:4294967295"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(texts(UIDSet::fromRanges(c.ranges).chunked(c.limit)), c.chunks)
            << UIDSet::fromRanges(c.ranges).imapString() << " limit " << c.limit;
    }
}

TEST(UIDSetTest, ChunksOfTheWholeUIDSpaceStayBounded) {
    auto chunks = UIDSet::fromRanges({{0, maxUID}}).chunked(1'000'000'000);
    ASSERT_EQ(chunks.size(), 5u);
    EXPECT_EQ(chunks.back().imapString(), "4000000000:4294967295");
}

TEST(UIDSetTest, JSONRoundTripsAndRejectsMalformedValues) {
    UIDSet set = UIDSet::fromRanges({{3, 5}, {7, std::nullopt}, {maxUID, maxUID}});
    Json json = set.toJson();
    EXPECT_EQ(
        encodeJson(json),
        R"({"ranges":[{"lower":3,"upper":5},{"lower":7},{"lower":4294967295,"upper":4294967295}]})");
    EXPECT_EQ(UIDSet::fromJson(parseJson(encodeJson(json))), set);
    EXPECT_EQ(UIDSet::fromJson(parseJson(R"({"ranges":[{"lower":1,"upper":null}]})")),
              UIDSet::fromRanges({{1, std::nullopt}}));

    const char* const malformed[] = {R"([])",
                                     R"({})",
                                     R"({"ranges":{}})",
                                     R"({"ranges":[{"upper":1}]})",
                                     R"({"ranges":[{"lower":-1}]})",
                                     R"({"ranges":[{"lower":4294967296}]})",
                                     R"({"ranges":[{"lower":"1"}]})",
                                     R"({"ranges":[{"lower":1.5}]})"};
    for (const char* text : malformed) {
        EXPECT_THROW(UIDSet::fromJson(parseJson(text)), MailError) << text;
    }
}

}  // namespace
}  // namespace mailcore
