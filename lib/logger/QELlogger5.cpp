#include "QELlogger5.h"

#include "QELclock.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace {

constexpr std::size_t largeStatement = 4096; // more than any line of it holds

} // namespace

QELlogger5::Streamer::Streamer(QELlogger5* logger, std::int32_t level)
    : std::ostream(static_cast<std::stringbuf*>(this)), owner(logger), severity(level) {}

int QELlogger5::Streamer::sync() {
    const std::size_t size = view().size();
    const int result = owner->log(view(), severity);
    if (size > largeStatement) {
        std::move(*this).str(); // gives the buffer's storage back
    }
    str(std::string()); // keeps it for the next statement
    return result;
}

QELlogger5::QELlogger5()
    : streamers{Streamer(this, sevEmergency), Streamer(this, sevAlert),
                Streamer(this, sevCritical),  Streamer(this, sevError),
                Streamer(this, sevWarning),   Streamer(this, sevNotice),
                Streamer(this, sevInfo),      Streamer(this, sevDebug)} {}

void QELlogger5::setup(std::string_view newHostName, std::string_view newAppName,
                       const Formatter* newFormatter, Sender* newSender) {
    hostName = newHostName;
    appName = newAppName;
    formatter = newFormatter;
    sender = newSender;
}

std::ostream& QELlogger5::stream(int severity) {
    return streamers[static_cast<std::size_t>(std::clamp<int>(severity, sevEmergency, sevDebug))];
}

int QELlogger5::log(std::string_view text, int severity) const {
    if (formatter == nullptr || sender == nullptr) {
        return -1;
    }
    if (severity > maxSeverity) {
        return 0;
    }
    return sender->send(formatter->format(severity, hostName, appName, text));
}

std::uint64_t QELlogger5::utcNowUs() {
    return static_cast<std::uint64_t>(nowUtc());
}

QELlogger5::TimeParts QELlogger5::breakDownUtc(std::uint64_t time) {
    return gregorianFromMicros(time);
}
