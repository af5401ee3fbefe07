#include "QELlogger5.h"
#include "QELlogger5_3164.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_DEV.h"
#include "QELlogger5_UDP.h"
#include "QELlogger5_ostream.h"
#include "QELlogger5dev.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <netinet/in.h>
#include <new>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<int> allocations = 0;

} // namespace

// Count what the process allocates. Not inlined, so that the compiler sees a pair.
// NOLINTBEGIN(*-owning-memory): they are the owners
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        std::abort();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
// NOLINTEND(*-owning-memory)

namespace {

using namespace std::chrono;
using namespace std::string_literals;

/// A library time from the standard library's calendar.
std::uint64_t libraryTime(sys_days day, microseconds ofDay = {}) {
    return static_cast<std::uint64_t>((day - sys_days(year(1601) / 1 / 1) + ofDay) /
                                      microseconds(1));
}

const std::uint64_t exampleTime =
    libraryTime(year(2024) / 3 / 5, 10h + 20min + 30s + microseconds(123456));

/// RFC 5424's shape at a time that stands still.
struct FixedFormatter final : QELlogger5::Formatter {
    [[nodiscard]] std::string format(int severity, std::string_view hostName,
                                     std::string_view appName,
                                     std::string_view text) const override {
        return QELlogger5_5424::formatAt(exampleTime, severity, hostName, appName, text);
    }
};

/// The line of FixedFormatter for a logger of host "dev01" and application "sip".
std::string exampleLine(const std::string& text, int severity = 6) {
    return "<" + std::to_string(8 + severity) + ">1 2024-03-05T10:20:30.123Z dev01 sip " +
           std::to_string(getpid()) + " - " + text;
}

struct Recorder final : QELlogger5::Sender {
    int send(std::string_view line) override {
        lines.emplace_back(line);
        return result;
    }
    std::vector<std::string> lines;
    int result = 0;
};

struct LoggerTest : testing::Test {
    LoggerTest() { logger.setup("dev01", "sip", &formatter, &recorder); }
    FixedFormatter formatter;
    Recorder recorder;
    QELlogger5 logger;
};

/// A datagram socket that receives what a sender sends.
struct Receiver {
    explicit Receiver(const QELsocka& address) {
        EXPECT_EQ(socket.open(address.family()), 0);
        EXPECT_EQ(socket.bind(address), 0);
    }
    [[nodiscard]] std::uint16_t port() const {
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
        return ntohs(bound.sin_port);
    }
    std::string next() {
        std::array<char, 5000> buffer{};
        const int received = socket.recvFrom(buffer.data(), buffer.size(), 60'000'000);
        return received < 0 ? "nothing: " + std::to_string(received)
                            : std::string(buffer.data(), static_cast<std::size_t>(received));
    }
    QELsockBase socket;
};

/// No descriptor can be opened while this lives.
struct NoDescriptors {
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    rlimit before{};
};

TEST(Formatters, WriteTheLineByteForByte) {
    const std::string pid = std::to_string(getpid());
    const std::uint64_t early =
        libraryTime(year(2024) / 12 / 15, 9h + 5min + 7s + microseconds(4999));
    const std::uint64_t farYears = UINT64_MAX / 12'622'780'800'000'000; // of 400 years each
    struct Case {
        std::uint64_t time;
        int severity;
        std::string host, app, text, line5424, line3164;
    };
    const std::vector<Case> cases = {
        {exampleTime, 6, "dev01", "sip", "Call setup done",
         "<14>1 2024-03-05T10:20:30.123Z dev01 sip " + pid + " - Call setup done",
         "<14>Mar  5 10:20:30 dev01 123 sip: Call setup done"},
        {early, 3, "dev01", "sip", "a - b  c\n",
         "<11>1 2024-12-15T09:05:07.004Z dev01 sip " + pid + " - a - b  c\n",
         "<11>Dec 15 09:05:07 dev01 004 sip: a - b  c\n"},
        {0, 7, "", "", "", "<15>1 1601-01-01T00:00:00.000Z   " + pid + " - ",
         "<15>Jan  1 00:00:00  000 : "},
        {0, 16, "a b", "c", "\0x"s, "<24>1 1601-01-01T00:00:00.000Z a b c " + pid + " - \0x"s,
         "<24>Jan  1 00:00:00 a b 000 c: \0x"s},
        {12'622'780'800'000'000 * farYears, -1, "h", "a", "x",
         "<-1>1 " + std::to_string(1601 + 400 * farYears) + "-01-01T00:00:00.000Z h a " + pid +
             " - x",
         "<-1>Jan  1 00:00:00 h 000 a: x"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(QELlogger5_5424::formatAt(c.time, c.severity, c.host, c.app, c.text), c.line5424);
        EXPECT_EQ(QELlogger5_3164::formatAt(c.time, c.severity, c.host, c.app, c.text), c.line3164);
    }
    for (int severity = 0; severity < 16; ++severity) {
        const std::string start = "<" + std::to_string(severity < 8 ? 8 + severity : severity);
        EXPECT_EQ(QELlogger5_5424::formatAt(0, severity, "", "", "").find(start + ">1 "), 0);
        EXPECT_EQ(QELlogger5_3164::formatAt(0, severity, "", "", "").find(start + ">Jan"), 0);
    }
}

TEST(Formatters, CutEveryLineAboveTheLimitAndNoOther) {
    const auto check = [](const auto& format, std::size_t limit) {
        std::string digits;
        for (int n = 0; digits.size() < 3 * limit; ++n) {
            digits += std::to_string(n);
        }
        const std::size_t fixed = format("", "", "").size();
        for (const int field : {0, 1, 2}) {
            const auto with = [&](const std::string& value) {
                return field == 0   ? format(value, "", "")
                       : field == 1 ? format("", value, "")
                                    : format("", "", value);
            };
            // Where the value begins is where the lines of two values first differ.
            const std::string a = with("a");
            const std::string b = with("b");
            std::size_t start = 0;
            while (a[start] == b[start]) {
                ++start;
            }
            const std::string before = a.substr(0, start);
            const std::string after = a.substr(start + 1);
            for (std::size_t length = limit - fixed - 20; length < digits.size(); ++length) {
                const std::string value = digits.substr(0, length);
                const std::string whole = std::string(before).append(value).append(after);
                const std::string line = with(value);
                if (whole.size() <= limit) {
                    ASSERT_EQ(line, whole);
                } else {
                    ASSERT_EQ(line, whole.substr(0, limit - 3) + "...");
                }
            }
        }
    };
    check(
        [](const std::string& host, const std::string& app, const std::string& text) {
            return QELlogger5_5424::formatAt(exampleTime, 6, host, app, text);
        },
        480);
    check(
        [](const std::string& host, const std::string& app, const std::string& text) {
            return QELlogger5_3164::formatAt(exampleTime, 6, host, app, text);
        },
        1024);
}

TEST(Formatters, StampTheCurrentTime) {
    const auto check = [](const QELlogger5::Formatter& formatter, const auto& formatAt) {
        std::string before;
        std::string line;
        std::string after;
        do { // until all three fall into one millisecond
            before = formatAt(QELlogger5::utcNowUs());
            line = formatter.format(6, "h", "a", "x");
            after = formatAt(QELlogger5::utcNowUs());
        } while (before != after);
        EXPECT_EQ(line, before);
    };
    check(QELlogger5_5424(),
          [](std::uint64_t time) { return QELlogger5_5424::formatAt(time, 6, "h", "a", "x"); });
    check(QELlogger5_3164(),
          [](std::uint64_t time) { return QELlogger5_3164::formatAt(time, 6, "h", "a", "x"); });

    const auto unixTime = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    const std::uint64_t libraryNow = libraryTime(sys_days(), unixTime);
    EXPECT_GE(QELlogger5::utcNowUs(), libraryNow);
    EXPECT_LT(QELlogger5::utcNowUs(), libraryNow + 3'600'000'000);
}

TEST(Formatters, AForkedProcessLogsUnderItsOwnId) {
    const auto lineId = [] {
        const std::string line = QELlogger5_5424::formatAt(0, 6, "h", "a", "");
        return std::stoi(line.substr(line.find(" a ") + 3));
    };
    ASSERT_EQ(lineId(), getpid());
    const pid_t child = fork();
    if (child == 0) {
        _exit(lineId() == getpid() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lineId(), getpid());
}

TEST(Calendar, EveryDayOfTheYears1601To9999IsThatOfTheStandardLibrary) {
    const sys_days first = year(1601) / 1 / 1;
    const sys_days end = year(10000) / 1 / 1;
    for (sys_days day = first; day < end; day += days(1)) {
        // A step that is prime to the length of a day visits all times of the day.
        const microseconds ofDay((day - first).count() * 28'219'560'019 % 86'400'000'000);
        const year_month_day date = day;
        const hh_mm_ss time(ofDay);
        const QELlogger5::TimeParts parts = QELlogger5::breakDownUtc(libraryTime(day, ofDay));
        ASSERT_TRUE(parts.year == static_cast<int>(date.year()) &&
                    parts.month == static_cast<int>(static_cast<unsigned>(date.month())) &&
                    parts.day == static_cast<int>(static_cast<unsigned>(date.day())) &&
                    parts.hour == time.hours().count() && parts.minute == time.minutes().count() &&
                    parts.second == time.seconds().count() &&
                    parts.microsecond == time.subseconds().count() &&
                    parts.dayNumber == (day - first).count())
            << (day - first).count() << " days after 1601-01-01";
    }
}

TEST(Calendar, TheLastTimeHasTheDateOfTheSameDayInAnEarlierCycle) {
    constexpr std::uint64_t cycle = 146'097 * 86'400'000'000; // 400 years
    const QELlogger5::TimeParts last = QELlogger5::breakDownUtc(UINT64_MAX);
    const QELlogger5::TimeParts early = QELlogger5::breakDownUtc(UINT64_MAX % cycle);
    EXPECT_EQ(last.year, early.year + 400 * static_cast<int>(UINT64_MAX / cycle));
    EXPECT_EQ(last.month, early.month);
    EXPECT_EQ(last.day, early.day);
    EXPECT_EQ(last.microsecond, early.microsecond);
    EXPECT_EQ(last.dayNumber, 213'503'982);
}

TEST_F(LoggerTest, LogsUpToTheMostVerboseSeverity) {
    for (const int most : {6, 7, 0, -3}) {
        logger.maxSeverity = most;
        for (int severity = -5; severity < 12; ++severity) {
            recorder.lines.clear();
            recorder.result = 17;
            EXPECT_EQ(logger.log("text", severity), severity > most ? 0 : 17);
            EXPECT_EQ(recorder.lines.size(), severity > most ? 0U : 1U);
        }
    }
    EXPECT_EQ(QELlogger5().maxSeverity, 6);
}

TEST_F(LoggerTest, IsSilentWithoutFormatterOrSender) {
    QELlogger5 bare;
    EXPECT_EQ(bare.log("x", 0), -1);
    bare.setup("dev01", "sip", &formatter, nullptr);
    EXPECT_EQ(bare.log("x", 7), -1);
    bare.setup("dev01", "sip", nullptr, &recorder);
    EXPECT_FALSE(bare.stream(0) << "x" << std::flush);
    EXPECT_TRUE(recorder.lines.empty());
}

TEST_F(LoggerTest, EachFlushIsOneStatementOfItsStreamsSeverity) {
    logger.maxSeverity = 7;
    for (const auto& [severity, counted] :
         {std::pair{-5, 0}, {0, 0}, {3, 3}, {7, 7}, {12, 7}, {INT_MIN, 0}, {INT_MAX, 7}}) {
        recorder.lines.clear();
        std::ostream& out = logger.stream(severity);
        EXPECT_EQ(&out, &logger.stream(counted));
        out << "number " << std::hex << 255 << std::dec << std::endl;
        out << std::flush << "a - b  c\nd" << std::flush;
        EXPECT_EQ(recorder.lines,
                  (std::vector{exampleLine("number ff\n", counted), exampleLine("", counted),
                               exampleLine("a - b  c\nd", counted)}));
    }
}

TEST_F(LoggerTest, StreamsDoNotMixTheirTexts) {
    logger.stream(3) << "three";
    logger.stream(4) << "four" << std::flush;
    logger.stream(3) << " more" << std::flush;
    EXPECT_EQ(recorder.lines, (std::vector{exampleLine("four", 4), exampleLine("three more", 3)}));
}

TEST_F(LoggerTest, UnflushedTextIsDroppedWithTheLogger) {
    {
        QELlogger5 shortLived;
        shortLived.setup("dev01", "sip", &formatter, &recorder);
        shortLived.stream(3) << "never";
    }
    EXPECT_TRUE(recorder.lines.empty());
}

TEST_F(LoggerTest, AFailedStatementSilencesOneStreamUntilItIsCleared) {
    recorder.result = -1;
    EXPECT_FALSE(logger.stream(4) << "fails" << std::flush);
    EXPECT_TRUE(logger.stream(4).bad());
    recorder.result = 0;
    recorder.lines.clear();
    logger.stream(4) << "ignored" << std::flush;
    EXPECT_TRUE(recorder.lines.empty());
    for (int severity = 0; severity < 7; ++severity) {
        EXPECT_EQ(logger.stream(severity).good(), severity != 4);
    }
    logger.stream(4).clear();
    EXPECT_TRUE(logger.stream(4) << "again" << std::flush);
    EXPECT_EQ(recorder.lines, std::vector{exampleLine("again", 4)});
}

TEST_F(LoggerTest, AStatementAllocatesItsLineOnly) {
    struct Discard final : QELlogger5::Sender {
        int send(std::string_view line) override { return line.empty() ? -1 : 0; }
    } discard;
    logger.setup("dev01", "sip", &formatter, &discard);
    const auto statement = [&](int n) {
        const int before = allocations;
        logger.stream(n % 7) << "Call " << n << " of " << 3.5 << std::string_view(" min") << '\n'
                             << std::flush;
        return allocations - before;
    };
    for (int n = 0; n < 7; ++n) {
        EXPECT_GE(statement(n), 1);
    }
    for (int n = 0; n < 100; ++n) {
        EXPECT_EQ(statement(n), 1);
    }
}

TEST(UdpSender, DeliversEachLineAsOneDatagram) {
    Receiver receiver(QELsockaddr4::loopback(0));
    QELlogger5_UDP sender;
    ASSERT_EQ(sender.open(receiver.port()), 0);
    const FixedFormatter formatter;
    QELlogger5 logger;
    logger.setup("dev01", "sip", &formatter, &sender);
    const std::string longText(600, 'x');
    for (const std::string& text : {"a - b  c"s, "two\nlines\n"s, ""s, "\0\xff"s, longText}) {
        EXPECT_TRUE(logger.stream(6) << text << std::flush);
        const std::string whole = exampleLine(text);
        EXPECT_EQ(receiver.next(), whole.size() > 480 ? whole.substr(0, 477) + "..." : whole);
    }
}

TEST(Senders, RefuseWhatTheyCannotSend) {
    QELlogger5_UDP udp;
    QELlogger5_DEV dev;
    EXPECT_EQ(udp.send("not open"), -1);
    EXPECT_EQ(dev.send("not open"), -1);
    {
        const NoDescriptors guard;
        EXPECT_EQ(udp.open(9), QELsockBase::errCreate);
        EXPECT_EQ(dev.open("/dev/log"), QELsockBase::errCreate);
    }
    EXPECT_EQ(udp.destination.port(), 0);
    EXPECT_EQ(dev.destination.toString(), "");

    Receiver receiver(QELsockaddr4::loopback(0));
    ASSERT_EQ(udp.open(receiver.port()), 0);
    EXPECT_EQ(udp.send(""), -1);
    EXPECT_EQ(udp.send(std::string(70'000, 'x')), -1); // more than a datagram holds
    EXPECT_EQ(udp.send("last"), 0);
    EXPECT_EQ(receiver.next(), "last");
    ASSERT_EQ(dev.open("/nowhere/log"), 0);
    EXPECT_EQ(dev.send("x"), -1);
}

TEST(DevLogger, RecoversWhenTheSystemLogComesBack) {
    std::string directory = testing::TempDir() + "hvlogger-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string path = directory + "/log";
    QELsockaddrUNX address;
    address.set(path.c_str());

    QELlogger5dev logger("dev01", "sip");
    EXPECT_EQ(logger.devSender.destination.toString(), "/dev/log");
    EXPECT_EQ(logger.formatter, &logger.formatter5424);
    logger.devSender.destination = address;
    std::ostream& out = logger.stream(6);
    for (const std::string text : {"first", "second"}) {
        EXPECT_FALSE(out << "nobody listens" << std::flush);
        Receiver receiver(address);
        out.clear();
        EXPECT_TRUE(out << text << std::flush);
        const std::string line = receiver.next();
        const std::string end = "Z dev01 sip " + std::to_string(getpid()) + " - " + text;
        EXPECT_EQ(line.find("<14>1 "), 0);
        EXPECT_EQ(line.substr(line.find('Z')), end);
        std::filesystem::remove(path);
    }
    std::filesystem::remove(directory);
}

TEST(DevLogger, WithoutASocketEveryStatementFails) {
    QELlogger5dev logger("dev01", "sip");
    logger.devSender.socket.close();
    EXPECT_EQ(logger.log("x", 6), -1);
}

TEST(StreamSender, NumbersItsLinesWhateverTheStreamsFormat) {
    std::ostringstream out;
    out << std::hex << std::setfill('*');
    QELlogger5_ostream sender(out);
    sender.lineNumber += 8;
    for (const std::string_view line : {"nine", "", "eleven\n"}) {
        out << std::setw(20);
        EXPECT_EQ(sender.send(line), 0);
    }
    EXPECT_EQ(out.str(), "[9] nine[10] [11] eleven\n");

    sender.lineNumber = INT32_MAX;
    EXPECT_EQ(sender.send(""), 0);
    EXPECT_EQ(sender.lineNumber, INT32_MIN);
}

TEST(StreamSender, FlushesEachLine) {
    struct Flushes : std::stringbuf {
        int sync() override { return ++count, 0; }
        int count = 0;
    } buffer;
    std::ostream out(&buffer);
    QELlogger5_ostream sender(out);
    sender.send("a");
    sender.send("b");
    EXPECT_EQ(buffer.count, 2);
    EXPECT_EQ(buffer.str(), "[1] a[2] b");
}

} // namespace
