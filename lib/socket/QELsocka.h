#pragma once

#include <cstdint>
#include <string>
#include <sys/socket.h>

/// A socket address of any family, as the socket operations take it. Owns nothing itself: an
/// implementation holds the raw address and hands it out.
///
/// Addresses compare and print by their family; Unix-domain and IPv4 addresses are known.
class QELsocka {
  public:
    /// The raw address: at least saLen() bytes, and for the known families the whole structure of
    /// the family (sockaddr_un, sockaddr_in). Valid as long as this object lives, never null.
    [[nodiscard]] virtual const sockaddr* sa() const = 0;

    /// Number of meaningful bytes at sa(); 0 for an empty address.
    [[nodiscard]] virtual socklen_t saLen() const = 0;

    /// Family at the start of sa(): AF_UNIX, AF_INET, ..., AF_UNSPEC for an empty generic address.
    [[nodiscard]] std::uint16_t family() const;

    /// Text form by family: a Unix address as QELsockaddrUNX::toString() gives it, an IPv4 address
    /// as "10.0.0.5", followed by ":50000" when @p withPort; "Unknown_address" for other families.
    [[nodiscard]] std::string toString(bool withPort) const;

    /// Order of two addresses: negative, 0 or positive when this one is smaller than, equal to or
    /// greater than @p other. The smaller family number comes first; within a family see
    /// QELsockaddr4::compare() and QELsockaddrUNX::compare(). Two addresses of the same other
    /// family count as equal.
    [[nodiscard]] int compare(const QELsocka& other) const;

  protected:
    /// Addresses are values, never destroyed through this interface.
    ~QELsocka() = default;
};
