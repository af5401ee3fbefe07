#include "QELsockCONN.h"

std::int32_t QELsockCONN::open(std::int32_t domain, std::int32_t type) {
    return create(domain, type);
}

std::int32_t QELsockCONN::bind(const QELsocka& address) {
    return bindTo(address);
}

std::int32_t QELsockCONN::listen(std::int32_t backlog) {
    if (fd == -1) {
        return errClosed;
    }
    return ::listen(fd, backlog) == 0 ? 0 : errBind;
}

std::int32_t QELsockCONN::accept(QELsockBase& connection, QELsockaddr* peer) {
    if (fd == -1) {
        return errClosed;
    }
    connection.close();
    sockaddr_storage raw{};
    socklen_t rawLen = sizeof raw;
    const int accepted = ::accept4(fd, reinterpret_cast<sockaddr*>(&raw), &rawLen, SOCK_CLOEXEC);
    if (accepted == -1) {
        return errAccept;
    }
    connection.fd = accepted;
    if (peer != nullptr) {
        peer->set(raw, rawLen);
    }
    return 0;
}

std::int32_t QELsockCONN::connect(const QELsocka& address) {
    if (fd == -1) {
        return errClosed;
    }
    if (::connect(fd, address.sa(), address.saLen()) == 0) {
        return 0;
    }
    return wouldBlock() ? errWouldBlock : errConnect;
}

std::int32_t QELsockCONN::send(const void* buffer, unsigned length) {
    return transmit(buffer, length, nullptr);
}

std::int32_t QELsockCONN::recv(void* buffer, unsigned length) {
    return receive(buffer, length, -1, nullptr, nullptr);
}

std::int32_t QELsockCONN::recv(void* buffer, unsigned length, std::int32_t timeout) {
    return receive(buffer, length, timeout, nullptr, nullptr);
}
