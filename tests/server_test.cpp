#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerModes.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELselTimer.h"
#include "QELselector.h"
#include "QELsockaddr4.h"
#include "QELtokenBucket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testing::_;

std::atomic<time_t> secondsAhead = 0; ///< how far the clocks are put forward
tcp_info connection{};                ///< what is told about every connection, if it is not zero

template <class Condition>
bool eventually(Condition condition) {
    for (int milliseconds = 0; milliseconds < 60'000 && !condition(); ++milliseconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

TEST(TokenBucket, CountStaysBetweenZeroAndOneBelowTheCapacity) {
    for (const auto& [capacity, highest] : {std::pair{10U, 9U}, {2U, 1U}, {1U, 0U}, {0U, 0U}}) {
        QELtokenBucket bucket;
        ASSERT_EQ(bucket.start(1'000'000, capacity), 0);
        EXPECT_EQ(bucket.periodNs, 1000U);
        EXPECT_EQ(bucket.start(1, 5), -1);
        EXPECT_EQ(bucket.capacity, capacity);
        EXPECT_TRUE(eventually([&, wanted = highest] { return bucket.tokens == wanted; }));
        bucket.stop();
        bucket.stop();
        EXPECT_EQ(bucket.thread, nullptr);
        bucket.refill();
        EXPECT_EQ(bucket.tokens, highest);
    }
    QELtokenBucket bucket;
    EXPECT_EQ(bucket.start(0, 100), -1);
    pthread_attr_t usual, huge; // a stack that no thread can have
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4);
    pthread_setattr_default_np(&huge);
    EXPECT_EQ(bucket.start(10000, 100), -1);
    pthread_setattr_default_np(&usual);
    EXPECT_FALSE(bucket.running || bucket.thread);
    bucket.tokens = 620;
    for (const auto& [count, left] : {std::pair{0U, 620U}, {500U, 120U}, {500U, 0U}, {~0U, 0U}}) {
        bucket.take(count);
        EXPECT_EQ(bucket.tokens, left);
    }
    bucket.tokens = 50; // kept when it starts; destroyed while it runs, it has ended its thread
    ASSERT_EQ(bucket.start(10000, 100), 0);
    EXPECT_GE(bucket.tokens, 50U);
}

TEST(TokenBucket, RefillAndTakeAtTheSameMomentLoseNothing) {
    constexpr std::uint32_t each = 3'000'000;
    QELtokenBucket bucket;
    bucket.capacity = 0xFFFFFFFF;
    bucket.tokens = each; // takes never find it empty
    const auto repeat = [](auto operation) {
        for (std::uint32_t n = 0; n < each; ++n) {
            operation();
        }
    };
    std::thread refilling([&] { repeat([&] { bucket.refill(); }); });
    repeat([&] { bucket.take(1); });
    refilling.join();
    EXPECT_EQ(bucket.tokens, each);
}

class MediatorMock : public QELmediator {
  public:
    MOCK_METHOD(void, notify, (int destinationId, int messageType, void* payload), (override));
};

TEST(Listener, RefusesDatagramsOnlyWhileARunningLimiterIsEmpty) {
    testing::StrictMock<MediatorMock> mediator;
    HVLoggerListener listener(&mediator);
    QELtokenBucket& limiter = listener.rateLimiter; // runs without the thread that would refill it
    const std::string line = "<14>1 t d sip 1 - text";
    const struct {
        bool running;
        std::uint32_t tokens;
        std::uint32_t left;
        std::size_t stored;
    } cases[] = {{false, 0, 0, 1},
                 {true, 0, 0, 1},
                 {true, 1, 0, 2}, // one token admits any length
                 {true, 100, 100U - static_cast<std::uint32_t>(line.size()), 3}};
    EXPECT_CALL(mediator, notify(idTcpServer, msgNewMessage, nullptr)).Times(3);
    for (const auto& c : cases) {
        limiter.running = c.running;
        limiter.tokens = c.tokens;
        listener.onLogMessage(line.c_str(), 0);
        EXPECT_EQ(limiter.tokens, c.left);
        EXPECT_EQ(listener.messages.size(), c.stored);
    }
    limiter.running = false;
    EXPECT_EQ(listener.startRateLimit(), 0);
    EXPECT_EQ(limiter.capacity, 1048576U);
    EXPECT_EQ(limiter.periodNs, 100000U);
}

TEST(Listener, WorksWithoutAnyoneToTell) {
    HVLoggerListener alone(nullptr);
    alone.onLogMessage("<14>1 t d sip 1 - R4tNc8vLq2!&=^_", 0);
    alone.onLogMessage("<14>1 t d sip 1 - text", 0);
    EXPECT_EQ(alone.messages.size(), 1U);
    QELlogger5srvSel server;
    testing::internal::CaptureStdout();
    server.onMessage("line", 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n");
}

TEST(Mediator, MissingDestinationsAreReportedAndUnknownTypesIgnored) {
    std::string text;
    const auto printed = [&text](HVLoggerMediator& mediator, int id, int type) {
        testing::internal::CaptureStdout();
        mediator.notify(id, type, &text);
        std::cout.flush();
        return testing::internal::GetCapturedStdout();
    };
    HVLoggerMediator empty;
    for (int type = msgAddMessages; type <= msgTriggerRemoteDump; ++type) {
        for (const int id : {-1, 0, 1, 2, 3, 7}) {
            EXPECT_EQ(printed(empty, id, type),
                      "No valid object with id: " + std::to_string(id) + "\r\n");
        }
    }
    EXPECT_EQ(printed(empty, 0, 13) + printed(empty, 0, -1), "");

    HVLoggerMediator mediator;
    QELloggerSyslogFmt store;
    QELloggerSyslogFmt later;
    HVLoggerTCPsockSrv server(&mediator);
    HVLoggerListener listener(&mediator);
    mediator.addComponent(idStore, &store);
    mediator.addComponent(idStore, &later);
    mediator.addComponent(idTcpServer, &server);
    mediator.addComponent(idListener, &listener);
    EXPECT_EQ(mediator.getComponent(idStore), &store);
    EXPECT_EQ(printed(mediator, idTcpServer, msgWriteFile), "No valid object with id: 2\r\n");
    store.append("<14>1 t d sip 1 - text");
    EXPECT_EQ(printed(mediator, idStore, msgReloadAll), ""); // no client to ask for more
    EXPECT_TRUE(store.messages.empty());

    text = "before";
    mediator.notify(idListener, msgGetNewestRaw, &text);
    EXPECT_EQ(text, "before"); // an empty store leaves it alone
    listener.append("<14>1 t d ui 1 - text");
    mediator.notify(idListener, msgGetNewestRaw, &text);
    EXPECT_EQ(text, "<14>1 t d ui 1 - text");
    mediator.notify(idListener, msgGetAllRaw, &text);
    EXPECT_EQ(text, "");
}

TEST(TcpComponents, RefuseWhatCannotBeTransferred) {
    HVLoggerMediator mediator;
    HVLoggerTCPsockSrv server(&mediator);
    char byte = 0;
    EXPECT_EQ(server.sendData(nullptr, 1), 0);
    EXPECT_EQ(server.sendData(&byte, 0), 0);
    EXPECT_EQ(server.sendData(&byte, 1), -1);
    EXPECT_EQ(server.receiveData(&byte, 1), -1);
    ASSERT_EQ(server.open(AF_INET, SOCK_STREAM), 0);
    server.connFd = server.fd;
    EXPECT_EQ(server.receiveData(nullptr, 1), -1);
    EXPECT_EQ(server.receiveData(&byte, -1), -1);
    EXPECT_EQ(server.sendData(&byte, 1), -2); // never connected: a broken pipe
    EXPECT_EQ(server.receiveData(&byte, 1), -2);
    EXPECT_FALSE(server.acceptViewer());
    EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateListening);
}

/// Has the one socket listen and connects the other one to it, with small segments.
void connect(QELsockCONN& listener, QELsockCONN& socket) {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    auto* const address = reinterpret_cast<sockaddr*>(&bound);
    const int segment = 1000;
    ASSERT_EQ(listener.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(listener.bind(QELsockaddr4::loopback(0)), 0);
    ASSERT_EQ(listener.listen(1), 0);
    ASSERT_EQ(getsockname(listener.fd, address, &length), 0);
    ASSERT_EQ(socket.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(socket.setOption(IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment), 0);
    ASSERT_EQ(::connect(socket.fd, address, length), 0);
}

/// The server with a viewer, its dispatcher, and a timer that lets no cycle wait.
class TcpServer : public testing::Test {
  protected:
    struct Tick : QELselTimer {
        std::uint64_t onTimer(std::int64_t /*nowUs*/) override { return 1; }
    };

    testing::StrictMock<MediatorMock> mediator;
    QELselector selector;
    Tick tick;
    HVLoggerTCPsockSrv server{&mediator};
    QELsockCONN viewer;

    TcpServer() {
        connect(server, viewer);
        server.connFd = server.fd;
        selector.setTimer(&tick, 1);
        cycle();
        EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateConnected);
    }
    ~TcpServer() override {
        secondsAhead = 0;
        connection = {};
    }
    void cycle() {
        selector.addRead(&server, server.getSelectFd());
        EXPECT_EQ(selector.runOnce(), 0);
    }
};

TEST_F(TcpServer, SilentViewerIsAskedForASignOfLifeAndGivenUpWithinAMinute) {
    const auto option = [this](int level, int name) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(server.connFd, level, name, &value, &length), 0);
        return value;
    };
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_LE(option(IPPROTO_TCP, TCP_KEEPIDLE) +
                  option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
              60);
}

