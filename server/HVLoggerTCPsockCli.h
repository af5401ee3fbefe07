#pragma once

#include "HVLoggerReassembly.h"
#include "HVLoggerTCPsock.h"
#include "QELselTimer.h"
#include "QELsocka.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The viewer's end of the connection: owns its socket, connects it, and hands what the server
/// sends to the viewer's message store. There is no reconnection. A server that has vanished is
/// noticed within a minute.
///
/// The store cuts each text into messages on its own, so what may be only the beginning of a
/// message is kept (HVLoggerReassembly) until the rest is there, the server has gone, or a timer
/// tells that nothing more belongs to it. Without a dispatcher, which has the timer, nothing is
/// kept.
class HVLoggerTCPsockCli : public HVLoggerTCPsock {
  public:
    /// What is read at once, at most: keys act in between, and a terminal shows one batch while the
    /// next one is read.
    static constexpr std::size_t batchLimit = 0x4000;

    /// Values of `state`.
    enum State : int {
        stateConnected,  ///< or connected by the owner
        stateConnecting, ///< nothing can be asked for yet
        stateFailed      ///< there is no server
    };

    int state = stateConnected;

    using HVLoggerTCPsock::HVLoggerTCPsock;

    /// Begins to connect the socket, without waiting for it; a dispatcher must be watching the
    /// socket for reading. Once it is connected, everything is asked for.
    void connectTo(const QELsocka& server);

    /// Reads a batch and hands what is whole to the store. @return false when the server has gone
    /// or the read failed: nothing more will come
    bool onReady(std::int64_t nowUs) override;

    /// Asks the server for all its messages; does nothing before there is one. @return sendData()'s
    /// result, or 0
    int requestAll();

    /// Has the server write its dump file; does nothing before there is one. @return as
    /// requestAll()
    int requestDump();

    std::string lastText; ///< what the store was given last

  private:
    /// Learns that the connection stands, or that it does not.
    class Connector : public QELselRcv {
      public:
        explicit Connector(HVLoggerTCPsockCli& client) : owner(client) {}
        bool onReady(std::int64_t nowUs) override;

      private:
        HVLoggerTCPsockCli& owner;
    };

    /// Hands over what is kept when nothing more has come.
    class Silence : public QELselTimer {
      public:
        explicit Silence(HVLoggerTCPsockCli& client) : owner(client) {}
        std::uint64_t onTimer(std::int64_t nowUs) override;

      private:
        HVLoggerTCPsockCli& owner;
    };

    void handOver(std::string text);
    [[nodiscard]] HVLoggerReassembly::Link link() const;
    [[nodiscard]] bool segmentMissing() const;
    int request(Command command, std::string_view report);

    HVLoggerReassembly reassembly;
    Silence silence{*this};
    Connector connector{*this};
};
