#include "HVLoggerTCPsock.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <sys/socket.h>

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
