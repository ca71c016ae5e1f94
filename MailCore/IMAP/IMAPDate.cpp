#include "MailCore/IMAP/IMAPDate.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <string_view>

namespace mailcore {
namespace {

constexpr std::array<std::string_view, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

struct Parts {
    IMAPDate::CivilDate civil;
    int hour, minute, second;
};

Parts split(Date date) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
    std::int64_t days = floorDiv(seconds, 86400);
    std::int64_t inDay = seconds - days * 86400;
    return Parts{IMAPDate::civilFromDays(days), static_cast<int>(inDay / 3600),
                 static_cast<int>(inDay / 60 % 60), static_cast<int>(inDay % 60)};
}

}  // namespace

// Days are counted in eras of 400 years (146097 days), each starting on
// 1 March so that the leap day falls at the end of the counted year.
IMAPDate::CivilDate IMAPDate::civilFromDays(std::int64_t days) {
    std::int64_t shifted = days + 719468;  // days from 0000-03-01 to 1970-01-01
    std::int64_t era = floorDiv(shifted, 146097);
    std::int64_t dayOfEra = shifted - era * 146097;  // [0, 146096]
    std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;  // [0, 399]
    std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    std::int64_t monthIndex = (5 * dayOfYear + 2) / 153;  // 0 = March
    int day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    int month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
    std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    return CivilDate{year, month, day};
}

std::int64_t IMAPDate::daysFromCivil(std::int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    std::int64_t era = floorDiv(year, 400);
    std::int64_t yearOfEra = year - era * 400;
    std::int64_t monthIndex = month > 2 ? month - 3 : month + 9;
    std::int64_t dayOfYear = (153 * monthIndex + 2) / 5 + day - 1;
    std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

std::string IMAPDate::appendDateTime(Date date) {
    Parts p = split(date);
    // The year as "%04d" would write it (zero padding counts the sign).
    return fmt::format("{:>2}-{}-{:04d} {:02d}:{:02d}:{:02d} +0000", p.civil.day,
                       monthNames[p.civil.month - 1], p.civil.year, p.hour, p.minute, p.second);
}

std::string IMAPDate::searchDate(Date date) {
    Parts p = split(date);
    return fmt::format("{}-{}-{:04d}", p.civil.day, monthNames[p.civil.month - 1], p.civil.year);
}

}  // namespace mailcore
