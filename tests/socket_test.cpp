#include "QELsockBase.h"
#include "QELsockCONN.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

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

/// A datagram socket on a free port of the loopback interface.
struct Datagram : QELsockBase {
    Datagram() { EXPECT_EQ(open(AF_INET) + bind(QELsockaddr4::loopback(0)), 0); }
};

/// Two ends of a TCP connection.
struct Connection {
    QELsockCONN listener, client, served;
    QELsockaddr peer;
    Connection() {
        EXPECT_EQ(listener.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(listener.bind(QELsockaddr4::loopback(0)) + listener.listen(5), 0);
        EXPECT_EQ(client.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(client.connect(localAddress(listener)), 0);
        EXPECT_EQ(listener.accept(served, &peer), 0);
    }
};

struct Socket : testing::Test {
    std::vector<char> buffer = std::vector<char>(70'000); // more than a datagram holds
    char* data = buffer.data();
    std::int64_t stamp = 7;
    std::string hooked; // the transfers that a hook has seen

    auto hook() {
        return [this](bool sent, std::int32_t result, const void* at, unsigned length) {
            hooked += std::string(sent ? "sent " : "received ") + std::to_string(result) + " of " +
                      std::to_string(length) + (at == data ? ";" : " elsewhere;");
            errno = EAGAIN; // not the transfer's
        };
    }
    /// What an operation must return, leave as error number and print.
    struct Case {
        std::function<std::int32_t()> operation;
        std::int32_t code;
        int error;
        std::string printed;
    };
    static void check(const std::vector<Case>& cases) {
        for (const Case& each : cases) {
            SCOPED_TRACE(&each - cases.data());
            testing::internal::CaptureStdout();
            errno = 0;
            EXPECT_EQ(each.operation(), each.code);
            EXPECT_EQ(errno, each.error);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), each.printed);
        }
    }
};

TEST_F(Socket, EveryOperationTellsWhyItFailed) {
    const QELsockaddr4 address = QELsockaddr4::loopback(9);
    QELsockBase base;
    QELsockCONN none, idle, second; // closed; bound, neither listening nor connected; unconnected
    ASSERT_EQ(base.open(AF_INET) + second.open(AF_INET, SOCK_DGRAM), 0);
    ASSERT_EQ(idle.open(AF_INET, SOCK_STREAM) + idle.bind(QELsockaddr4::loopback(0)), 0);
    none.ioHook = idle.ioHook = second.ioHook = hook();
    const Datagram datagram;
    const QELsockaddr taken = localAddress(datagram);
    const std::string noPeer = "Transport endpoint is not connected\n";
    const std::string inUse = "Address already in use: " + taken.toString(true) + "\n";
    for (const auto& [at, length, code] : {std::tuple{data, 4U, -2897},
                                           {data, 0U, -2899},
                                           {static_cast<char*>(nullptr), 4U, -2899}}) {
        check({{[&] { return none.send(at, length); }, code, 0, ""},
               {[&] { return none.sendTo(at, length, address); }, code, 0, ""},
               {[&] { return none.recv(at, length); }, code, 0, ""},
               {[&] { return none.recv(at, length, 0); }, code, 0, ""},
               {[&] { return none.recvFrom(at, length); }, code, 0, ""},
               {[&] { return none.recvFrom(at, length, 0); }, code, 0, ""},
               {[&] { return none.recvFrom(at, length, 0, stamp); }, code, 0, ""}});
    }
    EXPECT_EQ(stamp, 7);
    check({{[&] { return none.QELsockBase::bind(address); }, -2897, 0, ""},
           {[&] { return none.bind(address); }, -2897, 0, ""},
           {[&] { return none.listen(1); }, -2897, 0, ""},
           {[&] { return none.connect(address); }, -2897, 0, ""},
           {[&] { return none.accept(base); }, -2897, 0, ""},
           {[&] { return base.fd == -1; }, 0, 0, ""}, // not closed, the accept was refused
           {[&] { return none.setBlocking(false); }, -2897, 0, ""},
           {[&] { return none.isBlocking(); }, 0, EBADF, ""},
           {[&] { return none.setGracefulClose(true); }, -1, EBADF, ""},
           {[&] { return idle.recv(data, 1); }, -2892, ENOTCONN, ""},
           {[&] { return idle.recv(data, 1, 0); }, -2892, ENOTCONN, ""},
           {[&] { return idle.recvFrom(data, 1); }, -2892, ENOTCONN, ""},
           {[&] { return idle.recvFrom(data, 1, -1); }, -2892, ENOTCONN, noPeer},
           {[&] { return idle.recvFrom(data, 1, 0, stamp); }, -2892, ENOTCONN, noPeer},
           {[&] { return second.bind(taken); }, -2896, EADDRINUSE, ""},
           {[&] { return second.QELsockBase::bind(taken); }, -2896, EADDRINUSE, inUse},
           {[&] { return second.sendTo(data, 70'000, taken); }, -2893, EMSGSIZE, ""},
           {[&] { return second.send(data, 1); }, -2893, EDESTADDRREQ, ""},
           {[&] { return second.listen(1); }, -2896, EOPNOTSUPP, ""},
           {[&] { return idle.accept(second); }, -2895, EINVAL, ""},
           {[&] { return second.fd; }, -1, 0, ""}, // closed before the accept failed
           {[&] { return second.open(AF_INET, SOCK_STREAM); }, 0, 0, ""},
           {[&] { return second.connect(localAddress(idle)); }, -2894, ECONNREFUSED, ""},
           {[&] { return second.open(12345, SOCK_STREAM); }, -2898, EAFNOSUPPORT, ""},
           {[&] { return second.fd; }, -1, 0, ""}}); // closed before the open failed
    EXPECT_GT(stamp, 7) << "not stamped because it failed";
    EXPECT_EQ(hooked, "received -1 of 1;received -1 of 1;received -1 of 1;received -1 of 1;"
                      "received -1 of 1;sent -1 of 70000;sent -1 of 1;");
}

TEST_F(Socket, ANonBlockingOneSaysThatItWouldBlock) {
    Datagram empty;
    Connection tcp;
    QELsockaddrUNX address;
    address.set(("*hvlogger-full-" + std::to_string(getpid())).c_str());
    QELsockCONN listener, first, second; // nobody accepts
    for (QELsockCONN* socket : {&listener, &first, &second}) {
        ASSERT_EQ(socket->open(AF_UNIX, SOCK_STREAM), 0);
        EXPECT_TRUE(socket->isBlocking());
        EXPECT_GE(socket->setBlocking(false), 0);
        EXPECT_FALSE(socket->isBlocking());
    }
    ASSERT_EQ(listener.bind(address) + listener.listen(0) + first.connect(address), 0);
    EXPECT_GE(empty.setBlocking(false) + tcp.client.setBlocking(false), 0);
    while (tcp.client.send(data, 70'000) > 0) {
    }
    check({{[&] { return empty.recvFrom(data, 1); }, -2890, EAGAIN, ""},
           {[&] { return empty.recvFrom(data, 1, -1); }, -2890, EAGAIN, ""},
           {[&] { return empty.recvFrom(data, 1, -1, stamp); }, -2890, EAGAIN, ""},
           {[&] { return tcp.client.recv(data, 1); }, -2890, EAGAIN, ""},
           {[&] { return tcp.client.recv(data, 1, -1); }, -2890, EAGAIN, ""},
           {[&] { return tcp.client.send(data, 1); }, -2890, EAGAIN, ""},
           {[&] { return second.connect(address); }, -2890, EAGAIN, ""}});
    errno = EAGAIN;
    EXPECT_TRUE(QELsockBase::wouldBlock());
    EXPECT_GE(empty.setBlocking(true), 0);
    EXPECT_TRUE(empty.isBlocking());
}

TEST_F(Socket, EveryReceiveFromNamesItsSenderAndStampsItsTime) {
    Datagram receiver, source;
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
        EXPECT_EQ(receive(nullptr), 5);
        EXPECT_EQ(receive(&sender), 5);
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
    Datagram low;
    QELsockBase datagram;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    datagram.fd =
        fcntl(low.fd, F_DUPFD_CLOEXEC, limit.rlim_max > 3000 ? 3000 : 0); // over FD_SETSIZE
    static volatile sig_atomic_t signals = 0;
    std::signal(SIGALRM, [](int) { signals = 1; });
    for (const int period : {0, 1000}) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        for (const std::int32_t timeout : {0, 1, 100'000, period == 0 ? 1'010'000 : 0}) {
            const auto start = steady_clock::now();
            EXPECT_EQ(datagram.recvFrom(data, 8, timeout), -2891);
            EXPECT_GE(steady_clock::now() - start, std::chrono::microseconds(timeout));
        }
        EXPECT_EQ(low.sendTo("x", 1, localAddress(low)), 1);
        EXPECT_EQ(datagram.recvFrom(data, 8, longTimeout), 1);
    }
    EXPECT_NE(signals, 0);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);

    Connection tcp;
    EXPECT_EQ(tcp.client.recv(data, 8, 1000), -2891);
    EXPECT_EQ(tcp.served.send("late", 4), 4);
    EXPECT_EQ(tcp.client.recv(data, 8, longTimeout), 4);
    tcp.served.close();
    EXPECT_EQ(tcp.client.recv(data, 8, longTimeout), 0);
    EXPECT_EQ(tcp.client.recv(data, 8), 0);
}

// What a moved-from socket keeps is part of its contract.
// NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move)
TEST_F(Socket, DescriptorHasOneOwnerWhateverTheMoves) {
    const auto isOpen = [](int fd) {
        return fcntl(fd, F_GETFD) != -1;
    };
    QELsockCONN last;
    ASSERT_EQ(last.open(AF_INET, SOCK_STREAM), 0);
    last.ioHook = hook();
    int fd = -1;
    {
        QELsockCONN first;
        ASSERT_EQ(first.open(AF_INET, SOCK_STREAM), 0);
        first.ioHook = hook();
        fd = first.fd;
        QELsockCONN second(std::move(first));
        first.close();
        EXPECT_TRUE(first.released && first.fd == fd && isOpen(fd));
        EXPECT_TRUE(!second.released && second.fd == fd && !second.ioHook);

        QELsockCONN& self = second;
        second = std::move(self);
        EXPECT_TRUE(!second.released && isOpen(fd));

        const int previous = last.fd;
        last = std::move(second);
        EXPECT_FALSE(isOpen(previous));
        EXPECT_TRUE(!last.released && last.fd == fd && last.ioHook && second.released);
    }
    EXPECT_TRUE(isOpen(fd));
    last.close();
    EXPECT_EQ(last.fd, -1);
    EXPECT_FALSE(isOpen(fd));
}
// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST_F(Socket, ReopeningAndAcceptingCloseWhatWasHeld) {
    Connection tcp;
    EXPECT_EQ(tcp.peer.toString(true), localAddress(tcp.client).toString(true));
    EXPECT_EQ(tcp.peer.saLen(), sizeof(sockaddr_in));
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(second.connect(localAddress(tcp.listener)), 0);
    EXPECT_EQ(tcp.listener.accept(tcp.served), 0);
    EXPECT_EQ(tcp.client.recv(data, 1, longTimeout), 0) << "its peer made no room for the second";
    EXPECT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    EXPECT_EQ(tcp.served.recv(data, 1, longTimeout), 0);
    for (const int fd : {tcp.listener.fd, tcp.client.fd, tcp.served.fd, Datagram().fd}) {
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "a child process inherits it";
    }
}

TEST_F(Socket, OptionsReachTheSystem) {
    for (const bool graceful : {true, false}) {
        Connection tcp;
        EXPECT_EQ(tcp.served.setGracefulClose(!graceful), 0);
        EXPECT_EQ(tcp.served.setGracefulClose(graceful), 0);
        tcp.served.close();
        const auto receive = [&] {
            return tcp.client.recv(data, 1, longTimeout);
        };
        check({{receive, graceful ? 0 : -2892, graceful ? 0 : ECONNRESET, ""}});
    }
    Datagram socket;
    EXPECT_EQ(socket.setMulticastTTL(128), 0);
    EXPECT_EQ(socket.setMulticastTTL(129), -2);
    int ttl = -1;
    socklen_t length = sizeof ttl;
    getsockopt(socket.fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &length);
    EXPECT_EQ(ttl, 128);

    // Joining twice is an error of its own, so a second try by hand tells what the first has
    // joined.
    const ip_mreq group{{inet_addr("239.1.2.3")}, {inet_addr("127.0.0.1")}};
    errno = 0;
    const int joined = socket.joinGroup(0xEF010203, 0x7F000001);
    const int expected = joined == 0 ? EADDRINUSE : errno;
    EXPECT_EQ(setsockopt(socket.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(socket.joinGroup(0x0A000005, 0x7F000001), -1) << "no group address";
}

} // namespace
