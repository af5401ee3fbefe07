#pragma once

#include <cstdint>

/// @file
/// Reading dates and times of day.
///
/// A parser reads zero-terminated text from a cursor, which it moves, though never beyond the
/// terminating zero. It returns false at the first character that does not fit: its result is then
/// unchanged, but the cursor may have moved. A time value read from text is in whichever zone the
/// text is in.

/// Reads decimal digits up to the first other character. The value is 0 if there is none, which
/// alone returns false, and the remainder modulo 2^32 of a number that does not fit.
bool readNumber(const char*& cursor, std::uint32_t& value);

/// Reads a date as the time value of its first microsecond. The forms are "2024-03-05" (ISO 8601),
/// "05.03.2024" (German), "03/05/2024" (US), each followed by a blank or the end of the text, and
/// "Mar 5 2024" with an English month name of three letters in either case, any one character after
/// it, an optional further blank, and anything after the year.
///
/// Days run from 1 to 31 in every month, beyond its end into the next one. Years run from 1601 to
/// the last whole one that a time value can hold, 293877.
bool parseDate(const char*& cursor, std::int64_t& micros);

/// Reads a time of day, H:MM[:SS[.F]] with up to six digits of fraction, as microseconds since
/// midnight. AM or PM in either case may follow at once: 12 AM is hour 0, 12 PM hour 12, and hours
/// above 12 are then refused. The cursor stops on the M. What follows is not examined.
bool parseTime(const char*& cursor, std::int64_t& micros);
