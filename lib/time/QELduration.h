#pragma once

#include <cstdint>
#include <string>

/// @file
/// Spans of time, split into units and written through a small format language.

/// A span of time in units: a plain value. The sign of the span stands apart.
struct QELduration {
    std::uint64_t years = 0;  ///< of 365.2425 days
    std::uint64_t months = 0; ///< a twelfth of such a year
    std::uint64_t days = 0;
    std::uint64_t hours = 0;
    std::uint64_t minutes = 0;
    std::uint64_t seconds = 0;
    std::uint64_t microseconds = 0;
    bool negative = false;

    bool operator==(const QELduration&) const = default;
};

/// Selects the units of splitDuration; to be or-ed.
enum QELdurationUnit : std::uint8_t {
    unitYears = 64,
    unitMonths = 32,
    unitDays = 16,
    unitHours = 8,
    unitMinutes = 4,
    unitSeconds = 2,
    unitMicroseconds = 1
};

/// Sets every field to 0 and `negative` to false.
void clearDuration(QELduration& duration);

/// Splits a span of microseconds, any value included, into the units of the mask, largest first.
/// A unit that is not in the mask is left 0 and its amount goes to the smaller ones: without days,
/// hours may exceed 23. What remains below the smallest selected unit is dropped.
void splitDuration(QELduration& duration, std::int64_t micros, std::uint8_t mask);

/// The span in microseconds, without its years and months, which have no fixed length. A sum that
/// exceeds 64 bits wraps around.
std::int64_t durationMicros(const QELduration& duration);

/// Writes a span as `format` says: text stands for itself; up to seven directives, '%' and a unit
/// letter, stand for the value of a field:
///
///     Y years   M months   D days   h hours   m minutes   s seconds   u microseconds
///     f microseconds in at least six digits, as the fraction of a second
///
/// Between '%' and the letter there may be a fill character and after it, never without, a width:
/// "%02h" writes the hours in at least two characters, filled with '0' on the left. For 'f' a width
/// of 1 to 5 keeps only so many of the first digits: "%03f" writes milliseconds. Fields are written
/// as signed 64-bit numbers, the sign of the span is not written.
///
/// Empty for a null format, an unknown letter, a directive that the text's end cuts short, or a
/// width above 65535. What follows the seventh directive is text, whatever it holds.
std::string formatDuration(const QELduration& duration, const char* format);
