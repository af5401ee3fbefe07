#pragma once

#include "HVLoggerTCPsock.h"
#include "QELselTimer.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The server's end of the viewer connection: owns the listening socket and, while a viewer is
/// there, its connection. One viewer at a time; others wait in the backlog, and meanwhile the
/// listening socket is not watched.
///
/// A viewer never holds up the server. What its connection cannot take at once is kept in order and
/// sent as the connection becomes writable; a viewer that leaves more than pendingLimit bytes
/// unread is disconnected, and so is one that has vanished: the connection's keep-alive finds it
/// when nothing is sent, and acknowledgements that stay away when something is.
///
/// The owner opens and binds the socket, sets connFd to it, calls startListening(), and registers
/// this receiver for reading under getSelectFd() before every dispatcher cycle.
class HVLoggerTCPsockSrv : public HVLoggerTCPsock {
  public:
    static constexpr int backlog = 5;

    /// Values of `state`.
    enum State : int {
        stateListening = 0, ///< no viewer; the listening socket is watched
        stateConnected = 1  ///< a viewer is connected on connFd, which is watched
    };

    int state = stateListening;

    using HVLoggerTCPsock::HVLoggerTCPsock;
    ~HVLoggerTCPsockSrv() override;
    HVLoggerTCPsockSrv(const HVLoggerTCPsockSrv&) = delete;
    HVLoggerTCPsockSrv& operator=(const HVLoggerTCPsockSrv&) = delete;

    /// Starts listening on the own socket. @return listen(2)'s result
    int startListening();

    /// The descriptor to watch in the present state; -1 while nothing is to be read: the viewer has
    /// ended its side and is still being sent to, or the system refuses connections.
    [[nodiscard]] int getSelectFd() const;

    /// Accepts a viewer, or reads its commands. @return false when this cycle's registration ends:
    /// the connection has closed, or the read failed
    bool onReady(std::int64_t nowUs) override;

    /// Accepts the viewer that is waiting on the listening socket. Nothing is read yet: its
    /// connection says itself when a command is there.
    /// @return false, still listening and about to try again, when the system refuses
    bool acceptViewer();

    /// Reads a batch and obeys the command at its start. @return false when the viewer has gone
    /// (listening again) or the read failed
    bool receiveCommands();

    /// Obeys the command in the first 4 bytes of rxData; the rest of a batch is ignored, like fewer
    /// than 4 bytes and unknown commands.
    void handleCommand();

    /// Sends the newest stored message to the viewer, if one is connected.
    void forwardNewest();

    /// What the viewer's connection could not take yet, at most.
    static constexpr std::size_t pendingLimit = 0x400000; // 4 MiB

  private:
    /// Sends what is pending when the connection is writable.
    class Writer : public QELselRcv {
      public:
        explicit Writer(HVLoggerTCPsockSrv& server) : owner(server) {}
        bool onReady(std::int64_t nowUs) override;

      private:
        HVLoggerTCPsockSrv& owner;
    };

    /// Looks now and then whether the viewer still acknowledges what it was sent; without a viewer,
    /// ends the pause after the system refused one.
    class Watch : public QELselTimer {
      public:
        explicit Watch(HVLoggerTCPsockSrv& server) : owner(server) {}
        std::uint64_t onTimer(std::int64_t nowUs) override;

      private:
        HVLoggerTCPsockSrv& owner;
    };

    void startWatch(std::uint64_t intervalUs);
    void sendToViewer(std::string_view text);
    std::size_t sendNow(std::string_view text);
    [[nodiscard]] bool viewerVanished() const;
    void hangUp();

    bool unwatched = false; // see getSelectFd()
    std::string pending;    // accepted for the viewer and not sent yet, oldest first
    Writer writer{*this};
    Watch watch{*this};
};
