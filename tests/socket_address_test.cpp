#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace {

struct Endpoint {
    uint32_t addr;
    int32_t port; // -1: none in the text
    bool operator==(const Endpoint&) const = default;
};

std::optional<Endpoint> parsed(const std::string& text) {
    constexpr uint32_t unsetAddr = 0xDEADBEEF;
    uint32_t addr = unsetAddr;
    int32_t port = -1;
    if (QELsockaddr4::parse(text, addr, port)) {
        return Endpoint{addr, port};
    }
    EXPECT_EQ(addr, unsetAddr) << text;
    EXPECT_EQ(port, -1) << text;
    return {};
}

// What the grammar says, by means of a regular expression.
std::optional<Endpoint> parsedByGrammar(const std::string& text) {
    static const std::regex grammar(R"(\s*([+-]?)0*(\d+)\.\s*([+-]?)0*(\d+)\.\s*([+-]?)0*(\d+)\.)"
                                    R"(\s*([+-]?)0*(\d+)(?::\s*([+-]?)0*(\d+))?)");
    std::smatch match;
    if (!std::regex_match(text, match, grammar)) {
        return {};
    }
    Endpoint result{0, -1};
    for (size_t i = 1; i < match.size() && match[i + 1].matched; i += 2) {
        const bool isPort = i == 9;
        const std::string digits = match[i + 1];
        const unsigned long value = digits.size() > 9 ? 999999999 : std::stoul(digits);
        if (value > (isPort ? 65535 : 255) || (match[i] == "-" && value != 0)) {
            return {};
        }
        if (isPort) {
            result.port = static_cast<int32_t>(value);
        } else {
            result.addr = result.addr * 256 + static_cast<uint32_t>(value);
        }
    }
    return result;
}

TEST(SocketAddress4, ReadsExactlyTheTextsOfItsGrammar) {
    const std::vector<std::pair<std::string, Endpoint>> table = {
        {"192.168.1.10", {0xC0A8010A, -1}},
        {"192.168.1.10:50000", {0xC0A8010A, 50000}},
        {"192.168.1.10:+80", {0xC0A8010A, 80}},
        {" 1.2.3.4", {0x01020304, -1}},
        {"01.002.3.4: 065535", {0x01020304, 65535}},
        {std::string("1.2.3.4\0.5", 10), {0x01020304, -1}},
    };
    for (const auto& [text, expected] : table) {
        EXPECT_EQ(parsed(text), expected) << text;
    }
    for (const char* text :
         {"", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4 ", "1.2.3.4:", "1.2.3.4:80x", "1.2.3.4:65536",
          "1.2.3.4:-1", "256.1.1.1", "-1.2.3.4", "1.2.3.99999999999999999999",
          "-99999999999999999999.2.3.4", "1.2.3.4:18446744073709551617"}) {
        EXPECT_EQ(parsed(text), std::nullopt) << text;
    }

    // Texts near valid ones, against the grammar.
    constexpr std::string_view alphabet = "0123456789.:+- \t9x";
    std::mt19937 random(1);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = i % 2 == 0 ? "10.0.255.7" : "1.25.3.4:5000";
        for (auto edits = random() % 4; edits > 0; --edits) {
            const auto at = random() % text.size();
            const char symbol = alphabet[random() % alphabet.size()];
            text.replace(at, random() % 2, random() % 3, symbol);
        }
        const auto expected = parsedByGrammar(text);
        ASSERT_EQ(parsed(text), expected) << '"' << text << '"';
        accepted += expected ? 1 : 0;
    }
    EXPECT_GT(accepted, 5000);
}

