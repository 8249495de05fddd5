#include "TessarinEngine/platform/LocalTime.h"

#include <cmath>
#include <memory>
#include <mutex>
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

std::optional<Date> fromZone(const Fields& f, std::unique_ptr<icu::TimeZone> zone) {
    if (!inRange(f) || !zone) {
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    // The calendar adopts the zone.
    icu::GregorianCalendar calendar(zone.release(), status);
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

// detectHostTimeZone reads TZ and /etc/localtime afresh, through a name cache that ICU keeps in
// static storage and clears on every call: two threads at once could read a half-written name.
icu::TimeZone* hostTimeZone() {
    static std::mutex lock;
    std::lock_guard guard(lock);
    return icu::TimeZone::detectHostTimeZone();
}

// Reads exactly `width` ASCII digits at `at`, advancing it.
std::optional<int> digits(std::string_view text, std::size_t& at, std::size_t width) {
    if (at + width > text.size()) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const char c = text[at + i];
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    at += width;
    return value;
}

bool literal(std::string_view text, std::size_t& at, char c) {
    if (at < text.size() && text[at] == c) {
        ++at;
        return true;
    }
    return false;
}

// "YYYY-MM-DDTHH:MM:SS" at the start of the text; `at` is left behind it.
std::optional<Fields> readDateTime(std::string_view text, std::size_t& at) {
    Fields f;
    auto year = digits(text, at, 4);
    if (!year || !literal(text, at, '-')) {
        return std::nullopt;
    }
    auto month = digits(text, at, 2);
    if (!month || !literal(text, at, '-')) {
        return std::nullopt;
    }
    auto day = digits(text, at, 2);
    if (!day || !literal(text, at, 'T')) {
        return std::nullopt;
    }
    auto hour = digits(text, at, 2);
    if (!hour || !literal(text, at, ':')) {
        return std::nullopt;
    }
    auto minute = digits(text, at, 2);
    if (!minute || !literal(text, at, ':')) {
        return std::nullopt;
    }
    auto second = digits(text, at, 2);
    if (!second) {
        return std::nullopt;
    }
    f.year = *year;
    f.month = *month;
    f.day = *day;
    f.hour = *hour;
    f.minute = *minute;
    f.second = *second;
    return f;
}

} // namespace

std::optional<Date> fromLocal(const Fields& fields) {
    return fromZone(fields, std::unique_ptr<icu::TimeZone>(hostTimeZone()));
}

std::optional<Date> fromUtc(const Fields& fields) {
    return fromZone(fields, std::unique_ptr<icu::TimeZone>(icu::TimeZone::getGMT()->clone()));
}

std::optional<Date> fromIsoUtcWallClock(std::string_view text) {
    std::size_t at = 0;
    auto fields = readDateTime(text, at);
    if (!fields || at != text.size()) {
        return std::nullopt;
    }
    return fromUtc(*fields);
}

std::optional<Date> fromIso8601(std::string_view text) {
    const auto zoned = fromIso8601Zoned(text);
    return zoned ? std::optional(zoned->date) : std::nullopt;
}

std::optional<ZonedDate> fromIso8601Zoned(std::string_view text) {
    std::size_t at = 0;
    auto fields = readDateTime(text, at);
    if (!fields) {
        return std::nullopt;
    }
    double fraction = 0;
    if (literal(text, at, '.')) {
        double scale = 0.1;
        const std::size_t start = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            fraction += (text[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == start) {
            return std::nullopt;
        }
    }
    int offsetMinutes = 0;
    if (literal(text, at, 'Z')) {
        offsetMinutes = 0;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        const int sign = text[at] == '-' ? -1 : 1;
        ++at;
        auto hours = digits(text, at, 2);
        if (!hours || *hours > 23) {
            return std::nullopt;
        }
        int minutes = 0;
        if (at < text.size()) {
            literal(text, at, ':');
            auto m = digits(text, at, 2);
            if (!m || *m > 59) {
                return std::nullopt;
            }
            minutes = *m;
        }
        offsetMinutes = sign * (*hours * 60 + minutes);
    } else {
        return std::nullopt;
    }
    if (at != text.size()) {
        return std::nullopt;
    }
    auto wallClock = fromUtc(*fields);
    if (!wallClock) {
        return std::nullopt;
    }
    return ZonedDate{*wallClock + fraction - offsetMinutes * 60.0, offsetMinutes};
}

std::string format(Date date, const std::string& pattern) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat formatter(icu::UnicodeString::fromUTF8(pattern), icu::Locale::getRoot(),
                                    status);
    if (U_FAILURE(status)) {
        return {};
    }
    formatter.adoptTimeZone(hostTimeZone());
    icu::UnicodeString text;
    formatter.format(date * 1000.0, text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

} // namespace LocalTime
