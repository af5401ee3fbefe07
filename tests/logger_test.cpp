#include "QELclock.h"
#include "QELlogger5.h"
#include "QELlogger5_3164.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_DEV.h"
#include "QELlogger5_UDP.h"
#include "QELlogger5_ostream.h"
#include "QELlogger5dev.h"
#include "QELloggerSyslogFmt.h"
#include "support/allocations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <ctime>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;

const std::string ownId = std::to_string(getpid());

/// The time as strftime writes it.
std::string textOf(std::uint64_t time, const char* format) {
    const std::time_t seconds = static_cast<std::time_t>(time / 1'000'000) - 134'774 * 86'400LL;
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    std::array<char, 64> text{};
    strftime(text.data(), text.size(), format, &fields);
    return text.data();
}

std::string millisecond(std::uint64_t time) {
    return std::to_string(1'000 + time / 1'000 % 1'000).substr(1);
}

using Format = std::string (*)(std::uint64_t, int, std::string_view, std::string_view,
                               std::string_view);

const QELlogger5_5424 formatter5424;
const QELlogger5_3164 formatter3164;

struct Shape {
    const QELlogger5::Formatter& formatter;
    Format formatAt, whole; // whole: the same without a limit, by the C library's means
    std::size_t limit;
};
const std::array<Shape, 2> shapes = {{
    {formatter5424, QELlogger5_5424::formatAt,
     [](auto time, auto severity, auto host, auto app, auto text) {
         std::ostringstream line;
         line << '<' << (severity | 8) << ">1 " << textOf(time, "%Y-%m-%dT%H:%M:%S.")
              << millisecond(time) << "Z " << host << ' ' << app << ' ' << ownId << " - " << text;
         return line.str();
     },
     480},
    {formatter3164, QELlogger5_3164::formatAt,
     [](auto time, auto severity, auto host, auto app, auto text) {
         std::ostringstream line;
         line << '<' << (severity | 8) << '>' << textOf(time, "%b %e %H:%M:%S ") << host << ' '
              << millisecond(time) << ' ' << app << ": " << text;
         return line.str();
     },
     1024},
}};

TEST(Formatters, WriteAnyTimeAndSeverityByteForByte) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 20'000; ++i) {
        const std::uint64_t time = i == 0 ? UINT64_MAX : random() >> i % 12;
        const int severity = i % 18 - 1;
        const std::string host = i % 3 == 0 ? "" : "a b";
        for (const Shape& shape : shapes) {
            ASSERT_EQ(shape.formatAt(time, severity, host, "sip", "a - b\0\n"s),
                      shape.whole(time, severity, host, "sip", "a - b\0\n"s));
        }
    }
}

TEST(Formatters, CutEveryLineAboveTheLimitAndNoOther) {
    std::string digits;
    for (int n = 0; digits.size() < 3'000; ++n) {
        digits += std::to_string(n);
    }
    for (const Shape& shape : shapes) {
        for (std::size_t varied = 0; varied < 3; ++varied) {
            for (std::size_t length = 0; length < 2 * shape.limit; ++length) {
                std::array<std::string_view, 3> parts = {"dev01", "sip", "Call setup done"};
                parts[varied] = std::string_view(digits).substr(0, length);
                std::string expected = shape.whole(0, 6, parts[0], parts[1], parts[2]);
                if (expected.size() > shape.limit) {
                    expected = expected.substr(0, shape.limit - 3) + "...";
                }
                ASSERT_EQ(shape.formatAt(0, 6, parts[0], parts[1], parts[2]), expected);
            }
        }
    }
}

TEST(Formatters, StampTheCurrentTime) {
    for (const Shape& shape : shapes) {
        const auto expected = [&] {
            return shape.formatAt(static_cast<std::uint64_t>(nowUtc()), 6, "h", "a", "x");
        };
        std::string before;
        std::string line;
        std::string after;
        do { // until all three fall into one millisecond
            before = expected();
            line = shape.formatter.format(6, "h", "a", "x");
            after = expected();
        } while (before != after);
        EXPECT_EQ(line, before);
    }
}

