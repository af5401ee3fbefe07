#include "QELsockBase.h"
#include "QELsockCONN.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr int32_t longTimeout = 60'000'000; // for what is bound to arrive

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

QELsockaddr localAddress(const QELsockBase& socket) {
    sockaddr_storage raw{};
    socklen_t rawLen = sizeof raw;
    EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&raw), &rawLen), 0);
    QELsockaddr address;
    address.set(raw, rawLen);
    return address;
}

// A datagram socket on a free port of the loopback interface.
struct Datagram : QELsockBase {
    Datagram() {
        EXPECT_EQ(open(AF_INET), 0);
        EXPECT_EQ(bind(QELsockaddr4::loopback(0)), 0);
    }
};

// Two ends of a TCP connection.
struct Connection {
    Connection() {
        EXPECT_EQ(listener.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(listener.bind(QELsockaddr4::loopback(0)), 0);
        EXPECT_EQ(listener.listen(5), 0);
        EXPECT_EQ(client.open(AF_INET, SOCK_STREAM), 0);
        EXPECT_EQ(client.connect(localAddress(listener)), 0);
        EXPECT_EQ(listener.accept(served, &peer), 0);
    }
    QELsockCONN listener;
    QELsockCONN client;
    QELsockCONN served;
    QELsockaddr peer;
};

// Collects standard output for as long as it lives.
class Output {
  public:
    ~Output() { std::cout.rdbuf(old); }
    [[nodiscard]] std::string text() const { return collected.str(); }

  private:
    std::ostringstream collected;
    std::streambuf* old = std::cout.rdbuf(collected.rdbuf());
};

TEST(Socket, ClosedSocketRefusesEveryOperation) {
    std::array<char, 4> buffer{};
    int64_t received = 7;
    QELsockaddr sender;
    QELsockBase other;
    const QELsockaddr4 address = QELsockaddr4::loopback(9);
    using Transfer = std::function<int32_t(QELsockCONN&, char*, unsigned)>;
    const std::vector<Transfer> transfers = {
        [&](auto& s, char* b, unsigned n) { return s.send(b, n); },
        [&](auto& s, char* b, unsigned n) { return s.sendTo(b, n, address); },
        [&](auto& s, char* b, unsigned n) { return s.recv(b, n); },
        [&](auto& s, char* b, unsigned n) { return s.recv(b, n, 0); },
        [&](auto& s, char* b, unsigned n) { return s.recvFrom(b, n, &sender); },
        [&](auto& s, char* b, unsigned n) { return s.recvFrom(b, n, 0, &sender); },
        [&](auto& s, char* b, unsigned n) { return s.recvFrom(b, n, 0, received, &sender); },
    };
    const Output output;
    QELsockCONN socket;
    int calls = 0;
    socket.ioHook = [&](bool, int32_t, const void*, unsigned) {
        ++calls;
    };
    for (size_t i = 0; i < transfers.size(); ++i) {
        EXPECT_EQ(transfers[i](socket, buffer.data(), 4), -2897) << i;
        EXPECT_EQ(transfers[i](socket, buffer.data(), 0), -2899) << i;
        EXPECT_EQ(transfers[i](socket, nullptr, 4), -2899) << i;
    }
    EXPECT_EQ(received, 7);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(other.bind(address), -2897);
    EXPECT_EQ(socket.bind(address), -2897);
    EXPECT_EQ(socket.listen(1), -2897);
    EXPECT_EQ(socket.connect(address), -2897);
    EXPECT_EQ(other.open(AF_INET), 0);
    EXPECT_EQ(socket.accept(other), -2897);
    EXPECT_NE(other.fd, -1); // refused before the receiving object was closed
    EXPECT_EQ(socket.setBlocking(false), -2897);
    EXPECT_FALSE(socket.isBlocking());
    EXPECT_EQ(socket.setGracefulClose(true), -1);
    EXPECT_EQ(socket.setMulticastTTL(1), -1);
    EXPECT_EQ(socket.joinGroup(0xEF010203, 0), -1);
    EXPECT_EQ(output.text(), "");
}

TEST(Socket, FailuresOfTheSystemGiveTheirCodesAndKeepTheErrorNumber) {
    const auto fails = [](const std::string& printed, int32_t code, int error, auto operation) {
        const Output output;
        errno = 0;
        const int32_t result = operation();
        const int left = errno;
        EXPECT_EQ(result, code);
        EXPECT_STREQ(std::strerror(left), std::strerror(error));
        EXPECT_EQ(output.text(), printed);
    };
    std::vector<char> buffer(70000);
    char* const data = buffer.data();
    QELsockCONN idle; // bound, neither listening nor connected
    ASSERT_EQ(idle.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(idle.bind(QELsockaddr4::loopback(0)), 0);
    const std::string noPeer = "Transport endpoint is not connected\n";
    int64_t received = 0;
    // What a hook does to the error number is not the transfer's.
    idle.ioHook = [](bool, int32_t, const void*, unsigned) {
        errno = EAGAIN;
    };
    fails("", -2892, ENOTCONN, [&] { return idle.recv(data, 1); });
    fails("", -2892, ENOTCONN, [&] { return idle.recv(data, 1, 0); });
    fails("", -2892, ENOTCONN, [&] { return idle.recvFrom(data, 1); });
    fails(noPeer, -2892, ENOTCONN, [&] { return idle.recvFrom(data, 1, -1); });
    fails(noPeer, -2892, ENOTCONN, [&] { return idle.recvFrom(data, 1, 0, received); });
    EXPECT_GT(received, 0); // stamped although it failed

    Datagram datagram;
    const QELsockaddr taken = localAddress(datagram);
    fails("", -2893, EMSGSIZE, [&] { return datagram.sendTo(data, 70000, taken); });
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_DGRAM), 0);
    fails("", -2896, EADDRINUSE, [&] { return second.bind(taken); });
    fails("Address already in use: 127.0.0.1:" + std::to_string(taken.port()) + "\n", -2896,
          EADDRINUSE, [&] { return second.QELsockBase::bind(taken); });
    fails("", -2893, EDESTADDRREQ, [&] { return second.send(data, 1); });
    fails("", -2896, EOPNOTSUPP, [&] { return second.listen(1); });
    fails("", -2895, EINVAL, [&] { return idle.accept(second); });
    EXPECT_EQ(second.fd, -1); // closed before the accept failed

    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    fails("", -2894, ECONNREFUSED, [&] { return second.connect(localAddress(idle)); });
    fails("", -2898, EAFNOSUPPORT, [&] { return second.open(12345, SOCK_STREAM); });
    EXPECT_EQ(second.fd, -1); // closed before the open failed
    errno = EMSGSIZE;
    EXPECT_EQ(QELsockBase::errorText(), std::strerror(EMSGSIZE));
}

