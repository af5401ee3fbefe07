#include "HVLoggerLocalLog.h"

#include "QELlogger5_3164.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace {

// What reports of this program's own are logged with.
constexpr const char* programName = "hvlogger";
constexpr int reportPriority = LOG_SYSLOG | LOG_WARNING;

} // namespace

HVLoggerLocalLog::HVLoggerLocalLog(QELlogger5_DEV& logSender)
    : sender(logSender), processId('[' + std::to_string(getpid()) + "]: ") {}

void HVLoggerLocalLog::pass(const std::string& text, const std::string& identity, int priority) {
    compose(text, identity, priority);
    switch (write()) {
    case Result::queueFull:
        ++skipped;
        return;
    case Result::refused:
        QELlogger5_DEV::syslogRaw(text, identity, priority);
        break;
    case Result::taken:
        break;
    }
    // After the line, and only into a further place: a daemon that is always behind would otherwise
    // get reports for lines.
    if (skipped > 0) {
        reportSkipped();
    }
}

void HVLoggerLocalLog::compose(const std::string& text, const std::string& identity, int priority) {
    const std::time_t now = std::time(nullptr);
    if (now != timeTextOf) {
        timeTextOf = now;
        std::tm local{};
        localtime_r(&now, &local);
        timeText = QELlogger5_3164::monthNames[static_cast<std::size_t>(local.tm_mon) + 1];
        std::array<char, sizeof " 31 23:59:60 "> dayAndTime{};
        timeText.append(dayAndTime.data(), std::strftime(dayAndTime.data(), dayAndTime.size(),
                                                         " %e %H:%M:%S ", &local));
    }
    const bool hasFacility = (priority & LOG_FACMASK) != 0;
    record = '<';
    record += std::to_string(hasFacility ? priority : priority | LOG_USER);
    record += '>';
    record += timeText;
    record += identity;
    record += processId;
    record += text;
}

/// Connecting again costs little, and finds the name's socket whatever became of the last one.
void HVLoggerLocalLog::lookUp(Clock::time_point now) {
    if (sender.socket.fd == -1) {
        sender.socket.open(AF_UNIX);
    }
    connected =
        ::connect(sender.socket.fd, sender.destination.sa(), sender.destination.saLen()) == 0;
    lookedUp = now;
}

HVLoggerLocalLog::Result HVLoggerLocalLog::send() const {
    if (!connected) {
        return Result::refused; // the socket may still be connected to the one before
    }
    if (::send(sender.socket.fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        return Result::taken;
    }
    return errno == EAGAIN ? Result::queueFull : Result::refused;
}

HVLoggerLocalLog::Result HVLoggerLocalLog::sendToPresentLog() {
    const Result result = send();
    if (result != Result::refused || !connected) {
        return result;
    }
    lookUp(Clock::now()); // the socket may have been closed just now: the record goes to the next
    return send();
}

HVLoggerLocalLog::Result HVLoggerLocalLog::write() {
    auto now = Clock::now();
    if (!connected || now - lookedUp >= lookupInterval) {
        lookUp(now);
    }
    Result result = sendToPresentLog();
    if (result == Result::taken) {
        patience = standstill;
    }
    while (result == Result::queueFull && skipped == 0 && patience > Clock::duration::zero()) {
        waitForPlace();
        const auto before = std::exchange(now, Clock::now());
        patience -= now - before;
        if (now - lookedUp >= lookupInterval) {
            // A new socket, because what was sent and not read yet may fill the present one's send
            // buffer while the log's queue has room.
            sender.socket.close();
            lookUp(now);
        }
        result = sendToPresentLog(); // another process may have taken the place meanwhile
    }
    return result;
}

/// Not longer than a look-up is good for.
void HVLoggerLocalLog::waitForPlace() const {
    pollfd queue{sender.socket.fd, POLLOUT, 0};
    ::poll(&queue, 1, static_cast<int>(lookupInterval.count()));
}

void HVLoggerLocalLog::reportSkipped() {
    const std::string text = std::to_string(skipped) +
                             (skipped == 1 ? " line was" : " lines were") +
                             " not passed on to the local log";
    compose(text, programName, reportPriority);
    lookUp(Clock::now()); // the count is not to be told to a socket that nobody has any more
    const bool forStreams = !connected && errno == EPROTOTYPE;
    if (forStreams) {
        QELlogger5_DEV::syslogRaw(text, programName, reportPriority);
    }
    if (forStreams || sendToPresentLog() == Result::taken) {
        skipped = 0;
    }
}
