#include "HVLoggerTCPsockCli.h"

#include "HVLoggerVocabulary.h"

#include <iostream>

bool HVLoggerTCPsockCli::onReady(std::int64_t /*nowUs*/) {
    connFd = fd;
    const int received = readBatch();
    if (received < 0) {
        std::cout << "Rcv: error\r\n";
        return false;
    }
    if (received == 0) {
        std::cout << "Rcv: nothing\r\n";
    }
    if (rxData.empty()) {
        return false;
    }
    lastText.assign(rxData.begin(), rxData.end());
    mediator->notify(idStore, msgAddMessages, &lastText);
    return true;
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