TEST(Socket, NonBlockingSocketSaysThatItWouldBlock) {
    std::array<char, 512> buffer{};
    Datagram empty;
    EXPECT_TRUE(empty.isBlocking());
    EXPECT_GE(empty.setBlocking(false), 0);
    EXPECT_FALSE(empty.isBlocking());
    int64_t received = 0;
    const Output output;
    EXPECT_EQ(empty.recvFrom(buffer.data(), 1), -2890);
    EXPECT_TRUE(QELsockBase::wouldBlock());
    EXPECT_EQ(empty.recvFrom(buffer.data(), 1, -1), -2890);
    EXPECT_EQ(empty.recvFrom(buffer.data(), 1, -1, received), -2890);
    EXPECT_EQ(output.text(), "");
    EXPECT_GE(empty.setBlocking(true), 0);
    EXPECT_TRUE(empty.isBlocking());

    Connection tcp;
    EXPECT_GE(tcp.client.setBlocking(false), 0);
    EXPECT_EQ(tcp.client.recv(buffer.data(), 1), -2890);
    EXPECT_EQ(tcp.client.recv(buffer.data(), 1, -1), -2890);

    // A Unix-domain datagram socket that nobody reads, and a listener that nobody accepts from.
    QELsockaddrUNX address;
    address.set(("*hvlogger-full-" + std::to_string(getpid())).c_str());
    QELsockBase reader;
    QELsockBase sender;
    ASSERT_EQ(reader.open(AF_UNIX), 0);
    ASSERT_EQ(reader.bind(address), 0);
    ASSERT_EQ(sender.open(AF_UNIX), 0);
    EXPECT_GE(sender.setBlocking(false), 0);
    int32_t sent = 1;
    while (sent > 0) {
        sent = sender.sendTo(buffer.data(), 1, address);
    }
    EXPECT_EQ(sent, -2890);

    QELsockCONN listener;
    ASSERT_EQ(listener.open(AF_UNIX, SOCK_STREAM), 0);
    reader.close();
    ASSERT_EQ(listener.bind(address), 0);
    ASSERT_EQ(listener.listen(0), 0);
    std::vector<QELsockCONN> waiting;
    int32_t connected = 0;
    while (connected == 0) {
        QELsockCONN client;
        ASSERT_EQ(client.open(AF_UNIX, SOCK_STREAM), 0);
        EXPECT_GE(client.setBlocking(false), 0);
        connected = client.connect(address);
        waiting.push_back(std::move(client));
    }
    EXPECT_EQ(connected, -2890);
}