TEST(SocketAddress4, TextFormIsTheSystemsAndReadsBack) {
    std::mt19937 random(2);
    for (int i = 0; i < 50000; ++i) {
        const QELsockaddr4 address(static_cast<uint32_t>(random()),
                                   static_cast<uint16_t>(random()));
        std::array<char, INET_ADDRSTRLEN> dotted{};
        const in_addr raw{htonl(address.addr())};
        inet_ntop(AF_INET, &raw, dotted.data(), dotted.size());
        const std::string full = std::string(dotted.data()) + ":" + std::to_string(address.port());
        ASSERT_EQ(address.toString(false), dotted.data());
        ASSERT_EQ(address.toString(true), full);
        ASSERT_EQ(parsed(full), (Endpoint{address.addr(), address.port()}));
    }
    std::array<char, QELsockaddr4::textSize> longest{};
    QELsockaddr4(0xFFFFFFFF, 65535).toText(true, longest.data());
    EXPECT_STREQ(longest.data(), "255.255.255.255:65535");
    QELsockaddr4::format(0x0A000005, 65536, longest.data());
    EXPECT_STREQ(longest.data(), "10.0.0.5");
    QELsockaddr4::format(0, 0, nullptr);
}

TEST(SocketAddress4, DefaultPortFillsInOnlyForAPortThatTheTextLacks) {
    struct Row {
        const char* text;
        int32_t defaultPort;
        const char* expected; // null: the text is refused
    };
    const std::vector<Row> table = {{"10.0.0.1", 50000, "10.0.0.1:50000"},
                                    {"10.0.0.1", -1, "10.0.0.1:0"},
                                    {"10.0.0.1", 0, "10.0.0.1:0"},
                                    {"10.0.0.1:7", 50000, "10.0.0.1:7"},
                                    {"10.0.0.1:7", -1, "10.0.0.1:7"},
                                    {"10.0.0.1:0", 50000, "10.0.0.1:0"},
                                    {"10.0.0", 50000, nullptr}};
    for (const auto& row : table) {
        QELsockaddr4 address(0x01020304, 5);
        QELsockaddr generic;
        generic.set(address);
        const bool accepted = row.expected != nullptr;
        EXPECT_EQ(address.set(row.text, row.defaultPort), accepted);
        EXPECT_EQ(generic.set(row.text, row.defaultPort), accepted);
        EXPECT_EQ(address.toString(true), accepted ? row.expected : "0.0.0.0:0");
        EXPECT_EQ(generic.toString(true), accepted ? row.expected : "1.2.3.4:5");
        EXPECT_EQ(generic.saLen(), sizeof(sockaddr_in));
    }
}

TEST(SocketAddress4, PrivateNetworksEndAtTheirBounds) {
    for (const auto& [first, last] : {std::pair<uint32_t, uint32_t>{0x0A000000, 0x0AFFFFFF},
                                      {0xAC100000, 0xAC1FFFFF},
                                      {0xC0A80000, 0xC0A8FFFF},
                                      {0xA9FE0000, 0xA9FEFFFF},
                                      {0x7F000000, 0x7FFFFFFF}}) {
        EXPECT_FALSE(QELsockaddr4::isPrivate(first - 1)) << std::hex << first;
        EXPECT_TRUE(QELsockaddr4::isPrivate(first)) << std::hex << first;
        EXPECT_TRUE(QELsockaddr4::isPrivate(last)) << std::hex << last;
        EXPECT_FALSE(QELsockaddr4::isPrivate(last + 1)) << std::hex << last;
    }
}

