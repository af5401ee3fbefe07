#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

/// What QELsockaddr4::parse() reads, as plain text.
std::string parsed(const std::string& text) {
    std::uint32_t addr = 0xDEADBEEF;
    std::int32_t port = -1;
    if (QELsockaddr4::parse(text, addr, port)) {
        return std::to_string(addr) + ":" + std::to_string(port);
    }
    EXPECT_TRUE(addr == 0xDEADBEEF && port == -1) << "refused, but changed: " << text;
    return "refused";
}

TEST(SocketAddress4, ReadsExactlyTheTextsOfItsGrammar) {
    for (const auto& [text, expected] : {std::pair{"192.168.1.10", "3232235786:-1"},
                                         {"255.255.255.255:65535", "4294967295:65535"},
                                         {"192.168.1.10:+80", "3232235786:80"},
                                         {" 1.2.3.4", "16909060:-1"},
                                         {"01.002.3.4: 065535", "16909060:65535"},
                                         {"+0. 0.\t0.-0:-0", "0:0"}}) {
        EXPECT_EQ(parsed(text), expected) << text;
    }
    for (const char* text :
         {"", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4 ", "1.2.3.4:", "1.2.3.4:80x", "1.2.3.4:65536",
          "1.2.3.4:-1", "256.1.1.1", "1.1.1.256", "-1.2.3.4", "1:2.3.4", "1.2.3.4;80", "1..3.4",
          "x", "1.2.3.4:18446744073709551617", "1.2.3.99999999999999999999",
          "-99999999999999999999.2.3.4"}) {
        EXPECT_EQ(parsed(text), "refused") << text;
    }
}

TEST(SocketAddress4, WritesWhatItReads) {
    for (const char* text : {"0.0.0.0:0", "10.0.0.5:50000", "255.255.255.255:65535"}) {
        QELsockaddr4 address;
        EXPECT_TRUE(address.set(text, -1));
        EXPECT_EQ(address.toString(true), text);
        EXPECT_EQ(address.toString(false) + ":" + std::to_string(address.port()), text);
    }
    std::array<char, QELsockaddr4::textSize> text{};
    QELsockaddr4::format(0x0A000005, 65536, text.data());
    EXPECT_STREQ(text.data(), "10.0.0.5");
    QELsockaddr4::format(0, 0, nullptr);
}

TEST(SocketAddress4, DefaultPortFillsInOnlyForAPortThatTheTextLacks) {
    // The address left, and the one left in a generic address, which keeps what it had.
    for (const auto& [text, defaultPort, expected, generic] :
         {std::tuple{"10.0.0.1", 50000, "10.0.0.1:50000", "10.0.0.1:50000"},
          {"10.0.0.1", -1, "10.0.0.1:0", "10.0.0.1:0"},
          {"10.0.0.1:0", 50000, "10.0.0.1:0", "10.0.0.1:0"},
          {"10.0.0", 50000, "0.0.0.0:0", "1.2.3.4:5"}}) {
        QELsockaddr4 address(0x01020304, 5);
        QELsockaddr other;
        other.set(address);
        EXPECT_EQ(address.set(text, defaultPort), other.set(text, defaultPort));
        EXPECT_EQ(address.toString(true), expected);
        EXPECT_EQ(other.toString(true), generic);
        EXPECT_EQ(other.saLen(), sizeof(sockaddr_in));
    }
}

TEST(SocketAddress4, PrivateNetworksEndAtTheirBounds) {
    for (const auto& [first, last] : {std::pair{0x0A000000U, 0x0AFFFFFFU},
                                      {0xAC100000U, 0xAC1FFFFFU},
                                      {0xC0A80000U, 0xC0A8FFFFU},
                                      {0xA9FE0000U, 0xA9FEFFFFU},
                                      {0x7F000000U, 0x7FFFFFFFU}}) {
        EXPECT_TRUE(QELsockaddr4::isPrivate(first) && QELsockaddr4::isPrivate(last)) << first;
        EXPECT_FALSE(QELsockaddr4::isPrivate(first - 1) || QELsockaddr4::isPrivate(last + 1))
            << first;
    }
}

TEST(SocketAddressUnix, LengthAndTextSurviveARawCopy) {
    QELsockaddrUNX address, copy;
    for (const auto& [path, length, text] :
         {std::tuple<std::string, std::size_t, std::string>{"/dev/log", 11, "/dev/log"},
          {"*name", 8, "*name"},
          {std::string(106, 'p'), 109, std::string(106, 'p')},
          {std::string(200, 'p'), 110, std::string(107, 'p')},
          {'*' + std::string(200, 'n'), 110, '*' + std::string(106, 'n')},
          {"", 0, ""}}) {
        address.set(path.c_str());
        EXPECT_TRUE(copy.set(*address.sa()));
        for (const QELsockaddrUNX& each : {address, copy}) {
            EXPECT_EQ(each.toString(), text);
            EXPECT_EQ(each.saLen(), length) << path;
        }
    }
    address.set("*"); // an abstract name without characters: only its length tells
    EXPECT_EQ(address.saLen(), 4U);
    EXPECT_EQ(address.toString(), "*");
    address.set(nullptr);
    EXPECT_EQ(address.saLen(), 0U);
}

