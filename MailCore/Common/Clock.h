// Dates and the injectable clock. Every persisted or JSON time is seconds
// since 1970-01-01 UTC as a number.
#pragma once

#include <chrono>
#include <functional>

namespace mailcore {

using Date = std::chrono::system_clock::time_point;

// A function returning the current date. Services take one so that tests can
// step time; production code passes systemClock().
using Clock = std::function<Date()>;

Clock systemClock();

double secondsSince1970(Date date);
Date dateFromSeconds(double seconds);

}  // namespace mailcore
