#include "QELsockBase.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

namespace {

/// Writes a line to standard output and keeps the error number, which writing may change.
void report(const std::string& line) {
    const int error = errno;
    std::cout << line << std::endl;
    errno = error;
}

/// Waits until `fd` is readable; false when it is not within `timeout`. Any other failure counts as
/// readable: the receive that follows will meet it. ppoll, as descriptor numbers have no bound.
bool waitReadable(int fd, std::chrono::microseconds timeout) {
    using std::chrono::nanoseconds;
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + timeout;
    nanoseconds rest = timeout;
    while (true) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
        timespec limit{};
        limit.tv_sec = static_cast<time_t>(seconds.count());
        limit.tv_nsec = static_cast<decltype(limit.tv_nsec)>((rest - seconds).count());
        pollfd watched{fd, POLLIN, 0};
        const int ready = ::ppoll(&watched, 1, &limit, nullptr);
        if (ready >= 0 || errno != EINTR) {
            return ready != 0;
        }
        rest = std::max(nanoseconds(deadline - steady_clock::now()), nanoseconds::zero());
    }
}

std::int64_t unixNanoseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

} // namespace

// Operations that act on the socket are not const, though they leave the members alone.
// NOLINTBEGIN(readability-make-member-function-const)

QELsockBase::QELsockBase(QELsockBase&& other) noexcept : fd(other.fd) {
    other.released = true;
}

QELsockBase& QELsockBase::operator=(QELsockBase&& other) noexcept {
    if (this != &other) {
        close();
        fd = other.fd;
        other.released = true;
    }
    return *this;
}

QELsockBase::~QELsockBase() {
    close();
}

void QELsockBase::close() {
    if (fd != -1 && !released) {
        ::close(fd);
        fd = -1;
    }
}

std::int32_t QELsockBase::open(std::int32_t domain) {
    return create(domain, SOCK_DGRAM);
}

std::int32_t QELsockBase::bind(const QELsocka& address) {
    const std::int32_t result = bindTo(address);
    if (result == errBind) {
        report(errorText() + ": " + address.toString(true));
    }
    return result;
}

std::int32_t QELsockBase::sendTo(const void* buffer, unsigned length, const QELsocka& destination) {
    return transmit(buffer, length, &destination);
}

std::int32_t QELsockBase::recvFrom(void* buffer, unsigned length, QELsockaddr* sender) {
    return receive(buffer, length, -1, nullptr, sender);
}

std::int32_t QELsockBase::recvFrom(void* buffer, unsigned length, std::int32_t timeout,
                                   QELsockaddr* sender) {
    std::int64_t received = 0;
    return recvFrom(buffer, length, timeout, received, sender);
}

std::int32_t QELsockBase::recvFrom(void* buffer, unsigned length, std::int32_t timeout,
                                   std::int64_t& received, QELsockaddr* sender) {
    const std::int32_t result = receive(buffer, length, timeout, &received, sender);
    if (result == errReceive) {
        report(errorText());
    }
    return result;
}

int QELsockBase::setOption(int level, int name, const void* value, socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int QELsockBase::setGracefulClose(bool graceful) {
    const linger value{graceful ? 0 : 1, 0};
    return setOption(SOL_SOCKET, SO_LINGER, &value, sizeof value);
}

int QELsockBase::joinGroup(std::uint32_t group, std::uint32_t interfaceAddr) {
    const ip_mreq value{{htonl(group)}, {htonl(interfaceAddr)}};
    return setOption(IPPROTO_IP, IP_ADD_MEMBERSHIP, &value, sizeof value);
}

int QELsockBase::setMulticastTTL(unsigned ttl) {
    if (ttl > maxMulticastTTL) {
        return -2;
    }
    const auto value = static_cast<std::uint8_t>(ttl);
    return setOption(IPPROTO_IP, IP_MULTICAST_TTL, &value, sizeof value);
}

bool QELsockBase::isBlocking() const {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

std::int32_t QELsockBase::setBlocking(bool blocking) {
    if (fd == -1) {
        return errClosed;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) {
        return flags;
    }
    return ::fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

std::string QELsockBase::errorText() {
    return std::strerror(errno);
}

bool QELsockBase::wouldBlock() {
    return errno == EAGAIN;
}

std::int32_t QELsockBase::create(std::int32_t domain, std::int32_t type) {
    close();
    fd = ::socket(domain, type | SOCK_CLOEXEC, 0);
    return fd == -1 ? errCreate : 0;
}

std::int32_t QELsockBase::bindTo(const QELsocka& address) {
    if (fd == -1) {
        return errClosed;
    }
    return ::bind(fd, address.sa(), address.saLen()) == 0 ? 0 : errBind;
}

std::int32_t QELsockBase::transmit(const void* buffer, unsigned length,
                                   const QELsocka* destination) {
    if (const std::int32_t refused = refusal(buffer, length); refused != 0) {
        return refused;
    }
    const ssize_t sent = destination != nullptr ? ::sendto(fd, buffer, length, 0, destination->sa(),
                                                           destination->saLen())
                                                : ::send(fd, buffer, length, 0);
    return finish(true, static_cast<std::int32_t>(sent), buffer, length);
}

std::int32_t QELsockBase::receive(void* buffer, unsigned length, std::int32_t timeout,
                                  std::int64_t* received, QELsockaddr* sender) {
    if (const std::int32_t refused = refusal(buffer, length); refused != 0) {
        return refused;
    }
    if (received != nullptr) {
        *received = 0;
    }
    if (timeout >= 0 && !waitReadable(fd, std::chrono::microseconds(timeout))) {
        return errTimeout;
    }
    sockaddr_storage from{};
    socklen_t fromLen = sizeof from;
    const ssize_t count =
        sender == nullptr // without copying an address out
            ? ::recv(fd, buffer, length, 0)
            : ::recvfrom(fd, buffer, length, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (received != nullptr) {
        *received = unixNanoseconds();
    }
    const std::int32_t result = finish(false, static_cast<std::int32_t>(count), buffer, length);
    if (result > 0 && sender != nullptr) {
        sender->set(from, fromLen);
    }
    return result;
}

std::int32_t QELsockBase::refusal(const void* buffer, unsigned length) const {
    if (buffer == nullptr || length == 0) {
        return errArgument;
    }
    return fd == -1 ? errClosed : 0;
}

std::int32_t QELsockBase::finish(bool sent, std::int32_t result, const void* buffer,
                                 unsigned length) {
    if (ioHook) {
        const int error = errno;
        ioHook(sent, result, buffer, length);
        errno = error;
    }
    if (result >= 0) {
        return result;
    }
    if (wouldBlock()) {
        return errWouldBlock;
    }
    return sent ? errSend : errReceive;
}

// NOLINTEND(readability-make-member-function-const)
