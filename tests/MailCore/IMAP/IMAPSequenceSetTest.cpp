#include <gtest/gtest.h>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPSequenceSet.h"

namespace mailcore {
namespace {

using Numbers = std::vector<std::uint32_t>;

TEST(IMAPSequenceSetTest, ExpandsRangesInWrittenOrder) {
    struct Case {
        std::string text;
        std::uint64_t maxCount;
        Numbers numbers;
    };
    const Case cases[] = {
        {"1:3,7", 4, {1, 2, 3, 7}},
        {"3:1", 3, {1, 2, 3}},
        {"7,1:2,7", 10, {7, 1, 2, 7}},  // duplicates kept
        {"", 0, {}},
        {",,5,,", 1, {5}},  // empty pieces skipped
        {"0", 1, {0}},
        {"4294967295", 1, {4294967295u}},
        {"4294967294:4294967295", 2, {4294967294u, 4294967295u}},
        {"007:008", 2, {7, 8}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IMAPSequenceSet::expand(c.text, c.maxCount), c.numbers) << c.text;
    }
}

TEST(IMAPSequenceSetTest, RejectsMalformedText) {
    const MailError bad =
        MailError::protocolViolation(ProtocolIssueKind::malformedResponse, "bad sequence set");
    const char* const malformed[] = {"1:*",
                                     "*",
                                     "1:2:3",
                                     ":5",
                                     "5:",
                                     "a",
                                     "1,x",
                                     "-1",
                                     "+1",
                                     "1 :2",
                                     " 1",
                                     "4294967296",
                                     "1:99999999999999999999",
                                     "1;2",
                                     "1.5"};
    for (const char* text : malformed) {
        try {
            IMAPSequenceSet::expand(text, 1000);
            ADD_FAILURE() << "accepted " << text;
        } catch (const MailError& error) {
            EXPECT_EQ(error, bad) << text;
        }
    }
}

TEST(IMAPSequenceSetTest, CountBoundIsCheckedBeforeEachRange) {
    const MailError tooLarge =
        MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "sequence set too large");
    struct Case {
        std::string text;
        std::uint64_t maxCount;
    };
    const Case cases[] = {
        {"1:3,7", 3},
        {"1", 0},
        {"1:4294967295", 1000000},  // refused before anything is allocated
        {"1:2,3:4,5", 4},
    };
    for (const auto& c : cases) {
        try {
            IMAPSequenceSet::expand(c.text, c.maxCount);
            ADD_FAILURE() << "accepted " << c.text;
        } catch (const MailError& error) {
            EXPECT_EQ(error, tooLarge) << c.text;
        }
    }
    // A malformed piece after the bound is reached still reports the bound:
    // the ranges are checked one after another.
    EXPECT_THROW(
        {
            try {
                IMAPSequenceSet::expand("1:10,x", 5);
            } catch (const MailError& error) {
                EXPECT_EQ(error, tooLarge);
                throw;
            }
        },
        MailError);
}

}  // namespace
}  // namespace mailcore