TEST(Formatters, AForkedProcessLogsUnderItsOwnId) {
    const auto logsUnderOwnId = [] {
        return QELlogger5_5424::formatAt(0, 6, "h", "a", "x")
            .ends_with(" a " + std::to_string(getpid()) + " - x");
    };
    ASSERT_TRUE(logsUnderOwnId());
    const pid_t child = fork();
    if (child == 0) {
        _exit(logsUnderOwnId() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(logsUnderOwnId());
}

struct PlainFormatter final : QELlogger5::Formatter {
    [[nodiscard]] std::string format(int severity, std::string_view hostName,
                                     std::string_view appName,
                                     std::string_view text) const override {
        std::ostringstream line;
        line << severity << ' ' << hostName << ' ' << appName << ' ' << text;
        return line.str();
    }
};

struct Recorder final : QELlogger5::Sender {
    int send(std::string_view line) override {
        lines.emplace_back(line);
        return result;
    }
    std::vector<std::string> lines;
    int result = 0;
};

struct LoggerTest : testing::Test {
    using Lines = std::vector<std::string>;
    LoggerTest() { logger.setup("dev01", "sip", &formatter, &recorder); }
    PlainFormatter formatter;
    Recorder recorder;
    QELlogger5 logger;
};

TEST_F(LoggerTest, LogsUpToTheMostVerboseSeverityAndOnlyWithFormatterAndSender) {
    EXPECT_EQ(logger.maxSeverity, 6);
    recorder.result = 17;
    for (const int most : {7, 0, -3}) {
        logger.maxSeverity = most;
        for (int severity = -5; severity < 12; ++severity) {
            recorder.lines.clear();
            EXPECT_EQ(logger.log("text", severity), severity > most ? 0 : 17);
            EXPECT_EQ(recorder.lines.size(), severity > most ? 0U : 1U);
        }
    }
    recorder.lines.clear();
    logger.setup("dev01", "sip", &formatter, nullptr);
    EXPECT_EQ(logger.log("x", 7), -1);
    logger.setup("dev01", "sip", nullptr, &recorder);
    EXPECT_FALSE(logger.stream(0) << "x" << std::flush);
    EXPECT_TRUE(recorder.lines.empty());
}

TEST_F(LoggerTest, EachFlushIsOneStatementOfItsStreamsSeverity) {
    logger.maxSeverity = 7;
    for (const auto& [severity, counted] :
         {std::pair{-5, "0"}, {0, "0"}, {3, "3"}, {7, "7"}, {INT_MIN, "0"}, {INT_MAX, "7"}}) {
        recorder.lines.clear();
        std::ostream& out = logger.stream(severity);
        out << "number " << std::hex << 255 << std::dec << std::endl;
        out << std::flush << "a - b  c\nd";
        logger.stream(4) << "another" << std::flush;
        out << " more" << std::flush;
        const std::string start = counted + " dev01 sip "s;
        EXPECT_EQ(recorder.lines, (Lines{start + "number ff\n", start, "4 dev01 sip another",
                                         start + "a - b  c\nd more"}));
    }
    recorder.lines.clear();
    {
        QELlogger5 shortLived;
        shortLived.setup("dev01", "sip", &formatter, &recorder);
        shortLived.stream(3) << "never flushed";
    }
    EXPECT_TRUE(recorder.lines.empty());
}

TEST_F(LoggerTest, AFailedStatementSilencesOneStreamUntilItIsCleared) {
    recorder.result = -1;
    EXPECT_FALSE(logger.stream(4) << "fails" << std::flush);
    recorder.result = 0;
    logger.stream(4) << "ignored" << std::flush;
    for (int severity = 0; severity < 7; ++severity) {
        EXPECT_EQ(logger.stream(severity).good(), severity != 4);
    }
    logger.stream(4).clear();
    EXPECT_TRUE(logger.stream(4) << "again" << std::flush);
    EXPECT_EQ(recorder.lines, (Lines{"4 dev01 sip fails", "4 dev01 sip again"}));
}

TEST_F(LoggerTest, AStatementAllocatesItsLineOnly) {
    struct Discard final : QELlogger5::Sender {
        int send(std::string_view line) override { return line.empty() ? -1 : 0; }
    } discard;
    logger.setup("dev01", "sip", &formatter5424, &discard);
    for (int n = 0; n < 100; ++n) {
        const auto before = allocations.load();
        logger.stream(n % 7) << "Call " << n << " of " << 3.5 << std::string_view(" min") << '\n'
                             << std::flush;
        if (n >= 7) { // each stream has its buffer
            EXPECT_EQ(allocations - before, 1);
        }
    }
}

/// A datagram socket that receives what a sender sends.
struct Receiver {
    explicit Receiver(const QELsocka& wanted) {
        EXPECT_EQ(socket.open(wanted.family()), 0);
        EXPECT_EQ(socket.bind(wanted), 0);
        sockaddr_storage raw{};
        socklen_t length = sizeof raw;
        EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&raw), &length), 0);
        address.set(raw, length);
    }
    std::string next() {
        std::array<char, 5000> buffer{};
        const int received = socket.recvFrom(buffer.data(), buffer.size(), 60'000'000);
        return received < 0 ? "nothing: " + std::to_string(received)
                            : std::string(buffer.data(), static_cast<std::size_t>(received));
    }
    QELsockBase socket;
    QELsockaddr address;
};

/// A name for a system log of our own.
QELsockaddrUNX ownLog() {
    QELsockaddrUNX address;
    address.set(("*hvlogger-test-" + ownId).c_str());
    return address;
}

