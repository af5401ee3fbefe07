#include "HVLoggerTCPsock.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

// A silent peer is asked for a sign of life after 15 s, then every 5 s, and given up after the
// eighth time: within 60 s of silence (tcp(7)), and not because a link loses packets.
constexpr int keepAliveIdleSeconds = 15;
constexpr int keepAliveIntervalSeconds = 5;
constexpr int keepAliveProbes = 8;

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

void HVLoggerTCPsock::keepAlive(int connection) {
    const auto set = [connection](int level, int option, int value) {
        // Can only fail on what is no TCP connection.
        static_cast<void>(::setsockopt(connection, level, option, &value, sizeof value));
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, keepAliveIdleSeconds);
    set(IPPROTO_TCP, TCP_KEEPINTVL, keepAliveIntervalSeconds);
    set(IPPROTO_TCP, TCP_KEEPCNT, keepAliveProbes);
}