TEST(Socket, EveryReceiveFromNamesItsSenderAndStampsItsTime) {
    Datagram receiver;
    Datagram source;
    const QELsockaddr to = localAddress(receiver);
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    std::array<char, 8> buffer{};
    int64_t stamp = 0;
    const std::vector<std::function<int32_t(QELsockaddr*)>> forms = {
        [&](auto* sender) { return receiver.recvFrom(buffer.data(), 8, sender); },
        [&](auto* sender) { return receiver.recvFrom(buffer.data(), 8, longTimeout, sender); },
        [&](auto* sender) {
            return receiver.recvFrom(buffer.data(), 8, longTimeout, stamp, sender);
        },
    };
    const int64_t before = now();
    for (const auto& receive : forms) {
        buffer.fill('-');
        EXPECT_EQ(source.sendTo("hello", 5, to), 5);
        QELsockaddr sender;
        EXPECT_EQ(receive(&sender), 5);
        EXPECT_EQ(std::string_view(buffer.data(), 8), "hello---");
        EXPECT_EQ(sender.toString(true), localAddress(source).toString(true));
        EXPECT_EQ(sender.saLen(), sizeof(sockaddr_in));

        EXPECT_EQ(source.sendTo("hello", 5, to), 5);
        EXPECT_EQ(receive(nullptr), 5);

        // An empty datagram, which the sending operations do not make.
        ASSERT_EQ(::sendto(source.fd, "", 0, 0, to.sa(), to.saLen()), 0);
        const QELsockaddr4 untouched(0x01020304, 5);
        sender.set(untouched);
        EXPECT_EQ(receive(&sender), 0);
        EXPECT_EQ(sender.compare(untouched), 0);
    }
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, now());
    EXPECT_EQ(receiver.recvFrom(buffer.data(), 8, 0, stamp), -2891);
    EXPECT_EQ(stamp, 0);
    stamp = 7;
    EXPECT_EQ(receiver.recvFrom(nullptr, 8, 0, stamp), -2899);
    EXPECT_EQ(stamp, 7);
}

