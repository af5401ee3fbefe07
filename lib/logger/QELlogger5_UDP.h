#pragma once

#include "QELlogger5.h"
#include "QELsockBase.h"
#include "QELsockaddr4.h"

#include <cstdint>

/// Sends each line as one datagram to a port of this machine, through a socket that it owns.
class QELlogger5_UDP : public QELlogger5::Sender {
  public:
    /// Opens the socket and names the port on 127.0.0.1. Nothing is connected: the receiver may
    /// come, go and come back between two lines.
    /// @return 0, or the socket layer's code, after which `destination` is unchanged
    int open(std::uint16_t port);

    /// @return 0 when the whole line was sent, received or not; -1 for an empty line, before open()
    ///         and when the system refuses
    int send(std::string_view line) override;

    QELsockBase socket;       ///< datagram socket, closed with the sender
    QELsockaddr4 destination; ///< where send() sends to
};
