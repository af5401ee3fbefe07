#include "HVLoggerTCPsockCli.h"

#include "HVLoggerVocabulary.h"
#include "QELloggerSyslogFmt.h"
#include "QELselector.h"

#include <cstddef>
#include <iostream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

// Where a flow that does not pause is cut.
constexpr std::size_t batchLimit = 0x10000;
constexpr std::int64_t batchLimitUs = 50'000;
constexpr int gapMs = 8; // a slow link's bursts are a few milliseconds apart

/// Whether bytes, not just the peer's end, arrive within the given time.
bool bytesArrive(int fd, int milliseconds) {
    pollfd waiting{fd, POLLIN, 0};
    int count = 0;
    return poll(&waiting, 1, milliseconds) == 1 && ioctl(fd, FIONREAD, &count) == 0 && count > 0;
}

/// Where the last message in the text starts; 0 if that is where the text starts.
std::size_t lastMessageStart(std::string_view text) {
    std::size_t start = text.size();
    while (start > 0 && (start = text.rfind('<', start - 1)) != std::string_view::npos) {
        std::size_t offset = 0;
        std::size_t length = 0;
        // Header or not, the longest one ends within this piece.
        constexpr std::size_t longestHeader = 16;
        if (QELloggerSyslogFmt::findHeader(text.substr(start, longestHeader), offset, length) &&
            offset == 0) {
            return start;
        }
    }
    return 0;
}

} // namespace

bool HVLoggerTCPsockCli::onReady(std::int64_t nowUs) {
    connFd = fd;
    rxData.swap(nextMessage);
    nextMessage.clear();
    const bool continued = !rxData.empty();
    int received = readArrived(batchLimit);
    bool flowing = false;
    while (received > 0 && (continued || fillsSegment()) && bytesArrive(connFd, gapMs)) {
        flowing = rxData.size() >= batchLimit ||
                  QELselector::nowUs() - nowUs >= batchLimitUs - std::int64_t{gapMs} * 1000;
        if (flowing) {
            break;
        }
        received = readArrived(batchLimit);
    }
    if (received < 0) {
        std::cout << "Rcv: error\r\n";
    }
    if (received == 0) {
        std::cout << "Rcv: nothing\r\n";
    }
    if (rxData.empty()) {
        return false;
    }
    // What came before a failure is not lost with it.
    std::size_t end = rxData.size();
    if (flowing) {
        // The rest of the last message is there already: the next cycle begins with it.
        if (const std::size_t start = lastMessageStart({rxData.data(), end}); start > 0) {
            end = start;
        }
    }
    lastText.assign(rxData.data(), end);
    nextMessage.assign(rxData.data() + end, rxData.data() + rxData.size());
    mediator->notify(idStore, msgAddMessages, &lastText);
    return received >= 0;
}

bool HVLoggerTCPsockCli::fillsSegment() const {
    int segment = 0;
    socklen_t length = sizeof segment;
    return getsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, &length) == 0 &&
           rxData.size() >= static_cast<std::size_t>(segment);
}

int HVLoggerTCPsockCli::requestAll() {
    std::cout << "Requesting all messages\n\r";
    return sendCommand(cmdSendAll);
}

int HVLoggerTCPsockCli::requestDump() {
    std::cout << "Trigger logger server to write a zip file\n\r";
    return sendCommand(cmdWriteFile);
}

int HVLoggerTCPsockCli::sendCommand(Command command) {
    const std::int32_t value = command;
    return sendData(&value, sizeof value);
}
