#pragma once

#include "HVLoggerTCPsock.h"

#include <cstdint>
#include <string>

/// The viewer's end of the connection: owns its socket, which the owner connects, and hands what
/// the server sends to the viewer's message store. There is no reconnection.
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
};
