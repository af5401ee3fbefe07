#pragma once

#include "HVLoggerTCPsock.h"

#include <cstdint>

/// The server's end of the viewer connection: owns the listening socket and, while a viewer is
/// there, its connection. One viewer at a time; others wait in the backlog, and meanwhile the
/// listening socket is not watched.
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

    /// The descriptor to watch in the present state.
    int getSelectFd() const;

    /// Accepts a viewer, or reads its commands. @return false when the connection is to be watched
    /// no longer: it has closed, or the read failed
    bool onReady(std::int64_t nowUs) override;

    /// Accepts the viewer that is waiting on the listening socket. Nothing is read yet: its
    /// connection says itself when a command is there.
    /// @return false, still listening, when the system refuses
    bool acceptViewer();

    /// Reads a batch and obeys the command at its start. @return false when the viewer has gone
    /// (listening again) or the read failed
    bool receiveCommands();

    /// Obeys the command in the first 4 bytes of rxData; the rest of a batch is ignored, like fewer
    /// than 4 bytes and unknown commands.
    void handleCommand();

    /// Sends the newest stored message to the viewer, if one is connected.
    void forwardNewest();
};
