// Texts into the reader of IPv4 addresses.

#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "check.h"

#include <arpa/inet.h>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    constexpr std::uint32_t unsetAddr = 0xDEADBEEF;
    constexpr std::int32_t unsetPort = -77;
    constexpr std::int32_t defaultPort = 50000;
    const std::string text(asText(data, size));
    std::uint32_t addr = unsetAddr;
    std::int32_t port = unsetPort;
    const bool accepted = QELsockaddr4::parse(text, addr, port);
    QELsockaddr4 address;
    QELsockaddr general;
    require(address.set(text, defaultPort) == accepted &&
                general.set(text, defaultPort) == accepted &&
                QELsockaddr4().set(text.substr(0, text.find('\0')), defaultPort) == accepted,
            "all readers agree, and the text ends at its first NUL");

    // The C library's reader takes the same addresses, without port, white space, signs and leading
    // zeros.
    in_addr other{};
    const bool strictlyValid = inet_pton(AF_INET, text.c_str(), &other) == 1;
    if (!accepted) {
        require(addr == unsetAddr && port == unsetPort, "refused text changes nothing");
        require(address.addr() == 0 && address.port() == 0, "refused text clears the address");
        require(!strictlyValid, "plain dotted addresses are accepted");
        return 0;
    }
    require(!strictlyValid || (ntohl(other.s_addr) == addr && port == unsetPort),
            "plain dotted addresses are read right");
    require(port == unsetPort || (port >= 0 && port <= 65535), "a port has 16 bits");
    require(address.addr() == addr && address.port() == (port == unsetPort ? defaultPort : port) &&
                general.port() == address.port() && general.compare(address) == 0,
            "all readers read the same");

    const std::string written = address.toString(true);
    QELsockaddr4 again;
    require(again.set(written, -1) && again.compare(address) == 0, "what is written is read again");
    require(inet_pton(AF_INET, address.toString(false).c_str(), &other) == 1 &&
                ntohl(other.s_addr) == addr,
            "without its port it is a plain dotted address");
    return 0;
}
