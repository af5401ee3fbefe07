#include "QELclock.h"
#include "QELdateTime.h"
#include "QELdateTimeParse.h"
#include "QELduration.h"
#include "QELfileInfo.h"
#include "QELgregorian.h"
#include "QELtickClock.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

void PrintTo(const QELdateTime& time, std::ostream* out) {
    *out << formatDateTime(time, 0, 6, true) << " weekday " << time.weekday << " leap year "
         << time.leapYear << " day of year " << time.dayOfYear << " week " << time.week;
}

namespace {

constexpr std::int32_t least = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t greatest = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t untouched = -77;

QELdateTime dateTime(auto... fields) {
    QELdateTime time;
    setDate(time, fields...);
    return time;
}

QELdateTime brokenDown(std::uint64_t micros) {
    QELdateTime time;
    fromMicros(time, micros);
    return time;
}

std::int64_t modulo7(std::int64_t number) {
    return (number % 7 + 7) % 7;
}

auto fieldsOf(const auto& time) {
    return std::tuple(time.year, time.month, time.day, time.hour, time.minute, time.second,
                      time.microsecond);
}

// What setDate makes of the fields.
QELdateTime setAgain(const QELdateTime& time) {
    return std::apply([](auto... fields) { return dateTime(fields...); }, fieldsOf(time));
}

// Parses text that ends where its memory does, so that the sanitizer sees a step beyond. Returns
// the date or time and, after a bar, the text left, or "refused".
std::string parsed(bool (*parser)(const char*&, std::int64_t&), std::string_view text) {
    std::vector<char> memory(text.size() + 1);
    text.copy(memory.data(), text.size());
    const char* cursor = memory.data();
    std::int64_t micros = untouched;
    const bool accepted = parser(cursor, micros);
    EXPECT_EQ(accepted, micros != untouched) << text;
    EXPECT_LE(cursor, &memory.back()) << text;
    if (!accepted) {
        return "refused";
    }
    const QELdateTime time = brokenDown(static_cast<std::uint64_t>(micros));
    return (parser == parseDate ? formatDate(time, 0, true) : formatTime(time, 6, true, ':')) +
           "|" + cursor;
}

TEST(Calendar, EveryDayUntil9999IsThatOfTheCLibrary) {
    constexpr std::int32_t end = 3'067'671; // 10000-01-01
    for (std::int32_t number = 0; number < end; ++number) {
        // A step that is prime to the length of a day visits all times of the day.
        const std::int64_t ofDay = number * 28'219'560'019 % microsPerDay;
        const std::int64_t micros = number * microsPerDay + ofDay;
        const std::time_t seconds = (number - 134'774) * 86'400LL + ofDay / microsPerSecond;
        std::tm fields{};
        gmtime_r(&seconds, &fields);
        std::array<char, 4> week{};
        strftime(week.data(), week.size(), "%V", &fields);
        const QELdateTime expected{
            .year = fields.tm_year + 1900,
            .month = fields.tm_mon + 1,
            .day = fields.tm_mday,
            .hour = fields.tm_hour,
            .minute = fields.tm_min,
            .second = fields.tm_sec,
            .microsecond = static_cast<std::int32_t>(ofDay % microsPerSecond),
            .weekday = (fields.tm_wday + 6) % 7,
            .leapYear = std::chrono::year(fields.tm_year + 1900).is_leap() ? 1 : 0,
            .dayOfYear = fields.tm_yday + 1,
            .week = std::stoi(week.data())};
        ASSERT_EQ(brokenDown(static_cast<std::uint64_t>(micros)), expected);
        ASSERT_EQ(setAgain(expected), expected);
        ASSERT_EQ(toMicros(expected), micros);
        const QELgregorianTime core = gregorianFromMicros(static_cast<std::uint64_t>(micros));
        ASSERT_EQ(fieldsOf(core), fieldsOf(expected));
        ASSERT_EQ(core.dayNumber, number);
    }
    EXPECT_EQ(toMicros(dateTime(1970, 1, 1, 0, 0, 0, 0)), unixEpochMicros);
}

TEST(Calendar, EveryInstantIsReversibleAndItsTextIsReadBack) {
    std::mt19937_64 random{8};
    for (int i = 0; i < 100'000; ++i) {
        const std::uint64_t micros = random() >> i % 6;
        const QELdateTime time = brokenDown(micros);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)), micros);
        ASSERT_EQ(setAgain(time), time);
        if (time.year <= 293'877) {
            const bool padded = i % 2 == 0;
            const std::string date = formatDate(time, i % 3, padded);
            ASSERT_EQ(parsed(parseDate, date), formatDate(time, 0, true) + "|") << date;
            const std::string ofDay = formatTime(time, 6, padded, ':');
            ASSERT_EQ(parsed(parseTime, ofDay), formatTime(time, 6, true, ':') + "|") << ofDay;
        }
    }
}

