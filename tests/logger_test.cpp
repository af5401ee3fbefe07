#include "QELclock.h"
#include "QELlogger5_3164.h"
#include "QELlogger5_UDP.h"
#include "QELlogger5_ostream.h"
#include "QELlogger5dev.h"

#include <gtest/gtest.h>

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

TEST(Formatters, WriteEveryFieldAndCutLinesAboveTheLimitOnly) {
    EXPECT_EQ(QELlogger5_5424::formatAt(UINT64_MAX, -1, "", "sip", "a\0\n"s),
              "<-1>1 586155-01-19T08:01:49.551Z  sip " + ownId + " - a\0\n"s);
    EXPECT_EQ(QELlogger5_3164::formatAt(UINT64_MAX, -1, "a b", "sip", "a\0\n"s),
              "<-1>Jan 19 08:01:49 a b 551 sip: a\0\n"s);
    constexpr std::uint64_t time = 13'354'106'407'004'999;
    const auto cut = [](const std::string& line, std::size_t limit) {
        return line.size() > limit ? line.substr(0, limit - 3) + "..." : line;
    };
    const auto check = [&](std::size_t length) {
        std::string fields[] = {"dev01", "sip", "Call setup done"};
        fields[length % 3] = std::string(length / 3, 'x');
        const auto& [host, app, text] = fields;
        const std::string names = host + ' ' + app + ' ';
        ASSERT_EQ(QELlogger5_5424::formatAt(time, 6, host, app, text),
                  cut("<14>1 2024-03-05T10:00:07.004Z " + names + ownId + " - " + text, 480));
        ASSERT_EQ(QELlogger5_3164::formatAt(time, 6, host, app, text),
                  cut("<14>Mar  5 10:00:07 " + host + " 004 " + app + ": " + text, 1024));
    };
    for (std::size_t length = 0; length < 6'000; ++length) {
        check(length);
    }
    const auto namesThisProcess = [&] {
        const std::string own = "sip " + std::to_string(getpid()) + " - ";
        return QELlogger5_5424::formatAt(time, 6, "dev01", "sip", "").ends_with(own);
    };
    EXPECT_EXIT(_exit(namesThisProcess() ? 7 : 1), testing::ExitedWithCode(7), "") << "a child";
}

TEST(Formatters, StampTheCurrentTime) {
    const auto check = []<class Formatter>(const Formatter& formatter) {
        int tries = 0; // until both fall into one millisecond
        while (formatter.format(6, "h", "a", "x") !=
               Formatter::formatAt(static_cast<std::uint64_t>(nowUtc()), 6, "h", "a", "x")) {
            ASSERT_LT(++tries, 10'000);
        }
    };
    check(QELlogger5_5424());
    check(QELlogger5_3164());
}

struct LoggerTest : testing::Test, QELlogger5::Formatter, QELlogger5::Sender {
    LoggerTest() { logger.setup("dev01", "sip", this, this); }
    std::string format(int severity, std::string_view host, std::string_view app,
                       std::string_view text) const override {
        return std::to_string(severity) + " " + std::string(host).append(app).append(text);
    }
    int send(std::string_view line) override { return lines.emplace_back(line), result; }
    std::vector<std::string> lines;
    int result = 0;
    QELlogger5 logger;
};

TEST_F(LoggerTest, LogsUpToTheMostVerboseSeverityAndOnlyWithFormatterAndSender) {
    result = 17;
    for (int severity = -5; severity < 12; ++severity) {
        EXPECT_EQ(logger.log("text", severity), severity > sevInfo ? 0 : 17);
    }
    logger.setup("dev01", "sip", this, nullptr);
    EXPECT_EQ(logger.log("x", 7), -1);
    logger.setup("dev01", "sip", nullptr, this);
    EXPECT_EQ(logger.log("x", 0), -1);
    EXPECT_EQ(lines.size(), 12U);
}

TEST_F(LoggerTest, EachFlushIsOneStatementOfItsStreamsSeverityUntilOneFails) {
    logger.maxSeverity = sevDebug;
    for (const auto& [severity, counted] :
         {std::pair{INT_MIN, "0"}, {0, "0"}, {3, "3"}, {5, "5"}, {7, "7"}, {INT_MAX, "7"}}) {
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
        EXPECT_EQ(lines, (decltype(lines){start + "number ff\n", start, "4 dev01sipfails",
                                          start + "a - b  c\nd more", "4 dev01sipagain"}));
    }
}

TEST_F(LoggerTest, AStreamKeepsTheMemoryOfAStatementButNotOfALargeOne) {
    for (const std::size_t length : {1'000, 1'000'000}) {
        logger.stream(sevInfo) << std::string(length, 'x') << std::flush;
        const auto kept = std::move(logger.streamers[sevInfo]).str().capacity();
        EXPECT_EQ(kept >= length, length == 1'000) << kept;
    }
}

/// The next datagram.
std::string next(QELsockBase& receiver) {
    std::string line(5000, ' ');
    line.resize(static_cast<std::size_t>(receiver.recvFrom(line.data(), 5000, 60'000'000)));
    return line;
}

/// A name for a system log of our own.
const std::string ownLog = "*hvlogger-test-" + ownId;

TEST(Senders, DeliverEachLineAsOneDatagramAndRefuseWhatTheyCannotSend) {
    const auto check = [](auto sender, const auto& endpoint, QELsockBase& receiver) {
        EXPECT_EQ(sender.send("not open"), -1);
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(sender.open(endpoint), QELsockBase::errCreate);
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(sender.destination.compare(decltype(sender.destination)()), 0);
        ASSERT_EQ(sender.open(endpoint), 0);
        EXPECT_EQ(sender.send(std::string(8'000'000, 'x')), -1); // more than a datagram holds
        EXPECT_EQ(sender.send("\0\xff\n"s), 0);
        EXPECT_EQ(next(receiver), "\0\xff\n"s);
    };
    QELsockBase udp, local;
    EXPECT_EQ(udp.open(AF_INET) + udp.bind(QELsockaddr4::loopback(0)), 0);
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    EXPECT_EQ(getsockname(udp.fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
    check(QELlogger5_UDP(), ntohs(bound.sin_port), udp);
    QELsockaddrUNX address;
    address.set(ownLog.c_str());
    EXPECT_EQ(local.open(AF_UNIX) + local.bind(address), 0);
    check(QELlogger5_DEV(), ownLog.c_str(), local);
}

TEST(DevLogger, RecoversWhenTheSystemLogComesBack) {
    QELlogger5dev logger("dev01", "sip");
    EXPECT_EQ(logger.devSender.destination.toString(), "/dev/log");
    logger.devSender.destination.set(ownLog.c_str());
    std::ostream& out = logger.stream(sevInfo);
    EXPECT_FALSE(out << "nobody listens" << std::flush);
    QELsockBase receiver;
    EXPECT_EQ(receiver.open(AF_UNIX) + receiver.bind(logger.devSender.destination), 0);
    out.clear();
    EXPECT_TRUE(out << "text" << std::flush);
    const std::string line = next(receiver);
    EXPECT_TRUE(line.starts_with("<14>1 ") && line.ends_with("Z dev01 sip " + ownId + " - text"));
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
    out << std::hex << std::setfill('*') << std::setw(20);
    EXPECT_EQ(sender.send("one\n"), 0);
    sender.lineNumber = INT32_MAX;
    sender.send("last");
    EXPECT_EQ(buffer.flushedAt, (std::vector{2, INT32_MIN}));
    EXPECT_EQ(buffer.str(), "[1] one\n[2147483647] last");
}

} // namespace
