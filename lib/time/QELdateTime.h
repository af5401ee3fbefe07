#pragma once

#include <array>
#include <cstdint>
#include <string>

/// @file
/// Calendar fields of a library time (QELgregorian.h), and their text forms.
///
/// A time value and a QELdateTime do not say which zone they are in: they mean UTC or local time as
/// the clock they came from does (nowUtc, nowLocal), and no operation here converts between zones.
///
/// The calendar is Gregorian from 1582-10-15 on and Julian before; the days of the year 1582 are
/// numbered as if the ten between had taken place. There is no year 0: -1 stands before 1, and a
/// year given as 0 is taken for -1.

/// A calendar date and time of day: a plain value. The first seven fields say which; the other four
/// are derived from them and up to date after every operation that sets a date.
struct QELdateTime {
    std::int32_t year = 0;
    std::int32_t month = 0;       ///< 1 to 12
    std::int32_t day = 0;         ///< 1 to 31
    std::int32_t hour = 0;        ///< 0 to 23
    std::int32_t minute = 0;      ///< 0 to 59
    std::int32_t second = 0;      ///< 0 to 59
    std::int32_t microsecond = 0; ///< 0 to 999999
    std::int32_t weekday = 0;     ///< 0 for Monday to 6 for Sunday
    std::int32_t leapYear = 0;    ///< 1 when `year` is a leap year, else 0
    std::int32_t dayOfYear = 0;   ///< 1 for January 1st
    std::int32_t week = 0;        ///< ISO 8601 week, 1 to 53

    bool operator==(const QELdateTime&) const = default;
};

/// @name Calendar
/// Constant time. Fields are not checked, any value will do: a day beyond the end of its month runs
/// on into the next one, times of day into the next day, and a month outside 1 to 12 is 30.6 days
/// for each that it is off. Only the derived day of the year and week mean nothing then, if the
/// month is outside or the day leads out of the year. Results that exceed their type wrap around.
/// @{

/// By the Julian rule before 1583, from then on by the Gregorian one.
bool isLeapYear(std::int64_t year);

/// The lengths of the months 1 to 12, February without its leap day; entry 0 is 0.
const std::array<std::int32_t, 13>& monthLengths();

/// The entry of monthLengths for the month: 28 for every February; 0 for a month outside 1 to 12.
int daysInMonth(const QELdateTime& time);

/// Days from 1601-01-01 to the date, negative before it.
std::int64_t daysFromDate(std::int64_t year, std::int32_t month, std::int32_t day);

/// Sets all fields, the derived ones included.
void setDate(QELdateTime& time, std::int32_t year, std::int32_t month, std::int32_t day,
             std::int32_t hour, std::int32_t minute, std::int32_t second, std::int32_t microsecond);

/// Recomputes the derived fields after the date was changed.
void updateDerived(QELdateTime& time);

/// The same for a caller who knows the day number of the date.
void setDerived(QELdateTime& time, std::int64_t dayNumber);

/// Sets all fields from a time value of 1601 or later.
void fromMicros(QELdateTime& time, std::uint64_t micros);

/// The time value of the fields; exact from 290000 BC to 290000 AD. Reverses fromMicros.
std::int64_t toMicros(const QELdateTime& time);

/// @}
/// @name Text
/// Numbers are written as unsigned. Padded ones have at least two digits and years four.
/// @{

/// Style 1 is German, 05.03.2024; 2 is US, 03/05/2024; 3 is compact and always padded, 20240305;
/// any other is ISO 8601, 2024-03-05.
std::string formatDate(const QELdateTime& time, int style, bool padded);

/// 10:20:30 with the given separator, or 102030 when it is a control character, 0 or not ASCII.
/// A negative number of fraction digits leaves out the second, 1 to 6 add a fraction cut (not
/// rounded) to so many digits, more count as 6. Only the hour depends on `padded`.
std::string formatTime(const QELdateTime& time, int fractionDigits, bool padded, char separator);

/// The date, a blank, and the time separated by ':'.
std::string formatDateTime(const QELdateTime& time, int dateStyle, int fractionDigits, bool padded);

/// Name of a weekday, 0 for Monday, in German (language 1) or English (any other), cut to
/// `maxLength` characters unless that is 0. Empty for a weekday above 6.
std::string weekdayName(unsigned weekday, int language, unsigned maxLength);

/// @}
