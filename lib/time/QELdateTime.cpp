#include "QELdateTime.h"

#include "QELgregorian.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

namespace {

constexpr std::array<std::int32_t, 13> lengthsOfMonths = {0,  31, 28, 31, 30, 31, 30,
                                                          31, 31, 30, 31, 30, 31};

/// Entry m: the days of the months before m. Entry 13 stands for all months beyond December.
constexpr std::array<std::int32_t, 14> daysBefore = {0,   0,   31,  59,  90,  120, 151,
                                                     181, 212, 243, 273, 304, 334, 365};

using WeekdayTable = std::array<std::string_view, 7>;

constexpr std::array<WeekdayTable, 2> weekdayNames = {
    WeekdayTable{"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"},
    WeekdayTable{"Montag", "Dienstag", "Mittwoch", "Donnerstag", "Freitag", "Samstag", "Sonntag"}};

constexpr std::int64_t julianDay1601 = 2'305'814;

/// The days after which the Gregorian calendar repeats: 400 years, a whole number of weeks.
constexpr std::int32_t gregorianCycleDays = 146'097;

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

/// A week belongs to the year that its Thursday lies in, and counts from the year's first Thursday.
/// What lies beyond the next January is in its first week all the same.
std::int32_t isoWeek(const QELdateTime& time) {
    std::int64_t thursday = std::int64_t{time.dayOfYear} - time.weekday + 3; // as a day of the year
    if (thursday > 365 + time.leapYear) {
        return 1;
    }
    if (thursday < 1) {
        thursday %= gregorianCycleDays; // or a day of long ago would take as many steps as years
    }
    for (std::int64_t year = std::int64_t{time.year} - 1; thursday < 1; --year) {
        thursday += isLeapYear(year) ? 366 : 365;
    }
    return static_cast<std::int32_t>((thursday - 1) / 7 + 1);
}

/// Inline, since fromMicros is the faster for it.
inline void derive(QELdateTime& time, std::int64_t dayNumber) {
    const auto month = static_cast<std::size_t>(std::clamp(time.month, 1, 13));
    const auto weekday = static_cast<std::int32_t>(dayNumber % 7); // day 0 was a Monday
    time.weekday = weekday < 0 ? weekday + 7 : weekday;
    time.leapYear = isLeapYear(time.year) ? 1 : 0;
    const std::int32_t leapDay = month > 2 ? time.leapYear : 0;
    time.dayOfYear =
        static_cast<std::int32_t>(std::int64_t{time.day} + daysBefore[month] + leapDay);
    time.week = isoWeek(time);
}

/// Appends a field, written as unsigned, with at least `minDigits` digits.
void appendNumber(std::string& text, std::int32_t field, std::size_t minDigits) {
    std::array<char, 10> digits{};
    const char* const end =
        std::to_chars(digits.begin(), digits.end(), static_cast<std::uint32_t>(field)).ptr;
    const auto length = static_cast<std::size_t>(end - digits.begin());
    text.append(std::max(minDigits, length) - length, '0');
    text.append(digits.data(), length);
}

struct DateField {
    std::int32_t value;
    std::size_t minDigits;
};

std::string joined(DateField first, DateField second, DateField third, std::string_view separator) {
    std::string text;
    appendNumber(text, first.value, first.minDigits);
    text += separator;
    appendNumber(text, second.value, second.minDigits);
    text += separator;
    appendNumber(text, third.value, third.minDigits);
    return text;
}

} // namespace

bool isLeapYear(std::int64_t year) {
    const std::int64_t counted = year < 0 ? year + 1 : year;
    return counted % 4 == 0 && (counted < 1583 || counted % 100 != 0 || counted % 400 == 0);
}

const std::array<std::int32_t, 13>& monthLengths() {
    return lengthsOfMonths;
}

int daysInMonth(const QELdateTime& time) {
    return time.month >= 1 && time.month <= 12
               ? lengthsOfMonths[static_cast<std::size_t>(time.month)]
               : 0;
}

