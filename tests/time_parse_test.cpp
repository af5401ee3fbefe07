#include "QELdateTime.h"
#include "QELdateTimeParse.h"
#include "QELduration.h"
#include "QELfileInfo.h"
#include "QELgregorian.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Parser = bool (*)(const char*&, std::int64_t&);

constexpr std::int64_t untouched = -77;
constexpr auto smallest = std::numeric_limits<std::int64_t>::min();

// Parses text that ends where its memory does, so that the sanitizer sees a step beyond. Returns
// the date or time and, after a bar, the text left, or "refused".
std::string parsed(Parser parser, std::string_view text) {
    std::vector<char> memory(text.begin(), text.end());
    memory.push_back('\0');
    memory.shrink_to_fit();
    const char* cursor = memory.data();
    std::int64_t micros = untouched;
    const bool accepted = parser(cursor, micros);
    EXPECT_EQ(accepted, micros != untouched) << text;
    EXPECT_TRUE(cursor >= memory.data() && cursor <= &memory.back()) << text;
    if (!accepted) {
        return "refused";
    }
    QELdateTime time;
    fromMicros(time, static_cast<std::uint64_t>(micros));
    const std::string result =
        parser == parseDate ? formatDate(time, 0, true) : formatTime(time, 6, true, ':');
    return result + "|" + cursor;
}

TEST(ReadNumber, StopsAtTheFirstOtherCharacter) {
    std::uint32_t value = 99;
    const char* cursor = "007:";
    EXPECT_TRUE(readNumber(cursor, value));
    EXPECT_EQ(value, 7U);
    EXPECT_FALSE(readNumber(cursor, value));
    EXPECT_EQ(value, 0U);
    EXPECT_STREQ(cursor, ":");
    cursor = "4294967297";
    EXPECT_TRUE(readNumber(cursor, value));
    EXPECT_EQ(value, 1U);
}

