#include "TessarinEngine/platform/LocalTime.h"

#include <cmath>
#include <memory>
#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

namespace LocalTime {

namespace {

bool inRange(const Fields& f) {
    return f.month >= 1 && f.month <= 12 && f.day >= 1 && f.day <= 31 && f.hour >= 0 &&
           f.hour <= 23 && f.minute >= 0 && f.minute <= 59 && f.second >= 0 && f.second < 61;
}

std::optional<Date> fromZone(const Fields& f, icu::TimeZone* zone) {
    if (!inRange(f)) {
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    icu::GregorianCalendar calendar(zone, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    calendar.setLenient(false);
    calendar.clear();
    const double whole = std::floor(f.second);
    calendar.set(f.year, f.month - 1, f.day, f.hour, f.minute, static_cast<int32_t>(whole));
    UDate ms = calendar.getTime(status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    return ms / 1000.0 + (f.second - whole);
}

} // namespace

std::optional<Date> fromLocal(const Fields& fields) {
    // The calendar adopts the zone; detectHostTimeZone reads TZ and /etc/localtime afresh.
    return fromZone(fields, icu::TimeZone::detectHostTimeZone());
}

std::optional<Date> fromUtc(const Fields& fields) {
    return fromZone(fields, icu::TimeZone::getGMT()->clone());
}

std::string format(Date date, const std::string& pattern) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(pattern), icu::Locale::getRoot(),
                                    status);
    if (U_FAILURE(status)) {
        return {};
    }
    formatter.adoptTimeZone(icu::TimeZone::detectHostTimeZone());
    icu::UnicodeString text;
    formatter.format(date * 1000.0, text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

} // namespace LocalTime
