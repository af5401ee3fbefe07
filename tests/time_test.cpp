#include "QELclock.h"
#include "QELdateTime.h"
#include "QELgregorian.h"
#include "QELtickClock.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <unistd.h>

void PrintTo(const QELdateTime& time, std::ostream* out) {
    *out << formatDateTime(time, 0, 6, true) << " weekday " << time.weekday << " leap year "
         << time.leapYear << " day of year " << time.dayOfYear << " week " << time.week;
}

namespace {

constexpr std::int32_t least = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t greatest = std::numeric_limits<std::int32_t>::max();

QELdateTime dateTime(std::int32_t year, std::int32_t month, std::int32_t day, std::int32_t hour = 0,
                     std::int32_t minute = 0, std::int32_t second = 0,
                     std::int32_t microsecond = 0) {
    QELdateTime time;
    setDate(time, year, month, day, hour, minute, second, microsecond);
    return time;
}

QELdateTime brokenDown(std::uint64_t micros) {
    QELdateTime time;
    fromMicros(time, micros);
    return time;
}

// A day by std::chrono and, for its week and the year of that, by strftime.
struct IndependentDay {
    QELdateTime fields;
    std::int32_t weekYear = 0;
};

IndependentDay independentDay(std::int32_t dayNumber) {
    const std::chrono::sys_days day{std::chrono::days{dayNumber - 134'774}};
    const std::chrono::year_month_day date{day};
    const std::chrono::weekday weekday{day};
    const auto yearDay =
        static_cast<std::int32_t>((day - std::chrono::sys_days{date.year() / 1 / 1}).count());

    std::tm fields{};
    fields.tm_year = int{date.year()} - 1900;
    fields.tm_yday = yearDay;
    fields.tm_wday = static_cast<int>(weekday.c_encoding());
    std::array<char, 16> week{};
    strftime(week.data(), week.size(), "%V %G", &fields);

    return {.fields = {.year = int{date.year()},
                       .month = static_cast<std::int32_t>(unsigned{date.month()}),
                       .day = static_cast<std::int32_t>(unsigned{date.day()}),
                       .weekday = static_cast<std::int32_t>(weekday.iso_encoding()) - 1,
                       .leapYear = date.year().is_leap() ? 1 : 0,
                       .dayOfYear = yearDay + 1,
                       .week = std::stoi(week.data())},
            .weekYear = std::stoi(week.data() + 3)};
}

// The year that a day's week belongs to.
std::int32_t weekYear(const QELdateTime& day) {
    if (day.dayOfYear < 4 && day.week > 51) {
        return day.year - 1;
    }
    return day.dayOfYear > 360 && day.week == 1 ? day.year + 1 : day.year;
}

TEST(Calendar, EveryDayUntil9999AgreesWithChronoAndStrftime) {
    constexpr std::int32_t end = 3'067'671; // 10000-01-01
    for (std::int32_t number = 0; number < end; ++number) {
        const auto [expected, expectedWeekYear] = independentDay(number);
        const QELdateTime day = brokenDown(static_cast<std::uint64_t>(number * microsPerDay));
        ASSERT_EQ(day, expected);
        ASSERT_EQ(weekYear(day), expectedWeekYear) << testing::PrintToString(day);
        ASSERT_EQ(dateTime(day.year, day.month, day.day), expected);
        ASSERT_EQ(daysFromDate(day.year, day.month, day.day), number);
    }
    EXPECT_EQ(independentDay(end).fields.year, 10'000);
}

TEST(Calendar, EveryInstantIsReversible) {
    std::mt19937_64 random{8};
    for (int i = 0; i < 200'000; ++i) {
        const std::uint64_t micros = random() >> (i % 2 == 0 ? 0 : 6); // half of them to 10735
        const QELdateTime time = brokenDown(micros);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)), micros);
        ASSERT_EQ(dateTime(time.year, time.month, time.day, time.hour, time.minute, time.second,
                           time.microsecond),
                  time);
        ASSERT_TRUE(time.hour < 24 && time.minute < 60 && time.second < 60 &&
                    time.microsecond < 1'000'000)
            << testing::PrintToString(time);
    }
}

TEST(Calendar, DatesBefore1601AreCountedWithoutGapOrOverlap) {
    constexpr std::array<int, 12> lengths = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::int64_t expected = -2'305'814; // Julian day number 0
    for (std::int32_t year = -4713; year <= 1582; ++year) {
        if (year == 0) {
            continue;
        }
        const bool leapYear = (year < 0 ? year + 1 : year) % 4 == 0;
        ASSERT_EQ(isLeapYear(year), leapYear) << year;
        std::int32_t dayOfYear = 1;
        for (std::int32_t month = 1; month <= 12; ++month) {
            const int length =
                lengths[static_cast<std::size_t>(month - 1)] + (leapYear && month == 2 ? 1 : 0);
            for (std::int32_t day = 1; day <= length; ++day, ++dayOfYear) {
                if (year == 1582 && month == 10 && day > 4 && day < 15) {
                    continue; // left out by the switch to the Gregorian calendar
                }
                const QELdateTime time = dateTime(year, month, day);
                ASSERT_EQ(toMicros(time), expected * microsPerDay) << testing::PrintToString(time);
                ASSERT_EQ(time.weekday, ((expected % 7) + 7) % 7) << testing::PrintToString(time);
                ASSERT_EQ(time.dayOfYear, dayOfYear) << testing::PrintToString(time);
                ++expected;
            }
        }
    }
    EXPECT_EQ(expected, daysFromDate(1583, 1, 1));
}

TEST(Calendar, KnownDates) {
    EXPECT_EQ(daysFromDate(1970, 1, 1), 134'774);
    EXPECT_EQ(daysFromDate(1582, 10, 15), -6653);
    EXPECT_EQ(daysFromDate(1582, 10, 4), -6654);
    EXPECT_EQ(daysFromDate(2024, 2, 31), daysFromDate(2024, 3, 2));
    EXPECT_EQ(dateTime(2024, 2, 31).dayOfYear, dateTime(2024, 3, 2).dayOfYear);
    EXPECT_EQ(dateTime(2024, 2, 31).week, dateTime(2024, 3, 2).week);
    EXPECT_EQ(daysFromDate(2023, 13, 1), daysFromDate(2024, 1, 1));
    EXPECT_EQ(daysFromDate(2024, 0, 1), daysFromDate(2023, 12, 1));
    for (const int year : {1500, 2000, 4, -1}) {
        EXPECT_TRUE(isLeapYear(year)) << year;
    }
    for (const int year : {1700, 1900, 2023, -4}) {
        EXPECT_FALSE(isLeapYear(year)) << year;
    }
}

TEST(Calendar, MonthOutsideTheYearHasNoDays) {
    EXPECT_EQ(daysInMonth(dateTime(2024, 2, 1)), 28);
    EXPECT_EQ(daysInMonth(dateTime(2024, 12, 1)), monthLengths()[12]);
    for (const std::int32_t month : {least, 0, 13, greatest}) {
        EXPECT_EQ(daysInMonth(dateTime(2024, month, 1)), 0) << month;
    }
}

// The sanitizers watch; what can be said of such a date has to come out right all the same.
TEST(Calendar, AnyFieldsAreSurvived) {
    constexpr std::array<std::int32_t, 8> fields = {least, -400, -1, 0, 3, 13, 9999, greatest};
    for (std::size_t i = 0; i < fields.size() * fields.size() * fields.size(); ++i) {
        const std::int32_t year = fields[i % 8];
        const std::int32_t month = fields[i / 8 % 8];
        const std::int32_t day = fields[i / 64];
        const QELdateTime time = dateTime(year, month, day, day, day, day, day);
        const std::int64_t number = daysFromDate(year, month, day);
        ASSERT_EQ(time.weekday, ((number % 7) + 7) % 7);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)),
                  static_cast<std::uint64_t>(number) * microsPerDay +
                      static_cast<std::uint64_t>(day) *
                          (microsPerHour + microsPerMinute + microsPerSecond + 1));
        std::array<char, 100> text{};
        std::snprintf(text.data(), text.size(), "%04u-%02u-%02u %02u:%02u:%02u", year, month, day,
                      day, day, day);
        ASSERT_EQ(formatDateTime(time, 0, 0, true), text.data());
    }
    constexpr std::int64_t lastYear = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(daysFromDate(lastYear, 5, 2) - daysFromDate(lastYear, 5, 1), 1);
    EXPECT_EQ(daysFromDate(-lastYear - 1, 5, 2) - daysFromDate(-lastYear - 1, 5, 1), 1);
}