TEST(Senders, DeliverEachLineAsOneDatagramAndRefuseWhatTheyCannotSend) {
    const auto check = [](auto sender, Receiver receiver, const auto& endpoint) {
        EXPECT_EQ(sender.send("not open"), -1);
        const std::string nowhere = sender.destination.toString(true);
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(sender.open(endpoint), QELsockBase::errCreate);
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(sender.destination.toString(true), nowhere);

        ASSERT_EQ(sender.open(endpoint), 0);
        EXPECT_EQ(sender.destination.compare(receiver.address), 0);
        EXPECT_EQ(sender.send(""), -1);
        EXPECT_EQ(sender.send(std::string(8'000'000, 'x')), -1); // more than a datagram holds
        for (const std::string& line : {"a - b  c"s, "two\nlines\n"s, "\0\xff"s}) {
            EXPECT_EQ(sender.send(line), 0);
            EXPECT_EQ(receiver.next(), line);
        }
    };
    Receiver udp(QELsockaddr4::loopback(0));
    const auto port = static_cast<std::uint16_t>(udp.address.port());
    check(QELlogger5_UDP(), std::move(udp), port);
    check(QELlogger5_DEV(), Receiver(ownLog()), ownLog().toString().c_str());
}

TEST(DevLogger, RecoversWhenTheSystemLogComesBack) {
    QELlogger5dev logger("dev01", "sip");
    EXPECT_EQ(logger.devSender.destination.toString(), "/dev/log");
    logger.devSender.destination = ownLog();
    std::ostream& out = logger.stream(6);
    const std::string start = "Z dev01 sip " + ownId + " - ";
    for (const char* text : {"first", "second"}) {
        EXPECT_FALSE(out << "nobody listens" << std::flush);
        Receiver receiver(ownLog());
        out.clear();
        EXPECT_TRUE(out << text << std::flush);
        const std::string line = receiver.next();
        EXPECT_TRUE(line.starts_with("<14>1 ")) << line;
        EXPECT_TRUE(line.ends_with(start + text)) << line;
    }
    logger.devSender.socket.close();
    EXPECT_EQ(logger.log("x", 6), -1);
}

TEST(StreamSender, NumbersAndFlushesEachLineWhateverTheStreamsFormat) {
    struct Flushes : std::stringbuf {
        int sync() override { return ++count, 0; }
        int count = 0;
    } buffer;
    std::ostream out(&buffer);
    out << std::hex << std::setfill('*');
    QELlogger5_ostream sender(out);
    for (const std::string_view line : {"one", "", "three\n"}) {
        out << std::setw(20);
        EXPECT_EQ(sender.send(line), 0);
    }
    EXPECT_EQ(buffer.count, 3);
    sender.lineNumber = INT32_MAX;
    sender.send("last");
    EXPECT_EQ(sender.lineNumber, INT32_MIN);
    EXPECT_EQ(buffer.str(), "[1] one[2] [3] three\n[2147483647] last");
}

/// What the store should hold of a statement of random words and of a random text, with much in it
/// that means something to a reader.
QELloggerSyslogMsg randomStatement(std::mt19937& random) {
    static constexpr auto pieces = std::to_array<std::string_view>(
        {" ", "-", " - ", "<", ">", "14", "<14>", "<14>1", "\n", "T", "Z", "\xc3\xa4"});
    const auto word = [&] {
        std::string made(random() % 13, ' ');
        std::ranges::generate(made, [&] { return static_cast<char>('0' + random() % 75); });
        return made;
    };
    QELloggerSyslogMsg made{1, static_cast<int>(random() % 8), word(), ownId, "", "", ""};
    for (auto left = random() % (random() % 2 == 0 ? 9 : 301); left > 0; --left) {
        const char byte = static_cast<char>(random());
        made.text +=
            random() % 3 == 0 ? pieces[random() % pieces.size()] : std::string_view(&byte, 1);
    }
    made.raw = formatter5424.format(made.severity, word(), made.appName, made.text);
    made.timestamp = made.raw.substr(made.raw.find(' ') + 1, 24);
    std::ranges::replace_if(
        made.timestamp, [](char c) { return c == 'T' || c == 'Z'; }, ' ');
    const std::size_t header = made.raw.find(" - ") + 3;
    if (header + made.text.size() > QELlogger5_5424::maxLine) {
        made.text = made.text.substr(0, QELlogger5_5424::maxLine - header - 3) + "...";
    }
    return made;
}

TEST(RoundTrip, TheStoreReadsEveryFieldOfLinesBackToBack) {
    std::mt19937 random(20240305);
    for (int batch = 0; batch < 40; ++batch) {
        std::vector<QELloggerSyslogMsg> made;
        std::string lines;
        while (made.size() < 500) {
            const QELloggerSyslogMsg statement = randomStatement(random);
            std::size_t offset = 0;
            std::size_t length = 0;
            // A header within the line starts another message, by design.
            if (!QELloggerSyslogFmt::findHeader(statement.raw.substr(1), offset, length)) {
                lines += statement.raw;
                made.push_back(statement);
            }
        }
        QELloggerSyslogFmt store;
        store.append(lines);
        const auto fieldsOf = [](const QELloggerSyslogMsg& m) {
            return std::tie(m.raw, m.facility, m.severity, m.appName, m.procId, m.timestamp,
                            m.text);
        };
        ASSERT_TRUE(std::ranges::equal(store.messages, made, {}, fieldsOf, fieldsOf)) << lines;
    }
}

} // namespace
