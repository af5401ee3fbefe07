#pragma once

#include "QELsockBase.h"

#include <cstddef>
#include <cstdint>
#include <memory>

/// The receiving half of a log server: owns a datagram socket and the buffer that one datagram is
/// read into.
class QELlogger5srv {
  public:
    static constexpr unsigned receiveLimit = 5000; ///< bytes taken from one datagram at most

    /// Bytes of receive buffer that open() asks the kernel for: room for a burst of some thousand
    /// lines. Memory is taken only by what waits.
    static constexpr int receiveBuffer = 0x400000;

    QELsockBase socket; ///< closed until open()

    /// One datagram and its terminating NUL.
    std::unique_ptr<char[]> rxBuffer = std::make_unique<char[]>(receiveLimit + 1);

    /// Opens the socket and binds it to @p port on every IPv4 interface. Of the receive buffer it
    /// has what the kernel gives: all of it to root, others at most net.core.rmem_max.
    /// @return 0, or the negative code of QELsockBase from the step that failed; a failed bind has
    ///         printed its report line
    int open(std::uint16_t port);

    /// Waits for one datagram, unless the socket was told not to block, and reads it; what it holds
    /// beyond receiveLimit is lost. One line feed at its end is removed.
    /// @param length  if given, receives the number of bytes read, a removed line feed included;
    ///                unchanged when nothing was read
    /// @return the zero-terminated text, valid until the next call; null when the read failed or
    ///         yielded nothing
    const char* receive(int* length = nullptr);

  protected:
    /// The same, with the text left in rxBuffer.
    /// @return bytes read, 0 for an empty datagram; the negative code of QELsockBase
    int read();
};
