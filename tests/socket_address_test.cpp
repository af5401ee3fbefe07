#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

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
        std::uint32_t addr = 1;
        std::int32_t port = 2;
        EXPECT_FALSE(QELsockaddr4::parse(text, addr, port) || addr != 1 || port != 2) << text;
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

TEST(SocketAddressUnix, LengthAndTextSurviveARawCopy) {
    QELsockaddrUNX address, copy;
    for (const std::string& path : {std::string("/dev/log"), std::string("*name"), std::string(),
                                    std::string(200, 'p'), '*' + std::string(200, 'n')}) {
        address.set(path.c_str());
        EXPECT_EQ(address.sa()->sa_data[0], path[0] == '*' ? '\0' : path[0]);
        EXPECT_TRUE(copy.set(*address.sa()));
        for (const QELsockaddrUNX& each : {address, copy}) {
            EXPECT_EQ(each.toString(), path.substr(0, 107));
            EXPECT_EQ(each.saLen(), path.empty() ? 0 : 3 + path.substr(0, 107).size());
        }
    }
    address.set("*"); // an abstract name without characters: only its length tells
    EXPECT_EQ(address.saLen(), 4U);
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
