#include "HVLoggerTCPsockSrv.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

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
        return fd;
    case stateConnected:
        return connFd;
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
    if (accepted < 0) {
        return false;
    }
    connFd = accepted;
    state = stateConnected;
    // A second viewer makes the listening socket ready: not watched, it waits without waking
    // anyone.
    selRemoveRead();
    return true;
}

bool HVLoggerTCPsockSrv::receiveCommands() {
    const int received = readBatch();
    if (received < 0) {
        return false;
    }
    if (received == 0) {
        ::close(connFd);
        connFd = fd;
        state = stateListening;
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
        sendData(listing.data(), static_cast<int>(listing.size()));
    } else if (command == cmdWriteFile) {
        std::string fileName = dumpFileName;
        mediator->notify(idListener, msgWriteFile, fileName.data());
    }
}

void HVLoggerTCPsockSrv::forwardNewest() {
    if (state != stateConnected) {
        return;
    }
    std::string newest;
    mediator->notify(idListener, msgGetNewestRaw, &newest);
    sendData(newest.data(), static_cast<int>(newest.size()));
}
