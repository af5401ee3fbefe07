#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

// What QELsockaddr4::parse() reads, as plain text.
std::string parsed(const std::string& text) {
    std::uint32_t addr = 0xDEADBEEF;
    std::int32_t port = -1;
    if (QELsockaddr4::parse(text, addr, port)) {
        return std::to_string(addr) + ":" + std::to_string(port);
    }
    EXPECT_TRUE(addr == 0xDEADBEEF && port == -1) << "refused, but changed: " << text;
    return "refused";
}

// The same by the grammar, without negative numbers.
std::string parsedByGrammar(const std::string& text) {
    static const std::string start = R"(\s*\+?0*)";
    static const std::string number = start + R"((25[0-5]|2[0-4]\d|1?\d?\d))";
    static const std::regex grammar(
        number + R"(\.)" + number + R"(\.)" + number + R"(\.)" + number + "(?::" + start +
        R"((6553[0-5]|655[0-2]\d|65[0-4]\d\d|6[0-4]\d{3}|[1-5]?\d{1,4}))?)");
    std::smatch match;
    if (!std::regex_match(text, match, grammar)) {
        return "refused";
    }
    std::uint32_t addr = 0;
    for (std::size_t i = 1; i <= 4; ++i) {
        addr = addr * 256 + static_cast<std::uint32_t>(std::stoul(match[i]));
    }
    return std::to_string(addr) + ":" +
           (match[5].matched ? std::to_string(std::stoul(match[5])) : "-1");
}

TEST(SocketAddress4, ReadsExactlyTheTextsOfItsGrammar) {
    for (const char* text :
         {"192.168.1.10", "192.168.1.10:+80", " 1.2.3.4", "01.002.3.4: 065535", "", "1.2.3",
          "1.2.3.", "1.2.3.4.", "1.2.3.4 ", "1.2.3.4:", "1.2.3.4:80x", "1.2.3.4:65536",
          "1.2.3.4:-1", "256.1.1.1", "-1.2.3.4", "1.2.3.99999999999999999999",
          "-99999999999999999999.2.3.4", "1.2.3.4:18446744073709551617"}) {
        EXPECT_EQ(parsed(text), parsedByGrammar(text)) << text;
    }
    // Texts near valid ones.
    constexpr std::string_view alphabet = "0123456789.:+ \t9x";
    std::mt19937 random(1);
    int refused = 0;
    for (int i = 0; i < 20'000; ++i) {
        std::string text = i % 2 == 0 ? "10.0.255.7" : "1.25.3.4:5000";
        for (auto edits = random() % 4; edits > 0; --edits) {
            const auto at = random() % text.size();
            text.replace(at, random() % 2, random() % 3, alphabet[random() % alphabet.size()]);
        }
        ASSERT_EQ(parsed(text), parsedByGrammar(text)) << '"' << text << '"';
        refused += parsed(text) == "refused" ? 1 : 0;
    }
    EXPECT_TRUE(refused > 5'000 && refused < 15'000) << refused;
}

TEST(SocketAddress4, TextFormIsTheSystemsAndReadsBack) {
    std::mt19937 random(2);
    for (int i = 0; i < 20'000; ++i) {
        const QELsockaddr4 address(i == 0 ? UINT32_MAX : static_cast<std::uint32_t>(random()),
                                   i == 0 ? UINT16_MAX : static_cast<std::uint16_t>(random()));
        std::array<char, INET_ADDRSTRLEN> dotted{};
        const in_addr raw{htonl(address.addr())};
        inet_ntop(AF_INET, &raw, dotted.data(), dotted.size());
        ASSERT_EQ(address.toString(false), dotted.data());
        ASSERT_EQ(address.toString(true), dotted.data() + (":" + std::to_string(address.port())));
        ASSERT_EQ(parsed(address.toString(true)),
                  std::to_string(address.addr()) + ":" + std::to_string(address.port()));
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

TEST(SocketAddressUnix, LengthAndTextSurviveARawCopyAndTheSystem) {
    const std::string file = testing::TempDir() + "hv" + std::to_string(getpid());
    const std::string name = "*hvlogger-test-" + std::to_string(getpid());
    const std::string longName = name + std::string(200, 'n');
    for (const auto& [path, length, text] :
         {std::tuple<std::string, std::size_t, std::string>{"", 0, ""},
          {"/", 4, "/"},
          {std::string(106, 'p'), 109, std::string(106, 'p')},
          {std::string(107, 'p'), 110, std::string(107, 'p')},
          {std::string(200, 'p'), 110, std::string(107, 'p')},
          {file, file.size() + 3, file},
          {name, name.size() + 3, name},
          {longName, 110, longName.substr(0, 107)}}) {
        QELsockaddrUNX address;
        address.set("/before");
        address.set(path.c_str());
        QELsockaddrUNX copy;
        EXPECT_TRUE(copy.set(*address.sa()));
        EXPECT_EQ(address.toString(), text);
        EXPECT_EQ(copy.toString(), text);
        EXPECT_EQ(address.saLen(), length) << path;
        EXPECT_EQ(copy.saLen(), length) << path;
        if (path == file || path.starts_with('*')) {
            const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            EXPECT_EQ(bind(fd, address.sa(), address.saLen()), 0) << path;
            sockaddr_storage raw{};
            socklen_t rawLen = sizeof raw;
            EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&raw), &rawLen), 0);
            close(fd);
            QELsockaddr bound;
            bound.set(raw, rawLen);
            EXPECT_EQ(bound.saLen(), length);
            EXPECT_EQ(bound.toString(true), text);
        }
    }
    unlink(file.c_str());
    QELsockaddrUNX address;
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
            EXPECT_TRUE(i < j   ? order < 0
                        : i > j ? order > 0
                                : order == 0)
                << sample[i].toString(true) << " and " << sample[j].toString(true);
        }
    }
    reinterpret_cast<char*>(&other)[sizeof other - 1] = 1; // the same family, other contents
    QELsockaddr last;
    last.set(other);
    EXPECT_EQ(sample.back().compare(last), 0);
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
