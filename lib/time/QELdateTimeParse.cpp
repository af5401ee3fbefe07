#include "QELdateTimeParse.h"

#include "QELdateTime.h"
#include "QELduration.h"

#include <array>
#include <cstddef>
#include <strings.h>

namespace {

constexpr std::array<const char*, 12> monthWords = {"jan", "feb", "mar", "apr", "may", "jun",
                                                    "jul", "aug", "sep", "oct", "nov", "dec"};

constexpr std::uint32_t firstYear = 1601;
constexpr std::uint32_t lastYear = 293'877; // the last whole one below 2^63 microseconds

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/// Consumes the character if it is at the cursor.
bool consume(const char*& cursor, char expected) {
    if (*cursor != expected) {
        return false;
    }
    ++cursor;
    return true;
}

bool isLetterOfEitherCase(char character, char upper) {
    return character == upper || character == upper - 'A' + 'a';
}

struct Date {
    std::uint32_t year;
    std::uint32_t month;
    std::uint32_t day;
};

bool readNamedDate(const char*& cursor, Date& date) {
    std::uint32_t month = 1;
    for (const char* word : monthWords) {
        if (strncasecmp(cursor, word, 3) == 0) {
            break;
        }
        ++month;
    }
    if (month > monthWords.size()) {
        return false;
    }
    cursor += 3;
    if (*cursor == '\0') {
        return false;
    }
    ++cursor;
    consume(cursor, ' ');
    date.month = month;
    return readNumber(cursor, date.day) && consume(cursor, ' ') && readNumber(cursor, date.year);
}

bool readNumericDate(const char*& cursor, Date& date) {
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    std::uint32_t third = 0;
    readNumber(cursor, first);
    const char separator = *cursor;
    if (separator != '-' && separator != '.' && separator != '/') {
        return false;
    }
    ++cursor;
    if (!readNumber(cursor, second) || !consume(cursor, separator) || !readNumber(cursor, third) ||
        (*cursor != '\0' && *cursor != ' ')) {
        return false;
    }
    switch (separator) {
    case '.':
        date = {.year = third, .month = second, .day = first};
        break;
    case '/':
        date = {.year = third, .month = first, .day = second};
        break;
    default:
        date = {.year = first, .month = second, .day = third};
        break;
    }
    return true;
}

/// Reads the digits of a fraction of a second.
bool readFraction(const char*& cursor, std::uint32_t& micros) {
    const char* const start = cursor;
    if (!readNumber(cursor, micros) || cursor - start > 6) {
        return false;
    }
    for (auto digits = cursor - start; digits < 6; ++digits) {
        micros *= 10;
    }
    return true;
}

/// Reads AM or PM, if there is one, and turns the hour into that of a day of 24.
bool readSuffix(const char*& cursor, std::uint32_t& hour) {
    const bool afternoon = isLetterOfEitherCase(*cursor, 'P');
    if (!afternoon && !isLetterOfEitherCase(*cursor, 'A')) {
        return true;
    }
    ++cursor;
    if (!isLetterOfEitherCase(*cursor, 'M') || hour > 12) {
        return false;
    }
    hour = hour % 12 + (afternoon ? 12 : 0);
    return true;
}

} // namespace

bool readNumber(const char*& cursor, std::uint32_t& value) {
    const char* const start = cursor;
    value = 0;
    for (; isDigit(*cursor); ++cursor) {
        value = value * 10 + static_cast<std::uint32_t>(*cursor - '0');
    }
    return cursor != start;
}

bool parseDate(const char*& cursor, std::int64_t& micros) {
    Date date{};
    if (!(isDigit(*cursor) ? readNumericDate(cursor, date) : readNamedDate(cursor, date))) {
        return false;
    }
    if (date.day < 1 || date.day > 31 || date.month < 1 || date.month > 12 ||
        date.year < firstYear || date.year > lastYear) {
        return false;
    }
    QELdateTime midnight;
    setDate(midnight, static_cast<std::int32_t>(date.year), static_cast<std::int32_t>(date.month),
            static_cast<std::int32_t>(date.day), 0, 0, 0, 0);
    micros = toMicros(midnight);
    return true;
}

bool parseTime(const char*& cursor, std::int64_t& micros) {
    std::uint32_t hour = 0;
    std::uint32_t minute = 0;
    std::uint32_t second = 0;
    std::uint32_t microsecond = 0;
    if (!readNumber(cursor, hour) || hour > 23 || !consume(cursor, ':')) {
        return false;
    }
    if (!readNumber(cursor, minute) || minute > 59) {
        return false;
    }
    if (consume(cursor, ':')) {
        if (!readNumber(cursor, second) || second > 59) {
            return false;
        }
        if (consume(cursor, '.') && !readFraction(cursor, microsecond)) {
            return false;
        }
    }
    if (!readSuffix(cursor, hour)) {
        return false;
    }
    micros = durationMicros(
        {.hours = hour, .minutes = minute, .seconds = second, .microseconds = microsecond});
    return true;
}
