#pragma once

#include "TessarinEngine/platform/Date.h"

#include <optional>
#include <string>
#include <string_view>

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

// An ISO 8601 date and time without zone, "2023-07-01T14:25:30" exactly, read as a UTC wall
// clock; nothing for any other form or an impossible date.
std::optional<Date> fromIsoUtcWallClock(std::string_view text);

// An ISO 8601 date and time with its zone: "2023-07-01T14:25:30", optionally with a fraction of
// a second (".000000"), then "Z" or a numeric offset ("+02:00", "+0200", "+02"). Nothing for any
// other form, trailing text included, or an impossible date.
std::optional<Date> fromIso8601(std::string_view text);

// A moment with the UTC offset it was written in, in minutes east of UTC ("Z" is 0).
struct ZonedDate {
    Date date = 0;
    int offsetMinutes = 0;
    bool operator==(const ZonedDate&) const = default;
};
// The same reading as `fromIso8601`, keeping the offset.
std::optional<ZonedDate> fromIso8601Zoned(std::string_view text);

// A moment written with an ICU date pattern ("HH:mm") in the process's time zone.
std::string format(Date date, const std::string& pattern);

} // namespace LocalTime
