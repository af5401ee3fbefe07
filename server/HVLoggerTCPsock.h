#pragma once

#include "QELmediator.h"
#include "QELselRcv.h"
#include "QELsockCONN.h"

#include <cstdint>
#include <vector>

/// What both ends of a viewer connection have in common: owns one TCP socket and the bytes of the
/// current read batch; does not own the mediator.
///
/// The wire: a viewer sends commands, each the 4 bytes of an int in its native byte order without
/// header or terminator, none acknowledged. The server sends the raw texts of messages back to
/// back; the receiver finds their bounds by their headers (QELloggerSyslogFmt::append()).
class HVLoggerTCPsock : public QELsockCONN, public QELselRcv {
  public:
    /// The viewer's commands.
    enum Command : std::int32_t {
        cmdSendAll = 1,  ///< send every stored message that passes the server's filters
        cmdWriteFile = 2 ///< write the dump file, on the server
    };

    std::vector<char> rxData;        ///< bytes of the current read batch
    int connFd = -1;                 ///< what is sent and received on: the accepted connection of a
                                     ///< server, the own socket of a client; set by the owner once
                                     ///< the socket is open
    QELmediator* mediator = nullptr; ///< not owned

    /// @param notified  must outlive this object
    explicit HVLoggerTCPsock(QELmediator* notified);

    /// Sends with one send(2); what that does not take is not sent. A peer that has gone is an
    /// error like others, never a signal.
    /// @return bytes sent; 0 for null or a length below 1; -1 without an open socket; -2, with a
    ///         report on standard error, when the call fails
    int sendData(const void* data, int length);

    /// Receives with one recv(2).
    /// @return bytes received; 0 when the peer has closed and -2 when the call fails, both with a
    ///         report on standard error; -1 without an open socket, for null or a length below 1
    int receiveData(void* buffer, int length);

    /// Has the system find out within a minute that the peer of @p connection has vanished, while
    /// nothing is on its way to it.
    static void keepAlive(int connection);
};
