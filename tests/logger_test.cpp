#include "QELclock.h"
#include "QELlogger5.h"
#include "QELlogger5_3164.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_DEV.h"
#include "QELlogger5_UDP.h"
#include "QELlogger5_ostream.h"
#include "QELlogger5dev.h"
#include "support/allocations.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <iomanip>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;

const std::string ownId = std::to_string(getpid());
const QELlogger5_5424 formatter5424;
const QELlogger5_3164 formatter3164;

TEST(Formatters, WriteEveryFieldByteForByte) {
    const auto text = "a - b\0\n"s;
    for (const auto& [time, severity, by5424, by3164] :
         std::initializer_list<std::tuple<std::uint64_t, int, const char*, const char*>>{
             {0, sevInfo, "<14>1 1601-01-01T00:00:00.000Z ", "<14>Jan  1 00:00:00 a b 000"},
             {11644473600000999, sevEmergency, "<8>1 1970-01-01T00:00:00.000Z ",
              "<8>Jan  1 00:00:00 a b 000"},
             {13354107630123999, sevDebug, "<15>1 2024-03-05T10:20:30.123Z ",
              "<15>Mar  5 10:20:30 a b 123"},
             {12596342399999000, 8, "<8>1 2000-02-29T23:59:59.999Z ", "<8>Feb 29 23:59:59 a b 999"},
             {15752048707004000, 18, "<26>1 2100-03-01T09:05:07.004Z ",
              "<26>Mar  1 09:05:07 a b 004"},
             {UINT64_MAX, -1, "<-1>1 586155-01-19T08:01:49.551Z ",
              "<-1>Jan 19 08:01:49 a b 551"}}) {
        EXPECT_EQ(QELlogger5_5424::formatAt(time, severity, "", "sip", text),
                  std::string(by5424).append(" sip ").append(ownId).append(" - ").append(text));
        EXPECT_EQ(QELlogger5_3164::formatAt(time, severity, "a b", "sip", text),
                  std::string(by3164).append(" sip: ").append(text));
    }
}

TEST(Formatters, CutEveryLineAboveTheLimitAndNoOther) {
    std::string digits;
    for (int n = 0; digits.size() < 3'000; ++n) {
        digits += std::to_string(n);
    }
    const auto cut = [](const std::string& line, std::size_t limit) {
        return line.size() > limit ? line.substr(0, limit - 3) + "..." : line;
    };
    const auto check = [&](const std::string& host, const std::string& app, const auto& text) {
        ASSERT_EQ(
            QELlogger5_5424::formatAt(0, sevInfo, host, app, text),
            cut("<14>1 1601-01-01T00:00:00.000Z " + host + ' ' + app + ' ' + ownId + " - " + text,
                480));
        ASSERT_EQ(QELlogger5_3164::formatAt(0, sevInfo, host, app, text),
                  cut("<14>Jan  1 00:00:00 " + host + " 000 " + app + ": " + text, 1024));
    };
    for (std::size_t length = 0; length < 2'100; ++length) {
        check(digits.substr(0, length), "sip", "Call setup done"s);
        check("dev01", digits.substr(0, length), "Call setup done"s);
        check("dev01", "sip", digits.substr(0, length));
    }
}

TEST(Formatters, StampTheCurrentTime) {
    const auto check = [](const QELlogger5::Formatter& formatter, auto formatAt) {
        const auto expected = [&] {
            return formatAt(static_cast<std::uint64_t>(nowUtc()), 6, "h", "a", "x");
        };
        std::string before, line, after;
        do { // until all three fall into one millisecond
            before = expected();
            line = formatter.format(6, "h", "a", "x");
            after = expected();
        } while (before != after);
        EXPECT_EQ(line, before);
    };
    check(formatter5424, QELlogger5_5424::formatAt);
    check(formatter3164, QELlogger5_3164::formatAt);
}

struct LoggerTest : testing::Test, QELlogger5::Formatter, QELlogger5::Sender {
    using Lines = std::vector<std::string>;
    LoggerTest() { logger.setup("dev01", "sip", this, this); }
    [[nodiscard]] std::string format(int severity, std::string_view hostName,
                                     std::string_view appName,
                                     std::string_view text) const override {
        return std::to_string(severity) + " " + std::string(hostName).append(appName).append(text);
    }
    int send(std::string_view line) override { return lines.emplace_back(line), result; }
    Lines lines;
    int result = 0;
    QELlogger5 logger;
};

