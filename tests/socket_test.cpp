#include "QELsockCONN.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

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
        return [this](bool sent, int result, const void* at, unsigned length) {
            hooked += (at == data ? sent ? "sent " : "got " : "elsewhere ") +
                      std::to_string(result) + "/" + std::to_string(length) + " ";
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
    QELsockCONN local, late;
    ASSERT_EQ(local.open(AF_UNIX, SOCK_STREAM) + late.open(AF_UNIX, SOCK_STREAM), 0);
    ASSERT_EQ(local.bind(full) + local.listen(0) + late.connect(full), 0);
    ASSERT_EQ(late.open(AF_UNIX, SOCK_STREAM) + late.setBlocking(false), 0);
    EXPECT_TRUE(client.setBlocking(false) + source.setBlocking(false) == 0 && !source.isBlocking());
    none.ioHook = idle.ioHook = second.ioHook = client.ioHook = hook();
    testing::internal::CaptureStdout();
    using Case = std::tuple<std::function<std::int32_t()>, std::int32_t, int>;
    for (const auto& [operation, code, error] : std::initializer_list<Case>{
             {[&] { return none.send(data, 4); }, -2897, 0},
             {[&] { return none.send(data, 0); }, -2899, 0},
             {[&] { return none.recvFrom(data, 4, 0, stamp); }, -2897, 0},
             {[&] { return none.recvFrom(nullptr, 4, 0, stamp); }, -2899, 0},
             {[&] { return static_cast<int>(stamp); }, 7, 0}, // untouched
             {[&] { return none.QELsockBase::bind(taken); }, -2897, 0},
             {[&] { return none.listen(1); }, -2897, 0},
             {[&] { return none.connect(taken); }, -2897, 0},
             {[&] { return none.accept(receiver); }, -2897, 0},
             {[&] { return isOpen(receiver.fd); }, 1, 0}, // as the accept was refused
             {[&] { return none.setBlocking(false); }, -2897, 0},
             {[&] { return none.isBlocking(); }, 0, EBADF},
             {[&] { return idle.recvFrom(data, 2); }, -2892, ENOTCONN},
             {[&] { return idle.recvFrom(data, 4, -1); }, -2892, ENOTCONN},
             {[&] { return second.bind(taken); }, -2896, EADDRINUSE},
             {[&] { return second.QELsockBase::bind(taken); }, -2896, EADDRINUSE},
             {[&] { return second.sendTo(data, 70'000, taken); }, -2893, EMSGSIZE},
             {[&] { return second.listen(1); }, -2896, EOPNOTSUPP},
             {[&] { return idle.accept(second); }, -2895, EINVAL},
             {[&] { return second.open(AF_INET, SOCK_STREAM); }, 0, 0},
             {[&] { return second.connect(localAddress(idle)); }, -2894, ECONNREFUSED},
             {[&] { return second.open(12345, SOCK_STREAM); }, -2898, EAFNOSUPPORT},
             {[&] { return source.recvFrom(data, 1, -1, stamp); }, -2890, EAGAIN},
             {[&] { return client.recv(data, 5); }, -2890, EAGAIN},
             {[&] { return late.connect(full); }, -2890, EAGAIN}}) {
        errno = 0;
        EXPECT_EQ(operation(), code) << hooked;
        EXPECT_EQ(errno, error) << hooked;
    }
    EXPECT_GT(stamp, 7) << "not stamped because it failed";
    EXPECT_EQ(hooked, "got -1/2 got -1/4 sent -1/70000 got -1/5 ");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Transport endpoint is not connected\nAddress already in use: " +
                  taken.toString(true) + "\n");
    EXPECT_TRUE(source.setBlocking(true) >= 0 && source.isBlocking());
}

TEST_F(Socket, EveryReceiveFromNamesItsSenderAndStampsItsTime) {
    const QELsockaddr to = localAddress(receiver);
    const auto before = std::chrono::system_clock::now().time_since_epoch();
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
        EXPECT_TRUE(sender.compare(localAddress(source)) == 0 && sender.saLen() == 16);
        ASSERT_EQ(::sendto(source.fd, "", 0, 0, to.sa(), to.saLen()), 0); // an empty datagram
        sender.clear();
        EXPECT_EQ(receive(&sender) + sender.saLen(), 0);
        EXPECT_EQ(std::exchange(hooked, ""), "got 5/8 got 5/8 got 0/8 ");
    }
    EXPECT_LE(before, stamp * 1ns);
    EXPECT_LE(stamp * 1ns, std::chrono::system_clock::now().time_since_epoch());
    EXPECT_EQ(receiver.recvFrom(data, 8, 0, stamp), -2891);
    EXPECT_EQ(std::to_string(stamp) + hooked, "0");
}

/// A wait that starts anew after each signal would never end here, one that a signal ends is short.
TEST_F(Socket, TimedReceiveWaitsItsWholeTimeOnAnyDescriptorWhateverTheSignals) {
    const rlimit limit{2000, 2000};
    setrlimit(RLIMIT_NOFILE, &limit);
    QELsockBase high; // above what select(2) can watch
    high.fd = fcntl(receiver.fd, F_DUPFD_CLOEXEC, 1500);
    std::signal(SIGALRM, [](int) {});
    for (const int period : {0, 1000}) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        for (const std::int32_t timeout : {0, 1, 100'000, period == 0 ? 1'010'000 : 0}) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(high.recvFrom(data, 8, timeout), -2891);
            EXPECT_GE(std::chrono::steady_clock::now() - start, timeout * 1us);
        }
        EXPECT_EQ(source.sendTo("x", 1, localAddress(receiver)), 1);
        EXPECT_EQ(high.recvFrom(data, 8, longTimeout), 1);
    }
    std::signal(SIGALRM, SIG_IGN);
    EXPECT_EQ(client.recv(data, 8, 1000), -2891);
    EXPECT_EQ(served.send("late", 4), 4);
    EXPECT_EQ(client.recv(data, 8), 4);
}

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
        EXPECT_FALSE(second.released);
        const int previous = served.fd;
        served = std::move(second);
        EXPECT_FALSE(isOpen(previous));
        EXPECT_TRUE(!served.released && served.fd == fd && served.ioHook && second.released);
    }
    served.close();
    EXPECT_TRUE(served.fd == -1 && !isOpen(fd));
}
// NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)

