#pragma once

#include "HVLoggerOutbox.h"
#include "HVLoggerTCPsock.h"
#include "HVLoggerViewerWatch.h"
#include "QELselTimer.h"

#include <cstdint>
#include <string>

/// The server's end of the viewer connection: owns the listening socket and, while a viewer is
/// there, its connection. One viewer at a time; others wait in the backlog, and meanwhile the
/// listening socket is not watched.
///
/// A viewer never holds up the server. What its connection cannot take at once waits in an
/// HVLoggerOutbox; a viewer that leaves more there than its limit is disconnected, and so is one
/// that has vanished (HVLoggerViewerWatch).
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

    /// Whether listings and messages are collected until the owner calls sendCollected(), after
    /// every dispatcher cycle. Otherwise each is sent at once.
    bool collecting = false;

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
    /// @return false, still listening, when the system refuses (it is asked again after a pause) or
    ///         gives a descriptor that no dispatcher takes (the viewer is turned away)
    bool acceptViewer();

    /// Reads a batch, 8 KiB at most, and obeys the command at its start. @return false when the
    /// viewer has gone (listening again) or the read failed
    bool receiveCommands();

    /// Obeys the command in the first 4 bytes of rxData; the rest of a batch is ignored, like fewer
    /// than 4 bytes and unknown commands.
    void handleCommand();

    /// Sends the newest stored message to the viewer, if one is connected that has not ended its
    /// side.
    void forwardNewest();

    /// Sends in one go what has been collected for the viewer.
    void sendCollected();

  private:
    /// Armed while the listening socket is not watched because the system refused a connection,
    /// which would wake the server in every cycle.
    struct Pause : QELselTimer {
        std::uint64_t onTimer(std::int64_t /*nowUs*/) override { return 0; }
    };

    void sendToViewer(std::string&& text);
    void hangUpIfDone();
    void hangUp();

    std::string newest;       // what is being forwarded; its memory serves all messages
    bool viewerEnded = false; // nothing more comes from the viewer, but it may still read
    HVLoggerOutbox outbox{[this] {
        hangUpIfDone();
    }};
    HVLoggerViewerWatch watch{[this] {
        hangUp();
    }};
    Pause pause;
};
