#include "QELsockaddr4.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int numberCount = 4;
constexpr unsigned long maxNumber = 255;
constexpr unsigned long maxPort = 65535;

/// Reads a number of at most `max` at `text` and moves `text` behind it. A negative number is a
/// huge one when taken as unsigned, and one too large for a long comes as its largest value.
bool readNumber(const char*& text, unsigned long max, std::uint32_t& number) {
    char* end = nullptr;
    const auto value = static_cast<unsigned long>(std::strtol(text, &end, 10));
    if (end == text || value > max) {
        return false;
    }
    text = end;
    number = static_cast<std::uint32_t>(value);
    return true;
}

} // namespace

QELsockaddr4::QELsockaddr4(std::uint32_t addr, std::uint16_t port) {
    setAddr(addr);
    setPort(port);
}

QELsockaddr4 QELsockaddr4::loopback(std::uint16_t port) {
    return {INADDR_LOOPBACK, port};
}

QELsockaddr4 QELsockaddr4::any(std::uint16_t port) {
    return {INADDR_ANY, port};
}

const sockaddr* QELsockaddr4::sa() const {
    return reinterpret_cast<const sockaddr*>(&raw);
}

void QELsockaddr4::clear() {
    *this = QELsockaddr4();
}

void QELsockaddr4::setAddr(std::uint32_t addr) {
    raw.sin_addr.s_addr = htonl(addr);
}

void QELsockaddr4::setPort(std::uint16_t port) {
    raw.sin_port = htons(port);
}

std::uint32_t QELsockaddr4::addr() const {
    return ntohl(raw.sin_addr.s_addr);
}

std::uint16_t QELsockaddr4::port() const {
    return ntohs(raw.sin_port);
}

bool QELsockaddr4::set(const sockaddr& other) {
    if (other.sa_family != AF_INET) {
        clear();
        return false;
    }
    // memmove: other may be this object's own raw address.
    std::memmove(&raw, &other, sizeof raw);
    return true;
}

bool QELsockaddr4::set(const std::string& text, std::int32_t defaultPort) {
    clear();
    std::uint32_t parsedAddr = 0;
    std::int32_t parsedPort = -1;
    if (!parse(text, parsedAddr, parsedPort)) {
        return false;
    }
    setAddr(parsedAddr);
    if (parsedPort >= 0) {
        setPort(static_cast<std::uint16_t>(parsedPort));
    } else if (defaultPort >= 0) {
        setPort(static_cast<std::uint16_t>(defaultPort));
    }
    return true;
}

bool QELsockaddr4::parse(const std::string& text, std::uint32_t& addr, std::int32_t& port) {
    const char* position = text.c_str();
    std::uint32_t parsed = 0;
    for (int i = 0; i < numberCount; ++i) {
        if (i > 0 && *position++ != '.') {
            return false;
        }
        std::uint32_t number = 0;
        if (!readNumber(position, maxNumber, number)) {
            return false;
        }
        parsed = (parsed << 8) + number;
    }
    if (*position != '\0') {
        std::uint32_t number = 0;
        if (*position++ != ':' || !readNumber(position, maxPort, number) || *position != '\0') {
            return false;
        }
        port = static_cast<std::int32_t>(number);
    }
    addr = parsed;
    return true;
}

void QELsockaddr4::format(std::uint32_t addr, std::uint32_t port, char* text) {
    if (text == nullptr) {
        return;
    }
    const auto byteAt = [addr](unsigned shift) {
        return static_cast<int>((addr >> shift) & 0xFF);
    };
    const int length =
        std::snprintf(text, textSize, "%d.%d.%d.%d", byteAt(24), byteAt(16), byteAt(8), byteAt(0));
    if (port <= maxPort) {
        std::snprintf(text + length, textSize - static_cast<std::size_t>(length), ":%d",
                      static_cast<int>(port));
    }
}

void QELsockaddr4::toText(bool withPort, char* text) const {
    format(addr(), withPort ? port() : noPort, text);
}

std::string QELsockaddr4::toString(bool withPort) const {
    std::array<char, textSize> text{};
    toText(withPort, text.data());
    return text.data();
}

bool QELsockaddr4::isPrivate(std::uint32_t addr) {
    return (addr >> 24) == 10 || (addr >> 16) == 0xC0A8 || (addr >> 16) == 0xA9FE ||
           (addr >> 20) == 0xAC1 || (addr >> 24) == 127;
}

int QELsockaddr4::compare(const sockaddr_in& a, const sockaddr_in& b) {
    const std::uint32_t addrA = ntohl(a.sin_addr.s_addr);
    const std::uint32_t addrB = ntohl(b.sin_addr.s_addr);
    if (addrA != addrB) {
        return addrA < addrB ? -1 : 1;
    }
    const int portA = ntohs(a.sin_port);
    const int portB = ntohs(b.sin_port);
    return (portA > portB ? 1 : 0) - (portA < portB ? 1 : 0);
}
