#include "QELsockaddr.h"

#include "QELsockaddr4.h"

#include <algorithm>
#include <cstring>

const sockaddr* QELsockaddr::sa() const {
    return reinterpret_cast<const sockaddr*>(&storage);
}

void QELsockaddr::clear() {
    *this = QELsockaddr();
}

void QELsockaddr::set(const QELsocka& other) {
    // Through a copy: other may be this object.
    QELsockaddr copy;
    copy.len = std::min<socklen_t>(other.saLen(), sizeof copy.storage);
    std::memcpy(&copy.storage, other.sa(), copy.len);
    *this = copy;
}

void QELsockaddr::set(const sockaddr_storage& raw) {
    set(raw, sizeof raw);
}

void QELsockaddr::set(const sockaddr_storage& raw, socklen_t rawLen) {
    storage = raw;
    len = std::min<socklen_t>(rawLen, sizeof raw);
}

void QELsockaddr::set(const sockaddr_in& raw) {
    clear();
    std::memcpy(&storage, &raw, sizeof raw);
    len = sizeof raw;
}

bool QELsockaddr::set(const std::string& text, std::int32_t defaultPort) {
    QELsockaddr4 parsed;
    if (!parsed.set(text, defaultPort)) {
        return false;
    }
    set(parsed);
    return true;
}

bool QELsockaddr::setPort(std::uint16_t port) {
    if (family() != AF_INET) {
        return false;
    }
    QELsockaddr4 copy;
    copy.set(*sa());
    copy.setPort(port);
    std::memcpy(&storage, copy.sa(), copy.saLen());
    return true;
}

std::int32_t QELsockaddr::port() const {
    if (family() != AF_INET) {
        return -1;
    }
    QELsockaddr4 copy;
    copy.set(*sa());
    return copy.port();
}
