#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// @file
/// The time base and the calendar core that the time and the logging library share.
///
/// A library time counts microseconds since 1601-01-01 00:00:00. That day starts a cycle of 400
/// Gregorian years in which every leap day is the last thing to happen: the fourth year ends four
/// years, the 400th the cycle.

inline constexpr std::int64_t microsPerSecond = 1'000'000;
inline constexpr std::int64_t microsPerMinute = 60 * microsPerSecond;
inline constexpr std::int64_t microsPerHour = 60 * microsPerMinute;
inline constexpr std::int64_t microsPerDay = 24 * microsPerHour;

/// 1970-01-01 00:00:00, the Unix epoch, as a library time.
inline constexpr std::int64_t unixEpochMicros = 134'774 * microsPerDay;

/// The lengths of the months 1 to 12, February without its leap day; entry 0 is 0.
inline constexpr std::array<std::int32_t, 13> gregorianMonthLengths = {0,  31, 28, 31, 30, 31, 30,
                                                                       31, 31, 30, 31, 30, 31};

/// A day of the proleptic Gregorian calendar.
struct QELgregorianDate {
    std::int32_t year;
    std::int32_t month;     ///< 1 to 12
    std::int32_t day;       ///< 1 to 31
    std::int32_t leapYear;  ///< 1 when `year` is a leap year, else 0
    std::int32_t dayOfYear; ///< 1 for January 1st
};

/// A library time as a day and a time of day.
struct QELgregorianClock {
    std::int32_t dayNumber;   ///< days since 1601-01-01
    std::int32_t hour;        ///< 0 to 23
    std::int32_t minute;      ///< 0 to 59
    std::int32_t second;      ///< 0 to 59
    std::int32_t microsecond; ///< 0 to 999999
};

/// A library time in its calendar fields.
struct QELgregorianTime {
    std::int32_t year;
    std::int32_t month;       ///< 1 to 12
    std::int32_t day;         ///< 1 to 31
    std::int32_t hour;        ///< 0 to 23
    std::int32_t minute;      ///< 0 to 59
    std::int32_t second;      ///< 0 to 59
    std::int32_t microsecond; ///< 0 to 999999
    std::int32_t dayNumber;   ///< days since 1601-01-01
};

/// Month and day of the month.
struct QELgregorianDay {
    std::uint8_t month;
    std::uint8_t day;
};

/// The days of a common year (row 0) and of a leap year (row 1). Looking them up is faster than the
/// arithmetic that finds a month.
inline constexpr auto gregorianDaysOfYear = [] {
    std::array<std::array<QELgregorianDay, 366>, 2> rows{};
    for (std::size_t leapYear = 0; leapYear < rows.size(); ++leapYear) {
        std::size_t next = 0;
        for (std::uint8_t month = 1; month <= 12; ++month) {
            const std::int32_t leapDay = month == 2 && leapYear == 1 ? 1 : 0;
            for (std::uint8_t day = 1; day <= gregorianMonthLengths[month] + leapDay; ++day) {
                rows[leapYear][next++] = {.month = month, .day = day};
            }
        }
    }
    return rows;
}();

/// The date of the day that lies `dayNumber` days after 1601-01-01, for a day number of up to
/// 1'000'000'000 (the greatest library time lies on day 213'503'982). Constant time.
///
/// Since leap days come last, the nth century starts on day floor(146097 n / 4), and the nth of
/// years with a leap day in every fourth on day floor(1461 n / 4). A division undoes either. See
/// C. Neri, L. Schneider, "Euclidean affine functions and their application to calendar
/// algorithms", Software: Practice and Experience 53 (2023).
constexpr QELgregorianDate gregorianFromDays(std::uint32_t dayNumber) {
    const std::uint32_t century = (4 * dayNumber + 3) / 146'097;

    // Three of four centuries lack their last leap day. With it, any four years have 1461 days.
    const std::uint32_t quarterDays = 4 * (dayNumber + century - century / 4) + 3;
    const std::uint32_t year = 1601 + quarterDays / 1'461;
    const std::uint32_t dayOfYear = quarterDays % 1'461 / 4;

    // Only the century is a branch: one on divisibility by 4 could not be predicted. A century is
    // divisible by 400 if it is by 16.
    const auto leapYear =
        static_cast<std::uint32_t>(year % 100 == 0 ? year % 16 == 0 : year % 4 == 0);
    const QELgregorianDay day = gregorianDaysOfYear[leapYear][dayOfYear];
    return {.year = static_cast<std::int32_t>(year),
            .month = day.month,
            .day = day.day,
            .leapYear = static_cast<std::int32_t>(leapYear),
            .dayOfYear = static_cast<std::int32_t>(dayOfYear + 1)};
}

/// Splits any library time from 1601-01-01 on. Constant time.
constexpr QELgregorianClock gregorianClock(std::uint64_t micros) {
    // The day is not found from the seconds, so that neither division waits for the other.
    const std::uint64_t seconds = micros / microsPerSecond;
    const std::uint64_t dayNumber = micros / microsPerDay;
    const auto secondOfDay = static_cast<std::uint32_t>(seconds - dayNumber * 86'400);
    const std::uint32_t hour = secondOfDay / 3600;
    const std::uint32_t minuteOfDay = secondOfDay / 60;
    return {.dayNumber = static_cast<std::int32_t>(dayNumber),
            .hour = static_cast<std::int32_t>(hour),
            .minute = static_cast<std::int32_t>(minuteOfDay - 60 * hour),
            .second = static_cast<std::int32_t>(secondOfDay - 60 * minuteOfDay),
            .microsecond = static_cast<std::int32_t>(micros - seconds * microsPerSecond)};
}

/// Breaks down any library time from 1601-01-01 on. Constant time.
constexpr QELgregorianTime gregorianFromMicros(std::uint64_t micros) {
    const QELgregorianClock clock = gregorianClock(micros);
    const QELgregorianDate date = gregorianFromDays(static_cast<std::uint32_t>(clock.dayNumber));
    return {.year = date.year,
            .month = date.month,
            .day = date.day,
            .hour = clock.hour,
            .minute = clock.minute,
            .second = clock.second,
            .microsecond = clock.microsecond,
            .dayNumber = clock.dayNumber};
}
