#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerOutbox.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELselTimer.h"
#include "QELselector.h"
#include "QELsockaddr4.h"
#include "QELtokenBucket.h"
#include "support/allocations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testing::_;

std::atomic<time_t> secondsAhead = 0; ///< how far the clocks are put forward
tcp_info connection{};                ///< what is told about every connection, if it is not zero
std::deque<std::size_t> takes;        ///< what sends that do not wait take, as long as it lasts

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

    testing::NiceMock<MediatorMock> mediator;
    std::string listing = "<14>1 listing";
    std::string newest = "newest";
    QELselector selector;
    Tick tick;
    HVLoggerTCPsockSrv server{&mediator};
    QELsockCONN viewer;

    TcpServer() {
        ON_CALL(mediator, notify(idListener, _, _)).WillByDefault([this](int, int type, void* to) {
            *static_cast<std::string*>(to) = type == msgGetAllRaw ? listing : newest;
        });
        selector.setTimer(&tick, 1);
        connectViewer();
    }
    ~TcpServer() override {
        secondsAhead = 0;
        connection = {};
        takes.clear();
    }
    void connectViewer() {
        connect(server, viewer);
        server.connFd = server.fd;
        cycle();
        EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateConnected);
    }
    void cycle() {
        selector.addRead(&server, server.getSelectFd());
        EXPECT_EQ(selector.runOnce(), 0);
        server.sendCollected();
    }
    int option(int level, int name) const {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(server.connFd, level, name, &value, &length), 0);
        return value;
    }
    /// Has the viewer ask for the listing, behind other bytes.
    void sendCommand(std::string batch) {
        const std::int32_t command = HVLoggerTCPsock::cmdSendAll;
        batch.append(reinterpret_cast<const char*>(&command), sizeof command);
        EXPECT_EQ(viewer.send(batch.data(), static_cast<unsigned>(batch.size())),
                  static_cast<int>(batch.size()));
    }
    void expectArrived(const std::string& text) const {
        std::string arrived(text.size(), '?');
        recv(viewer.fd, arrived.data(), arrived.size(), MSG_DONTWAIT);
        EXPECT_EQ(arrived, text);
    }
};

TEST_F(TcpServer, SilentViewerIsAskedForASignOfLifeAndGivenUpWithinAMinute) {
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_LE(option(IPPROTO_TCP, TCP_KEEPIDLE) +
                  option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
              60);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1); // the end of a message waits for nothing
}

TEST_F(TcpServer, ViewerThatAcknowledgesNothingForTooLongIsDropped) {
    const struct {
        std::uint32_t unacknowledged;
        std::uint8_t probes;  // in vain
        std::uint8_t backoff; // with nothing unacknowledged: the window is full
        std::uint32_t lastAckMs;
        int probedUntilMs;
        HVLoggerTCPsockSrv::State state;
    } cases[] = {{0, 3, 0, 4'000'000, 0, HVLoggerTCPsockSrv::stateConnected},
                 {1, 0, 3, 20'000, 0, HVLoggerTCPsockSrv::stateConnected},
                 {0, 1, 8, 110'000, 309'000, HVLoggerTCPsockSrv::stateConnected},
                 {0, 2, 8, 20'000, 309'000, HVLoggerTCPsockSrv::stateConnected},
                 {0, 2, 8, 55'000, -1, HVLoggerTCPsockSrv::stateListening},
                 {1, 0, 7, 55'000, -1, HVLoggerTCPsockSrv::stateListening}};
    for (const auto& c : cases) {
        if (server.state == HVLoggerTCPsockSrv::stateListening) {
            connectViewer();
        }
        connection.tcpi_unacked = c.unacknowledged;
        connection.tcpi_probes = c.probes;
        connection.tcpi_backoff = c.backoff;
        connection.tcpi_last_ack_recv = c.lastAckMs;
        connection.tcpi_last_data_sent = 300'000;
        secondsAhead += 11;
        cycle();
        ASSERT_EQ(server.state, c.state);
        if (c.state == HVLoggerTCPsockSrv::stateConnected) {
            EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), c.probedUntilMs);
        }
    }
}

TEST_F(TcpServer, WhatACycleHasForTheViewerLeavesInOneSendAndInOrderWhereverThatIsCut) {
    newest = "at once";
    server.forwardNewest();
    expectArrived("at once");
    server.collecting = true;
    for (std::size_t cut = 0; cut <= 3 + listing.size(); ++cut) {
        takes = {cut, 1};
        newest = "one";
        server.forwardNewest();
        sendCommand("");
        cycle();
        EXPECT_EQ(takes.size(), 1U);
        newest = "two";
        server.forwardNewest();
        cycle();
        EXPECT_EQ(takes.size(), 0U);
        cycle();
        expectArrived("one" + listing + "two");
    }
}

TEST_F(TcpServer, ViewerThatEndedItsSideGetsWhatIsThereForItAndNothingNew) {
    server.collecting = true;
    for (const bool paused : {true, false}) {
        server.forwardNewest();
        shutdown(viewer.fd, SHUT_WR);
        takes = {paused ? 3U : newest.size()};
        cycle();
        if (paused) {
            EXPECT_EQ(server.getSelectFd(), -1);
            server.forwardNewest();
            cycle();
        }
        EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateListening);
        expectArrived(newest);
        EXPECT_EQ(recv(viewer.fd, listing.data(), 1, 0), 0);
        // The listening socket is not taken for a viewer that vanishes.
        connection.tcpi_unacked = 1;
        connection.tcpi_last_ack_recv = 55'000;
        secondsAhead += 11;
        cycle();
        EXPECT_NE(fcntl(server.fd, F_GETFD), -1);
        connectViewer();
    }
}

TEST_F(TcpServer, FloodOfCommandsIsReadInPieces) {
    sendCommand(std::string(0x2000, '\0')); // of one piece only the start would count
    cycle();
    cycle();
    expectArrived(listing);
}

TEST(Outbox, PeerThatIsAlwaysALittleBehindCostsNoMemory) {
    std::array<int, 2> ends{};
    std::string text(100, 'x');
    HVLoggerOutbox outbox([] {});
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    outbox.append(std::string(text));
    const std::int64_t before = allocations;
    for (int round = 0; round < 1000; ++round) {
        outbox.append(std::string(text)); // one allocation
        takes = {text.size()};            // another one
        ASSERT_TRUE(outbox.send(ends[0], nullptr));
        ASSERT_EQ(recv(ends[1], text.data(), text.size(), 0), text.size());
    }
    EXPECT_LE(allocations - before, 2000 + 4);
    std::ranges::for_each(ends, ::close);
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
extern "C" ssize_t send(int fd, const void* data, std::size_t size, int flags) {
    if ((flags & MSG_DONTWAIT) != 0 && !takes.empty()) {
        size = std::min(size, takes.front());
        takes.pop_front();
    }
    if (size == 0) {
        errno = EAGAIN;
        return -1;
    }
    return syscall(SYS_sendto, fd, data, size, flags, nullptr, 0);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