TEST(Calendar, DatesBefore1601AreCountedWithoutGapOrOverlap) {
    std::int64_t expected = -2'305'814; // Julian day number 0
    for (std::int32_t year = -4713; year < 1583; year += year == -1 ? 2 : 1) {
        const int leapDay = (year < 0 ? year + 1 : year) % 4 == 0 ? 1 : 0;
        std::int32_t dayOfYear = 0;
        for (std::int32_t month = 1; month <= 12; ++month) {
            const int length = daysInMonth({.month = month}) + (month == 2 ? leapDay : 0);
            for (std::int32_t day = 1; day <= length; ++day) {
                ++dayOfYear;
                if (year == 1582 && month == 10 && day > 4 && day < 15) {
                    continue; // left out by the switch to the Gregorian calendar
                }
                const QELdateTime time = dateTime(year, month, day, 0, 0, 0, 0);
                ASSERT_EQ(toMicros(time), expected * microsPerDay) << testing::PrintToString(time);
                ASSERT_EQ(time.weekday, modulo7(expected)) << testing::PrintToString(time);
                ASSERT_EQ(time.leapYear, leapDay) << testing::PrintToString(time);
                ASSERT_EQ(time.dayOfYear, dayOfYear) << testing::PrintToString(time);
                ++expected;
            }
        }
    }
    EXPECT_EQ(expected, daysFromDate(1583, 1, 1));
}

// The sanitizers watch; what can be said of such a date has to come out right all the same.
TEST(Calendar, FieldsBeyondTheirRangeRunOn) {
    constexpr std::array<std::int32_t, 8> fields = {least, -400, -1, 0, 3, 13, 9999, greatest};
    for (std::size_t i = 0; i < fields.size() * fields.size() * fields.size(); ++i) {
        const std::int32_t year = fields[i % 8];
        const std::int32_t month = fields[i / 8 % 8];
        const std::int32_t day = fields[i / 64];
        const QELdateTime time = dateTime(year, month, day, day, day, day, day);
        const std::int64_t number = daysFromDate(year, month, day);
        ASSERT_EQ(time.weekday, modulo7(number));
        ASSERT_EQ(daysInMonth(time), month == 3 ? 31 : 0);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)),
                  static_cast<std::uint64_t>(number) * microsPerDay +
                      static_cast<std::uint64_t>(day) *
                          (microsPerHour + microsPerMinute + microsPerSecond + 1));
        std::array<char, 100> text{};
        std::snprintf(text.data(), text.size(), "%04u-%02u-%02u %02u:%02u:%02u", year, month, day,
                      day, day, day);
        ASSERT_EQ(formatDateTime(time, 0, 0, true), text.data());
    }
    const QELdateTime february = dateTime(2024, 2, 31, 0, 0, 0, 0);
    const QELdateTime march = dateTime(2024, 3, 2, 0, 0, 0, 0);
    EXPECT_EQ(toMicros(february), toMicros(march));
    EXPECT_EQ(february.dayOfYear, march.dayOfYear);
    EXPECT_EQ(february.week, march.week);
    EXPECT_EQ(daysFromDate(2023, 13, 1), daysFromDate(2024, 1, 1));
    EXPECT_EQ(daysFromDate(2024, 0, 1), daysFromDate(2023, 12, 1));
    constexpr std::int64_t lastYear = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(daysFromDate(lastYear, 5, 2) - daysFromDate(lastYear, 5, 1), 1);
    EXPECT_EQ(daysFromDate(-lastYear - 1, 5, 2) - daysFromDate(-lastYear - 1, 5, 1), 1);
}

