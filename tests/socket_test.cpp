#include "QELsockCONN.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
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

TEST(SocketAddress4, ReadsExactlyTheTextsOfItsGrammar) {
    // Of a text without a port it is 50000.
    for (const auto& [text, expected] : {std::pair{"192.168.1.10", "192.168.1.10:50000"},
                                         {"255.255.255.255:65535", "255.255.255.255:65535"},
                                         {"192.168.1.10:+80", "192.168.1.10:80"},
                                         {" 1.2.3.4", "1.2.3.4:50000"},
                                         {"01.002.3.4: 065535", "1.2.3.4:65535"},
                                         {"+0. 0.\t0.-0:-0", "0.0.0.0:0"}}) {
        QELsockaddr4 address;
        QELsockaddr generic;
        EXPECT_TRUE(address.set(text, 50000) && generic.set(text, 50000));
        EXPECT_EQ(address.toString(true), expected);
        EXPECT_EQ(generic.toString(false) + ":" + std::to_string(generic.port()), expected);
    }
    for (const char* text :
         {"", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4 ", "1.2.3.4:", "1.2.3.4:80x", "1.2.3.4:65536",
          "1.2.3.4:-1", "256.1.1.1", "1.1.1.256", "-1.2.3.4", "1:2.3.4", "1.2.3.4;80", "1..3.4",
          "1.2.3.4:18446744073709551617", "1.2.3.99999999999999999999",
          "-99999999999999999999.2.3.4"}) {
        QELsockaddr4 address(0x01020304, 5);
        QELsockaddr generic;
        generic.set(address);
        EXPECT_FALSE(address.set(text, 50000) || generic.set(text, 50000)) << text;
        EXPECT_EQ(address.toString(true) + " " + generic.toString(true), "0.0.0.0:0 1.2.3.4:5");
    }
    QELsockaddr4 address;
    EXPECT_TRUE(address.set("10.0.0.1", -1) && address.port() == 0);
    std::array<char, QELsockaddr4::textSize> text{};
    QELsockaddr4::format(0x0A000005, 65536, text.data());
    EXPECT_STREQ(text.data(), "10.0.0.5");
    QELsockaddr4::format(0, 0, nullptr);
}

TEST(SocketAddress4, PrivateNetworksEndAtTheirBounds) {
    for (const auto& [network, bits] :
         {std::pair{0x0AU, 24}, {0xAC1U, 20}, {0xC0A8U, 16}, {0xA9FEU, 16}, {0x7FU, 24}}) {
        const std::uint32_t first = network << bits, next = (network + 1) << bits;
        EXPECT_TRUE(QELsockaddr4::isPrivate(first) && QELsockaddr4::isPrivate(next - 1)) << first;
        EXPECT_FALSE(QELsockaddr4::isPrivate(first - 1) || QELsockaddr4::isPrivate(next)) << first;
    }
}

TEST(SocketAddressUnix, LengthAndTextSurviveARawCopyThatNeedNotEnd) {
    QELsockaddrUNX address, copy;
    const auto raw = std::make_unique<sockaddr_un>(); // on the heap, for the address sanitizer
    const auto& rawSa = *reinterpret_cast<const sockaddr*>(raw.get());
    for (const std::string& path : {std::string("/dev/log"), std::string("*name"), std::string(),
                                    std::string(200, 'p'), '*' + std::string(200, 'n')}) {
        address.set(path.c_str());
        std::memcpy(raw.get(), address.sa(), sizeof *raw);
        EXPECT_EQ(raw->sun_path[0], path[0] == '*' ? '\0' : path[0]);
        EXPECT_TRUE(copy.set(rawSa));
        for (const QELsockaddrUNX& each : {address, copy}) {
            EXPECT_EQ(each.toString(), path.substr(0, 107));
            EXPECT_EQ(each.saLen(), path.empty() ? 0 : 3 + path.substr(0, 107).size());
        }
        raw->sun_path[107] = 'p'; // with the long ones now all of it is text
        EXPECT_TRUE(copy.set(rawSa));
        EXPECT_EQ(copy.saLen() == sizeof *raw, path.size() > 107);
        EXPECT_EQ(copy.toString(), path.substr(0, 107) + (path.size() > 107 ? "p" : ""));
        EXPECT_EQ(QELsockaddrUNX::compare(*raw, *std::make_unique<sockaddr_un>(*raw)), 0);
    }
    address.set("*"); // an abstract name without characters: only its length tells
    EXPECT_EQ(address.saLen(), 4U);
    address.set(nullptr);
    EXPECT_EQ(address.saLen(), 0U);
}

TEST(SocketAddress, OrderIsTotalOverAllKinds) {
    std::vector<QELsockaddr> sample(1); // in ascending order
    for (const char* path : {"*", "*a", "*ab", "*b", "/a", "/a/b", "/b", "\xff"}) {
        QELsockaddrUNX address;
        address.set(path);
        sample.emplace_back().set(address);
    }
    for (const char* text : {"0.0.0.0:0", "1.0.0.2:1", "2.0.0.1:9", "2.0.0.1:255", "2.0.0.1:256",
                             "2.0.0.1:65535", "2.0.0.2:1", "127.0.0.1:1", "200.0.0.1:1"}) {
        EXPECT_TRUE(sample.emplace_back().set(text, -1));
    }
    for (std::size_t i = 0; i < sample.size(); ++i) {
        for (std::size_t j = 0; j < sample.size(); ++j) {
            const int order = sample[i].compare(sample[j]);
            EXPECT_EQ((order > 0) - (order < 0), (i > j) - (i < j))
                << sample[i].toString(true) << " and " << sample[j].toString(true);
        }
    }
}

TEST(SocketAddress, TakesAnotherWholeOrIsCleared) {
    QELsockaddr address, fresh;
    EXPECT_EQ(address.toString(true), "Unknown_address");
    EXPECT_TRUE(!address.setPort(80) && address.port() == -1);
    const QELsockaddr4 loopback = QELsockaddr4::loopback(80);
    fresh.set(loopback);
    sockaddr_storage full{};
    std::memset(&full, 0x7f, sizeof full);
    address.set(full, 1000);
    EXPECT_EQ(address.saLen(), sizeof full);
    address.set(*reinterpret_cast<const sockaddr_in*>(loopback.sa()));
    EXPECT_EQ(address.saLen(), sizeof(sockaddr_in));
    EXPECT_EQ(std::memcmp(address.sa(), fresh.sa(), sizeof full), 0) << "something is left";
    address.set(address);
    EXPECT_TRUE(address.setPort(50000));
    EXPECT_EQ(address.toString(true), "127.0.0.1:50000");

    QELsockaddrUNX path;
    path.set("/dev/log");
    QELsockaddr4 copy;
    EXPECT_TRUE(copy.set(*loopback.sa()) && copy.compare(loopback) == 0);
    EXPECT_FALSE(path.set(*copy.sa()) || copy.set(*path.sa())) << "of another family";
    EXPECT_EQ(path.saLen(), 0U);
    EXPECT_EQ(copy.compare(QELsockaddr4::any(0)), 0);
}

} // namespace
