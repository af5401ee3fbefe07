#include "QELlogger5srv.h"

#include "QELsockaddr4.h"

#include <sys/socket.h>

int QELlogger5srv::open(std::uint16_t port) {
    const QELsockaddr4 address = QELsockaddr4::any(port);
    if (const int opened = socket.open(address.family()); opened != 0) {
        return opened;
    }
    if (socket.setOption(SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0) {
        socket.setOption(SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    return socket.bind(address);
}

const char* QELlogger5srv::receive(int* length) {
    const int count = read();
    if (count < 1) {
        return nullptr;
    }
    if (length != nullptr) {
        *length = count;
    }
    return rxBuffer.get();
}

int QELlogger5srv::read() {
    const int count = socket.recvFrom(rxBuffer.get(), receiveLimit);
    if (count < 1) {
        return count;
    }
    char& last = rxBuffer[static_cast<std::size_t>(count) - 1];
    if (last == '\n') {
        last = '\0';
    } else {
        rxBuffer[static_cast<std::size_t>(count)] = '\0';
    }
    return count;
}
