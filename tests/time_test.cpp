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
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

/// What setDate makes of the fields.
QELdateTime setAgain(const QELdateTime& t) {
    return dateTime(t.year, t.month, t.day, t.hour, t.minute, t.second, t.microsecond);
}

/// Parses text that ends where its memory does, so that the sanitizer sees a step beyond. Returns
/// the date or time and, after a bar, the text left, or "refused".
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
        const QELdateTime expected{fields.tm_year + 1900,
                                   fields.tm_mon + 1,
                                   fields.tm_mday,
                                   fields.tm_hour,
                                   fields.tm_min,
                                   fields.tm_sec,
                                   static_cast<std::int32_t>(ofDay % microsPerSecond),
                                   (fields.tm_wday + 6) % 7,
                                   std::chrono::year(fields.tm_year + 1900).is_leap() ? 1 : 0,
                                   fields.tm_yday + 1,
                                   std::stoi(week.data())};
        ASSERT_EQ(brokenDown(static_cast<std::uint64_t>(micros)), expected);
        ASSERT_EQ(setAgain(expected), expected);
        ASSERT_EQ(toMicros(expected), micros);
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
                ASSERT_EQ(toMicros(time), expected * microsPerDay);
                ASSERT_EQ(time.weekday, modulo7(expected));
                ASSERT_EQ(time.leapYear, leapDay);
                ASSERT_EQ(time.dayOfYear, dayOfYear);
                ++expected;
            }
        }
    }
    EXPECT_EQ(expected, daysFromDate(1583, 1, 1));
}

// The sanitizers watch; what can be said of such a date has to come out right all the same.
TEST(Calendar, FieldsBeyondTheirRangeRunOn) {
    constexpr std::array<std::int32_t, 9> fields = {least, -400, -1, 0, 1, 3, 13, 9999, greatest};
    for (std::size_t i = 0; i < fields.size() * fields.size() * fields.size(); ++i) {
        const std::int32_t year = fields[i % 9], month = fields[i / 9 % 9], day = fields[i / 81];
        const QELdateTime time = dateTime(year, month, day, day, day, day, day);
        const std::int64_t number = daysFromDate(year, month, day);
        ASSERT_EQ(time.weekday, modulo7(number));
        ASSERT_TRUE(time.week >= 1 && time.week <= 53);
        ASSERT_EQ(daysInMonth(time), month == 3 || month == 1 ? 31 : 0);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)),
                  static_cast<std::uint64_t>(number) * microsPerDay +
                      static_cast<std::uint64_t>(day) *
                          (microsPerHour + microsPerMinute + microsPerSecond + 1));
    }
    // A day before its year is in the week of the year that it lies in.
    for (std::int32_t day = -3000; day < 1; ++day) {
        const QELdateTime time = dateTime(2024, 1, day, 0, 0, 0, 0);
        ASSERT_EQ(time.week, brokenDown(static_cast<std::uint64_t>(toMicros(time))).week) << day;
    }
    for (const auto& [number, weekday] : {std::pair{INT64_MIN, 6}, {INT64_MAX, 0}}) {
        QELdateTime time = dateTime(2024, 3, 5, 0, 0, 0, 0);
        setDerived(time, number);
        EXPECT_EQ(time.weekday, weekday);
        EXPECT_TRUE(time.week >= 9 && time.week <= 11) << time.week;
    }
    EXPECT_EQ(dateTime(2024, 2, 31, 0, 0, 0, 0).dayOfYear, 62);
    EXPECT_EQ(daysFromDate(1582, 10, 14), -6644) << "the last of the days that were left out";
    EXPECT_EQ(daysFromDate(2023, 13, 1), daysFromDate(2024, 1, 1));
    EXPECT_EQ(daysFromDate(2024, 0, 1), daysFromDate(2023, 12, 1));
    EXPECT_EQ(daysFromDate(INT64_MAX, 5, 2) - daysFromDate(INT64_MAX, 5, 1), 1);
    EXPECT_EQ(daysFromDate(INT64_MIN, 5, 2) - daysFromDate(INT64_MIN, 5, 1), 1);
}

