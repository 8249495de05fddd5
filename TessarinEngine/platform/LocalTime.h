#pragma once

#include "TessarinEngine/TrackModels.h"

#include <optional>
#include <string>

namespace LocalTime {

// Calendar fields of a wall-clock time; month 1-12.
struct Fields {
    int year = 1970;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    double second = 0;
};

// The moment a wall-clock time names in the process's time zone (TZ, else /etc/localtime), through
// the Gregorian calendar; nothing for fields out of range.
std::optional<Date> fromLocal(const Fields& fields);

// The moment a wall-clock time names in UTC; nothing for fields out of range.
std::optional<Date> fromUtc(const Fields& fields);

// A moment written with an ICU date pattern ("HH:mm") in the process's time zone.
std::string format(Date date, const std::string& pattern);

} // namespace LocalTime
