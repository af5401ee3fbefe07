#include "HVLoggerTCPsockCli.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <algorithm>
#include <iostream>
#include <linux/tcp.h> // the C library's does not know what is out of order
#include <netinet/in.h>
#include <string_view>
#include <sys/socket.h>
#include <utility>

bool HVLoggerTCPsockCli::onReady(std::int64_t nowUs) {
    connFd = fd;
    char buffer[batchLimit];
    const int received = receiveData(buffer, sizeof buffer);
    rxData.assign(buffer, buffer + std::max(received, 0));
    const std::string_view batch(rxData.data(), rxData.size());
    if (received <= 0 || reassembly.isEndedBy(batch)) {
        handOver(reassembly.release());
    }
    if (received <= 0) {
        std::cout << (received < 0 ? "Rcv: error\r\n" : "Rcv: nothing\r\n");
        silence.cancel();
        return false;
    }
    handOver(reassembly.take(batch, link(), nowUs));
    if (selector == nullptr) {
        handOver(reassembly.release());
    } else {
        reassembly.listen(QELselector::nowUs());
        selector->setTimer(&silence, static_cast<std::uint64_t>(reassembly.dueUs()));
    }
    return true;
}

std::uint64_t HVLoggerTCPsockCli::Silence::onTimer(std::int64_t nowUs) {
    if (owner.reassembly.isDue(owner.link(), nowUs)) {
        owner.handOver(owner.reassembly.release());
    }
    return static_cast<std::uint64_t>(owner.reassembly.dueUs());
}

void HVLoggerTCPsockCli::handOver(std::string text) {
    if (!text.empty()) {
        lastText = std::move(text);
        mediator->notify(idStore, msgAddMessages, &lastText);
    }
}

HVLoggerReassembly::Link HVLoggerTCPsockCli::link() const {
    tcp_info info{};
    socklen_t length = sizeof info;
    // What the system does not tell stays 0.
    static_cast<void>(::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length));
    return {info.tcpi_rcv_mss, info.tcpi_rtt, info.tcpi_rcv_ooopack};
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
