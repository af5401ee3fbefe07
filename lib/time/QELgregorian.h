#pragma once

#include <cstdint>

/// @file
/// The time base and the calendar core that the time and the logging library share.
///
/// A library time counts microseconds since 1601-01-01 00:00:00.

inline constexpr std::int64_t microsPerSecond = 1'000'000;
inline constexpr std::int64_t microsPerMinute = 60 * microsPerSecond;
inline constexpr std::int64_t microsPerHour = 60 * microsPerMinute;
inline constexpr std::int64_t microsPerDay = 24 * microsPerHour;

/// 1970-01-01 00:00:00, the Unix epoch, as a library time.
inline constexpr std::int64_t unixEpochMicros = 134'774 * microsPerDay;

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

/// Breaks down any library time from 1601-01-01 on. Constant time.
///
/// The days are counted from 1600-03-01 here, and years begin in March, so that leap days come
/// last. Month n of a year then begins on its day floor((153 n + 2) / 5), and century n on day
/// floor(146097 n / 4). Year n would begin on day floor(1461 n / 4) if every fourth one were a leap
/// year; `leapDaysLeftOut` makes up for those that are not. A division undoes each.
///
/// Source: C. Neri, L. Schneider, "Euclidean affine functions and their application to calendar
/// algorithms", Software: Practice and Experience 53 (2023).
///
/// Not by std::chrono: its years end with 32767, and it is slower.
inline QELgregorianTime gregorianFromMicros(std::uint64_t micros) {
    const std::uint64_t seconds = micros / microsPerSecond;
    const std::uint64_t dayNumber = micros / microsPerDay;
    const auto second = static_cast<std::uint32_t>(seconds - dayNumber * 86'400);
    const std::uint32_t minute = second / 60;

    const std::uint32_t days = static_cast<std::uint32_t>(dayNumber) + 306;
    const std::uint32_t century = (4 * days + 3) / 146'097;
    const std::uint32_t leapDaysLeftOut = century - century / 4;
    const std::uint32_t quarterDays = 4 * (days + leapDaysLeftOut) + 3;
    const std::uint32_t year = 1600 + quarterDays / 1461;
    const std::uint32_t dayOfYear = quarterDays % 1461 / 4;
    const std::uint32_t month = (5 * dayOfYear + 2) / 153;
    const std::uint32_t day = dayOfYear - (153 * month + 2) / 5;
    const bool endsYear = month >= 10; // January or February

    return {.year = static_cast<std::int32_t>(endsYear ? year + 1 : year),
            .month = static_cast<std::int32_t>(endsYear ? month - 9 : month + 3),
            .day = static_cast<std::int32_t>(day + 1),
            .hour = static_cast<std::int32_t>(minute / 60),
            .minute = static_cast<std::int32_t>(minute % 60),
            .second = static_cast<std::int32_t>(second % 60),
            .microsecond = static_cast<std::int32_t>(micros - seconds * microsPerSecond),
            .dayNumber = static_cast<std::int32_t>(dayNumber)};
}
