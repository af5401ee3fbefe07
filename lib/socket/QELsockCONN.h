#pragma once

#include "QELsockBase.h"

#include <cstdint>

/// Owns one socket descriptor, as QELsockBase does, and adds the operations of connections. An
/// object that has been moved from is released and is left to its destruction.
///
/// Sends raise SIGPIPE when the peer has closed; a process that does not want to end by it ignores
/// the signal and gets errSend.
class QELsockCONN : public QELsockBase {
  public:
    /// Closes what is open and creates a socket.
    ///
    /// @param domain  AF_INET, AF_UNIX, ...
    /// @param type    SOCK_STREAM, ...
    /// @return 0; errCreate (no socket is open then)
    std::int32_t open(std::int32_t domain, std::int32_t type);

    /// Binds the socket to a local address; unlike the base's, silent.
    /// @return 0; errClosed, errBind
    std::int32_t bind(const QELsocka& address);

    /// Lets peers connect.
    /// @param backlog  how many connections may wait to be accepted
    /// @return 0; errClosed, errBind
    std::int32_t listen(std::int32_t backlog);

    /// Waits for a peer to connect.
    ///
    /// @param connection  closed first, then given the connection's descriptor; a released object
    ///                    stays released and does not own it
    /// @param peer        set to the peer's address on success; null when not wanted
    /// @return 0; errClosed (nothing is done then), errAccept
    std::int32_t accept(QELsockBase& connection, QELsockaddr* peer = nullptr);

    /// Connects to a peer.
    /// @return 0; errClosed; errWouldBlock when the failure is EAGAIN, errConnect for any other (a
    ///         non-blocking socket that goes on connecting included: EINPROGRESS)
    std::int32_t connect(const QELsocka& address);

    /// Sends to the peer.
    /// @return bytes sent; errArgument, errClosed, errWouldBlock, errSend
    std::int32_t send(const void* buffer, unsigned length);

    /// Receives from the peer.
    /// @return bytes received, 0 when the peer has closed; errArgument, errClosed, errWouldBlock,
    ///         errReceive
    std::int32_t recv(void* buffer, unsigned length);

    /// The same with a timeout in microseconds.
    /// @return as the plain form; errTimeout
    std::int32_t recv(void* buffer, unsigned length, std::int32_t timeout);
};
