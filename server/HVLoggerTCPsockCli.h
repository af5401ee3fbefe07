#pragma once

#include "HVLoggerReassembly.h"
#include "HVLoggerTCPsock.h"
#include "QELselTimer.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// The viewer's end of the connection: owns its socket, which the owner connects, and hands what
/// the server sends to the viewer's message store. There is no reconnection.
///
/// The store cuts each text into messages on its own, so what may be only the beginning of a
/// message is kept (HVLoggerReassembly) until the rest is there, the server has gone, or a timer
/// tells that nothing more belongs to it. Without a dispatcher, which has the timer, nothing is
/// kept.
class HVLoggerTCPsockCli : public HVLoggerTCPsock {
  public:
    /// What is read at once, at most: keys act in between.
    static constexpr std::size_t batchLimit = 0x10000;

    using HVLoggerTCPsock::HVLoggerTCPsock;

    /// Reads a batch and hands what is whole to the store. @return false when the server has gone
    /// or the read failed: nothing more will come
    bool onReady(std::int64_t nowUs) override;

    /// Asks the server for all its messages. @return sendData()'s result
    int requestAll();

    /// Has the server write its dump file. @return sendData()'s result
    int requestDump();

    std::string lastText; ///< what the store was given last

  private:
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
    int sendCommand(Command command);

    HVLoggerReassembly reassembly;
    Silence silence{*this};
};
