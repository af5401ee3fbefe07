#pragma once

#include "HVLoggerLocalLog.h"
#include "QELlogger5_DEV.h"
#include "QELlogger5srvSel.h"
#include "QELloggerSyslogFmt.h"
#include "QELmediator.h"
#include "QELtokenBucket.h"

#include <cstdint>
#include <string>
#include <vector>

/// The server's side of one log line: is the message store, owns the sender to the local system log
/// and the rate limiter, and does not own the mediator. Each datagram is stored, passed on to the
/// local system log unless that stands still (HVLoggerLocalLog), and announced to the TCP server;
/// one that holds the trigger marker makes the store write its dump instead.
class HVLoggerListener : public QELlogger5srvSel::Listener, public QELloggerSyslogFmt {
  public:
    static constexpr std::uint32_t rateLimit = 10000; ///< tokens per second of startRateLimit()

    /// @param notified  takes every notification; null: none are made. Must outlive the listener
    explicit HVLoggerListener(QELmediator* notified);

    /// Sets up the store (addComponents()) and opens the sender on "/dev/log".
    /// @return 0, or the sender's code; messages are passed on either way
    int init(std::uint32_t newCapacity, const std::vector<std::string>& programNames);

    /// Starts refusing datagrams above a rate: while the limiter holds no token they are dropped
    /// silently, and one that passes takes its length in bytes. Off unless called.
    /// @return the limiter's result, QELtokenBucket::start()
    int startRateLimit();

    /// Takes one datagram; the text counts up to its first NUL, @p length is not used.
    void onLogMessage(const char* text, int length) override;

    QELmediator* mediator;      ///< not owned
    QELlogger5_DEV devLog;      ///< to the local system log
    QELtokenBucket rateLimiter; ///< stopped

  private:
    HVLoggerLocalLog localLog{devLog};
    std::string messageText; ///< of the present datagram; its memory serves all
    std::string identity;    ///< of the present datagram
};
