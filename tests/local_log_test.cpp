#include "HVLoggerListener.h"
#include "QELlogger5srvSel.h"
#include "QELsockaddr4.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

/// The server on a port of this test's own, taking up to 64 datagrams at once.
class LogServer : public testing::Test {
  protected:
    QELlogger5srvSel server;

    void SetUp() override {
        if (std::getenv("HVLOGGER_SHARED") != nullptr) {
            GTEST_SKIP() << "the port and /dev/log may be somebody else's";
        }
        server.datagramsAtOnce = 64;
        ASSERT_EQ(server.open(50000), 0);
        ASSERT_GE(server.socket.setBlocking(false), 0);
    }
    static void send(const Texts& datagrams) {
        QELsockBase sender;
        const QELsockaddr4 to = QELsockaddr4::loopback(50000);
        ASSERT_EQ(sender.open(AF_INET), 0);
        for (const std::string& text : datagrams) {
            ASSERT_GE(::sendto(sender.fd, text.data(), text.size(), 0, to.sa(), to.saLen()), 0);
        }
    }
};

TEST_F(LogServer, TakesWhatIsWaitingInOrderUpToItsLimitAndNeverWaits) {
    struct : QELlogger5srvSel::Listener {
        Texts taken;
        void onLogMessage(const char* text, int /*length*/) override { taken.emplace_back(text); }
    } listener;
    server.listener = &listener;
    Texts expected;
    for (int n = 0; n < 32; ++n) {
        expected.push_back(std::to_string(n));
        send({expected.back(), ""}); // empty ones count, and end nothing
    }
    send({"one more"});
    EXPECT_TRUE(server.onReady(0));
    EXPECT_EQ(listener.taken, expected);
    EXPECT_TRUE(server.onReady(0));
    EXPECT_TRUE(server.onReady(0));
    EXPECT_EQ(listener.taken.size(), 33U);
}

TEST_F(LogServer, LocalLogGetsTheRecordsThatTheCLibraryWrites) {
    setenv("TZ", "XYZ-5:45", 1);
    tzset();
    QELsockBase log;
    QELsockaddrUNX name;
    name.set("/dev/log");
    ASSERT_EQ(log.open(AF_UNIX), 0);
    ASSERT_EQ(log.bind(name), 0);
    const auto record = [&log]() -> std::string {
        std::string buffer(20000, '\0');
        const ssize_t length = recv(log.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        return length < 0 ? "none" : buffer.substr(0, static_cast<std::size_t>(length));
    };
    HVLoggerListener listener(nullptr);
    ASSERT_EQ(listener.init(0x100000, {}), 0);
    server.listener = &listener;

    const auto expectSame = [&](const std::string& datagram, int priority,
                                const std::string& identity, const std::string& text) {
        std::string written;
        std::string expected = "at first";
        for (int attempt = 0; attempt < 3 && written != expected; ++attempt) { // in one second
            send({"", datagram, "<14>1 t d sip 4 - R4tNc8vLq2!&=^_"});
            EXPECT_TRUE(server.onReady(0));
            written = record();
            EXPECT_EQ(record(), "none");
            QELlogger5_DEV::syslogRaw(text, identity, priority);
            expected = record();
        }
        EXPECT_EQ(written, expected) << datagram;
    };
    for (int priority = 0; priority < 1200; ++priority) { // a length each: C libraries have buffers
        const std::string text(static_cast<std::size_t>(priority), 'x');
        expectSame('<' + std::to_string(priority) + ">1 t d sip 4 - " + text, priority % 1024,
                   "sip", text);
    }
    const std::string large(2000, 'i');
    const std::string largest(5000 - 13, 'x');
    expectSame("<2147483647>1 t d %s%n 4 - 100 %s %n %d %%", 1023, "%s%n", "100 %s %n %d %%");
    expectSame("<14>1 t d " + large + " 4 - " + large, 14, large, large);
    expectSame("1 t d  4 5 - " + largest, LOG_USER | LOG_NOTICE, "", largest);
    expectSame("hello", LOG_USER | LOG_NOTICE, "", "");
    expectSame("<134>Mar  5 10:20:30 dev01 app: a - b\n", 134, "10:20:30", "b");
    expectSame(std::string("<14>1 t d sip 4 - before\0after", 30), 14, "sip", "before");
    expectSame("<11>1 t d sip 4 - one<15>1 t d ui 5 - two", 11, "sip", "one<15>1 t d ui 5 - two");

    QELlogger5_DEV::syslogRaw("text", "sip", 1024 | LOG_INFO); // passed on whole: a complaint first
    EXPECT_NE(record().find("unknown facility/priority: 406"), std::string::npos);
    EXPECT_TRUE(record().starts_with("<14>"));
}

} // namespace
