#pragma once

#include "QELsocka.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

/// Value that holds a socket address of any family, up to 128 bytes: the peer of an accepted
/// connection, the sender of a received datagram.
class QELsockaddr final : public QELsocka {
  public:
    [[nodiscard]] const sockaddr* sa() const override;
    [[nodiscard]] socklen_t saLen() const override { return len; }

    /// Makes the address empty: all bytes zero (family AF_UNSPEC), length 0, as constructed.
    void clear();

    /// Copies any address with its length (at most 128 bytes of it).
    void set(const QELsocka& other);

    /// Copies a whole raw storage block; the length becomes 128.
    void set(const sockaddr_storage& raw);

    /// Copies a raw storage block of which @p rawLen bytes are meaningful (at most 128), as
    /// accept(2) and recvfrom(2) fill one.
    void set(const sockaddr_storage& raw, socklen_t rawLen);

    /// Copies a raw IPv4 address; the length becomes 16.
    void set(const sockaddr_in& raw);

    /// Reads an IPv4 address from text, as QELsockaddr4::set() does.
    /// @return false, with this address unchanged, when the text is no such address
    bool set(const std::string& text, std::int32_t defaultPort);

    /// Stores the port (host order) of an IPv4 address.
    /// @return false, with nothing changed, when the family is not AF_INET
    bool setPort(std::uint16_t port);

    /// The port (host order) of an IPv4 address; -1 for any other family.
    [[nodiscard]] std::int32_t port() const;

  private:
    sockaddr_storage storage{};
    socklen_t len = 0;
};
