#include "QELlogger5_UDP.h"

#include <sys/socket.h>

int QELlogger5_UDP::open(std::uint16_t port) {
    const int result = socket.open(AF_INET);
    if (result == 0) {
        destination = QELsockaddr4::loopback(port);
    }
    return result;
}

int QELlogger5_UDP::send(std::string_view line) {
    const int sent = socket.sendTo(line.data(), static_cast<unsigned>(line.size()), destination);
    return sent >= 0 && static_cast<std::size_t>(sent) == line.size() ? 0 : -1;
}