TEST(Text, FormsOfDatesTimesAndWeekdays) {
    const QELdateTime time = dateTime(987, 3, 5, 9, 5, 7, 4321);
    for (const auto& [text, expected] :
         {std::pair{formatDate(time, 1, true), "05.03.0987"},
          {formatDate(time, 1, false), "5.3.987"},
          {formatDate(time, 2, true), "03/05/0987"},
          {formatDate(time, 3, false), "09870305"},
          {formatDate(time, -7, false), "987-3-5"},
          {formatDate({.year = -1, .month = 12}, 0, true), "4294967295-12-00"},
          {formatDateTime(time, 1, 3, false), "5.3.987 9:05:07.004"},
          {formatTime(time, -1, true, ':'), "09:05"},
          {formatTime(time, 0, true, ' '), "09 05 07"},
          {formatTime(time, 6, true, '\x7f'), "09\x7f\x30\x35\x7f\x30\x37.004321"},
          {formatTime(time, greatest, true, ':'), "09:05:07.004321"},
          {formatTime(time, -1, false, '\0'), "905"},
          {formatTime(time, 0, true, '\x1f'), "090507"},
          {formatTime(time, 4, true, '\x80'), "090507.0043"},
          {formatTime({.microsecond = -1}, 6, true, ':'), "00:00:00.429496"},
          {weekdayName(0, 1, 0), "Montag"},
          {weekdayName(3, 1, 2), "Do"},
          {weekdayName(2, -1, 99), "Wednesday"},
          {weekdayName(7, 1, 0), ""}}) {
        EXPECT_EQ(text, expected);
    }
}

TEST(Parsers, TakeDatesAndTimesOfEveryFormAndNothingElse) {
    const auto check = [](auto* parser, std::initializer_list<std::string> rows) {
        for (const std::string& row : rows) {
            const std::string text = row.substr(0, row.find(" => "));
            EXPECT_EQ(text + " => " + parsed(parser, text), row);
        }
    };
    check(parseDate, {"5.3.2024 x => 2024-03-05| x", "Mar  5 2024 => 2024-03-05|",
                      "mAr-5 2024 => 2024-03-05|", "DEC 31 1601x => 1601-12-31|x",
                      "31.02.2024 => 2024-03-02|", "293877-12-31 => 293877-12-31|"});
    check(parseTime, {"7:5 => 07:05:00.000000|", "0:0:0.000123x => 00:00:00.000123|x",
                      "10:20.5 => 10:20:00.000000|.5", "10:30 PM => 10:30:00.000000| PM",
                      "11:15am => 11:15:00.000000|m", "12:30AM => 00:30:00.000000|M",
                      "12:30pM => 12:30:00.000000|M", "1:02:03.4Pm! => 13:02:03.400000|m!"});
    for (const char* text : {"293878-1-1",   "4294967295-1-1", "1600-12-31",
                             "2024-13-01",   "2024-00-01",     "2024-01-00",
                             "2024-01-32",   "2024-03/05",     "2024:03:05",
                             "2024-03-05x",  "2024-03-",       "2024--05",
                             "March 5 2024", "Mrz 5 2024",     "Mar 5 1600",
                             "Mar 5,2024",   "Mar   5 2024",   "",
                             "Mar",          "Mar 5",          "Mar 5 "}) {
        EXPECT_EQ(parsed(parseDate, text), "refused") << text;
    }
    for (const char* text :
         {"13:00AM", "13:00pm", "10:30A", "10:30Px", "24:00", "10:60", "10:30:60",
          "10:30:", "10:30:00.", "10:30:00.1234567", "10:", "10-30", ":30", ""}) {
        EXPECT_EQ(parsed(parseTime, text), "refused") << text;
    }
}

