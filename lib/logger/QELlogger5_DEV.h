#pragma once

#include "QELlogger5.h"
#include "QELsockBase.h"
#include "QELsockaddrUNX.h"

#include <string>

/// Sends to the local system log: finished lines through a socket that it owns, or texts through
/// syslog(3).
class QELlogger5_DEV : public QELlogger5::Sender {
  public:
    /// Opens the socket and names the system log's own, usually "/dev/log". Nothing is connected:
    /// the system log may come, go and come back between two lines.
    /// @return 0, or the socket layer's code, after which `destination` is unchanged
    int open(const char* path);

    /// @return 0 when the whole line was sent; -1 for an empty line, before open(), and while
    ///         nothing reads the destination
    int send(std::string_view line) override;

    /// Logs @p text, which counts up to its first NUL, through syslog(3) under the program name
    /// @p identity and with this process's id. Replaces what the process set with openlog(3).
    /// @param priority  facility and severity; facility 0 stands for LOG_USER. For bits beyond the
    ///                  two (1024 and more) the C library logs a complaint of its own first
    /// @return 0, whether or not the system log can be reached
    static int syslogRaw(const std::string& text, const std::string& identity, int priority);

    QELsockBase socket;         ///< datagram socket, closed with the sender
    QELsockaddrUNX destination; ///< where send() sends to
};
