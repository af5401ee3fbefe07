// Texts into the reader of IPv4 addresses.

#include "QELsockaddr.h"
#include "QELsockaddr4.h"
#include "check.h"

#include <arpa/inet.h>
#include <cstdint>
#include <string>

namespace {

constexpr std::uint32_t unsetAddr = 0xDEADBEEF;
constexpr std::int32_t unsetPort = -77;
constexpr std::int32_t defaultPort = 50000;

struct Parsed {
    bool accepted = false;
    std::uint32_t addr = unsetAddr;
    std::int32_t port = unsetPort;

    explicit Parsed(const std::string& text) { accepted = QELsockaddr4::parse(text, addr, port); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(asText(data, size));
    const Parsed parsed(text);
    QELsockaddr4 address;
    QELsockaddr general;
    require(address.set(text, defaultPort) == parsed.accepted &&
                general.set(text, defaultPort) == parsed.accepted,
            "all readers agree");
    require(Parsed(text.substr(0, text.find('\0'))).accepted == parsed.accepted,
            "the text ends at its first NUL");

    // The C library's reader takes the same addresses, without port, white space, signs and leading
    // zeros.
    in_addr other{};
    const bool strictlyValid = inet_pton(AF_INET, text.c_str(), &other) == 1;
    if (!parsed.accepted) {
        require(parsed.addr == unsetAddr && parsed.port == unsetPort,
                "refused text changes nothing");
        require(address.addr() == 0 && address.port() == 0, "refused text clears the address");
        require(!strictlyValid, "plain dotted addresses are accepted");
        return 0;
    }
    require(!strictlyValid || (ntohl(other.s_addr) == parsed.addr && parsed.port == unsetPort),
            "plain dotted addresses are read right");
    require(parsed.port == unsetPort || (parsed.port >= 0 && parsed.port <= 65535),
            "a port has 16 bits");
    const std::int32_t port = parsed.port == unsetPort ? defaultPort : parsed.port;
    require(address.addr() == parsed.addr && address.port() == port && general.port() == port &&
                general.compare(address) == 0,
            "all readers read the same");

    const auto written = std::make_unique<char[]>(QELsockaddr4::textSize);
    address.toText(true, written.get());
    const Parsed again(written.get());
    require(again.accepted && again.addr == parsed.addr && again.port == port,
            "what is written is read again");
    require(address.toString(true) == written.get(), "both forms of writing agree");
    QELsockaddr4::format(parsed.addr, QELsockaddr4::noPort, written.get());
    require(inet_pton(AF_INET, written.get(), &other) == 1 && ntohl(other.s_addr) == parsed.addr,
            "without its port it is a plain dotted address");
    return 0;
}
