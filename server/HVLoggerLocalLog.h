#pragma once

#include "QELlogger5_DEV.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

/// Writes lines to the local system log as QELlogger5_DEV::syslogRaw() does, but through a socket
/// that it keeps connected, and never waiting in the kernel: syslog(3) opens, connects and closes a
/// socket for each line, and waits until a log that stands still reads again. Does not own the
/// sender whose socket this is.
///
/// The road of a line:
/// 1. It becomes the record that syslogRaw() would write, byte for byte:
///    "<14>Mar  5 10:20:30 identity[412]: text", in local time.
/// 2. The record is sent to the socket that has the log's name now.
/// 3. If that one's queue is full, the line waits for a place. The queue is short
///    (net.unix.max_dgram_qlen), and a daemon in good health fills it in every burst; so from one
///    line that found a place at once to the next such line, not longer than standstill in all.
/// 4. After that lines are skipped without waiting. When a line finds a place again, another record
///    behind it, this program's own, tells the log how many were skipped.
/// 5. Where no socket takes the record (there is none, or one for streams, or it has no permission)
///    the line goes through syslogRaw() itself, which finds whatever way there is. A log on a
///    stream socket whose daemon stands still is therefore waited for.
class HVLoggerLocalLog {
  public:
    /// Total wait for places in a queue that is always full, until lines are skipped.
    static constexpr std::chrono::milliseconds standstill{20};

    /// How long the socket that was found under the log's name is taken for the present one. While
    /// it is open nothing tells that another one has taken the name.
    static constexpr std::chrono::milliseconds lookupInterval{1};

    /// @param logSender  opened on the log's name, or not open: then there is no log. Must outlive
    ///                   this object, which connects its socket, and now and then makes it anew
    explicit HVLoggerLocalLog(QELlogger5_DEV& logSender);

    /// Passes one line on, or skips it. Text and identity hold no NUL.
    /// @param priority  as of syslogRaw(), without bits beyond facility and severity
    void pass(const std::string& text, const std::string& identity, int priority);

  private:
    using Clock = std::chrono::steady_clock;
    enum class Result { taken, queueFull, refused };

    void compose(const std::string& text, const std::string& identity, int priority);
    void lookUp(Clock::time_point now);
    [[nodiscard]] Result send() const;
    Result sendToPresentLog();
    Result write();
    void waitForPlace() const;
    void reportSkipped();

    QELlogger5_DEV& sender;
    const std::string processId;           ///< as in a record, "[412]: "
    std::string record;                    ///< the present one; its memory serves all
    std::string timeText;                  ///< as in a record, "Mar  5 10:20:30 "
    std::time_t timeTextOf = -1;           ///< the second that timeText tells
    bool connected = false;                ///< whether the last look-up found a datagram socket
    Clock::time_point lookedUp;            ///< when that was
    Clock::duration patience = standstill; ///< what is left of it
    std::uint64_t skipped = 0;             ///< lines not passed on and not reported yet
};