TEST(Text, DateStyles) {
    const QELdateTime time = dateTime(2024, 3, 5, 9, 5, 7, 4000);
    EXPECT_EQ(formatDate(time, 1, true), "05.03.2024");
    EXPECT_EQ(formatDate(time, 1, false), "5.3.2024");
    EXPECT_EQ(formatDate(time, 2, true), "03/05/2024");
    EXPECT_EQ(formatDate(time, 2, false), "3/5/2024");
    EXPECT_EQ(formatDate(time, 3, true), "20240305");
    EXPECT_EQ(formatDate(time, 3, false), "20240305");
    EXPECT_EQ(formatDate(time, 0, true), "2024-03-05");
    EXPECT_EQ(formatDate(time, -7, false), "2024-3-5");
    EXPECT_EQ(formatDate(dateTime(987, 1, 2), 1, true), "02.01.0987");
    EXPECT_EQ(formatDateTime(time, 1, 3, false), "5.3.2024 9:05:07.004");
}

TEST(Text, TimeForms) {
    const QELdateTime time{.hour = 9, .minute = 5, .second = 7, .microsecond = 4321};
    EXPECT_EQ(formatTime(time, -1, true, ':'), "09:05");
    EXPECT_EQ(formatTime(time, -1, false, ':'), "9:05");
    EXPECT_EQ(formatTime(time, 0, true, ' '), "09 05 07");
    EXPECT_EQ(formatTime(time, 3, false, ':'), "9:05:07.004");
    EXPECT_EQ(formatTime(time, 6, true, '\x7f'), "09\x7f\x30\x35\x7f\x30\x37.004321");
    EXPECT_EQ(formatTime(time, greatest, true, ':'), "09:05:07.004321");
    EXPECT_EQ(formatTime(time, -1, false, '\0'), "905");
    EXPECT_EQ(formatTime(time, 0, true, '\x1f'), "090507");
    EXPECT_EQ(formatTime(time, 4, true, '\x80'), "090507.0043");
    EXPECT_EQ(formatTime({.hour = -1, .minute = -1, .second = -1, .microsecond = -1}, 6, true, ':'),
              "4294967295:4294967295:4294967295.429496");
}

