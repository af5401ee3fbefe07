#include "QELsocka.h"

#include "QELsockaddr4.h"
#include "QELsockaddrUNX.h"

#include <cstring>

namespace {

/// The raw address as the structure of its family; the object behind sa() may be of another type.
template <class Raw>
Raw rawAs(const QELsocka& address) {
    Raw raw{};
    std::memcpy(&raw, address.sa(), sizeof raw);
    return raw;
}

} // namespace

std::uint16_t QELsocka::family() const {
    return rawAs<sa_family_t>(*this);
}

std::string QELsocka::toString(bool withPort) const {
    switch (family()) {
    case AF_UNIX: {
        QELsockaddrUNX copy;
        copy.set(*sa());
        return copy.toString();
    }
    case AF_INET: {
        QELsockaddr4 copy;
        copy.set(*sa());
        return copy.toString(withPort);
    }
    default:
        return "Unknown_address";
    }
}

int QELsocka::compare(const QELsocka& other) const {
    const std::uint16_t mine = family();
    const std::uint16_t others = other.family();
    if (mine != others) {
        return mine < others ? -1 : 1;
    }
    switch (mine) {
    case AF_UNIX:
        return QELsockaddrUNX::compare(rawAs<sockaddr_un>(*this), rawAs<sockaddr_un>(other));
    case AF_INET:
        return QELsockaddr4::compare(rawAs<sockaddr_in>(*this), rawAs<sockaddr_in>(other));
    default:
        return 0;
    }
}