TEST(Duration, IsSplitAndWrittenAsMaskAndFormatSay) {
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    for (const auto& [micros, mask, format, expected] :
         std::initializer_list<std::tuple<std::int64_t, unsigned, const char*, const char*>>{
             {93'784'005'006, 31, "%D days %02h:%02m:%02s.%03f", "1 days 02:03:04.005"},
             {-90'000'000, 6, "%m min %s s", "1 min 30 s"},
             {-most - 1, 127, "%Y/%M/%D %h:%m:%s.%f", "292277/0/8 23:52:30.775808"},
             {most, 1, "%u", "9223372036854775807"},
             {31'556'952'000'000 - 1, 66, "%Y %s", "0 31556951"},
             {2'629'746'000'000, 32 | 8, "%M %h", "1 0"},
             {0, 127, "%f %01f %06f %07f", "000000 0 000000 000000"},
             {5'000'000, 2, "%x3s|%-12s|%%1s|%s", "xx5|-----------5|5|5"},
             {1'000'000, 2, "%s%s%s%s%s%s%s%s%", "1111111%s%"},
             {0, 127, "no directive", "no directive"}}) {
        QELduration duration{.years = 9, .microseconds = 9};
        splitDuration(duration, micros, static_cast<std::uint8_t>(mask));
        EXPECT_EQ(formatDuration(duration, format), expected) << format;
        EXPECT_EQ(duration.negative, micros < 0);
        EXPECT_TRUE(mask != 31 || durationMicros(duration) == micros);
    }
    QELduration duration{.years = 3, .months = 2, .seconds = 1, .negative = true};
    EXPECT_EQ(durationMicros(duration), -1'000'000);
    EXPECT_EQ(durationMicros({.days = ~std::uint64_t{0}, .microseconds = 2}), 2 - microsPerDay);
    EXPECT_EQ(formatDuration({.hours = ~std::uint64_t{0}}, "%04h"), "00-1");
    for (const char* malformed : {static_cast<const char*>(nullptr), "cut short: %", "%02", "%2h",
                                  "%x", "%0-2s", "%065536s"}) {
        EXPECT_EQ(formatDuration(duration, malformed), "");
    }
    clearDuration(duration);
    EXPECT_EQ(duration, QELduration{});
}

TEST(FileInfo, PathAndStreamTellTheSameAndTheUnknownClearsTheRecord) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    std::FILE* const stream = file.get();
    const std::string path = "/proc/self/fd/" + std::to_string(fileno(stream));
    EXPECT_GE(std::fputs("twelve bytes", stream) + std::fflush(stream), 0);
    const std::array<timespec, 2> times = {{{0, 0}, {1'700'000'000, 999'999'999}}};
    EXPECT_EQ(futimens(fileno(stream), times.data()) + fchmod(fileno(stream), 0577), 0);
    QELfileInfo info;
    for (const auto& statUnknown : std::initializer_list<void (*)(QELfileInfo&)>{
             [](auto& i) { statStream(i, nullptr); }, [](auto& i) { statPath(i, nullptr); },
             [](auto& i) {
                 statPath(i, "/no/such/file");
             }}) {
        statStream(info, stream);
        EXPECT_TRUE(info.mode == 0100577 && info.size == 12);
        EXPECT_EQ(info.modified, 1'700'000'000U * microsPerSecond);
        EXPECT_TRUE(isRegular(info) && !isDirectory(info) && !isWritable(info));
        statUnknown(info);
        EXPECT_TRUE(info.mode == 0 && info.size == 0 && info.modified == 0);
        statPath(info, path.c_str());
        EXPECT_TRUE(info.mode == 0100577 && info.size == 12);
        statUnknown(info);
        EXPECT_FALSE(isRegular(info) || isDirectory(info) || isWritable(info));
    }
    statPath(info, "/");
    EXPECT_TRUE(!isRegular(info) && isDirectory(info) && isWritable(info));
}

TEST(Clocks, AreThoseOfTheSystemInEveryZone) {
    // Zone, standard offset and offset now, in minutes. BBB is daylight saving time that is in
    // force all year.
    for (const auto& [zone, standard, offset] : {std::tuple{"AAA-1", 60, 60},
                                                 {"AAA3:30", -210, -210},
                                                 {"AAA-1BBB,0/0,J365/25", 60, 120}}) {
        setenv("TZ", zone, 1);
        std::int32_t minutes = 0;
        const std::int64_t before =
            std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1) +
            unixEpochMicros;
        const std::int64_t utc = nowUtc();
        const std::int64_t local = nowLocal(&minutes) - offset * microsPerMinute;
        const std::int64_t after = nowUtc();
        EXPECT_EQ(minutes, standard) << zone;
        EXPECT_TRUE(before <= utc && utc <= local && local <= after &&
                    after < before + microsPerHour)
            << zone << ": " << local - utc;
    }
    unsetenv("TZ");
}

TEST(Clocks, TicksGrowAcrossEachWrapOfTheCounter) {
    constexpr std::int64_t wrap = std::int64_t{1} << 32;
    QELtickClock clock{10'000};
    std::vector<std::int64_t> ticks;
    for (const std::int32_t raw : {5, greatest, least, -1, 0, 0, -1}) {
        ticks.push_back(clock.micros(raw) / 10'000);
    }
    EXPECT_EQ(ticks, (std::vector<std::int64_t>{5, greatest, wrap / 2, wrap - 1, wrap, wrap,
                                                2 * wrap - 1}));
    EXPECT_EQ(QELtickClock{1}.micros(-2), wrap - 2) << "a first reading below 0 has wrapped";
    const std::int64_t tick = microsPerSecond / sysconf(_SC_CLK_TCK);
    const std::int64_t start = tickMicros();
    const std::int64_t utc = nowUtc();
    ASSERT_EQ(sleepMicros(50'000), 0);
    const std::int64_t elapsed = tickMicros() - start;
    EXPECT_TRUE(50'000 - tick <= elapsed && elapsed <= nowUtc() - utc + 2 * tick) << elapsed;
}

} // namespace
