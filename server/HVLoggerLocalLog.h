#pragma once

#include "QELlogger5_DEV.h"

#include <chrono>
#include <cstdint>
#include <string>

/// Passes lines on to the local system log, but not while the log stands still: syslog(3) waits for
/// a place in the queue of the log's socket, and would wait until the log's daemon reads again.
/// Does not own the sender, through whose socket it looks at the queue.
///
/// A full queue alone is no standstill: the queue is short (net.unix.max_dgram_qlen), and a daemon
/// in good health fills it in every burst. Lines therefore wait for a place, but from one that
/// found a place at once to the next such one not longer than standstill in all. After that lines
/// are skipped without waiting, until the daemon has caught up; one line of this program's own then
/// tells the log how many.
///
/// Without a log, or with one that does not take datagrams, every line goes to syslog(3).
class HVLoggerLocalLog {
  public:
    /// Total wait for places in a queue that is always full, until lines are skipped.
    static constexpr std::chrono::milliseconds standstill{20};

    /// How long the socket found under the log's name is taken for the present one. A daemon that
    /// ended leaves no trace on the socket, and another one may have taken the name.
    static constexpr std::chrono::milliseconds lookupInterval{1};

    /// @param logSender  opened on the log's name, or not open: then there is no log. Must outlive
    ///                   this object
    explicit HVLoggerLocalLog(QELlogger5_DEV& logSender) : sender(logSender) {}

    /// Passes one line on, as QELlogger5_DEV::syslogRaw(), or skips it. Waits longer than
    /// standstill only if another process takes the place that was just seen free.
    void pass(const std::string& text, const std::string& identity, int priority);

  private:
    using Clock = std::chrono::steady_clock;

    void lookUp(Clock::time_point now);
    [[nodiscard]] bool hasPlace(std::chrono::milliseconds timeout) const;
    bool takesLine();
    void reportSkipped();

    QELlogger5_DEV& sender;
    Clock::time_point lookedUp;            ///< when the name was last looked up
    bool present = false;                  ///< whether a datagram socket was found then
    Clock::duration patience = standstill; ///< what is left of it
    std::uint64_t skipped = 0;             ///< lines not passed on and not reported yet
};
