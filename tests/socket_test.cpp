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
#include <tuple>
#include <unistd.h>
#include <utility>
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

struct Socket : testing::Test {
    std::vector<char> buffer = std::vector<char>(70'000); // more than a datagram holds
    char* data = buffer.data();
    std::int64_t stamp = 7;

    // What an operation returned, printed and left as error number.
    struct Outcome {
        std::int32_t code;
        int error;
        std::string printed;
        bool operator==(const Outcome&) const = default;
    };
    static Outcome outcomeOf(const std::function<std::int32_t()>& operation) {
        testing::internal::CaptureStdout();
        errno = 0;
        const std::int32_t code = operation();
        const int error = errno;
        return {code, error, testing::internal::GetCapturedStdout()};
    }
};

void PrintTo(const Socket::Outcome& outcome, std::ostream* out) {
    *out << outcome.code << ' ' << std::strerror(outcome.error) << ' ' << outcome.printed;
}

TEST_F(Socket, ClosedSocketRefusesEveryOperation) {
    const QELsockaddr4 address = QELsockaddr4::loopback(9);
    QELsockaddr sender;
    QELsockCONN socket;
    socket.ioHook = [](bool, std::int32_t, const void*, unsigned) {
        ADD_FAILURE() << "nothing was transferred";
    };
    using Transfer = std::function<std::int32_t(char*, unsigned)>;
    for (const Transfer& transfer : std::initializer_list<Transfer>{
             [&](char*b, unsigned n) { return socket.send(b, n); },
             [&](char*b, unsigned n) { return socket.sendTo(b, n, address); },
             [&](char*b, unsigned n) { return socket.recv(b, n); },
             [&](char*b, unsigned n) { return socket.recv(b, n, 0); },
             [&](char*b, unsigned n) { return socket.recvFrom(b, n, &sender); },
             [&](char*b, unsigned n) { return socket.recvFrom(b, n, 0, &sender); },
             [&](char*b, unsigned n) {
                 return socket.recvFrom(b, n, 0, stamp, &sender);
             }}) {
        EXPECT_EQ(outcomeOf([&] { return transfer(data, 4); }), (Outcome{-2897, 0, ""}));
        EXPECT_EQ(outcomeOf([&] { return transfer(data, 0); }), (Outcome{-2899, 0, ""}));
        EXPECT_EQ(outcomeOf([&] { return transfer(nullptr, 4); }), (Outcome{-2899, 0, ""}));
    }
    EXPECT_EQ(stamp, 7);
    QELsockBase other;
    EXPECT_EQ(outcomeOf([&] { return other.bind(address); }), (Outcome{-2897, 0, ""}));
    EXPECT_EQ(socket.bind(address), -2897);
    EXPECT_EQ(socket.listen(1), -2897);
    EXPECT_EQ(socket.connect(address), -2897);
    EXPECT_EQ(other.open(AF_INET), 0);
    EXPECT_EQ(socket.accept(other), -2897);
    EXPECT_NE(other.fd, -1) << "closed although the accept was refused";
    EXPECT_EQ(socket.setBlocking(false), -2897);
    EXPECT_FALSE(socket.isBlocking());
    EXPECT_EQ(socket.setGracefulClose(true), -1);
}

TEST_F(Socket, FailuresGiveTheirCodesAndKeepTheErrorNumberWhateverTheHook) {
    QELsockCONN idle; // bound, neither listening nor connected
    ASSERT_EQ(idle.open(AF_INET, SOCK_STREAM), 0);
    ASSERT_EQ(idle.bind(QELsockaddr4::loopback(0)), 0);
    const Datagram datagram;
    const QELsockaddr taken = localAddress(datagram);
    const std::string noPeer = "Transport endpoint is not connected\n";
    const std::string inUse = "Address already in use: " + taken.toString(true) + "\n";
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_DGRAM), 0);
    using Call = std::tuple<bool, std::int32_t, const void*, unsigned>;
    std::vector<Call> calls;
    idle.ioHook =
        second.ioHook = [&](bool sent, std::int32_t result, const void* at, unsigned length) {
            calls.emplace_back(sent, result, at, length);
            errno = EAGAIN; // not the transfer's
        };
    const std::vector<std::pair<std::function<std::int32_t()>, Outcome>> cases = {
        {[&] { return idle.recv(data, 1); }, {-2892, ENOTCONN, ""}},
        {[&] { return idle.recv(data, 1, 0); }, {-2892, ENOTCONN, ""}},
        {[&] { return idle.recvFrom(data, 1); }, {-2892, ENOTCONN, ""}},
        {[&] { return idle.recvFrom(data, 1, -1); }, {-2892, ENOTCONN, noPeer}},
        {[&] { return idle.recvFrom(data, 1, 0, stamp); }, {-2892, ENOTCONN, noPeer}},
        {[&] { return second.bind(taken); }, {-2896, EADDRINUSE, ""}},
        {[&] { return second.QELsockBase::bind(taken); }, {-2896, EADDRINUSE, inUse}},
        {[&] { return second.sendTo(data, 70'000, taken); }, {-2893, EMSGSIZE, ""}},
        {[&] { return second.send(data, 1); }, {-2893, EDESTADDRREQ, ""}},
        {[&] { return second.listen(1); }, {-2896, EOPNOTSUPP, ""}},
        {[&] { return idle.accept(second); }, {-2895, EINVAL, ""}},
        {[&] { return second.fd; }, {-1, 0, ""}}, // closed before the accept failed
        {[&] { return second.open(AF_INET, SOCK_STREAM); }, {0, 0, ""}},
        {[&] { return second.connect(localAddress(idle)); }, {-2894, ECONNREFUSED, ""}},
        {[&] { return second.open(12345, SOCK_STREAM); }, {-2898, EAFNOSUPPORT, ""}},
        {[&] { return second.fd; }, {-1, 0, ""}}, // closed before the open failed
    };
    for (const auto& [operation, expected] : cases) {
        EXPECT_EQ(outcomeOf(operation), expected);
    }
    EXPECT_GT(stamp, 7) << "not stamped because it failed";
    const Call failedReceive{false, -1, data, 1};
    EXPECT_THAT(calls, testing::ElementsAre(failedReceive, failedReceive, failedReceive,
                                            failedReceive, failedReceive,
                                            Call{true, -1, data, 70'000}, Call{true, -1, data, 1}));
}

TEST_F(Socket, NonBlockingSocketSaysThatItWouldBlock) {
    const auto wouldBlock = [](const std::function<std::int32_t()>& operation) {
        EXPECT_EQ(outcomeOf(operation), (Outcome{-2890, EAGAIN, ""}));
        EXPECT_TRUE(QELsockBase::wouldBlock());
    };
    Datagram empty;
    EXPECT_TRUE(empty.isBlocking());
    EXPECT_GE(empty.setBlocking(false), 0);
    EXPECT_FALSE(empty.isBlocking());
    wouldBlock([&] { return empty.recvFrom(data, 1); });
    wouldBlock([&] { return empty.recvFrom(data, 1, -1); });
    wouldBlock([&] { return empty.recvFrom(data, 1, -1, stamp); });
    EXPECT_GE(empty.setBlocking(true), 0);
    EXPECT_TRUE(empty.isBlocking());

    Connection tcp;
    EXPECT_GE(tcp.client.setBlocking(false), 0);
    wouldBlock([&] { return tcp.client.recv(data, 1); });
    wouldBlock([&] { return tcp.client.recv(data, 1, -1); });
    while (tcp.client.send(data, 70'000) > 0) {
    }
    wouldBlock([&] { return tcp.client.send(data, 1); });

    QELsockaddrUNX address;
    address.set(("*hvlogger-full-" + std::to_string(getpid())).c_str());
    QELsockCONN listener; // nobody accepts from it
    ASSERT_EQ(listener.open(AF_UNIX, SOCK_STREAM), 0);
    ASSERT_EQ(listener.bind(address), 0);
    ASSERT_EQ(listener.listen(0), 0);
    std::array<QELsockCONN, 2> clients;
    for (QELsockCONN& client : clients) {
        EXPECT_EQ(client.open(AF_UNIX, SOCK_STREAM), 0);
        EXPECT_GE(client.setBlocking(false), 0);
    }
    EXPECT_EQ(clients[0].connect(address), 0);
    wouldBlock([&] { return clients[1].connect(address); });
}

TEST_F(Socket, EveryReceiveFromNamesItsSenderAndStampsItsTime) {
    Datagram receiver;
    Datagram source;
    const QELsockaddr to = localAddress(receiver);
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    int received = 0;
    receiver.ioHook = [&](bool sent, std::int32_t result, const void* at, unsigned length) {
        received += !sent && result >= 0 && at == data && length == 8 ? 1 : 0;
    };
    const std::int64_t before = now();
    using Receive = std::function<std::int32_t(QELsockaddr*)>;
    for (const Receive& receive : std::initializer_list<Receive>{
             [&](auto* sender) { return receiver.recvFrom(data, 8, sender); },
             [&](auto* sender) { return receiver.recvFrom(data, 8, longTimeout, sender); },
             [&](auto* sender) {
                 return receiver.recvFrom(data, 8, longTimeout, stamp, sender);
             }}) {
        std::memset(data, '-', 8);
        EXPECT_EQ(source.sendTo("hello", 5, to), 5);
        EXPECT_EQ(source.sendTo("hello", 5, to), 5);
        QELsockaddr sender;
        EXPECT_EQ(receive(nullptr), 5);
        EXPECT_EQ(receive(&sender), 5);
        EXPECT_EQ(std::string_view(data, 8), "hello---");
        EXPECT_EQ(sender.compare(localAddress(source)), 0);
        EXPECT_EQ(sender.saLen(), sizeof(sockaddr_in));

        // An empty datagram, which the sending operations do not make.
        ASSERT_EQ(::sendto(source.fd, "", 0, 0, to.sa(), to.saLen()), 0);
        const QELsockaddr4 untouched(0x01020304, 5);
        sender.set(untouched);
        EXPECT_EQ(receive(&sender), 0);
        EXPECT_EQ(sender.compare(untouched), 0);
    }
    EXPECT_TRUE(before <= stamp && stamp <= now());
    EXPECT_EQ(receiver.recvFrom(data, 8, 0, stamp), -2891);
    EXPECT_EQ(stamp, 0);
    EXPECT_EQ(received, 9) << "the hook did not see each transfer once";
}

// A wait that starts anew after each signal would never end here, one that a signal ends is short.
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
    struct sigaction action {};
    action.sa_handler = [](int) {
        signals = 1;
    };
    sigaction(SIGALRM, &action, nullptr);
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
    const auto hook = [](bool, std::int32_t, const void*, unsigned) {
    };
    QELsockCONN last;
    ASSERT_EQ(last.open(AF_INET, SOCK_STREAM), 0);
    last.ioHook = hook;
    int fd = -1;
    {
        QELsockCONN first;
        ASSERT_EQ(first.open(AF_INET, SOCK_STREAM), 0);
        first.ioHook = hook;
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
        EXPECT_EQ(outcomeOf([&] { return tcp.client.recv(data, 1, longTimeout); }),
                  graceful ? (Outcome{0, 0, ""}) : (Outcome{-2892, ECONNRESET, ""}));
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