TEST(Socket, TimedReceiveWaitsItsWholeTime) {
    Connection tcp;
    Datagram datagram;
    std::array<char, 8> buffer{};
    for (const int32_t timeout : {0, 1, 20'000, 1'010'000}) {
        const auto start = steady_clock::now();
        EXPECT_EQ(datagram.recvFrom(buffer.data(), 8, timeout), -2891);
        EXPECT_GE(steady_clock::now() - start, microseconds(timeout));
    }
    EXPECT_EQ(tcp.client.recv(buffer.data(), 8, 1000), -2891);
    EXPECT_EQ(tcp.served.send("late", 4), 4);
    EXPECT_EQ(tcp.client.recv(buffer.data(), 8, longTimeout), 4);
    tcp.served.close();
    EXPECT_EQ(tcp.client.recv(buffer.data(), 8, longTimeout), 0);
    EXPECT_EQ(tcp.client.recv(buffer.data(), 8), 0);
}

volatile sig_atomic_t ticks = 0;

// A wait that starts anew after each signal would never end here, one that a signal ends is short.
TEST(Socket, SignalsNeitherEndNorProlongATimedReceive) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) {
        ticks = 1;
    };
    sigaction(SIGALRM, &action, &old);
    const itimerval everyMillisecond{{0, 1000}, {0, 1000}};
    const itimerval never{};
    Datagram receiver;
    char byte = 0;
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
    const auto start = steady_clock::now();
    const int32_t result = receiver.recvFrom(&byte, 1, 100'000);
    const auto waited = steady_clock::now() - start;
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(result, -2891);
    EXPECT_GE(waited, microseconds(100'000));
    EXPECT_NE(ticks, 0);
}

TEST(Socket, TimedReceiveTakesAnyDescriptorNumber) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    constexpr int high = 3000; // beyond what an fd_set holds
    if (limit.rlim_max <= high) {
        GTEST_SKIP() << "descriptors end at " << limit.rlim_max;
    }
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    Datagram low;
    QELsockBase receiver;
    receiver.fd = fcntl(low.fd, F_DUPFD_CLOEXEC, high);
    ASSERT_GE(receiver.fd, high);
    std::array<char, 8> buffer{};
    EXPECT_EQ(receiver.recvFrom(buffer.data(), 8, 1000), -2891);
    EXPECT_EQ(low.sendTo("x", 1, localAddress(receiver)), 1);
    EXPECT_EQ(receiver.recvFrom(buffer.data(), 8, longTimeout), 1);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// What a moved-from socket keeps is part of its contract.
// NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move)
TEST(Socket, DescriptorHasOneOwnerWhateverTheMoves) {
    const auto hook = [](bool, int32_t, const void*, unsigned) {
    };
    QELsockCONN last;
    int fd = -1;
    {
        QELsockCONN first;
        ASSERT_EQ(first.open(AF_INET, SOCK_STREAM), 0);
        first.ioHook = hook;
        fd = first.fd;
        QELsockCONN second(std::move(first));
        EXPECT_TRUE(first.released);
        EXPECT_EQ(second.fd, fd);
        EXPECT_FALSE(second.released);
        EXPECT_FALSE(second.ioHook);
        first.close();
        EXPECT_EQ(first.fd, fd);
        EXPECT_TRUE(isOpen(fd));

        QELsockCONN& self = second;
        second = std::move(self);
        EXPECT_FALSE(second.released);
        EXPECT_TRUE(isOpen(fd));

        ASSERT_EQ(last.open(AF_INET, SOCK_STREAM), 0);
        last.ioHook = hook;
        const int previous = last.fd;
        last = std::move(second);
        EXPECT_FALSE(isOpen(previous));
        EXPECT_EQ(last.fd, fd);
        EXPECT_FALSE(last.released);
        EXPECT_TRUE(last.ioHook);
        EXPECT_TRUE(second.released);
    }
    EXPECT_TRUE(isOpen(fd));
    last.close();
    EXPECT_EQ(last.fd, -1);
    EXPECT_FALSE(isOpen(fd));
}
// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST(Socket, ReopeningAndAcceptingCloseWhatWasHeld) {
    Connection tcp;
    char byte = 0;
    EXPECT_EQ(tcp.peer.toString(true), localAddress(tcp.client).toString(true));
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(second.connect(localAddress(tcp.listener)), 0);
    EXPECT_EQ(tcp.listener.accept(tcp.served), 0);
    EXPECT_EQ(tcp.client.recv(&byte, 1, longTimeout), 0); // its peer made room for the second
    EXPECT_EQ(second.open(AF_INET, SOCK_STREAM), 0);
    EXPECT_EQ(tcp.served.recv(&byte, 1, longTimeout), 0);
}

TEST(Socket, NoChildInheritsADescriptor) {
    Connection tcp;
    const Datagram datagram;
    for (const int fd : {tcp.listener.fd, tcp.client.fd, tcp.served.fd, datagram.fd}) {
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

TEST(Socket, UngracefulCloseResetsTheConnection) {
    for (const bool graceful : {true, false}) {
        Connection tcp;
        EXPECT_EQ(tcp.served.setGracefulClose(!graceful), 0);
        EXPECT_EQ(tcp.served.setGracefulClose(graceful), 0);
        tcp.served.close();
        char byte = 0;
        errno = 0;
        EXPECT_EQ(tcp.client.recv(&byte, 1, longTimeout), graceful ? 0 : -2892);
        EXPECT_EQ(errno, graceful ? 0 : ECONNRESET);
    }
}

TEST(Socket, MulticastOptionsReachTheSystem) {
    Datagram socket;
    const auto ttl = [&] {
        int value = -1;
        socklen_t length = sizeof value;
        getsockopt(socket.fd, IPPROTO_IP, IP_MULTICAST_TTL, &value, &length);
        return value;
    };
    EXPECT_EQ(socket.setMulticastTTL(128), 0);
    EXPECT_EQ(ttl(), 128);
    EXPECT_EQ(socket.setMulticastTTL(129), -2);
    EXPECT_EQ(ttl(), 128);

    // Joining twice is an error of its own, so a second try by hand tells what the first has
    // joined.
    const ip_mreq group{{inet_addr("239.1.2.3")}, {inet_addr("127.0.0.1")}};
    errno = 0;
    const int joined = socket.joinGroup(0xEF010203, 0x7F000001);
    const int expected = joined == 0 ? EADDRINUSE : errno;
    EXPECT_EQ(setsockopt(socket.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), -1);
    EXPECT_EQ(errno, expected);
    EXPECT_EQ(socket.joinGroup(0x0A000005, 0x7F000001), -1); // no group address
}

TEST(Socket, HookSeesEveryTransferWithTheRawResult) {
    using Call = std::tuple<bool, int32_t, const void*, unsigned>;
    std::vector<Call> calls;
    Datagram socket;
    socket.ioHook = [&](bool sent, int32_t result, const void* buffer, unsigned length) {
        calls.emplace_back(sent, result, buffer, length);
    };
    std::vector<char> buffer(70000);
    char* const data = buffer.data();
    const QELsockaddr self = localAddress(socket);
    EXPECT_EQ(socket.sendTo(data, 5, self), 5);
    EXPECT_EQ(socket.recvFrom(data, 70000), 5);
    EXPECT_EQ(socket.sendTo(data, 70000, self), -2893);
    EXPECT_EQ(socket.recvFrom(data, 8, 0), -2891); // no receive was made
    EXPECT_GE(socket.setBlocking(false), 0);
    EXPECT_EQ(socket.recvFrom(data, 8, -1), -2890);
    EXPECT_THAT(calls, testing::ElementsAre(Call{true, 5, data, 5}, Call{false, 5, data, 70000},
                                            Call{true, -1, data, 70000}, Call{false, -1, data, 8}));
}

} // namespace
