#include "QELdateTime.h"

#include "QELgregorian.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

// Entry m: the days of the months before m. Entry 13 stands for all months beyond December.
constexpr std::array<std::int32_t, 14> daysBefore = [] {
    std::array<std::int32_t, 14> sums{};
    for (std::size_t month = 1; month < sums.size(); ++month) {
        sums[month] = sums[month - 1] + gregorianMonthLengths[month - 1];
    }
    return sums;
}();

using WeekdayTable = std::array<std::string_view, 7>;

constexpr std::array<WeekdayTable, 2> weekdayNames = {
    WeekdayTable{"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"},
    WeekdayTable{"Montag", "Dienstag", "Mittwoch", "Donnerstag", "Freitag", "Samstag", "Sonntag"}};

constexpr std::int64_t julianDay1601 = 2'305'814;

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

// Division by 7 of numbers below 10^9, in half the steps that the compiler needs for all of 32
// bits. Source: D. Lemire, O. Kaser, N. Kurz, "Faster remainder by direct computation", Software:
// Practice and Experience 49 (2019).
constexpr std::uint64_t seventh = 613'566'757; // 2^32 / 7, rounded up

constexpr std::uint32_t divideBy7(std::uint32_t number) {
    return static_cast<std::uint32_t>(number * seventh >> 32);
}

constexpr std::uint32_t modulo7(std::uint32_t number) {
    const auto fraction = static_cast<std::uint32_t>(number * seventh);
    return static_cast<std::uint32_t>(std::uint64_t{fraction} * 7 >> 32);
}

// A week belongs to the year that its Thursday lies in, and counts from the year's first Thursday.
// January 1st is 0 here; a Thursday before it is a very great number.
std::uint32_t thursdayOf(const QELdateTime& time) {
    return static_cast<std::uint32_t>(time.dayOfYear) + 2 -
           static_cast<std::uint32_t>(time.weekday);
}

// Out of line, since it is rare and would cost fromMicros its registers.
[[gnu::cold]] void setWeekOfOtherYear(QELdateTime& time) {
    std::uint32_t thursday = thursdayOf(time);
    if (time.dayOfYear < 4) {
        thursday += isLeapYear(std::int64_t{time.year} - 1) ? 366 : 365;
    } else if (thursday > 365 || time.leapYear == 0) {
        thursday = 0;
    }
    time.week = static_cast<std::int32_t>(thursday / 7 + 1);
}

void setWeek(QELdateTime& time) {
    const std::uint32_t thursday = thursdayOf(time);
    if (thursday >= 365) [[unlikely]] {
        setWeekOfOtherYear(time);
    } else {
        time.week = static_cast<std::int32_t>(divideBy7(thursday) + 1);
    }
}

// Appends a field, written as unsigned, with at least `minDigits` digits.
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
    const bool gregorianCentury = counted >= 1583 && counted % 100 == 0;
    // A century is divisible by 400 if it is by 16.
    return (counted & (gregorianCentury ? 15 : 3)) == 0;
}

const std::array<std::int32_t, 13>& monthLengths() {
    return gregorianMonthLengths;
}

int daysInMonth(const QELdateTime& time) {
    return time.month >= 1 && time.month <= 12
               ? gregorianMonthLengths[static_cast<std::size_t>(time.month)]
               : 0;
}

// The Julian day number by J. Meeus, "Astronomical Algorithms", chapter 7. The sums are unsigned so
// that they wrap around.
std::int64_t daysFromDate(std::int64_t year, std::int32_t month, std::int32_t day) {
    const std::int64_t counted = year < 0 ? year + 1 : year;
    // January and February are the last months of the year before, so that the leap day ends it.
    const bool endsYear = month < 3;
    const std::int64_t marchYear = endsYear ? counted - 1 : counted;
    const std::int64_t marchMonth = std::int64_t{month} + (endsYear ? 13 : 1);
    const auto days = static_cast<std::uint64_t>(day);

    std::uint64_t julianDay =
        365 * static_cast<std::uint64_t>(marchYear) + static_cast<std::uint64_t>(marchYear >> 2) +
        static_cast<std::uint64_t>(floorDivide(306'001 * marchMonth, 10'000)) + days + 1'720'995;

    constexpr std::int64_t firstGregorian = (1582 * 12 + 10) * 31 + 15;
    const std::uint64_t order =
        (static_cast<std::uint64_t>(counted) * 12 + static_cast<std::uint64_t>(month)) * 31 + days;
    if (static_cast<std::int64_t>(order) >= firstGregorian) {
        const std::int64_t century = marchYear / 100;
        julianDay += static_cast<std::uint64_t>(2 - century + (century >> 2));
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
    const auto month = static_cast<std::size_t>(std::clamp(time.month, 1, 13));
    time.weekday = static_cast<std::int32_t>(dayNumber - 7 * floorDivide(dayNumber, 7));
    time.leapYear = isLeapYear(time.year) ? 1 : 0;
    const std::int32_t leapDay = month > 2 ? time.leapYear : 0;
    time.dayOfYear =
        static_cast<std::int32_t>(std::int64_t{time.day} + daysBefore[month] + leapDay);
    setWeek(time);
}

void fromMicros(QELdateTime& time, std::uint64_t micros) {
    const QELgregorianClock clock = gregorianClock(micros);
    time.hour = clock.hour;
    time.minute = clock.minute;
    time.second = clock.second;
    time.microsecond = clock.microsecond;

    const auto dayNumber = static_cast<std::uint32_t>(clock.dayNumber);
    time.weekday = static_cast<std::int32_t>(modulo7(dayNumber)); // day 0 was a Monday
    const QELgregorianDate date = gregorianFromDays(dayNumber);
    time.year = date.year;
    time.month = date.month;
    time.day = date.day;
    time.leapYear = date.leapYear;
    time.dayOfYear = date.dayOfYear;
    setWeek(time);
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
        text.append(fraction, 0, static_cast<std::size_t>(std::min(fractionDigits, 6)));
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
