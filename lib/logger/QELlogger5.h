#pragma once

#include "QELgregorian.h"

#include <array>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

/// How severe a statement is: the scale of syslog (RFC 5424, table 2).
enum QELseverity : std::int32_t {
    sevEmergency, ///< the system is unusable
    sevAlert,     ///< action must be taken at once
    sevCritical,  ///< a critical condition
    sevError,     ///< an error
    sevWarning,   ///< a warning
    sevNotice,    ///< normal but significant
    sevInfo,      ///< informational
    sevDebug      ///< for those who look for a fault
};

/// The logger of a process: turns each log statement into one syslog line and hands it to a
/// transport. Owns neither its formatter nor its sender: both must outlive the last statement, and
/// the logger the last use of its streams.
///
/// The way of a statement:
///  1. The process writes it to the stream of a severity and flushes:
///     `stream(sevInfo) << "up" << std::endl`.
///  2. The flush hands everything written since the last one to log().
///  3. log() drops it if it is less severe than `maxSeverity`.
///  4. The formatter makes one line of it, the sender transports the line.
///
/// A severity is one of QELseverity; a plain number will do as well.
///
/// A logger with its streams and its sender belongs to one thread at a time. Nothing here throws,
/// except that memory may run out.
class QELlogger5 {
  public:
    /// Makes the line of a statement.
    class Formatter {
      public:
        /// @param severity  the statement's, not checked
        /// @param hostName, appName  as the logger was set up, not checked
        /// @param text      the statement, including a line feed that the caller wrote at its end
        /// @return the finished line
        [[nodiscard]] virtual std::string format(int severity, std::string_view hostName,
                                                 std::string_view appName,
                                                 std::string_view text) const = 0;

      protected:
        /// Formatters are never destroyed through this interface.
        ~Formatter() = default;
    };

    /// Transports a finished line.
    class Sender {
      public:
        /// @return 0 when the whole line was handed to the transport, -1 otherwise
        virtual int send(std::string_view line) = 0;

      protected:
        /// Senders are never destroyed through this interface.
        ~Sender() = default;
    };

    /// The stream of one severity, its own stream buffer; does not own the logger that holds it.
    /// Each flush makes one statement of what was written since the last one, even if that is
    /// nothing. Text that is not flushed when the stream ends is dropped.
    class Streamer : public std::stringbuf, public std::ostream {
      public:
        Streamer(QELlogger5* logger, std::int32_t level);

        QELlogger5* owner;     ///< not owned
        std::int32_t severity; ///< of every statement written here

      protected:
        /// Logs the content and empties the buffer, whatever the result.
        /// @return the result of log(); -1 makes the stream bad: it ignores output until clear()
        int sync() override;
    };

    /// A UTC time in its calendar fields.
    using TimeParts = QELgregorianTime;

    QELlogger5();
    QELlogger5(const QELlogger5&) = delete; // the streamers point back to their logger
    QELlogger5& operator=(const QELlogger5&) = delete;

    /// Names the process and hands in its formatter and its sender, not owned. May be called again.
    void setup(std::string_view newHostName, std::string_view newAppName,
               const Formatter* newFormatter, Sender* newSender);

    /// The stream whose flushes log at @p severity; one below 0 counts as 0, one above 7 as 7. A
    /// failed statement leaves this one stream bad, until the caller calls clear() on it.
    std::ostream& stream(int severity);

    /// Logs one statement.
    /// @return the sender's result; 0 for a statement above `maxSeverity`, which is dropped;
    ///         -1 without formatter or sender
    int log(std::string_view text, int severity) const;

    /// The system clock as a library time, QELgregorian.h.
    static std::uint64_t utcNowUs();

    /// The calendar fields of any library time.
    static TimeParts breakDownUtc(std::uint64_t time);

    std::array<Streamer, 8> streamers;    ///< element i logs at severity i
    std::string hostName;                 ///< this machine's name in the line
    std::string appName;                  ///< this process's name in the line
    const Formatter* formatter = nullptr; ///< not owned
    Sender* sender = nullptr;             ///< not owned
    std::int32_t maxSeverity = sevInfo;   ///< statements above it are dropped: debug, by default
};
