// Internet date-time text ("2024-05-01T10:00:00Z", "2024-05-01T12:00:00+02:00") to and from
// whole-second UTC time points.
#include "Models.h"

#include <cstdint>
#include <cstdio>

namespace tarnwick {

namespace {

// Reads `count` decimal digits at text[at]; false when any of them is not a digit.
bool readDigits(std::string_view text, std::size_t at, std::size_t count, int &value) {
    value = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const char c = text[at + k];
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    return true;
}

} // namespace

std::optional<Date> parseISO8601(std::string_view text) {
    // "YYYY-MM-DDTHH:MM:SS" is 19 characters; the zone follows at once.
    constexpr std::size_t zoneAt = 19;
    if (text.size() < zoneAt + 1) {
        return std::nullopt;
    }
    int year, month, day, hour, minute, second;
    if (!readDigits(text, 0, 4, year) || text[4] != '-' || !readDigits(text, 5, 2, month) ||
        text[7] != '-' || !readDigits(text, 8, 2, day) || text[10] != 'T' ||
        !readDigits(text, 11, 2, hour) || text[13] != ':' || !readDigits(text, 14, 2, minute) ||
        text[16] != ':' || !readDigits(text, 17, 2, second)) {
        return std::nullopt;
    }
    if (hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year{year},
                                           std::chrono::month{static_cast<unsigned>(month)},
                                           std::chrono::day{static_cast<unsigned>(day)}};
    if (!date.ok()) {
        return std::nullopt;
    }

    // The zone: "Z", or an offset east (+) or west (-) of UTC as "+HH:MM" or "+HHMM".
    std::chrono::seconds offset{0};
    const std::string_view zone = text.substr(zoneAt);
    if (zone != "Z") {
        if (zone.size() != 6 && zone.size() != 5) {
            return std::nullopt;
        }
        if (zone[0] != '+' && zone[0] != '-') {
            return std::nullopt;
        }
        int offsetHours, offsetMinutes;
        const std::size_t minutesAt = zone.size() == 6 ? 4 : 3;
        if (!readDigits(zone, 1, 2, offsetHours) || (zone.size() == 6 && zone[3] != ':') ||
            !readDigits(zone, minutesAt, 2, offsetMinutes)) {
            return std::nullopt;
        }
        if (offsetHours > 23 || offsetMinutes > 59) {
            return std::nullopt;
        }
        offset = std::chrono::hours{offsetHours} + std::chrono::minutes{offsetMinutes};
        if (zone[0] == '-') {
            offset = -offset;
        }
    }

    const auto local = std::chrono::sys_days{date} + std::chrono::hours{hour} +
                       std::chrono::minutes{minute} + std::chrono::seconds{second};
    return Date{local - offset};
}

std::string formatISO8601(Date date) {
    // Whole days and the second within the day, rounding towards the past.
    const std::int64_t total = date.time_since_epoch().count();
    std::int64_t days = total / 86400;
    std::int64_t secondOfDay = total % 86400;
    if (secondOfDay < 0) {
        secondOfDay += 86400;
        --days;
    }
    // Civil date of a day count in the proleptic Gregorian calendar, in 64-bit arithmetic so
    // that every representable time point formats without overflow.
    const std::int64_t z = days + 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t dayOfEra = z - era * 146097;
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const std::int64_t day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);

    char buffer[64];
    const int length = std::snprintf(
        buffer, sizeof buffer, "%04lld-%02lld-%02lldT%02lld:%02lld:%02lldZ",
        static_cast<long long>(year), static_cast<long long>(month), static_cast<long long>(day),
        static_cast<long long>(secondOfDay / 3600), static_cast<long long>(secondOfDay / 60 % 60),
        static_cast<long long>(secondOfDay % 60));
    return std::string(buffer, static_cast<std::size_t>(length));
}

} // namespace tarnwick