TEST_F(LoggerTest, LogsUpToTheMostVerboseSeverityAndOnlyWithFormatterAndSender) {
    EXPECT_EQ(logger.maxSeverity, sevInfo);
    logger.maxSeverity = sevError;
    result = 17;
    for (int severity = -5; severity < 12; ++severity) {
        EXPECT_EQ(logger.log("text", severity), severity > 3 ? 0 : 17);
    }
    EXPECT_EQ(lines.size(), 9U);
    logger.setup("dev01", "sip", this, nullptr);
    EXPECT_EQ(logger.log("x", 7), -1);
    logger.setup("dev01", "sip", nullptr, this);
    EXPECT_FALSE(logger.stream(0) << "x" << std::flush);
    EXPECT_EQ(lines.size(), 9U);
}

TEST_F(LoggerTest, EachFlushIsOneStatementOfItsStreamsSeverityUntilOneFails) {
    logger.maxSeverity = sevDebug;
    for (const auto& [severity, counted] :
         {std::pair{-5, "0"}, {0, "0"}, {3, "3"}, {7, "7"}, {INT_MIN, "0"}, {INT_MAX, "7"}}) {
        lines.clear();
        std::ostream& out = logger.stream(severity);
        out << "number " << std::hex << 255 << std::dec << std::endl;
        out << std::flush << "a - b  c\nd";
        result = -1;
        EXPECT_FALSE(logger.stream(sevWarning) << "fails" << std::flush);
        result = 0;
        logger.stream(sevWarning) << "ignored" << std::flush;
        EXPECT_TRUE(out << " more" << std::flush);
        logger.stream(sevWarning).clear();
        EXPECT_TRUE(logger.stream(sevWarning) << "again" << std::flush);
        const std::string start = counted + " dev01sip"s;
        EXPECT_EQ(lines, (Lines{start + "number ff\n", start, "4 dev01sipfails",
                                start + "a - b  c\nd more", "4 dev01sipagain"}));
    }
    lines.clear();
    {
        QELlogger5 shortLived;
        shortLived.setup("dev01", "sip", this, this);
        shortLived.stream(3) << "never flushed";
    }
    EXPECT_EQ(lines, Lines{});
}

TEST(Streams, AStatementAllocatesItsLineOnlyAndALargeOneIsNotKept) {
    struct Discard final : QELlogger5::Sender {
        int send(std::string_view line) override { return line.empty() ? -1 : 0; }
    } discard;
    QELlogger5 logger;
    logger.setup("dev01", "sip", &formatter5424, &discard);
    std::ostream& out = logger.stream(sevInfo);
    const auto allocated = [&](std::size_t length) {
        const auto before = allocations.load();
        for (; length > 0; --length) {
            out << 'x';
        }
        out << std::flush;
        return allocations - before;
    };
    allocated(1'000); // the stream has its buffer
    EXPECT_EQ(allocated(1'000), 1);
    allocated(1'000'000);
    EXPECT_GT(allocated(1'000'000), 1) << "kept the memory of the one before";
}

/// A datagram socket that receives what a sender sends.
struct Receiver {
    explicit Receiver(const QELsocka& wanted) {
        EXPECT_EQ(socket.open(wanted.family()) + socket.bind(wanted), 0);
        sockaddr_storage raw{};
        socklen_t length = sizeof raw;
        EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&raw), &length), 0);
        address.set(raw, length);
    }
    std::string next() {
        std::string line(5000, ' ');
        line.resize(static_cast<std::size_t>(socket.recvFrom(line.data(), 5000, 60'000'000)));
        return line;
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
    std::ostream& out = logger.stream(sevInfo);
    for (const char* text : {"first", "second"}) {
        EXPECT_FALSE(out << "nobody listens" << std::flush);
        Receiver receiver(ownLog());
        out.clear();
        EXPECT_TRUE(out << text << std::flush);
        const std::string line = receiver.next();
        EXPECT_TRUE(line.starts_with("<14>1 ")) << line;
        EXPECT_TRUE(line.ends_with("Z dev01 sip " + ownId + " - " + text)) << line;
    }
}

TEST(StreamSender, CountsThenFlushesEachLineWhateverTheStreamsFormat) {
    struct Buffer : std::stringbuf {
        int sync() override { return flushedAt.push_back(sender->lineNumber), 0; }
        QELlogger5_ostream* sender = nullptr;
        std::vector<int> flushedAt;
    } buffer;
    std::ostream out(&buffer);
    QELlogger5_ostream sender(out);
    buffer.sender = &sender;
    out << std::hex << std::setfill('*');
    for (const std::string_view line : {"one", "", "three\n"}) {
        out << std::setw(20);
        EXPECT_EQ(sender.send(line), 0);
    }
    sender.lineNumber = INT32_MAX;
    sender.send("last");
    EXPECT_EQ(buffer.flushedAt, (std::vector{2, 3, 4, INT32_MIN}));
    EXPECT_EQ(buffer.str(), "[1] one[2] [3] three\n[2147483647] last");
}

} // namespace