TEST(SocketAddressUnix, LengthAndTextSurviveARawCopyAndTheSystem) {
    std::string directory = testing::TempDir() + "hvXXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string file = directory + "/s";
    const std::string name = "*hvlogger-test-" + std::to_string(getpid());
    const std::string longName = name + std::string(200, 'n');
    struct Row {
        std::string path;
        size_t len;
        std::string text;
        bool bindable;
    };
    const std::vector<Row> table = {
        {"", 0, "", false},
        {"/", 4, "/", false},
        {"/dev/log", 11, "/dev/log", false},
        {"*name", 8, "*name", false},
        {std::string(200, 'p'), 110, std::string(107, 'p'), false},
        {std::string(107, 'p'), 110, std::string(107, 'p'), false},
        {std::string(106, 'p'), 109, std::string(106, 'p'), false},
        {file, file.size() + 3, file, true},
        {name, name.size() + 3, name, true},
        {longName, 110, longName.substr(0, 107), true},
    };
    for (const auto& row : table) {
        QELsockaddrUNX address;
        address.set("/before");
        address.set(row.path.c_str());
        QELsockaddrUNX copy;
        EXPECT_TRUE(copy.set(*address.sa()));
        QELsockaddr generic;
        generic.set(address);
        for (const QELsocka* each :
             std::initializer_list<const QELsocka*>{&address, &copy, &generic}) {
            EXPECT_EQ(each->saLen(), row.len) << row.path;
            // A generic address of length 0 holds no family either.
            EXPECT_EQ(each->toString(true),
                      row.len == 0 && each == &generic ? "Unknown_address" : row.text);
        }
        if (row.bindable) {
            const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            EXPECT_EQ(bind(fd, address.sa(), address.saLen()), 0) << row.path;
            sockaddr_storage raw{};
            socklen_t rawLen = sizeof raw;
            EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&raw), &rawLen), 0);
            EXPECT_EQ(rawLen, address.saLen());
            EXPECT_EQ(std::memcmp(&raw, address.sa(), rawLen), 0);
            close(fd);
        }
    }
    unlink(file.c_str());
    rmdir(directory.c_str());

    QELsockaddrUNX address;
    address.set("*"); // an abstract name without characters: only its length tells
    EXPECT_EQ(address.saLen(), 4U);
    EXPECT_EQ(address.toString(), "*");
    address.set(nullptr);
    EXPECT_EQ(address.saLen(), 0U);
    EXPECT_EQ(address.toString(), "");
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
        EXPECT_EQ(address.compare(address), 0);
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

    const auto sign = [](auto value) {
        return (value > 0 ? 1 : 0) - (value < 0 ? 1 : 0);
    };
    for (size_t i = 0; i < sample.size(); ++i) {
        for (size_t j = 0; j < sample.size(); ++j) {
            EXPECT_EQ(sign(sample[i].compare(sample[j])),
                      sign(static_cast<int>(i) - static_cast<int>(j)))
                << sample[i].toString(true) << " and " << sample[j].toString(true);
        }
    }
    reinterpret_cast<char*>(&other)[sizeof other - 1] = 1; // the same family, other contents
    QELsockaddr last;
    last.set(other);
    EXPECT_EQ(sample.back().compare(last), 0);
    EXPECT_EQ(QELsockaddr4(1, 2).compare(QELsockaddr4(1, 2)), 0);
}

TEST(SocketAddress, GenericAddressTakesAnyOtherAndNoMoreThanFits) {
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

    const QELsockaddr4 loopback = QELsockaddr4::loopback(80);
    address.set(*reinterpret_cast<const sockaddr_in*>(loopback.sa()));
    EXPECT_EQ(address.saLen(), sizeof(sockaddr_in));
    EXPECT_TRUE(std::all_of(reinterpret_cast<const char*>(address.sa()) + sizeof(sockaddr_in),
                            reinterpret_cast<const char*>(address.sa()) + sizeof(sockaddr_storage),
                            [](char byte) { return byte == 0; }));
    address.set(address);
    EXPECT_EQ(address.toString(true), "127.0.0.1:80");
    EXPECT_TRUE(address.setPort(50000));
    EXPECT_EQ(address.port(), 50000);
    EXPECT_EQ(address.toString(true), "127.0.0.1:50000");
    address.clear();
    EXPECT_EQ(address.saLen(), 0U);
    EXPECT_EQ(address.family(), AF_UNSPEC);
}

TEST(SocketAddress, RawAddressOfAnotherFamilyClearsTheTarget) {
    QELsockaddrUNX path;
    path.set("/dev/log");
    QELsockaddr4 address(0x0A000005, 50000);
    QELsockaddr4 copy;
    EXPECT_TRUE(copy.set(*address.sa()));
    EXPECT_EQ(copy.toString(true), "10.0.0.5:50000");
    EXPECT_FALSE(copy.set(*path.sa()));
    EXPECT_EQ(copy.compare(QELsockaddr4::any(0)), 0);
    EXPECT_FALSE(path.set(*address.sa()));
    EXPECT_EQ(path.family(), AF_UNIX);
    EXPECT_EQ(path.saLen(), 0U);
}

} // namespace
