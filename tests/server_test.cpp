#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerOutbox.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerViewerWatch.h"
#include "HVLoggerVocabulary.h"
#include "QELselector.h"
#include "QELsockaddr4.h"
#include "QELtokenBucket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <iostream>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

tcp_info connection{};         ///< what is told about every connection, if it is not zero
std::deque<std::size_t> takes; ///< what sends that do not wait take, as long as it lasts

int option(int fd, int level, int name) {
    int value = 0;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0);
    return value;
}

TEST(TokenBucket, CountStaysOneBelowTheCapacityAndNothingIsLostBetweenThreads) {
    QELtokenBucket bucket;
    EXPECT_EQ(bucket.start(0, 100), -1);
    for (const std::uint32_t highest : {0U, 9U}) {
        ASSERT_EQ(bucket.start(1'000'000, highest + 1), 0);
        EXPECT_EQ(bucket.start(1, 5), -1);
        while (bucket.tokens < highest) {
            usleep(100);
        }
        bucket.stop();
        EXPECT_EQ(bucket.thread, nullptr);
        bucket.refill();
        EXPECT_EQ(bucket.tokens, highest);
    }
    pthread_attr_t usual, huge; // a stack that no thread can have
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4);
    pthread_setattr_default_np(&huge);
    EXPECT_EQ(bucket.start(10000, 100), -1);
    pthread_setattr_default_np(&usual);
    EXPECT_FALSE(bucket.running || bucket.thread);
    bucket.take(~0U); // all there are
    EXPECT_EQ(bucket.tokens, 0U);
    constexpr std::uint32_t each = 3'000'000;
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
    ASSERT_EQ(bucket.start(10000, each), 0); // destroyed while it runs, it has ended its thread
    EXPECT_GE(bucket.tokens, each);
}

TEST(Listener, RefusesDatagramsOnlyWhileARunningLimiterIsEmpty) {
    HVLoggerListener listener(nullptr);
    QELtokenBucket& limiter = listener.rateLimiter; // runs without the thread that would refill it
    for (const auto& [running, tokens, left, stored] : {std::tuple{false, 0U, 0U, 1U},
                                                        {true, 0U, 0U, 1U},
                                                        {true, 1U, 0U, 2U},
                                                        {true, 100U, 78U, 3U}}) {
        limiter.running = running;
        limiter.tokens = tokens;
        listener.onLogMessage("<14>1 t d sip 1 - text", 0); // one token admits any length
        EXPECT_EQ(limiter.tokens, left);
        EXPECT_EQ(listener.messages.size(), stored);
    }
    limiter.running = false;
    EXPECT_EQ(listener.startRateLimit(), 0);
    EXPECT_EQ(limiter.capacity, 1048576U);
    EXPECT_EQ(limiter.periodNs, 100000U);
}

