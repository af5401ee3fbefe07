#include "QELsockaddrUNX.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

constexpr std::size_t pathSize = sizeof(sockaddr_un::sun_path);
constexpr char abstractMark = '*';

/// Characters of the path as text, of which an abstract name's first is its mark. Paths from
/// outside need not be terminated.
std::size_t textLength(const sockaddr_un& raw) {
    if (raw.sun_path[0] != '\0') {
        return strnlen(raw.sun_path, pathSize);
    }
    const std::size_t nameLength = strnlen(raw.sun_path + 1, pathSize - 1);
    return nameLength == 0 ? 0 : 1 + nameLength;
}

/// Length handed to the system for a text that is not empty: family, text and terminating zero, but
/// never more than the structure.
socklen_t addressLength(std::size_t length) {
    return static_cast<socklen_t>(
        std::min(offsetof(sockaddr_un, sun_path) + length + 1, sizeof(sockaddr_un)));
}

} // namespace

const sockaddr* QELsockaddrUNX::sa() const {
    return reinterpret_cast<const sockaddr*>(&raw);
}

void QELsockaddrUNX::clear() {
    *this = QELsockaddrUNX();
}

void QELsockaddrUNX::set(const char* path) {
    // Through a copy: path may point into this object.
    QELsockaddrUNX fresh;
    if (path != nullptr && *path != '\0') {
        const std::size_t length = strnlen(path, pathSize - 1);
        std::memcpy(fresh.raw.sun_path, path, length);
        fresh.len = addressLength(length);
        if (*path == abstractMark) {
            fresh.raw.sun_path[0] = '\0';
        }
    }
    *this = fresh;
}

bool QELsockaddrUNX::set(const sockaddr& other) {
    if (other.sa_family != AF_UNIX) {
        clear();
        return false;
    }
    // memmove: other may be this object's own raw address.
    std::memmove(&raw, &other, sizeof raw);
    const std::size_t length = textLength(raw);
    len = length == 0 ? 0 : addressLength(length);
    return true;
}

std::string QELsockaddrUNX::toString() const {
    if (len == 0) {
        return {};
    }
    if (raw.sun_path[0] == '\0') {
        return abstractMark +
               std::string(raw.sun_path + 1, strnlen(raw.sun_path + 1, pathSize - 1));
    }
    return {raw.sun_path, strnlen(raw.sun_path, pathSize)};
}

int QELsockaddrUNX::compare(const sockaddr_un& a, const sockaddr_un& b) {
    if (a.sun_path[0] == '\0' && b.sun_path[0] == '\0') {
        return std::strncmp(a.sun_path + 1, b.sun_path + 1, pathSize - 1);
    }
    return std::strncmp(a.sun_path, b.sun_path, pathSize);
}