/// The Julian day number by J. Meeus, "Astronomical Algorithms", chapter 7. The sums are unsigned,
/// so that they wrap around.
std::int64_t daysFromDate(std::int64_t year, std::int32_t month, std::int32_t day) {
    const std::int64_t counted = year < 0 ? year + 1 : year;
    // January and February are the last months of the year before, so that the leap day ends it.
    const bool endsYear = month < 3;
    const std::int64_t marchYear = endsYear ? counted - 1 : counted;
    const std::int64_t marchMonth = std::int64_t{month} + (endsYear ? 13 : 1);
    const auto days = static_cast<std::uint64_t>(day);

    std::uint64_t julianDay =
        365 * static_cast<std::uint64_t>(marchYear) +
        static_cast<std::uint64_t>(floorDivide(marchYear, 4)) +
        static_cast<std::uint64_t>(floorDivide(306'001 * marchMonth, 10'000)) + days + 1'720'995;

    constexpr std::int64_t firstGregorian = (1582 * 12 + 10) * 31 + 15;
    const std::uint64_t order =
        (static_cast<std::uint64_t>(counted) * 12 + static_cast<std::uint64_t>(month)) * 31 + days;
    if (static_cast<std::int64_t>(order) >= firstGregorian) {
        const std::int64_t century = marchYear / 100;
        julianDay += static_cast<std::uint64_t>(2 - century + floorDivide(century, 4));
    }
    return static_cast<std::int64_t>(julianDay - julianDay1601);
}

void setDate(QELdateTime& time, std::int32_t year, std::int32_t month, std::int32_t day,
             std::int32_t hour, std::int32_t minute, std::int32_t second,
             std::int32_t microsecond) {
    time = {.year = year,
            .month = month,
            .day = day,
            .hour = hour,
            .minute = minute,
            .second = second,
            .microsecond = microsecond};
    updateDerived(time);
}

void updateDerived(QELdateTime& time) {
    setDerived(time, daysFromDate(time.year, time.month, time.day));
}

void setDerived(QELdateTime& time, std::int64_t dayNumber) {
    derive(time, dayNumber);
}

void fromMicros(QELdateTime& time, std::uint64_t micros) {
    const QELgregorianTime fields = gregorianFromMicros(micros);
    time = {.year = fields.year,
            .month = fields.month,
            .day = fields.day,
            .hour = fields.hour,
            .minute = fields.minute,
            .second = fields.second,
            .microsecond = fields.microsecond};
    derive(time, fields.dayNumber);
}

std::int64_t toMicros(const QELdateTime& time) {
    const auto days = static_cast<std::uint64_t>(daysFromDate(time.year, time.month, time.day));
    const std::int64_t timeOfDay = time.hour * microsPerHour + time.minute * microsPerMinute +
                                   time.second * microsPerSecond + time.microsecond;
    return static_cast<std::int64_t>(days * microsPerDay + static_cast<std::uint64_t>(timeOfDay));
}

std::string formatDate(const QELdateTime& time, int style, bool padded) {
    const bool wide = padded || style == 3;
    const DateField year{.value = time.year, .minDigits = wide ? 4U : 1U};
    const DateField month{.value = time.month, .minDigits = wide ? 2U : 1U};
    const DateField day{.value = time.day, .minDigits = wide ? 2U : 1U};
    switch (style) {
    case 1:
        return joined(day, month, year, ".");
    case 2:
        return joined(month, day, year, "/");
    case 3:
        return joined(year, month, day, "");
    default:
        return joined(year, month, day, "-");
    }
}

std::string formatTime(const QELdateTime& time, int fractionDigits, bool padded, char separator) {
    const std::string_view between{&separator, static_cast<signed char>(separator) < ' ' ? 0U : 1U};
    std::string text;
    appendNumber(text, time.hour, padded ? 2 : 1);
    text += between;
    appendNumber(text, time.minute, 2);
    if (fractionDigits >= 0) {
        text += between;
        appendNumber(text, time.second, 2);
    }
    if (fractionDigits > 0) {
        std::string fraction;
        appendNumber(fraction, time.microsecond, 6);
        text += '.';
        text.append(fraction, 0, static_cast<std::size_t>(fractionDigits));
    }
    return text;
}

std::string formatDateTime(const QELdateTime& time, int dateStyle, int fractionDigits,
                           bool padded) {
    return formatDate(time, dateStyle, padded) + " " +
           formatTime(time, fractionDigits, padded, ':');
}

std::string weekdayName(unsigned weekday, int language, unsigned maxLength) {
    const WeekdayTable& names = weekdayNames[language == 1 ? 1 : 0];
    if (weekday >= names.size()) {
        return {};
    }
    return std::string{names[weekday].substr(0, maxLength == 0 ? std::string::npos : maxLength)};
}