TEST(ViewerWatch, GivesUpWhoAcknowledgesNothingForTooLong) {
    constexpr int never = -1;
    bool vanished = false;
    HVLoggerViewerWatch watch([&] { vanished = true; });
    QELsockCONN socket;
    ASSERT_EQ(socket.open(AF_INET, SOCK_STREAM), 0);
    watch.start(socket.fd, nullptr);
    EXPECT_EQ(option(socket.fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_LE(option(socket.fd, IPPROTO_TCP, TCP_KEEPIDLE) +
                  option(socket.fd, IPPROTO_TCP, TCP_KEEPINTVL) *
                      option(socket.fd, IPPROTO_TCP, TCP_KEEPCNT),
              60);
    connection.tcpi_last_data_sent = 300'000;
    using Row = std::tuple<std::uint8_t, std::uint8_t, std::uint32_t, std::uint32_t, int>;
    for (const auto& [probes, backoff, unacknowledged, lastAckMs, probedUntilMs] :
         {Row{3, 0, 0, 4'000'000, 0},
          {0, 3, 1, 20'000, 0},
          {1, 8, 0, 110'000, 309'000},
          {2, 8, 0, 20'000, 309'000},
          {2, 8, 0, 55'000, never},
          {0, 7, 1, 55'000, never}}) {
        connection.tcpi_probes = probes;
        connection.tcpi_backoff = backoff;
        connection.tcpi_unacked = unacknowledged;
        connection.tcpi_last_ack_recv = lastAckMs;
        const std::uint64_t next = watch.onTimer(0);
        EXPECT_EQ(vanished ? never : option(socket.fd, IPPROTO_TCP, TCP_USER_TIMEOUT),
                  probedUntilMs);
        EXPECT_EQ(next == 0, vanished);
        EXPECT_LE(next, 1'000'000U); // before the next probe would be due
    }
}

/// The server with a viewer and its dispatcher.
struct TcpServer : testing::Test {
    HVLoggerMediator mediator;
    HVLoggerListener listener{&mediator};
    const std::string listing = "<14>1 t d sip 1 - listed";
    QELselector selector;
    HVLoggerTCPsockSrv server{&mediator};
    sockaddr_in bound{};
    QELsockCONN viewer;

    TcpServer() {
        connection = {};
        listener.addComponents(0x10000, {"sip"});
        listener.append(listing);
        mediator.addComponent(idListener, &listener);
        mediator.addComponent(idListener, nullptr); // the first one stays
        socklen_t length = sizeof bound;
        EXPECT_EQ(server.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(server.startListening(), 0);
        EXPECT_EQ(getsockname(server.fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
        server.connFd = server.fd;
        connectViewer();
        server.collecting = true;
    }
    void connectViewer() {
        EXPECT_EQ(viewer.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(viewer.connect(QELsockaddr4::loopback(ntohs(bound.sin_port))), 0);
        cycle();
        EXPECT_EQ(server.state, HVLoggerTCPsockSrv::stateConnected);
    }
    void cycle() {
        selector.addRead(&server, server.getSelectFd());
        EXPECT_EQ(selector.runOnce(), 0);
        server.sendCollected();
    }
    void log(const std::string& text) {
        listener.append(text);
        server.forwardNewest();
    }
    void expectArrived(const std::string& text) const {
        std::string arrived(text.size() + 1, '?');
        recv(viewer.fd, arrived.data(), arrived.size(), MSG_DONTWAIT);
        EXPECT_EQ(arrived, text + '?');
    }
};

TEST_F(TcpServer, MissingDestinationsOfMessagesAreReportedAndUnknownTypesIgnored) {
    QELloggerSyslogFmt store;
    std::string text = "before";
    mediator.addComponent(idTcpServer, &server); // is no store
    testing::internal::CaptureStdout();
    for (const int type : {-1, static_cast<int>(msgWriteFile), msgTriggerRemoteDump + 1}) {
        mediator.notify(idTcpServer, type, &text);
        mediator.notify(idStore, type, &text);
    }
    mediator.addComponent(idStore, &store);
    store.append("<14>1 t d sip 1 - text");
    mediator.notify(idStore, msgReloadAll, nullptr); // no client to ask for more
    mediator.notify(idStore, msgGetNewestRaw, &text);
    EXPECT_EQ(text, "before");
    std::cout.flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "No valid object with id: 2\r\nNo valid object with id: 0\r\n");
}

TEST_F(TcpServer, WhatACycleHasForTheViewerLeavesInOneSendAndInOrderWhereverThatIsCut) {
    const std::string one = "<14>1 t d ui 1 - one"; // not listed
    const std::string two = "<14>1 t d ui 1 - two";
    const std::string all = one + listing + two;
    const std::int32_t command = HVLoggerTCPsock::cmdSendAll;
    EXPECT_EQ(option(server.connFd, IPPROTO_TCP, TCP_NODELAY), 1); // nor does an end wait
    for (std::size_t cut = 0; cut < one.size() + listing.size(); ++cut) {
        takes = {cut, 1};
        log(one);
        viewer.send(&command, sizeof command);
        cycle();
        EXPECT_EQ(takes.size(), 1U);
        log(two);
        cycle();
        EXPECT_EQ(takes.size(), 0U);
        cycle();
        expectArrived(all);
    }
}

TEST_F(TcpServer, ViewerThatEndedItsSideGetsWhatIsThereForItAndNothingNew) {
    log(listing);
    shutdown(viewer.fd, SHUT_WR);
    takes = {3};
    cycle();
    EXPECT_EQ(server.getSelectFd(), -1);
    log("<14>1 t d sip 1 - later");
    cycle();
    expectArrived(listing);
    EXPECT_EQ(server.sendData("x", 1), -2); // and no signal
    // The listening socket is not taken for a viewer that vanishes; the next viewer does.
    connection.tcpi_unacked = 1;
    connection.tcpi_last_ack_recv = 55'000;
    HVLoggerOutbox awaken([] {});
    selector.addWrite(&awaken, viewer.fd);
    usleep(1'000'000);
    cycle();
    connectViewer();
    server.collecting = false;
    log(listing);
    expectArrived(listing);
    cycle();
    connectViewer();
}

TEST_F(TcpServer, FloodOfCommandsIsReadInPieces) {
    std::int32_t batch[0x801] = {};
    batch[0x800] = HVLoggerTCPsock::cmdSendAll; // of one piece only the start would count
    viewer.send(batch, sizeof batch);
    cycle();
    cycle();
    expectArrived(listing);
}

TEST(Outbox, PeerThatIsAlwaysALittleBehindCostsNoMemory) {
    int ends[2] = {};
    std::string text(100, 'x');
    HVLoggerOutbox outbox([] {});
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    outbox.append(std::string(text));
    const std::size_t before = mallinfo2().uordblks; // 0 with a sanitizer's heap
    for (int round = 0; round < 10'000; ++round) {
        outbox.append(std::string(text));
        takes = {text.size()};
        ASSERT_TRUE(outbox.send(ends[0], nullptr));
        ASSERT_EQ(recv(ends[1], text.data(), text.size(), 0), text.size());
    }
    EXPECT_LE(mallinfo2().uordblks - before, 10'000);
}

} // namespace

// In place of the C library's, so that connections fail when a test wants it.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
    if (level == IPPROTO_TCP && name == TCP_INFO && connection.tcpi_last_ack_recv > 0) {
        *static_cast<tcp_info*>(value) = connection;
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
