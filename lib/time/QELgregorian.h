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

/// The days after which the Gregorian calendar repeats: 400 years, a whole number of weeks.
inline constexpr std::int32_t gregorianCycleDays = 146'097;

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
QELgregorianTime gregorianFromMicros(std::uint64_t micros);
