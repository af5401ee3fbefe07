#include "HVLoggerTCPsockSrv.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::uint64_t acceptRetryUs = 1'000'000;
/// What a viewer sends faster than it is read must not keep the server from its datagrams.
constexpr std::size_t commandsLimit = 0x2000;

} // namespace

HVLoggerTCPsockSrv::~HVLoggerTCPsockSrv() {
    if (state == stateConnected) {
        ::close(connFd);
    }
}

int HVLoggerTCPsockSrv::startListening() {
    return ::listen(fd, backlog);
}

int HVLoggerTCPsockSrv::getSelectFd() const {
    switch (state) {
    case stateListening:
        return pause.armed ? -1 : fd;
    case stateConnected:
        return viewerEnded ? -1 : connFd;
    default:
        return 0;
    }
}

bool HVLoggerTCPsockSrv::onReady(std::int64_t /*nowUs*/) {
    switch (state) {
    case stateListening:
        acceptViewer();
        return true;
    case stateConnected:
        return receiveCommands();
    default:
        return true;
    }
}

bool HVLoggerTCPsockSrv::acceptViewer() {
    const int accepted = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted >= QELselector::descriptorLimit) {
        ::close(accepted);
        return false;
    }
    if (accepted < 0) {
        if (selector != nullptr) {
            selector->setTimer(&pause,
                               static_cast<std::uint64_t>(QELselector::nowUs()) + acceptRetryUs);
            selRemoveRead();
        }
        return false;
    }
    connFd = accepted;
    state = stateConnected;
    // The end of a message is not to wait until what went before is acknowledged.
    const int on = 1;
    static_cast<void>(::setsockopt(connFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    watch.start(connFd, selector);
    // A second viewer makes the listening socket ready: not watched, it waits without waking
    // anyone.
    selRemoveRead();
    return true;
}

bool HVLoggerTCPsockSrv::receiveCommands() {
    rxData.resize(commandsLimit);
    const int received = receiveData(rxData.data(), commandsLimit);
    rxData.resize(received > 0 ? static_cast<std::size_t>(received) : 0);
    if (received < 0) {
        return false;
    }
    if (received == 0) {
        viewerEnded = true;
        sendCollected();
        return false;
    }
    handleCommand();
    return true;
}

void HVLoggerTCPsockSrv::handleCommand() {
    std::int32_t command = 0;
    if (rxData.size() < sizeof command) {
        return;
    }
    std::memcpy(&command, rxData.data(), sizeof command);
    if (command == cmdSendAll) {
        std::string listing;
        mediator->notify(idListener, msgGetAllRaw, &listing);
        sendToViewer(std::move(listing));
    } else if (command == cmdWriteFile) {
        std::string fileName = dumpFileName;
        mediator->notify(idListener, msgWriteFile, fileName.data());
    }
}

void HVLoggerTCPsockSrv::forwardNewest() {
    if (state != stateConnected || viewerEnded) {
        return;
    }
    newest.clear();
    mediator->notify(idListener, msgGetNewestRaw, &newest);
    sendToViewer(std::move(newest));
}

void HVLoggerTCPsockSrv::sendToViewer(std::string&& text) {
    outbox.append(std::move(text));
    if (!collecting) {
        sendCollected();
    }
}

void HVLoggerTCPsockSrv::sendCollected() {
    // The watch is on the dispatcher as long as a viewer is connected.
    if (!outbox.send(connFd, watch.selector)) {
        hangUp();
    }
    hangUpIfDone();
}

void HVLoggerTCPsockSrv::hangUpIfDone() {
    if (viewerEnded && outbox.empty()) {
        hangUp();
    }
}

/// Before the descriptor is closed nothing may watch it any longer: its number is soon another's.
void HVLoggerTCPsockSrv::hangUp() {
    watch.cancel();
    outbox.clear();
    selRemoveRead();
    ::close(connFd);
    connFd = fd;
    state = stateListening;
    viewerEnded = false;
}
