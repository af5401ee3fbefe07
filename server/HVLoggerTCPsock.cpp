#include "HVLoggerTCPsock.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::size_t chunkSize = 1500;
/// Behind a full chunk there is often much more: a listing.
constexpr std::size_t furtherChunkSize = 0x10000;

bool readable(int fd) {
    pollfd waiting{fd, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
}

} // namespace

HVLoggerTCPsock::HVLoggerTCPsock(QELmediator* notified) : mediator(notified) {}

int HVLoggerTCPsock::sendData(const void* data, int length) {
    if (data == nullptr || length < 1) {
        return 0;
    }
    if (fd < 0) {
        return -1;
    }
    const ssize_t sent = ::send(connFd, data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    if (sent < 1) {
        std::perror("send");
        return -2;
    }
    return static_cast<int>(sent);
}

int HVLoggerTCPsock::receiveData(void* buffer, int length) {
    if (fd < 0 || buffer == nullptr || length < 1) {
        return -1;
    }
    const ssize_t received = ::recv(connFd, buffer, static_cast<std::size_t>(length), 0);
    if (received == 0) {
        errno = 0; // no error: the report is not to name some earlier one
        std::perror("recv(0)");
        return 0;
    }
    if (received < 0) {
        std::perror("recv");
        return -2;
    }
    return static_cast<int>(received);
}

int HVLoggerTCPsock::readArrived(std::size_t limit) {
    int received = 0;
    std::size_t chunk = chunkSize;
    bool full = false;
    do {
        const std::size_t held = rxData.size();
        rxData.resize(held + chunk);
        received = receiveData(rxData.data() + held, static_cast<int>(chunk));
        const std::size_t count = received > 0 ? static_cast<std::size_t>(received) : 0;
        rxData.resize(held + count);
        full = count == chunk;
        chunk = furtherChunkSize;
        // A full chunk may have been the last one: look before the next read.
    } while (full && rxData.size() < limit && readable(connFd));
    return received;
}
