// Texts into the reader of IPv4 addresses.

#include "QELsockaddr4.h"
#include "check.h"

#include <arpa/inet.h>

void target(std::string_view input) {
    const std::string text(input);
    std::uint32_t addr = 0xDEADBEEF;
    std::int32_t port = -77;
    const bool accepted = QELsockaddr4::parse(text, addr, port);
    // The C library's reader takes the same addresses, without port, white space, signs and leading
    // zeros.
    in_addr other{};
    require(inet_pton(AF_INET, text.c_str(), &other) != 1 ||
                (accepted && ntohl(other.s_addr) == addr && port == -77),
            "plain dotted addresses are read right");
    if (!accepted) {
        require(addr == 0xDEADBEEF && port == -77, "refused text changes nothing");
        return;
    }
    require(port == -77 || (port >= 0 && port <= 65535), "a port has 16 bits");
    QELsockaddr4 address;
    QELsockaddr4 again;
    require(address.set(text, 50000) && address.addr() == addr, "both readers agree");
    require(again.set(address.toString(true), -1) && again.compare(address) == 0,
            "what is written is read again");
}
