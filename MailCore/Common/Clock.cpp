#include "MailCore/Common/Clock.h"

#include <cmath>

namespace mailcore {

Clock systemClock() {
    return [] { return std::chrono::system_clock::now(); };
}

double secondsSince1970(Date date) {
    using namespace std::chrono;
    return duration_cast<duration<double>>(date.time_since_epoch()).count();
}

Date dateFromSeconds(double seconds) {
    using namespace std::chrono;
    if (!std::isfinite(seconds)) seconds = 0;
    return Date(duration_cast<system_clock::duration>(duration<double>(seconds)));
}

}  // namespace mailcore
