#pragma once

#include "QELsocka.h"
#include "QELsockaddr.h"

#include <cstdint>
#include <functional>
#include <string>
#include <sys/socket.h>

/// Owns one socket descriptor and closes it when destroyed, unless a move has handed it on. Holds
/// what all sockets can do and the datagram operations; QELsockCONN adds connections.
///
/// Operations return 0 or a byte count, or one of the negative codes below; the system's error
/// number (errno) is then as the failing call left it. A socket is blocking with the system's
/// defaults until told otherwise, and no child process inherits its descriptor (close-on-exec).
///
/// Every transfer (sendTo(), recvFrom() and the derived ones)
/// - gives errArgument for a null buffer or a length of 0, then errClosed when no socket is open;
/// - gives errWouldBlock when the system reports EAGAIN (a non-blocking socket that cannot go on);
/// - may transfer less than asked for, and 0 bytes: an empty datagram, or a peer that closed.
///
/// A timed receive waits at most its timeout for the socket to become readable, in microseconds on
/// the monotonic clock whatever signals arrive meanwhile, and gives errTimeout when it did not; a
/// negative timeout means no such wait: it receives at once, blocking as the socket does.
class QELsockBase {
  public:
    static constexpr std::int32_t errWouldBlock = -2890; ///< the call failed with EAGAIN
    static constexpr std::int32_t errTimeout = -2891;    ///< a timed receive timed out
    static constexpr std::int32_t errReceive = -2892;    ///< a receive failed
    static constexpr std::int32_t errSend = -2893;       ///< a send failed
    static constexpr std::int32_t errConnect = -2894;    ///< connect failed
    static constexpr std::int32_t errAccept = -2895;     ///< accept failed
    static constexpr std::int32_t errBind = -2896;       ///< bind or listen failed
    static constexpr std::int32_t errClosed = -2897;     ///< no socket is open
    static constexpr std::int32_t errCreate = -2898;     ///< the socket could not be created
    static constexpr std::int32_t errArgument = -2899;   ///< null buffer or zero length

    /// Largest time to live that setMulticastTTL() takes.
    static constexpr unsigned maxMulticastTTL = 128;

    /// Observer of transfers: whether it was a send, the system call's own result (-1 included),
    /// the buffer and the length asked for.
    using IoHook =
        std::function<void(bool sent, std::int32_t result, const void* buffer, unsigned length)>;

    QELsockBase() = default;

    /// Takes over the descriptor of @p other, but not its hook. @p other is released: it keeps the
    /// number in `fd` but never closes it again. Moving from an object that is released already
    /// would make a second owner.
    QELsockBase(QELsockBase&& other) noexcept;

    /// Closes this socket and takes over the descriptor of @p other, which is released as above.
    /// This object's own hook and `released` stay as they are: a released object does not become
    /// an owner by this. Moving an object to itself changes nothing.
    QELsockBase& operator=(QELsockBase&& other) noexcept;

    QELsockBase(const QELsockBase&) = delete;
    QELsockBase& operator=(const QELsockBase&) = delete;

    ~QELsockBase();

    /// Closes the descriptor and sets `fd` to -1. Does nothing when no socket is open or the object
    /// is released (`fd` then keeps its number).
    void close();

    /// Closes what is open and creates a datagram socket.
    /// @param domain  AF_INET, AF_UNIX, ...
    /// @return 0; errCreate (no socket is open then)
    std::int32_t open(std::int32_t domain);

    /// Binds the socket to a local address. A failure is also reported on standard output, as a
    /// line such as "Address already in use: 0.0.0.0:50000".
    /// @return 0; errClosed, errBind
    std::int32_t bind(const QELsocka& address);

    /// Sends one datagram.
    /// @return bytes sent; errArgument, errClosed, errWouldBlock, errSend
    std::int32_t sendTo(const void* buffer, unsigned length, const QELsocka& destination);

    /// Receives one datagram; what is longer than the buffer is lost.
    ///
    /// @param sender  set to the sender's address when bytes were received, otherwise untouched;
    ///                null when not wanted
    /// @return bytes received; errArgument, errClosed, errWouldBlock, errReceive
    std::int32_t recvFrom(void* buffer, unsigned length, QELsockaddr* sender = nullptr);

    /// The same with a timeout in microseconds. A failing receive is also reported on standard
    /// output, as a line with the system's error text.
    /// @return as the plain form; errTimeout
    std::int32_t recvFrom(void* buffer, unsigned length, std::int32_t timeout,
                          QELsockaddr* sender = nullptr);

    /// The same with the time of reception.
    ///
    /// @param received  nanoseconds since 1970-01-01 00:00:00 UTC, read right after the receive
    ///                  whatever its result; 0 after a timeout; untouched with errArgument and
    ///                  errClosed
    std::int32_t recvFrom(void* buffer, unsigned length, std::int32_t timeout,
                          std::int64_t& received, QELsockaddr* sender = nullptr);

    /// setsockopt(2) on this socket.
    /// @return 0; -1 on any failure
    int setOption(int level, int name, const void* value, socklen_t length);

    /// True: a close sends what is still unsent, as the system does by default. False: a close
    /// discards unsent data and resets the connection (SO_LINGER with time 0, socket(7)).
    /// @return 0; -1 on any failure
    int setGracefulClose(bool graceful);

    /// Joins a multicast group on the interface with the given address (both in host order, 0.0.0.0
    /// for the system's choice of interface).
    /// @return 0; -1 on any failure
    int joinGroup(std::uint32_t group, std::uint32_t interfaceAddr);

    /// Sets the time to live of multicast datagrams sent.
    /// @return 0; -1 on any failure; -2, with nothing done, when @p ttl exceeds maxMulticastTTL
    int setMulticastTTL(unsigned ttl);

    /// Whether the socket is open and its operations block.
    [[nodiscard]] bool isBlocking() const;

    /// Makes the socket's operations block, or give errWouldBlock instead.
    /// @return 0 or more; errClosed; -1 when the system refuses
    std::int32_t setBlocking(bool blocking);

    /// The system's text for the current error number.
    [[nodiscard]] static std::string errorText();

    /// Whether the current error number is EAGAIN.
    [[nodiscard]] static bool wouldBlock();

    std::int32_t fd = -1;  ///< the descriptor; -1 when no socket is open
    IoHook ioHook;         ///< when set, called after the system call of every transfer
    bool released = false; ///< a move has handed the descriptor on: this object never closes it

  protected:
    /// What the two kinds of socket share. A negative timeout means no wait; null pointers mean not
    /// wanted (received, sender) or connected (destination).
    std::int32_t create(std::int32_t domain, std::int32_t type);
    std::int32_t bindTo(const QELsocka& address);
    std::int32_t transmit(const void* buffer, unsigned length, const QELsocka* destination);
    std::int32_t receive(void* buffer, unsigned length, std::int32_t timeout,
                         std::int64_t* received, QELsockaddr* sender);

  private:
    [[nodiscard]] std::int32_t refusal(const void* buffer, unsigned length) const;
    std::int32_t finish(bool sent, std::int32_t result, const void* buffer, unsigned length);
};
