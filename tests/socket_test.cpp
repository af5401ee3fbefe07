#include "QELsockBase.h"
#include "QELsockCONN.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using std::chrono::steady_clock;

constexpr std::int32_t longTimeout = 60'000'000; // for what is bound to arrive

QELsockaddr localAddress(const QELsockBase& socket) {
    sockaddr_storage raw{};
    socklen_t rawLen = sizeof raw;
    EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&raw), &rawLen), 0);
    QELsockaddr address;
    address.set(raw, rawLen);
    return address;
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// Two datagram sockets and a TCP connection on free ports of the loopback interface.
struct Socket : testing::Test {
    QELsockBase source, receiver;
    QELsockCONN listener, client, served;
    QELsockaddr peer;
    std::vector<char> buffer = std::vector<char>(70'000); // more than a datagram holds
    char* data = buffer.data();
    std::int64_t stamp = 7;
    std::string hooked; // the transfers that a hook has seen

    Socket() {
        for (QELsockBase* each : {&source, &receiver}) {
            EXPECT_EQ(each->open(AF_INET) + each->bind(QELsockaddr4::loopback(0)), 0);
        }
        EXPECT_EQ(listener.open(AF_INET, SOCK_STREAM) + client.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(listener.bind(QELsockaddr4::loopback(0)) + listener.listen(5), 0);
        EXPECT_EQ(client.connect(localAddress(listener)) + listener.accept(served, &peer), 0);
    }
    auto hook() {
        return [this](bool sent, std::int32_t result, const void* at, unsigned length) {
            hooked += (sent ? "sent " : "received ") + std::to_string(result) + " of " +
                      std::to_string(length) + (at == data ? ";" : " elsewhere;");
            errno = 0; // not the transfer's
        };
    }
};

TEST_F(Socket, EveryOperationTellsWhyItDidNothing) {
    const QELsockaddr taken = localAddress(receiver);
    QELsockCONN none, idle, second; // closed; bound, neither listening nor connected; unconnected
    ASSERT_EQ(second.open(AF_INET, SOCK_DGRAM) + idle.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(idle.bind(QELsockaddr4::loopback(0)), 0);
    QELsockaddrUNX full; // nobody accepts there
    full.set(("*hvlogger-full-" + std::to_string(getpid())).c_str());
    QELsockCONN local, first, late;
    for (QELsockCONN* socket : {&local, &first, &late}) {
        ASSERT_EQ(socket->open(AF_UNIX, SOCK_STREAM), 0);
        EXPECT_TRUE(socket->isBlocking());
        EXPECT_GE(socket->setBlocking(false), 0);
        EXPECT_FALSE(socket->isBlocking());
    }
    ASSERT_EQ(local.bind(full) + local.listen(0) + first.connect(full), 0);
    EXPECT_GE(source.setBlocking(false) + client.setBlocking(false), 0);
    while (client.send(data, 70'000) > 0) {
    }
    none.ioHook = idle.ioHook = second.ioHook = client.ioHook = hook();

    struct Case {
        std::function<std::int32_t()> operation;
        std::int32_t code;
        int error;
    };
    const auto check = [](std::initializer_list<Case> cases) {
        for (const Case& each : cases) {
            errno = 0;
            EXPECT_EQ(each.operation(), each.code) << "case " << &each - cases.begin();
            EXPECT_EQ(errno, each.error) << "case " << &each - cases.begin();
        }
    };
    testing::internal::CaptureStdout();
    using Memory = std::pair<char*, unsigned>;
    for (const Memory& to : {Memory(data, 4), Memory(data, 0), Memory(nullptr, 4)}) {
        const std::int32_t code = to == Memory(data, 4) ? -2897 : -2899;
        check({{[&] { return none.send(to.first, to.second); }, code, 0},
               {[&] { return none.sendTo(to.first, to.second, taken); }, code, 0},
               {[&] { return none.recv(to.first, to.second, 0); }, code, 0},
               {[&] { return none.recvFrom(to.first, to.second, 0, stamp); }, code, 0}});
    }
    EXPECT_EQ(stamp, 7);
    check({{[&] { return none.QELsockBase::bind(taken); }, -2897, 0},
           {[&] { return none.bind(taken); }, -2897, 0},
           {[&] { return none.listen(1); }, -2897, 0},
           {[&] { return none.connect(taken); }, -2897, 0},
           {[&] { return none.accept(receiver); }, -2897, 0},
           {[&] { return isOpen(receiver.fd); }, 1, 0}, // as the accept was refused
           {[&] { return none.setBlocking(false); }, -2897, 0},
           {[&] { return none.isBlocking(); }, 0, EBADF},
           {[&] { return none.setGracefulClose(true); }, -1, EBADF},
           {[&] { return idle.recv(data, 1); }, -2892, ENOTCONN},
           {[&] { return idle.recvFrom(data, 2); }, -2892, ENOTCONN},
           {[&] { return idle.recvFrom(data, 3, -1); }, -2892, ENOTCONN},
           {[&] { return idle.recvFrom(data, 4, 0, stamp); }, -2892, ENOTCONN},
           {[&] { return second.bind(taken); }, -2896, EADDRINUSE},
           {[&] { return second.QELsockBase::bind(taken); }, -2896, EADDRINUSE},
           {[&] { return second.sendTo(data, 70'000, taken); }, -2893, EMSGSIZE},
           {[&] { return second.send(data, 1); }, -2893, EDESTADDRREQ},
           {[&] { return second.listen(1); }, -2896, EOPNOTSUPP},
           {[&] { return idle.accept(second); }, -2895, EINVAL},
           {[&] { return second.fd; }, -1, 0}, // closed before the accept failed
           {[&] { return second.open(AF_INET, SOCK_STREAM); }, 0, 0},
           {[&] { return second.connect(localAddress(idle)); }, -2894, ECONNREFUSED},
           {[&] { return second.open(12345, SOCK_STREAM); }, -2898, EAFNOSUPPORT},
           {[&] { return second.fd; }, -1, 0}, // closed before the open failed
           {[&] { return source.recvFrom(data, 1); }, -2890, EAGAIN},
           {[&] { return source.recvFrom(data, 1, -1, stamp); }, -2890, EAGAIN},
           {[&] { return client.recv(data, 5); }, -2890, EAGAIN},
           {[&] { return client.recv(data, 6, -1); }, -2890, EAGAIN},
           {[&] { return client.send(data, 1); }, -2890, EAGAIN},
           {[&] { return late.connect(full); }, -2890, EAGAIN}});
    EXPECT_TRUE(QELsockBase::wouldBlock());
    EXPECT_GT(stamp, 7) << "not stamped because it failed";
    EXPECT_EQ(hooked, "received -1 of 1;received -1 of 2;received -1 of 3;received -1 of 4;"
                      "sent -1 of 70000;sent -1 of 1;received -1 of 5;received -1 of 6;"
                      "sent -1 of 1;");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Transport endpoint is not connected\nTransport endpoint is not connected\n"
              "Address already in use: " +
                  taken.toString(true) + "\n");
    EXPECT_GE(source.setBlocking(true), 0);
    EXPECT_TRUE(source.isBlocking());
}

TEST_F(Socket, EveryReceiveFromNamesItsSenderAndStampsItsTime) {
    const QELsockaddr to = localAddress(receiver);
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const std::int64_t before = now();
    receiver.ioHook = hook();
    for (int form = 0; form < 3; ++form) {
        const auto receive = [&](QELsockaddr* sender) {
            return form == 0   ? receiver.recvFrom(data, 8, sender)
                   : form == 1 ? receiver.recvFrom(data, 8, longTimeout, sender)
                               : receiver.recvFrom(data, 8, longTimeout, stamp, sender);
        };
        EXPECT_EQ(source.sendTo("hello", 5, to) + source.sendTo("hello", 5, to), 10);
        QELsockaddr sender;
        EXPECT_EQ(receive(nullptr) + receive(&sender), 10);
        EXPECT_STREQ(data, "hello");
        EXPECT_EQ(sender.compare(localAddress(source)), 0);
        EXPECT_EQ(sender.saLen(), sizeof(sockaddr_in));

        // An empty datagram, which the sending operations do not make.
        ASSERT_EQ(::sendto(source.fd, "", 0, 0, to.sa(), to.saLen()), 0);
        sender.set(QELsockaddr4(0x01020304, 5));
        EXPECT_EQ(receive(&sender), 0);
        EXPECT_EQ(sender.toString(true), "1.2.3.4:5");
        EXPECT_EQ(std::exchange(hooked, ""), "received 5 of 8;received 5 of 8;received 0 of 8;");
    }
    EXPECT_TRUE(before <= stamp && stamp <= now());
    EXPECT_EQ(receiver.recvFrom(data, 8, 0, stamp), -2891);
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(hooked, "");
}

/// A wait that starts anew after each signal would never end here, one that a signal ends is short.
TEST_F(Socket, TimedReceiveWaitsItsWholeTimeOnAnyDescriptorWhateverTheSignals) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    QELsockBase high; // above what select(2) can watch, where the system allows it
    high.fd = fcntl(receiver.fd, F_DUPFD_CLOEXEC, limit.rlim_max > 3000 ? 3000 : 0);
    static volatile sig_atomic_t signals = 0;
    std::signal(SIGALRM, [](int) { signals = 1; });
    for (const int period : {0, 1000}) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        for (const std::int32_t timeout : {0, 1, 100'000, period == 0 ? 1'010'000 : 0}) {
            const auto start = steady_clock::now();
            EXPECT_EQ(high.recvFrom(data, 8, timeout), -2891);
            EXPECT_GE(steady_clock::now() - start, std::chrono::microseconds(timeout));
        }
        EXPECT_EQ(source.sendTo("x", 1, localAddress(receiver)), 1);
        EXPECT_EQ(high.recvFrom(data, 8, longTimeout), 1);
    }
    EXPECT_NE(signals, 0);
    std::signal(SIGALRM, SIG_IGN);
    EXPECT_EQ(client.recv(data, 8, 1000), -2891);
    EXPECT_EQ(served.send("late", 4), 4);
    EXPECT_EQ(client.recv(data, 8, longTimeout), 4);
    served.close();
    EXPECT_EQ(client.recv(data, 8), 0);
}

// What a moved-from socket keeps is part of its contract.
// NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move)
TEST_F(Socket, DescriptorHasOneOwnerWhateverTheMoves) {
    served.ioHook = hook();
    const int fd = client.fd;
    {
        client.ioHook = hook();
        QELsockCONN second(std::move(client));
        client.close();
        EXPECT_TRUE(client.released && client.fd == fd && isOpen(fd));
        EXPECT_TRUE(!second.released && second.fd == fd && !second.ioHook);

        QELsockCONN& self = second;
        second = std::move(self);
        EXPECT_TRUE(!second.released && isOpen(fd));

        const int previous = served.fd;
        served = std::move(second);
        EXPECT_FALSE(isOpen(previous));
        EXPECT_TRUE(!served.released && served.fd == fd && served.ioHook && second.released);
    }
    EXPECT_TRUE(isOpen(fd));
    served.close();
    EXPECT_TRUE(served.fd == -1 && !isOpen(fd));
}
// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST_F(Socket, ReopeningAndAcceptingCloseWhatWasHeld) {
    EXPECT_EQ(peer.toString(true), localAddress(client).toString(true));
    EXPECT_EQ(peer.saLen(), sizeof(sockaddr_in));
    for (const int fd : {listener.fd, served.fd, source.fd}) {
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "a child process inherits it";
    }
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM) + second.connect(localAddress(listener)), 0);
    EXPECT_EQ(listener.accept(served), 0);
    EXPECT_EQ(client.recv(data, 1, longTimeout), 0) << "its peer was not closed for the second";
    EXPECT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    EXPECT_EQ(served.recv(data, 1, longTimeout), 0);
}

TEST_F(Socket, OptionsReachTheSystem) {
    EXPECT_EQ(served.setGracefulClose(false), 0);
    QELsockCONN second, accepted;
    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM) + second.connect(localAddress(listener)), 0);
    EXPECT_EQ(listener.accept(accepted), 0);
    EXPECT_EQ(accepted.setGracefulClose(false) + accepted.setGracefulClose(true), 0);
    served.close();
    accepted.close();
    EXPECT_EQ(client.recv(data, 1, longTimeout), -2892);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(second.recv(data, 1, longTimeout), 0);

    EXPECT_EQ(source.setMulticastTTL(128), 0);
    EXPECT_EQ(source.setMulticastTTL(129), -2);
    int ttl = -1;
    socklen_t length = sizeof ttl;
    getsockopt(source.fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &length);
    EXPECT_EQ(ttl, 128);
    // Joining twice is an error of its own, so a second try by hand tells what the first has done.
    const ip_mreq group{{inet_addr("239.1.2.3")}, {inet_addr("127.0.0.1")}};
    errno = 0;
    const int expected = source.joinGroup(0xEF010203, 0x7F000001) == 0 ? EADDRINUSE : errno;
    EXPECT_EQ(setsockopt(source.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(source.joinGroup(0x0A000005, 0x7F000001), -1) << "no group address";
}

} // namespace
