#include "QELclock.h"
#include "QELdateTime.h"
#include "QELdateTimeParse.h"
#include "QELduration.h"
#include "QELfileInfo.h"
#include "QELgregorian.h"
#include "QELtickClock.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

QELdateTime derived(QELdateTime time) {
    updateDerived(time);
    return time;
}

QELdateTime brokenDown(std::uint64_t micros) {
    QELdateTime time;
    fromMicros(time, micros);
    return time;
}

/// The date or time in a text and, after a bar, what is left of the text; nothing if refused.
std::string parsed(bool (*parser)(const char*&, std::int64_t&), const std::string& text) {
    const char* cursor = text.c_str();
    std::int64_t micros = -77;
    if (!parser(cursor, micros)) {
        return micros == -77 ? "" : "changed";
    }
    const QELdateTime time = brokenDown(static_cast<std::uint64_t>(micros));
    return (parser == parseDate ? formatDate(time, 0, true) : formatTime(time, 6, true, ':')) +
           "|" + cursor;
}

TEST(Calendar, EveryDayUntil9999AndManyBeyondAreThoseOfTheCLibraryAndReadBack) {
    constexpr int end = 3'067'671; // 10000-01-01
    std::mt19937_64 random{8};
    for (int i = 0; i < end + 100'000; ++i) {
        const std::uint64_t ofDay =
            i % 3 == 0 ? 0 : (i % 3 == 1 ? microsPerDay - 1 : random() % microsPerDay);
        const std::uint64_t micros = i < end ? i * microsPerDay + ofDay : random() >> i % 6;
        const auto seconds = static_cast<std::time_t>(micros / microsPerSecond - 11'644'473'600);
        std::tm fields{};
        gmtime_r(&seconds, &fields);
        std::array<char, 32> text{};
        strftime(text.data(), text.size(), "%V %b %e %Y", &fields);
        QELdateTime time;
        setDate(time, fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                fields.tm_min, fields.tm_sec, static_cast<std::int32_t>(micros % microsPerSecond));
        ASSERT_EQ(brokenDown(micros), time);
        ASSERT_EQ(static_cast<std::uint64_t>(toMicros(time)), micros);
        ASSERT_EQ(time.weekday, (fields.tm_wday + 6) % 7);
        ASSERT_EQ(time.dayOfYear, fields.tm_yday + 1);
        ASSERT_EQ(time.week, std::stoi(text.data()));
        if (i % 8 == 0 && time.year <= 293'877) {
            const std::string date = formatDate(time, 0, true) + "|";
            ASSERT_EQ(parsed(parseDate, &text[3]), date);
            ASSERT_EQ(parsed(parseDate, formatDate(time, i % 3, i % 5 == 0)), date);
            ASSERT_EQ(parsed(parseTime, formatTime(time, 6, i % 5 == 0, ':')),
                      formatTime(time, 6, true, ':') + "|");
        }
    }
}

TEST(Calendar, DatesBefore1601AreCountedWithoutGapOrOverlap) {
    std::int64_t julianDay = 0;
    for (std::int32_t year = -4713; year < 1583; year += year == -1 ? 2 : 1) {
        const int leapDay = (year < 0 ? year + 1 : year) % 4 == 0 ? 1 : 0;
        std::int32_t dayOfYear = 1;
        for (std::int32_t month = 1; month <= 12; ++month) {
            const int length = daysInMonth({.month = month}) + (month == 2 ? leapDay : 0);
            for (std::int32_t day = 1; day <= length; ++day, ++dayOfYear) {
                if (year != 1582 || month != 10 || day < 5 || day > 14) { // not of the switch
                    const QELdateTime time = derived({year, month, day});
                    ASSERT_EQ(toMicros(time), (julianDay++ - 2'305'814) * microsPerDay);
                    ASSERT_EQ(time.dayOfYear, dayOfYear);
                }
            }
        }
    }
    EXPECT_EQ(julianDay - 2'305'814, daysFromDate(1583, 1, 1));
}

// The sanitizers watch; what can be said of such a date has to come out right all the same.
TEST(Calendar, FieldsBeyondTheirRangeRunOn) {
    constexpr std::array fields = {INT_MIN, -400, -1, 0, 1, 3, 13, 9999, INT_MAX};
    for (std::size_t i = 0; i < fields.size() * fields.size() * fields.size(); ++i) {
        const std::int32_t year = fields[i % 9], month = fields[i / 9 % 9], day = fields[i / 81];
        const QELdateTime time = derived({year, month, day, 0, 0, 0, day});
        const auto number = static_cast<std::uint64_t>(daysFromDate(year, month, day));
        ASSERT_EQ(static_cast<std::int64_t>(number - time.weekday) % 7, 0);
        ASSERT_TRUE(time.weekday >= 0 && time.weekday < 7 && time.week >= 1 && time.week <= 53);
        ASSERT_EQ(daysInMonth(time), month == 3 || month == 1 ? 31 : 0);
        ASSERT_EQ(toMicros(time), static_cast<std::int64_t>(number * microsPerDay + day));
    }
    for (const std::int64_t number : {INT64_MIN, INT64_MAX}) {
        QELdateTime time = derived({2024, 3, 5});
        setDerived(time, number);
        EXPECT_EQ(time.weekday, number < 0 ? 6 : 0);
        EXPECT_EQ(daysFromDate(number, 5, 2) - daysFromDate(number, 5, 1), 1);
    }
    EXPECT_EQ(daysFromDate(1582, 10, 14), -6644) << "the last of the days that were left out";
    EXPECT_EQ(daysFromDate(2023, 13, 1) - daysFromDate(2024, 0, 1), 31);
    EXPECT_EQ(derived({2024, 1, -3000 - 146'097}).week, 42) << "of 1615-10-14";
}

TEST(Text, FormsOfDatesTimesAndWeekdays) {
    const QELdateTime time = derived({987, 3, 5, 9, 5, 7, 4321});
    for (const auto& [text, expected] :
         {std::pair{formatDate(time, 3, false), "09870305"},
          {formatDate({.year = -1, .month = 12}, -7, true), "4294967295-12-00"},
          {formatDateTime(time, 1, 3, false), "5.3.987 9:05:07.004"},
          {formatTime(time, INT_MIN, true, ':'), "09:05"},
          {formatTime(time, 0, true, ' '), "09 05 07"},
          {formatTime(time, INT_MAX, false, '\x1f'), "90507.004321"},
          {formatTime({.microsecond = -1}, 4, true, '\x80'), "000000.4294"}}) {
        EXPECT_EQ(text, expected);
    }
    std::string names;
    for (unsigned day = 0; day < 8; ++day) {
        names += weekdayName(day, 1, 0) + weekdayName(day, -1, 3);
    }
    EXPECT_EQ(names, "MontagMonDienstagTueMittwochWedDonnerstagThuFreitagFriSamstagSatSonntagSun");
}

TEST(Parsers, TakeDatesAndTimesOfEveryFormAndNothingElse) {
    const auto check = [](auto* parser, const char* table) {
        std::istringstream rows(table);
        for (std::string row; std::getline(rows, row, ';');) {
            const std::string text = row.substr(0, row.find('='));
            EXPECT_EQ(text + '=' + parsed(parser, text), row);
        }
    };
    check(parseDate, "5.3.2024 x=2024-03-05| x;mAr-5 2024=2024-03-05|;31.02.2024=2024-03-02|;"
                     "DEC 31 1601x=1601-12-31|x;293877-12-31=293877-12-31|;293878-1-1=;"
                     "4294967295-1-1=;1600-12-31=;Mar 5 1600=;2024-13-01=;2024-00-01=;"
                     "2024-01-00=;2024-01-32=;2024-03/05=;2024:03:05=;2024-03-05x=;2024-03-=;"
                     "2024--05=;March 5 2024=;Mrz 5 2024=;Mar 5,2024=;Mar=;Mar 5=;Mar 5 =;=");
    check(parseTime, "7:5=07:05:00.000000|;10:20.5=10:20:00.000000|.5;12:30AM=00:30:00.000000|M;"
                     "10:30 PM=10:30:00.000000| PM;12:30pM=12:30:00.000000|M;10:20:30.=;10:30A=;"
                     "1:02:03.4am!=01:02:03.400000|m!;13:00AM=;13:00pm=;10:30Px=;24:00=;10:60=;"
                     "10:30:60=;10:30:=;10:30:00.1234567=;10:=;10-30=;=");
}

TEST(Duration, IsSplitAndWrittenAsMaskAndFormatSay) {
    for (const auto& [micros, mask, format, expected] :
         std::initializer_list<std::tuple<std::int64_t, std::uint8_t, const char*, const char*>>{
             {-93'784'005'006, 31, "%D days %02h:%02m:%02s.%03f", "1 days 02:03:04.005"},
             {INT64_MIN, 127, "%Y/%M/%D %h:%m:%s.%f", "292277/0/8 23:52:30.775808"},
             {31'556'952'000'000 - 1, 99, "%Y %M %s %u", "0 11 2629745 999999"},
             {0, 127, "%f %01f %06f %07f", "000000 0 000000 000000"},
             {5'000'000, 2, "%x3s|%-12s|%%1s|%Y", "xx5|-----------5|5|0"},
             {1'000'000, 2, "%s%s%s%s%s%s%s%s%", "1111111%s%"}}) {
        QELduration duration{.years = 9, .microseconds = 9};
        splitDuration(duration, micros, mask);
        EXPECT_EQ(formatDuration(duration, format), expected);
        EXPECT_EQ(duration.negative, micros < 0);
        for (const char* malformed : {"cut short: %", "%02", "%2h", "%x", "%0-2s", "%065536s"}) {
            EXPECT_EQ(formatDuration(duration, malformed), "");
        }
    }
    EXPECT_EQ(durationMicros({.years = 3, .days = 1, .negative = true}), -microsPerDay);
    EXPECT_EQ(formatDuration({.hours = UINT64_MAX}, "%04h"), "00-1");
    EXPECT_EQ(formatDuration({}, nullptr), "");
}

TEST(FileInfo, PathAndStreamTellTheSameAndTheUnknownClearsTheRecord) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    const int fd = fileno(file.get());
    EXPECT_EQ(write(fd, "twelve bytes", 12), 12);
    const std::array<timespec, 2> times = {{{0, 0}, {1'700'000'000, 999'999'999}}};
    EXPECT_EQ(futimens(fd, times.data()) + fchmod(fd, 0577), 0);
    QELfileInfo info;
    std::ostringstream told;
    const auto look = [&](auto stat, auto what) {
        stat(info, what);
        told << info.mode << ' ' << info.size << ' ' << info.modified << '\n';
    };
    look(statPath, ("/proc/self/fd/" + std::to_string(fd)).c_str());
    EXPECT_TRUE(isRegular(info) && !isDirectory(info) && !isWritable(info));
    look(statPath, "/no/such/file");
    look(statStream, file.get());
    look(statStream, nullptr);
    const std::string row = std::to_string(0100577) + " 12 1700000000000000\n0 0 0\n";
    EXPECT_EQ(told.str(), row + row);
    statPath(info, "/");
    EXPECT_TRUE(!isRegular(info) && isDirectory(info) && isWritable(info));
}

TEST(Clocks, AreThoseOfTheSystemInEveryZone) {
    // Zone, standard offset and offset now, in minutes; BBB is in force all year.
    for (const auto& [zone, standard, offset] : {std::tuple{"AAA-1", 60, 60},
                                                 {"AAA3:30", -210, -210},
                                                 {"AAA-1BBB,0/0,J365/25", 60, 120}}) {
        setenv("TZ", zone, 1);
        std::int32_t minutes = 0;
        const std::int64_t begin = std::time(nullptr) * microsPerSecond + unixEpochMicros;
        const std::int64_t local = nowLocal(&minutes) - offset * microsPerMinute;
        EXPECT_EQ(minutes, standard) << zone;
        EXPECT_TRUE(begin <= local && local <= nowUtc() && nowUtc() < begin + microsPerHour / 2);
    }
}

TEST(Clocks, TicksGrowAcrossEachWrapOfTheCounter) {
    constexpr std::int64_t wrap = std::int64_t{1} << 32;
    QELtickClock clock{10'000};
    std::vector<std::int64_t> ticks;
    for (const std::int32_t raw : {-2, 5, INT_MAX, INT_MIN, INT_MIN}) {
        ticks.push_back(clock.micros(raw) / 10'000);
    }
    EXPECT_EQ(ticks, (std::vector{wrap - 2, wrap + 5, wrap + INT_MAX, 3 * wrap / 2, 3 * wrap / 2}));
    const std::int64_t tick = microsPerSecond / sysconf(_SC_CLK_TCK);
    const std::int64_t utc = nowUtc(), start = tickMicros();
    ASSERT_EQ(sleepMicros(50'000), 0);
    const std::int64_t elapsed = tickMicros() - start;
    EXPECT_TRUE(50'000 - tick <= elapsed && elapsed <= nowUtc() - utc + tick) << elapsed;
}

} // namespace