TEST(Text, FormsOfDatesTimesAndWeekdays) {
    const QELdateTime time = dateTime(987, 3, 5, 9, 5, 7, 4321);
    EXPECT_EQ(formatDate(time, 1, true), "05.03.0987");
    EXPECT_EQ(formatDate(time, 1, false), "5.3.987");
    EXPECT_EQ(formatDate(time, 2, true), "03/05/0987");
    EXPECT_EQ(formatDate(time, 3, false), "09870305");
    EXPECT_EQ(formatDate(time, -7, false), "987-3-5");
    EXPECT_EQ(formatDateTime(time, 1, 3, false), "5.3.987 9:05:07.004");
    EXPECT_EQ(formatTime(time, -1, true, ':'), "09:05");
    EXPECT_EQ(formatTime(time, 0, true, ' '), "09 05 07");
    EXPECT_EQ(formatTime(time, 6, true, '\x7f'), "09\x7f\x30\x35\x7f\x30\x37.004321");
    EXPECT_EQ(formatTime(time, greatest, true, ':'), "09:05:07.004321");
    EXPECT_EQ(formatTime(time, -1, false, '\0'), "905");
    EXPECT_EQ(formatTime(time, 0, true, '\x1f'), "090507");
    EXPECT_EQ(formatTime(time, 4, true, '\x80'), "090507.0043");
    EXPECT_EQ(formatTime({.microsecond = -1}, 6, true, ':'), "00:00:00.429496");
    EXPECT_EQ(weekdayName(0, 1, 0), "Montag");
    EXPECT_EQ(weekdayName(3, 1, 2), "Do");
    EXPECT_EQ(weekdayName(2, -1, 99), "Wednesday");
    EXPECT_EQ(weekdayName(7, 1, 0), "");
}

TEST(Parsers, DatesOfEveryFormAndNothingElse) {
    for (const auto& [text, expected] : {std::pair{"5.3.2024 x", "2024-03-05| x"},
                                         {"Mar  5 2024", "2024-03-05|"},
                                         {"mAr-5 2024", "2024-03-05|"},
                                         {"DEC 31 1601x", "1601-12-31|x"},
                                         {"31.02.2024", "2024-03-02|"},
                                         {"293877-12-31", "293877-12-31|"}}) {
        EXPECT_EQ(parsed(parseDate, text), expected) << text;
    }
    for (const char* text : {"293878-1-1",   "4294967295-1-1", "1600-12-31",
                             "2024-13-01",   "2024-00-01",     "2024-01-00",
                             "2024-01-32",   "2024-03/05",     "2024:03:05",
                             "2024-03-05x",  "2024-03-",       "2024--05",
                             "March 5 2024", "Mrz 5 2024",     "Mar 5 1600",
                             "Mar 5,2024",   "Mar   5 2024",   "",
                             "Mar",          "Mar 5",          "Mar 5 "}) {
        EXPECT_EQ(parsed(parseDate, text), "refused") << text;
    }
}

TEST(Parsers, TimesOfEveryFormAndNothingElse) {
    for (const auto& [text, expected] : {std::pair{"7:5", "07:05:00.000000|"},
                                         {"0:0:0.000123x", "00:00:00.000123|x"},
                                         {"10:20.5", "10:20:00.000000|.5"},
                                         {"10:30 PM", "10:30:00.000000| PM"},
                                         {"11:15am", "11:15:00.000000|m"},
                                         {"12:30AM", "00:30:00.000000|M"},
                                         {"12:30pM", "12:30:00.000000|M"},
                                         {"1:02:03.4Pm!", "13:02:03.400000|m!"}}) {
        EXPECT_EQ(parsed(parseTime, text), expected) << text;
    }
    for (const char* text :
         {"13:00AM", "13:00pm", "10:30A", "10:30Px", "24:00", "10:60", "10:30:60",
          "10:30:", "10:30:00.", "10:30:00.1234567", "10:", "10-30", ":30", ""}) {
        EXPECT_EQ(parsed(parseTime, text), "refused") << text;
    }
}

// Splitting and formatting are compared with a reference in fuzz/durationText.cpp.
TEST(Duration, SpanLeavesOutYearsAndMonthsAndWrapsAround) {
    QELduration duration{.years = 3, .months = 2, .seconds = 1};
    EXPECT_EQ(durationMicros(duration), 1'000'000);
    EXPECT_EQ(durationMicros({.days = ~std::uint64_t{0}, .microseconds = 2}), 2 - microsPerDay);
    EXPECT_EQ(formatDuration(duration, nullptr), "");
    EXPECT_EQ(formatDuration(duration, "cut short: %"), "");
    clearDuration(duration);
    EXPECT_EQ(duration, QELduration{});
}

