#include "HVLoggerListener.h"
#include "QELlogger5srvSel.h"
#include "QELsockaddr4.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/socket.h>
#include <syslog.h>

namespace {

struct Listener : testing::Test {
    HVLoggerListener listener{nullptr};

    void SetUp() override {
        if (std::getenv("HVLOGGER_SHARED") != nullptr) {
            GTEST_SKIP() << "the port and /dev/log may be somebody else's";
        }
    }
};

TEST_F(Listener, TakesWhatIsWaitingUpToTheLimitOfItsPortAndNeverWaits) {
    const std::string line = "<14>1 t d sip 4 - text";
    const QELsockaddr4 to = QELsockaddr4::loopback(50000);
    QELsockBase sender;
    QELlogger5srvSel server;
    server.listener = &listener;
    server.datagramsAtOnce = 64;
    ASSERT_EQ(server.open(50000), 0);
    ASSERT_GE(server.socket.setBlocking(false), 0);
    ASSERT_EQ(sender.open(AF_INET), 0);
    // Every second one is empty: it counts, and ends nothing.
    for (std::size_t n = 1; n <= 66; ++n) {
        ASSERT_GE(sendto(sender.fd, line.data(), n % 2 * line.size(), 0, to.sa(), to.saLen()), 0);
    }
    for (const std::size_t taken : {32U, 33U, 33U}) {
        EXPECT_TRUE(server.onReady(0));
        EXPECT_EQ(listener.messages.size(), taken);
    }
}

TEST_F(Listener, PassesOnTheRecordsThatTheCLibraryWrites) {
    setenv("TZ", "XYZ-5:45", 1);
    tzset();
    QELsockBase log;
    QELsockaddrUNX name;
    name.set("/dev/log");
    ASSERT_EQ(log.open(AF_UNIX), 0);
    ASSERT_EQ(log.bind(name), 0);
    ASSERT_EQ(listener.init(0x100000, {}), 0);
    const auto record = [&log]() -> std::string {
        std::string buffer(20000, '\0');
        const ssize_t length = recv(log.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        return length < 0 ? "none" : buffer.substr(0, static_cast<std::size_t>(length));
    };
    const auto expectSame = [&](const std::string& datagram, int priority,
                                const std::string& identity, const std::string& text) {
        std::string written;
        std::string expected = "at first";
        for (int attempt = 0; attempt < 3 && written != expected; ++attempt) { // in one second
            listener.onLogMessage(datagram.c_str(), 0);
            listener.onLogMessage("<14>1 t d sip 4 - R4tNc8vLq2!&=^_", 0);
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
    const std::string large(4900, 'i');
    expectSame("<2147483647>1 t d %s%n 4 - 100 %s %n %d %%", 1023, "%s%n", "100 %s %n %d %%");
    const std::string longName(900, 'n'); // with more than 1,024 some C libraries write astray
    expectSame("<14>1 t d " + longName + " 4 - " + large, 14, longName, large);
    expectSame("1 t d  4 5 - " + large, LOG_USER | LOG_NOTICE, "", large);
    expectSame("hello", LOG_USER | LOG_NOTICE, "", "");
    expectSame("<134>Mar  5 10:20:30 dev01 app: a - b", 134, "10:20:30", "b");
    expectSame("<11>1 t d sip 4 - one<15>1 t d ui 5 - two", 11, "sip", "one<15>1 t d ui 5 - two");
}

} // namespace