TEST(Text, WeekdayNames) {
    EXPECT_EQ(weekdayName(0, 1, 0), "Montag");
    EXPECT_EQ(weekdayName(3, 1, 2), "Do");
    EXPECT_EQ(weekdayName(6, 0, 0), "Sunday");
    EXPECT_EQ(weekdayName(2, -1, 99), "Wednesday");
    EXPECT_EQ(weekdayName(7, 1, 0), "");
    EXPECT_EQ(weekdayName(std::numeric_limits<unsigned>::max(), 0, 3), "");
}

TEST(Clocks, UtcIsTheTimeOfTheSystemClock) {
    const auto systemMicros = [] {
        const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::floor<std::chrono::microseconds>(sinceEpoch).count() + unixEpochMicros;
    };
    const std::int64_t before = systemMicros();
    const std::int64_t now = nowUtc();
    EXPECT_LE(before, now);
    EXPECT_LE(now, systemMicros());
}

TEST(Clocks, LocalTimeFollowsTheZone) {
    struct Case {
        const char* zone;
        std::int32_t standardMinutes;
        std::int64_t offset;
    };
    // BBB is daylight saving time that is in force all year.
    for (const Case& each :
         {Case{"UTC0", 0, 0}, Case{"AAA-1", 60, microsPerHour},
          Case{"AAA5", -300, -5 * microsPerHour}, Case{"AAA3:30", -210, -210 * microsPerMinute},
          Case{"AAA-5:45", 345, 345 * microsPerMinute},
          Case{"AAA-1BBB,0/0,J365/25", 60, 2 * microsPerHour},
          Case{"AAA8BBB,0/0,J365/25", -480, -7 * microsPerHour}}) {
        const auto check = [&] {
            setenv("TZ", each.zone, 1);
            std::int32_t minutes = 0;
            const std::int64_t before = nowUtc();
            const std::int64_t local = nowLocal(&minutes);
            const std::int64_t after = nowUtc();
            std::fprintf(stderr, "%s: %d minutes, %lld", each.zone, minutes,
                         static_cast<long long>(local - before));
            const bool right = minutes == each.standardMinutes && before + each.offset <= local &&
                               nowLocal() >= local && local <= after + each.offset;
            std::_Exit(right ? 0 : 1);
        };
        EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
    }
}

TEST(Clocks, TicksGrowAcrossEachWrapOfTheCounter) {
    QELtickClock clock{10'000};
    constexpr std::int64_t wrap = std::int64_t{1} << 32;
    EXPECT_EQ(clock.micros(5), 50'000);
    EXPECT_EQ(clock.micros(greatest), greatest * std::int64_t{10'000});
    EXPECT_EQ(clock.micros(least), (greatest + std::int64_t{1}) * 10'000);
    EXPECT_EQ(clock.micros(-1), (wrap - 1) * 10'000);
    EXPECT_EQ(clock.micros(0), wrap * 10'000);
    EXPECT_EQ(clock.micros(0), wrap * 10'000);
    EXPECT_EQ(clock.micros(-1), (2 * wrap - 1) * 10'000);
    EXPECT_EQ(QELtickClock{1}.micros(-2), wrap - 2) << "a first reading below 0 has wrapped";
}

TEST(Clocks, TicksCountSleptTime) {
    const std::int64_t tick = microsPerSecond / sysconf(_SC_CLK_TCK);
    const std::int64_t start = tickMicros();
    ASSERT_EQ(sleepMicros(50'000), 0);
    EXPECT_GE(tickMicros() - start, 50'000 - tick);
}

} // namespace
