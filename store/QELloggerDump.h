#pragma once

#include "QELloggerSyslogMsg.h"

#include <list>

/// The dump of a message store: writes its messages to a file in a folder where others can plant
/// something, and has a shell in the background compress that file and move it to its place (the
/// job). Owns one descriptor, by which it tells whether its last job still runs; nobody waits for a
/// job, and it outlives the dump.
class QELloggerDump {
  public:
    enum Result : int {
        fileWritten = 0,        ///< written, and by start() the job started
        fileNotOpened = -1,     ///< the file could not be opened, or is none to write to
        fileShort = -2,         ///< not all could be written: the file is closed and incomplete
        fileNotCompressed = -3, ///< the shell could not be run or failed
        fileBusy = -4           ///< not begun: the last job has not moved its file yet
    };

    QELloggerDump() = default;
    ~QELloggerDump();
    QELloggerDump(const QELloggerDump&) = delete;
    QELloggerDump& operator=(const QELloggerDump&) = delete;

    /// Writes the raw text of each of @p messages, followed by a line feed, to the file @p path,
    /// which is created or truncated. What is there already must be a regular file that has no
    /// other name: a link of either kind, a FIFO or a device is left as it is.
    /// @return fileWritten, fileNotOpened or fileShort
    static Result write(const std::list<QELloggerSyslogMsg>& messages, const char* path);

    /// Writes @p messages to "/tmp/logger.txt" and starts the job, which moves the compressed file
    /// to @p target with ".gz" appended. Until it has, a further call does nothing: it would
    /// rewrite the file under gzip.
    /// @param target  goes into the shell command unquoted: no blanks, no shell metacharacters
    Result start(const std::list<QELloggerSyslogMsg>& messages, const char* target);

  private:
    [[nodiscard]] bool jobIsBusy() const;

    /// The read end of a pipe whose write end only the last job has; -1 before the first one.
    int jobPipe = -1;
};
