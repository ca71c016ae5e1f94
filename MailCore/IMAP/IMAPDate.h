// IMAPDate: the two date forms IMAP commands carry, computed in UTC from the
// date's whole seconds since 1970 with the proleptic Gregorian calendar.
// Stateless.
#pragma once

#include <cstdint>
#include <string>

#include "MailCore/Common/Clock.h"

namespace mailcore {

struct IMAPDate {
    struct CivilDate {
        std::int64_t year = 1970;
        int month = 1;  // 1...12
        int day = 1;    // 1...31
        bool operator==(const CivilDate&) const = default;
    };

    // The APPEND date-time: " 5-Mar-2026 00:00:00 +0000" (day padded with a
    // space to two characters). Quotes are the command builder's business.
    static std::string appendDateTime(Date date);

    // The SEARCH SINCE / BEFORE date: "5-Mar-2026".
    static std::string searchDate(Date date);

    // Days since 1970-01-01 to the calendar date and back, valid for every
    // day count whose year fits in 64 bits with room to spare.
    static CivilDate civilFromDays(std::int64_t days);
    static std::int64_t daysFromCivil(std::int64_t year, int month, int day);
};

}  // namespace mailcore
