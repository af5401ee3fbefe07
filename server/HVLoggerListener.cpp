#include "HVLoggerListener.h"

#include "HVLoggerVocabulary.h"

#include <string_view>
#include <syslog.h>

namespace {

constexpr const char* logDevice = "/dev/log";
/// What a text without a readable priority is logged with: RFC 3164, 4.3.3.
constexpr int defaultPriority = LOG_USER | LOG_NOTICE;
/// What of a priority says something. For more the C library would log a complaint of its own.
constexpr int priorityBits = LOG_FACMASK | LOG_PRIMASK;

} // namespace

HVLoggerListener::HVLoggerListener(QELmediator* notified) : mediator(notified) {}

int HVLoggerListener::init(std::uint32_t newCapacity,
                           const std::vector<std::string>& programNames) {
    addComponents(newCapacity, programNames);
    return devLog.open(logDevice);
}

int HVLoggerListener::startRateLimit() {
    return rateLimiter.start(rateLimit, capacity);
}

void HVLoggerListener::onLogMessage(const char* text, int /*length*/) {
    const std::string_view datagram = text;
    if (datagram.find(dumpTriggerMarker) != std::string_view::npos) {
        if (mediator != nullptr) {
            std::string fileName = dumpFileName;
            mediator->notify(idListener, msgWriteFile, fileName.data());
        }
        return;
    }
    if (rateLimiter.running && rateLimiter.tokens == 0) {
        return;
    }
    rateLimiter.take(static_cast<std::uint32_t>(datagram.size()));

    append(datagram);

    // The system log gets the datagram as one record, whatever the store made of it.
    messageText.clear();
    identity.clear();
    std::int32_t facility = 0;
    std::int32_t severity = 0;
    getText(datagram, messageText);
    const int priority = parsePriority(datagram, facility, severity);
    getAppName(datagram, identity);
    localLog.pass(messageText, identity, priority < 0 ? defaultPriority : priority & priorityBits);

    if (mediator != nullptr) {
        mediator->notify(idTcpServer, msgNewMessage, nullptr);
    }
}
