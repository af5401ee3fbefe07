#pragma once

#include "QELsocka.h"

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

/// Value that holds an IPv4 address and port. Stored in network byte order, as ip(7) wants it;
/// every operation that takes or returns an address or a port as a number uses host byte order.
class QELsockaddr4 final : public QELsocka {
  public:
    /// Size of the buffer that any text form fits in: 255.255.255.255:65535 and its terminator.
    static constexpr std::size_t textSize = 22;

    /// Port value from which on format() writes no port.
    static constexpr std::uint32_t noPort = 0xFFFFFFFF;

    /// 0.0.0.0, port 0.
    QELsockaddr4() = default;
    QELsockaddr4(std::uint32_t addr, std::uint16_t port);

    /// 127.0.0.1 with the port.
    [[nodiscard]] static QELsockaddr4 loopback(std::uint16_t port);
    /// 0.0.0.0 with the port: every interface of the host.
    [[nodiscard]] static QELsockaddr4 any(std::uint16_t port);

    [[nodiscard]] const sockaddr* sa() const override;
    /// Always 16.
    [[nodiscard]] socklen_t saLen() const override { return sizeof(raw); }

    /// Back to 0.0.0.0, port 0.
    void clear();

    void setAddr(std::uint32_t addr);
    void setPort(std::uint16_t port);
    [[nodiscard]] std::uint32_t addr() const;
    [[nodiscard]] std::uint16_t port() const;

    /// Copies the raw address, which must be a whole sockaddr_in when its family is AF_INET.
    /// @return false, with this address cleared, when the family is another one
    bool set(const sockaddr& other);

    /// Reads the address from text, see parse().
    ///
    /// @param defaultPort  port (0 to 65535) to take when the text carries none; negative for port
    /// 0
    /// @return false, with this address cleared, when the text is no address
    bool set(const std::string& text, std::int32_t defaultPort);

    /// Reads four decimal numbers up to 255, separated by ".", and optionally ":" and a decimal
    /// port up to 65535; nothing may follow. Each number is read as strtol(3) reads it in base 10:
    /// leading white space, a "+" and leading zeros are accepted ("01.002.3.4" is 1.2.3.4). The
    /// text ends at its first NUL.
    ///
    /// @param addr  set on success only
    /// @param port  set on success only, and only when the text carries a port
    /// @return whether the text is an address
    static bool parse(const std::string& text, std::uint32_t& addr, std::int32_t& port);

    /// Writes the text form, such as "10.0.0.5:50000", with its terminator.
    ///
    /// @param port  left out when it is 65536 or more, see noPort
    /// @param text  at least textSize bytes; null: nothing happens
    static void format(std::uint32_t addr, std::uint32_t port, char* text);

    /// format() of this address, with its port only when @p withPort.
    void toText(bool withPort, char* text) const;
    [[nodiscard]] std::string toString(bool withPort) const;

    /// Whether the address lies in 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16 (RFC 1918),
    /// 169.254.0.0/16 (link-local, RFC 3927) or 127.0.0.0/8 (loopback).
    [[nodiscard]] static bool isPrivate(std::uint32_t addr);

    using QELsocka::compare;
    /// Order by address, then by port, both as unsigned numbers in host order: -1, 0 or 1.
    [[nodiscard]] static int compare(const sockaddr_in& a, const sockaddr_in& b);

  private:
    sockaddr_in raw{AF_INET, 0, {}, {}};
};
