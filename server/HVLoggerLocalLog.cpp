#include "HVLoggerLocalLog.h"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>

void HVLoggerLocalLog::pass(const std::string& text, const std::string& identity, int priority) {
    if (!takesLine()) {
        ++skipped;
        return;
    }
    QELlogger5_DEV::syslogRaw(text, identity, priority);
    // After the line, and only into a further place: a daemon that is always behind would otherwise
    // get reports for lines.
    if (skipped > 0) {
        reportSkipped();
    }
}

bool HVLoggerLocalLog::takesLine() {
    const auto now = Clock::now();
    if (now - lookedUp >= lookupInterval) {
        lookUp(now);
    }
    if (!present || hasPlace(std::chrono::milliseconds::zero())) {
        patience = standstill;
        return true;
    }
    if (skipped > 0) {
        return false;
    }
    const bool taken = hasPlace(std::chrono::duration_cast<std::chrono::milliseconds>(patience));
    patience = std::max(patience - (Clock::now() - now), Clock::duration::zero());
    return taken;
}

void HVLoggerLocalLog::reportSkipped() {
    lookUp(Clock::now()); // the count is not to be told to a socket that nobody has any more
    if (!present || !hasPlace(std::chrono::milliseconds::zero())) {
        return;
    }
    const std::string text = std::to_string(skipped) +
                             (skipped == 1 ? " line was" : " lines were") +
                             " not passed on to the local log";
    QELlogger5_DEV::syslogRaw(text, "hvlogger", LOG_SYSLOG | LOG_WARNING);
    skipped = 0;
}

void HVLoggerLocalLog::lookUp(Clock::time_point now) {
    lookedUp = now;
    present = ::connect(sender.socket.fd, sender.destination.sa(), sender.destination.saLen()) == 0;
}

bool HVLoggerLocalLog::hasPlace(std::chrono::milliseconds timeout) const {
    pollfd queue{sender.socket.fd, POLLOUT, 0};
    return ::poll(&queue, 1, static_cast<int>(timeout.count())) == 1;
}