TEST(SocketAddressUnix, UnterminatedPathIsNotReadBeyondItsEnd) {
    for (const char first : {'p', '\0'}) {
        const auto raw = std::make_unique<sockaddr_un>(); // on the heap, for the address sanitizer
        raw->sun_family = AF_UNIX;
        std::memset(raw->sun_path, 'p', sizeof raw->sun_path);
        raw->sun_path[0] = first;
        const auto twin = std::make_unique<sockaddr_un>(*raw);
        QELsockaddrUNX address;
        EXPECT_TRUE(address.set(*reinterpret_cast<const sockaddr*>(raw.get())));
        EXPECT_EQ(address.saLen(), sizeof(sockaddr_un));
        EXPECT_EQ(address.toString(), (first == 'p' ? "p" : "*") + std::string(107, 'p'));
        EXPECT_EQ(QELsockaddrUNX::compare(*raw, *twin), 0);
    }
}

TEST(SocketAddress, OrderIsTotalOverAllKinds) {
    // In ascending order.
    std::vector<QELsockaddr> sample(1);
    for (const char* path : {"*", "*a", "*ab", "*b", "/a", "/a/b", "/b", "\xff"}) {
        QELsockaddrUNX address;
        address.set(path);
        sample.emplace_back().set(address);
    }
    for (const char* text : {"0.0.0.0:0", "1.0.0.2:1", "2.0.0.1:9", "2.0.0.1:255", "2.0.0.1:256",
                             "2.0.0.1:65535", "2.0.0.2:1", "127.0.0.1:1", "200.0.0.1:1"}) {
        EXPECT_TRUE(sample.emplace_back().set(text, -1));
    }
    sockaddr_storage other{};
    other.ss_family = AF_INET6;
    sample.emplace_back().set(other);
    for (std::size_t i = 0; i < sample.size(); ++i) {
        for (std::size_t j = 0; j < sample.size(); ++j) {
            const int order = sample[i].compare(sample[j]);
            EXPECT_EQ((order > 0) - (order < 0), (i > j) - (i < j))
                << sample[i].toString(true) << " and " << sample[j].toString(true);
        }
    }
}

TEST(SocketAddress, TakesAnyOtherAndNoMoreThanFits) {
    struct Huge final : QELsocka {
        [[nodiscard]] const sockaddr* sa() const override {
            return reinterpret_cast<const sockaddr*>(bytes.data());
        }
        [[nodiscard]] socklen_t saLen() const override { return 1000; }
        std::vector<char> bytes = std::vector<char>(1000, '\x7f');
    } huge;
    QELsockaddr address;
    EXPECT_EQ(address.toString(true), "Unknown_address");
    EXPECT_FALSE(address.setPort(80));
    EXPECT_EQ(address.port(), -1);
    address.set(huge);
    EXPECT_EQ(address.saLen(), sizeof(sockaddr_storage));
    EXPECT_EQ(std::memcmp(address.sa(), huge.sa(), address.saLen()), 0);
    address.set(sockaddr_storage{}, 1000);
    EXPECT_EQ(address.saLen(), sizeof(sockaddr_storage));
    address.set(huge); // what follows replaces all of it

    const QELsockaddr4 loopback = QELsockaddr4::loopback(80);
    address.set(*reinterpret_cast<const sockaddr_in*>(loopback.sa()));
    EXPECT_EQ(address.saLen(), sizeof(sockaddr_in));
    QELsockaddr fresh;
    fresh.set(loopback);
    EXPECT_EQ(std::memcmp(address.sa(), fresh.sa(), sizeof(sockaddr_storage)), 0);
    address.set(address);
    EXPECT_EQ(address.toString(true), "127.0.0.1:80");
    EXPECT_TRUE(address.setPort(50000));
    EXPECT_EQ(address.port(), 50000);
    EXPECT_EQ(address.toString(true), "127.0.0.1:50000");
    address.clear();
    EXPECT_EQ(address.saLen(), 0U);
    EXPECT_EQ(address.family(), AF_UNSPEC);

    // A raw address of another family clears its target.
    QELsockaddrUNX path;
    path.set("/dev/log");
    QELsockaddr4 copy;
    EXPECT_TRUE(copy.set(*loopback.sa()));
    EXPECT_EQ(copy.compare(loopback), 0);
    EXPECT_FALSE(path.set(*copy.sa()));
    EXPECT_EQ(path.saLen(), 0U);
    EXPECT_FALSE(copy.set(*path.sa()));
    EXPECT_EQ(copy.compare(QELsockaddr4::any(0)), 0);
}

} // namespace