TEST_F(Socket, ReopeningAndAcceptingCloseWhatWasHeldAsAsked) {
    EXPECT_EQ(peer.toString(true), localAddress(client).toString(true));
    EXPECT_EQ(peer.saLen(), sizeof(sockaddr_in));
    for (const int fd : {listener.fd, served.fd, source.fd}) {
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "a child process inherits it";
    }
    QELsockCONN second;
    ASSERT_EQ(second.open(AF_INET, SOCK_STREAM) + second.connect(localAddress(listener)), 0);
    EXPECT_EQ(served.setGracefulClose(false) + listener.accept(served), 0);
    EXPECT_EQ(client.recv(data, 1, longTimeout), -2892) << "not closed, or in vain";
    EXPECT_EQ(second.setGracefulClose(true) + second.open(AF_INET, SOCK_STREAM), 0);
    EXPECT_EQ(served.recv(data, 1, longTimeout), 0) << "not closed, or with a reset";
}

TEST_F(Socket, MulticastOptionsReachTheSystem) {
    EXPECT_TRUE(source.setMulticastTTL(128) == 0 && source.setMulticastTTL(129) == -2);
    int ttl = -1;
    socklen_t length = sizeof ttl;
    getsockopt(source.fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &length);
    EXPECT_EQ(ttl, 128);
    EXPECT_EQ(source.joinGroup(0xEF010203, 0x7F000001), 0);
    EXPECT_EQ(source.joinGroup(0xEF010203, 0x7F000001), -1) << "not joined before";
}

} // namespace