TEST(ParseDate, AcceptsItsFormsAndNothingElse) {
    const std::map<std::string, std::string> cases = {
        {"2024-03-05", "2024-03-05|"},     {"5.3.2024 x", "2024-03-05| x"},
        {"03/05/2024", "2024-03-05|"},     {"Mar  5 2024", "2024-03-05|"},
        {"mAr-5 2024", "2024-03-05|"},     {"DEC 31 1601x", "1601-12-31|x"},
        {"31.02.2024", "2024-03-02|"},     {"1601-1-1", "1601-01-01|"},
        {"293877-12-31", "293877-12-31|"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(parsed(parseDate, text), expected) << text;
    }
    const std::vector<const char*> refused = {
        "293878-01-01",
        "4294967295-01-01",
        "1600-12-31",
        "2024-13-01",
        "2024-00-01",
        "2024-01-00",
        "2024-01-32",
        "2024-03/05",
        "2024:03:05",
        "2024-03-05x",
        "2024-03-",
        "2024--05",
        "",
        "Ma",
        "Mar",
        "Mar ",
        "Mar 5",
        "Mar 5 ",
        "Mar 5,2024",
        "Mar   5 2024",
        "March 5 2024",
        "Mrz 5 2024",
        "Mar 5 1600",
    };
    for (const char* text : refused) {
        EXPECT_EQ(parsed(parseDate, text), "refused") << text;
    }
}

TEST(ParseTime, AcceptsItsFormsAndNothingElse) {
    const std::map<std::string, std::string> cases = {
        {"23:59:59.999999", "23:59:59.999999|"}, {"7:5", "07:05:00.000000|"},
        {"0:00:01.5", "00:00:01.500000|"},       {"0:0:0.000123x", "00:00:00.000123|x"},
        {"10:20.5", "10:20:00.000000|.5"},       {"10:30 PM", "10:30:00.000000| PM"},
        {"11:15PM", "23:15:00.000000|M"},        {"11:15am", "11:15:00.000000|m"},
        {"12:30AM", "00:30:00.000000|M"},        {"12:30pM", "12:30:00.000000|M"},
        {"0:01PM", "12:01:00.000000|M"},         {"1:02:03.4Pm!", "13:02:03.400000|m!"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(parsed(parseTime, text), expected) << text;
    }
    for (const char* text :
         {"13:00AM", "13:00pm", "10:30A", "10:30Px", "24:00", "10:60", "10:30:60",
          "10:30:", "10:30:00.", "10:30:00.1234567", "10:", "10-30", ":30", ""}) {
        EXPECT_EQ(parsed(parseTime, text), "refused") << text;
    }
}

TEST(Parsers, ReadWhatTheFormattersWrite) {
    std::mt19937_64 random{5};
    for (int i = 0; i < 50'000; ++i) {
        QELdateTime time;
        fromMicros(time, random() % (3'000'000 * std::uint64_t{microsPerDay}));
        const std::string date = formatDate(time, i % 3, i % 2 == 0);
        ASSERT_EQ(parsed(parseDate, date), formatDate(time, 0, true) + "|") << date;
        const std::string ofDay = formatTime(time, 6, i % 2 == 0, ':');
        ASSERT_EQ(parsed(parseTime, ofDay), formatTime(time, 6, true, ':') + "|") << ofDay;
    }
}

TEST(Parsers, NoTextLeadsThemBeyondItsEnd) {
    constexpr std::string_view alphabet = "0123456789::--..//  aAmMpPrRjJnN\xff";
    std::mt19937_64 random{6};
    for (int i = 0; i < 100'000; ++i) {
        std::string text(random() % 12, ' ');
        std::generate(text.begin(), text.end(),
                      [&] { return alphabet[random() % alphabet.size()]; });
        parsed(parseDate, text); // checks the cursor
        parsed(parseTime, text);
    }
}

std::string split(std::int64_t micros, unsigned mask) {
    QELduration duration{.years = 9, .microseconds = 9, .negative = true};
    splitDuration(duration, micros, static_cast<std::uint8_t>(mask));
    return formatDuration(duration,
                          duration.negative ? "-%Y %M %D %h %m %s %u" : "%Y %M %D %h %m %s %u");
}

TEST(Duration, SplitFillsOnlyTheSelectedUnits) {
    constexpr std::int64_t year = 31'556'952 * microsPerSecond;
    EXPECT_EQ(split(-90'000'000, unitMinutes | unitSeconds), "-0 0 0 0 1 30 0");
    EXPECT_EQ(split(93'784'005'006, 31), "0 0 1 2 3 4 5006");
    EXPECT_EQ(split(2 * year + year / 12 + 7'000'001, unitYears | unitSeconds),
              "2 0 0 0 0 2629753 0");
    EXPECT_EQ(split(year - 1, unitYears | unitMonths | unitMicroseconds),
              "0 11 0 0 0 0 2629745999999");
    EXPECT_EQ(split(50 * microsPerHour, unitHours), "0 0 0 50 0 0 0");
    EXPECT_EQ(split(-1, 0), "-0 0 0 0 0 0 0");
    EXPECT_EQ(split(smallest, unitDays | unitHours), "-0 0 106751991 4 0 0 0");
}

TEST(Duration, SpansAreReversible) {
    std::mt19937_64 random{7};
    for (int i = 0; i < 100'000; ++i) {
        const std::int64_t micros = i == 0 ? smallest : static_cast<std::int64_t>(random());
        QELduration duration;
        splitDuration(duration, micros,
                      static_cast<std::uint8_t>(random() % 32 | unitMicroseconds));
        ASSERT_EQ(durationMicros(duration), micros);
    }
    EXPECT_EQ(durationMicros({.years = 3, .months = 2, .seconds = 1}), 1'000'000);
    EXPECT_EQ(durationMicros({.days = ~std::uint64_t{0}, .microseconds = 2}), 2 - microsPerDay);
}

TEST(Duration, FormatLanguage) {
    const QELduration duration{.years = 1,
                               .months = 22,
                               .days = 333,
                               .hours = 4,
                               .minutes = 5,
                               .seconds = 6,
                               .microseconds = 7089,
                               .negative = true};
    const std::map<std::string, std::string> cases = {
        {"as it is", "as it is"},
        {"%D days %02h:%02m:%02s.%03f!", "333 days 04:05:06.007!"},
        {"%Y,%M,%D,%h,%m,%s,%u", "1,22,333,4,5,6,7089"},
        {"%f %05f %06f %99f", "007089 00708 007089 007089"},
        {"%*6D|% 1D|%x2M|%%3h|%00h", "***333|333|22|%%4|4"},
        {"%s%s%s%s%s%s%s %s %q %", "6666666 %s %q %"},
    };
    for (const auto& [format, expected] : cases) {
        EXPECT_EQ(formatDuration(duration, format.c_str()), expected) << format;
    }
    // Cut short, without fill character or width, too wide, or with an unknown unit.
    for (const char* format : {"%", "a%", "%x", "%2h", "%h%0", "%02", "%02x", "%0-2h", "%0 2h",
                               "%099999999999999999999h", "%065536h"}) {
        EXPECT_EQ(formatDuration(duration, format), "") << format;
    }
    EXPECT_EQ(formatDuration(duration, nullptr), "");
    EXPECT_EQ(formatDuration({}, "%f"), "000000");
    EXPECT_EQ(formatDuration({.days = ~std::uint64_t{0}}, "%03D"), "0-1");
    QELduration cleared = duration;
    clearDuration(cleared);
    EXPECT_EQ(cleared, QELduration{});
}

bool operator==(const QELfileInfo& left, const QELfileInfo& right) {
    return left.mode == right.mode && left.size == right.size && left.modified == right.modified;
}

TEST(FileInfo, PathAndStreamTellTheSame) {
    const std::string name = testing::TempDir() + "time_parse_test." + std::to_string(getpid());
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream{std::fopen(name.c_str(), "w"),
                                                                 std::fclose};
    ASSERT_NE(stream, nullptr);
    std::fputs("twelve bytes", stream.get());
    std::fflush(stream.get());
    const std::array<timespec, 2> times = {
        {{.tv_sec = 0, .tv_nsec = 0}, {.tv_sec = 1'700'000'000, .tv_nsec = 999'999'999}}};
    futimens(fileno(stream.get()), times.data());
    fchmod(fileno(stream.get()), 0500);

    QELfileInfo byStream;
    statStream(byStream, stream.get());
    QELfileInfo byPath;
    statPath(byPath, name.c_str());
    std::remove(name.c_str());
    const QELfileInfo expected{.mode = 0100500, .size = 12, .modified = 1'700'000'000'000'000};
    EXPECT_TRUE(byStream == expected);
    EXPECT_TRUE(byPath == expected);
    EXPECT_TRUE(isRegular(byPath) && !isDirectory(byPath) && !isWritable(byPath));

    statPath(byPath, testing::TempDir().c_str());
    EXPECT_TRUE(!isRegular(byPath) && isDirectory(byPath) && isWritable(byPath));
}

TEST(FileInfo, UnknownFileClearsTheRecord) {
    const QELfileInfo old{.mode = 0100600, .size = 2, .modified = 3};
    for (const char* path : {"/no/such/file", static_cast<const char*>(nullptr)}) {
        QELfileInfo info = old;
        statPath(info, path);
        EXPECT_TRUE(info == QELfileInfo{});
    }
    QELfileInfo info = old;
    statStream(info, nullptr);
    EXPECT_TRUE(info == QELfileInfo{});
    EXPECT_FALSE(isRegular(info) || isDirectory(info) || isWritable(info));
}

} // namespace