TEST(FileInfo, PathAndStreamTellTheSameAndTheUnknownClearsTheRecord) {
    const std::string name = testing::TempDir() + "time_test." + std::to_string(getpid());
    using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    const File file(std::fopen(name.c_str(), "w"), std::fclose);
    std::FILE* const stream = file.get();
    ASSERT_NE(stream, nullptr);
    std::fputs("twelve bytes", stream);
    std::fflush(stream);
    const std::array<timespec, 2> times = {
        {{.tv_sec = 0, .tv_nsec = 0}, {.tv_sec = 1'700'000'000, .tv_nsec = 999'999'999}}};
    futimens(fileno(stream), times.data());
    fchmod(fileno(stream), 0577);
    const auto is = [](const QELfileInfo& info, unsigned mode, unsigned size, unsigned seconds) {
        return info.mode == mode && info.size == size &&
               info.modified == seconds * std::uint64_t{microsPerSecond};
    };
    QELfileInfo info;
    statStream(info, stream);
    EXPECT_TRUE(is(info, 0100577, 12, 1'700'000'000));
    statStream(info, nullptr);
    EXPECT_TRUE(is(info, 0, 0, 0));
    for (const char* unknown : {"/no/such/file", static_cast<const char*>(nullptr)}) {
        statPath(info, name.c_str());
        EXPECT_TRUE(is(info, 0100577, 12, 1'700'000'000));
        EXPECT_TRUE(isRegular(info) && !isDirectory(info) && !isWritable(info));
        statPath(info, unknown);
        EXPECT_TRUE(is(info, 0, 0, 0));
    }
    std::remove(name.c_str());
    statPath(info, "/");
    EXPECT_TRUE(!isRegular(info) && isDirectory(info) && isWritable(info));
}

template <class Clock>
std::int64_t microsOf() {
    return std::chrono::floor<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

TEST(Clocks, AreThoseOfTheSystemInEveryZone) {
    const auto systemMicros = [] {
        return microsOf<std::chrono::system_clock>() + unixEpochMicros;
    };
    // Zone, standard offset and offset now, in minutes. BBB is daylight saving time that is in
    // force all year.
    for (const auto& [zone, standard, offset] : {std::tuple{"AAA-1", 60, 60},
                                                 {"UTC0", 0, 0},
                                                 {"AAA3:30", -210, -210},
                                                 {"AAA-5:45", 345, 345},
                                                 {"AAA-1BBB,0/0,J365/25", 60, 120},
                                                 {"AAA8BBB,0/0,J365/25", -480, -420}}) {
        setenv("TZ", zone, 1);
        std::int32_t minutes = 0;
        const std::int64_t before = systemMicros();
        const std::int64_t utc = nowUtc();
        const std::int64_t local = nowLocal(&minutes) - offset * microsPerMinute;
        const std::int64_t after = nowLocal() - offset * microsPerMinute;
        EXPECT_EQ(minutes, standard) << zone;
        EXPECT_TRUE(before <= utc && utc <= local && local <= after && after <= systemMicros())
            << zone << ": " << local - utc;
    }
    unsetenv("TZ");
}

TEST(Clocks, TicksGrowAcrossEachWrapOfTheCounter) {
    constexpr std::int64_t wrap = std::int64_t{1} << 32;
    QELtickClock clock{10'000};
    for (const auto& [raw, ticks] : {std::pair{5, std::int64_t{5}},
                                     {greatest, greatest},
                                     {least, wrap / 2},
                                     {-1, wrap - 1},
                                     {0, wrap},
                                     {0, wrap},
                                     {-1, 2 * wrap - 1}}) {
        EXPECT_EQ(clock.micros(raw), ticks * 10'000);
    }
    EXPECT_EQ(QELtickClock{1}.micros(-2), wrap - 2) << "a first reading below 0 has wrapped";
    const std::int64_t tick = microsPerSecond / sysconf(_SC_CLK_TCK);
    const std::int64_t before = microsOf<std::chrono::steady_clock>();
    const std::int64_t start = tickMicros();
    ASSERT_EQ(sleepMicros(50'000), 0);
    const std::int64_t elapsed = tickMicros() - start;
    EXPECT_GE(elapsed, 50'000 - tick);
    EXPECT_LE(elapsed, microsOf<std::chrono::steady_clock>() - before + tick);
}

} // namespace