TEST_F(TcpServer, ViewerThatAcknowledgesNothingForTooLongIsDropped) {
    const struct {
        std::uint32_t unacknowledged;
        std::uint32_t lastAckMs;
        HVLoggerTCPsockSrv::State state;
    } cases[] = {{0, 4'000'000, HVLoggerTCPsockSrv::stateConnected},
                 {1, 20'000, HVLoggerTCPsockSrv::stateConnected},
                 {1, 45'000, HVLoggerTCPsockSrv::stateListening}};
    for (const auto& c : cases) {
        connection.tcpi_unacked = c.unacknowledged;
        connection.tcpi_last_ack_recv = c.lastAckMs;
        secondsAhead += 11;
        cycle();
        EXPECT_EQ(server.state, c.state);
    }
}

TEST_F(TcpServer, ViewerThatLeftIsWatchedNoLonger) {
    viewer.close();
    cycle();
    EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateListening);
    connection.tcpi_unacked = 1;
    connection.tcpi_last_ack_recv = 45'000;
    secondsAhead += 11;
    cycle();
    EXPECT_NE(fcntl(server.fd, F_GETFD), -1); // the listening socket was not taken for a viewer
}

TEST(Signals, OnlyAnInterruptEndsTheServer) {
    onSignal(SIGTERM);
    EXPECT_TRUE(appRunning);
    onSignal(SIGINT);
    EXPECT_FALSE(appRunning);
    appRunning = true;
}

} // namespace

// In place of the C library's, so that time passes and connections fail when a test wants it.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" int clock_gettime(clockid_t /*clock*/, timespec* time) noexcept {
    std::timespec_get(time, TIME_UTC);
    time->tv_sec += secondsAhead;
    return 0;
}
extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
    if (level == IPPROTO_TCP && name == TCP_INFO && connection.tcpi_last_ack_recv > 0) {
        std::memcpy(value, &connection, *length);
        return 0;
    }
    return static_cast<int>(syscall(SYS_getsockopt, fd, level, name, value, length));
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
