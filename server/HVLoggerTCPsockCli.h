#pragma once

#include "HVLoggerTCPsock.h"

#include <cstdint>
#include <string>
#include <vector>

/// The viewer's end of the connection: owns its socket, which the owner connects, and hands what
/// the server sends to the viewer's message store. There is no reconnection.
///
/// A batch is cut into messages on its own, so one that ended within a message would spoil it. It
/// therefore goes on while bytes keep coming with gaps of a few milliseconds at most. The wait is
/// spent only on a batch that fills a TCP segment: a smaller one nearly always ends where a send of
/// the server did. A flow that does not pause is handed over after 64 KiB, or at the latest after
/// 50 ms, cut at the start of a message.
class HVLoggerTCPsockCli : public HVLoggerTCPsock {
  public:
    using HVLoggerTCPsock::HVLoggerTCPsock;

    /// Reads a batch and hands it to the store. @return false when the server has gone or the read
    /// failed: nothing more will come
    bool onReady(std::int64_t nowUs) override;

    /// Asks the server for all its messages. @return sendData()'s result
    int requestAll();

    /// Has the server write its dump file. @return sendData()'s result
    int requestDump();

    std::string lastText; ///< text of the last batch

  private:
    int sendCommand(Command command);
    [[nodiscard]] bool fillsSegment() const;

    std::vector<char> nextMessage; // start of a message that the last batch was cut in front of
};
