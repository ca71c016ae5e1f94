// Message-number and UID sets: parsing what servers send, and building,
// chunking and storing what we send.
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPSequenceSet.h"
#include "MailCore/IMAP/UIDSet.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

using Numbers = std::vector<std::uint32_t>;
constexpr UIDValue maxUID = std::numeric_limits<UIDValue>::max();

std::optional<MailError> expandError(const std::string& text, std::uint64_t maxCount) {
    return testfiles::caught<MailError>([&] { IMAPSequenceSet::expand(text, maxCount); });
}

TEST(IMAPSequenceSetTest, ExpandsRangesInWrittenOrder) {
    const std::tuple<std::string, std::uint64_t, Numbers> cases[] = {
        {"1:3,7", 4, {1, 2, 3, 7}},
        {"3:1", 3, {1, 2, 3}},
        {"7,1:2,7", 10, {7, 1, 2, 7}},  // duplicates kept
        {"", 0, {}},
        {",,5,,", 1, {5}},  // empty pieces skipped
        {"0", 1, {0}},
        {"4294967294:4294967295", 2, {4294967294u, 4294967295u}},
        {"007:008", 2, {7, 8}},
    };
    for (const auto& [text, maxCount, numbers] : cases) {
        EXPECT_EQ(IMAPSequenceSet::expand(text, maxCount), numbers) << text;
    }
}

TEST(IMAPSequenceSetTest, RefusesMalformedTextAndChecksTheBoundBeforeEachRange) {
    const MailError bad =
        MailError::protocolViolation(ProtocolIssueKind::malformedResponse, "bad sequence set");
    for (const char* text : {"1:*", "*", "1:2:3", ":5", "5:", "a", "1,x", "-1", "+1", "1 :2", " 1",
                             "4294967296", "1:99999999999999999999", "1;2", "1.5"}) {
        EXPECT_EQ(expandError(text, 1000), bad) << text;
    }
    const MailError tooLarge =
        MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "sequence set too large");
    const std::pair<const char*, std::uint64_t> large[] = {
        {"1:3,7", 3},
        {"1", 0},
        {"1:4294967295", 1000000},  // refused before anything is allocated
        {"1:2,3:4,5", 4},
        {"1:10,x", 5},  // the bound is reached before the malformed piece is read
    };
    for (const auto& [text, maxCount] : large)
        EXPECT_EQ(expandError(text, maxCount), tooLarge) << text;
}

std::vector<std::string> texts(const std::vector<UIDSet>& sets) {
    std::vector<std::string> out;
    for (const auto& s : sets) out.push_back(s.imapString());
    return out;
}

TEST(UIDSetTest, BuildsSortedCoalescedRangesFromUIDs) {
    const std::pair<std::vector<UIDValue>, std::string> cases[] = {
        {{5, 3, 4, 9, 3}, "3:5,9"},
        {{}, ""},
        {{1, 2, 3, 4, 5, 6}, "1:6"},
        {{10, 8, 6, 4}, "4,6,8,10"},
        {{maxUID, maxUID - 1, 0}, "0,4294967294:4294967295"},
        {{1, 2, 4, 5, 7}, "1:2,4:5,7"},
    };
    for (const auto& [uids, text] : cases) {
        UIDSet set = UIDSet::fromUIDs(uids);
        EXPECT_EQ(set.imapString(), text);
        EXPECT_EQ(set.isEmpty(), uids.empty());
    }
    EXPECT_EQ(UIDSet::fromUIDs({5, 3, 4, 9, 3}).ranges, (std::vector<UIDRange>{{3, 5}, {9, 9}}));
    EXPECT_EQ(UIDSet::fromUIDs(std::set<UIDValue>{2, 1}), UIDSet::fromRanges({{1, 2}}));
    EXPECT_EQ(UIDSet(42).imapString(), "42");
    // Ranges given by the caller are written in their own order.
    EXPECT_EQ(
        UIDSet::fromRanges({{9, 9}, {1, 3}, {12, std::nullopt}, {maxUID, maxUID}}).imapString(),
        "9,1:3,12:*,4294967295");
}

TEST(UIDSetTest, ChunksCutClosedRangesAndIsolateOpenOnes) {
    const std::tuple<std::vector<UIDRange>, std::int64_t, std::vector<std::string>> cases[] = {
        {{{1, 5}}, 2, {"1:2", "3:4", "5"}},
        {{{1, 3}, {7, std::nullopt}}, 2, {"1:2", "3", "7:*"}},
        {{{1, 3}, {7, std::nullopt}, {9, 9}}, 10, {"1:3", "7:*", "9"}},
        {std::vector<UIDRange>{}, 5, {}},
        {{{1, 2}, {5, 6}, {9, 9}}, 3, {"1:2,5", "6,9"}},
        {{{1, 3}}, 0, {"1", "2", "3"}},  // limit below 1 counts as 1
        {{{1, 3}}, -7, {"1", "2", "3"}},
        {{{5, 3}}, 2, {"3:4", "5"}},  // written high to low
        {{{maxUID - 2, maxUID}}, 2, {"4294967293:4294967294", "4294967295"}},
        {{{0, maxUID}}, std::int64_t{1} << 33, {"0:4294967295"}},
    };
    for (const auto& [ranges, limit, chunks] : cases) {
        EXPECT_EQ(texts(UIDSet::fromRanges(ranges).chunked(limit)), chunks)
            << UIDSet::fromRanges(ranges).imapString() << " limit " << limit;
    }
    auto whole = UIDSet::fromRanges({{0, maxUID}}).chunked(1'000'000'000);
    ASSERT_EQ(whole.size(), 5u);
    EXPECT_EQ(whole.back().imapString(), "4000000000:4294967295");
}

TEST(UIDSetTest, JSONRoundTripsAndRejectsMalformedValues) {
    UIDSet set = UIDSet::fromRanges({{3, 5}, {7, std::nullopt}, {maxUID, maxUID}});
    EXPECT_EQ(
        encodeJson(set.toJson()),
        R"({"ranges":[{"lower":3,"upper":5},{"lower":7},{"lower":4294967295,"upper":4294967295}]})");
    EXPECT_EQ(UIDSet::fromJson(parseJson(encodeJson(set.toJson()))), set);
    EXPECT_EQ(UIDSet::fromJson(parseJson(R"({"ranges":[{"lower":1,"upper":null}]})")),
              UIDSet::fromRanges({{1, std::nullopt}}));
    for (const char* text : {R"([])", R"({})", R"({"ranges":{}})", R"({"ranges":[{"upper":1}]})",
                             R"({"ranges":[{"lower":-1}]})", R"({"ranges":[{"lower":4294967296}]})",
                             R"({"ranges":[{"lower":"1"}]})", R"({"ranges":[{"lower":1.5}]})"}) {
        EXPECT_THROW(UIDSet::fromJson(parseJson(text)), MailError) << text;
    }
}

}  // namespace
}  // namespace mailcore
