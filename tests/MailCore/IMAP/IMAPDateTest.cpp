#include <gtest/gtest.h>

#include <chrono>

#include "MailCore/IMAP/IMAPDate.h"

namespace mailcore {
namespace {

Date at(std::int64_t seconds) { return Date(std::chrono::seconds(seconds)); }

Date utc(std::int64_t year, int month, int day, int h = 0, int m = 0, int s = 0) {
    return at(IMAPDate::daysFromCivil(year, month, day) * 86400 + h * 3600 + m * 60 + s);
}

TEST(IMAPDateTest, FormatsBothCommandForms) {
    struct Case {
        Date date;
        std::string append;
        std::string search;
    };
    const Case cases[] = {
        {at(1'772'668'800), " 5-Mar-2026 00:00:00 +0000", "5-Mar-2026"},
        {at(1'794'683'109), "14-Nov-2026 19:05:09 +0000", "14-Nov-2026"},
        {utc(2026, 11, 5, 23, 59, 59), " 5-Nov-2026 23:59:59 +0000", "5-Nov-2026"},
        {at(0), " 1-Jan-1970 00:00:00 +0000", "1-Jan-1970"},
        {at(-1), "31-Dec-1969 23:59:59 +0000", "31-Dec-1969"},
        {utc(2024, 2, 29, 12), "29-Feb-2024 12:00:00 +0000", "29-Feb-2024"},
        {utc(2000, 2, 29), "29-Feb-2000 00:00:00 +0000", "29-Feb-2000"},
        {utc(1900, 3, 1) - std::chrono::seconds(1), "28-Feb-1900 23:59:59 +0000", "28-Feb-1900"},
        {utc(2100, 3, 1) - std::chrono::seconds(1), "28-Feb-2100 23:59:59 +0000", "28-Feb-2100"},
        {utc(2262, 4, 11), "11-Apr-2262 00:00:00 +0000", "11-Apr-2262"},
        {utc(1700, 12, 31, 1, 2, 3), "31-Dec-1700 01:02:03 +0000", "31-Dec-1700"},
        {utc(1900, 1, 9), " 9-Jan-1900 00:00:00 +0000", "9-Jan-1900"},
        // Fractions of a second are floored.
        {at(0) - std::chrono::milliseconds(1), "31-Dec-1969 23:59:59 +0000", "31-Dec-1969"},
        {at(59) + std::chrono::milliseconds(999), " 1-Jan-1970 00:00:59 +0000", "1-Jan-1970"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IMAPDate::appendDateTime(c.date), c.append);
        EXPECT_EQ(IMAPDate::searchDate(c.date), c.search);
    }
}

TEST(IMAPDateTest, CivilConversionIsConsecutiveAndInvertibleOverFarSpans) {
    // Walk day by day across several 400-year eras on both sides of 1970 (and
    // past year 9999) and check that the calendar advances one day at a time
    // with correct month lengths and leap years.
    auto isLeap = [](std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; };
    auto monthLength = [&](std::int64_t y, int m) {
        static const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        return m == 2 && isLeap(y) ? 29 : lengths[m - 1];
    };
    for (std::int64_t start : {std::int64_t{-1'000'000}, std::int64_t{-150'000},
                               std::int64_t{400'000}, std::int64_t{3'000'000'000}}) {
        IMAPDate::CivilDate previous = IMAPDate::civilFromDays(start);
        for (std::int64_t d = start + 1; d < start + 300'000; ++d) {
            IMAPDate::CivilDate civil = IMAPDate::civilFromDays(d);
            if (previous.day < monthLength(previous.year, previous.month)) {
                ASSERT_EQ(civil,
                          (IMAPDate::CivilDate{previous.year, previous.month, previous.day + 1}));
            } else if (previous.month < 12) {
                ASSERT_EQ(civil, (IMAPDate::CivilDate{previous.year, previous.month + 1, 1}));
            } else {
                ASSERT_EQ(civil, (IMAPDate::CivilDate{previous.year + 1, 1, 1}));
            }
            ASSERT_EQ(IMAPDate::daysFromCivil(civil.year, civil.month, civil.day), d);
            previous = civil;
        }
    }
}

}  // namespace
}  // namespace mailcore
