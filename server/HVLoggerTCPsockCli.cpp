#include "HVLoggerTCPsockCli.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/socket.h>
#include <utility>

namespace {

/// What the system does not tell is 0.
tcp_info connectionInfo(int fd) {
    tcp_info info{};
    socklen_t length = sizeof info;
    static_cast<void>(::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length));
    return info;
}

} // namespace

void HVLoggerTCPsockCli::connectTo(const QELsocka& server) {
    setBlocking(false);
    if (connect(server) != 0 && errno != EINPROGRESS) {
        state = stateFailed;
        return;
    }
    state = stateConnecting;
    selector->addWrite(&connector, fd);
}

bool HVLoggerTCPsockCli::Connector::onReady(std::int64_t /*nowUs*/) {
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(owner.fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        owner.state = stateFailed;
        owner.selRemoveRead(); // there is nothing to read but the same error
        return false;
    }
    owner.state = stateConnected;
    keepAlive(owner.fd);
    owner.requestAll();
    return false;
}

bool HVLoggerTCPsockCli::onReady(std::int64_t nowUs) {
    connFd = fd;
    rxData.resize(batchLimit);
    const int received = receiveData(rxData.data(), batchLimit);
    rxData.resize(static_cast<std::size_t>(std::max(received, 0)));
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
    if (owner.reassembly.isDue(owner.segmentMissing(), nowUs)) {
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
    const tcp_info info = connectionInfo(fd);
    return {info.tcpi_rcv_mss, info.tcpi_rtt};
}

/// Whether the socket holds what cannot be read yet; only meaningful when everything else was read.
bool HVLoggerTCPsockCli::segmentMissing() const {
    std::array<std::uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t length = sizeof memory;
    return ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory.data(), &length) == 0 &&
           memory[SK_MEMINFO_RMEM_ALLOC] > 0;
}

int HVLoggerTCPsockCli::requestAll() {
    return request(cmdSendAll, "Requesting all messages\n\r");
}

int HVLoggerTCPsockCli::requestDump() {
    return request(cmdWriteFile, "Trigger logger server to write a zip file\n\r");
}

int HVLoggerTCPsockCli::request(Command command, std::string_view report) {
    if (state != stateConnected) {
        return 0;
    }
    std::cout << report;
    const std::int32_t value = command;
    const int result = sendData(&value, sizeof value);
    // Nobody is asked for signs of life while a command is not acknowledged: it has the rest of the
    // minute for it.
    constexpr std::uint32_t patienceMs = 55'000;
    constexpr std::uint32_t leastMs = 5'000;
    const std::uint32_t left =
        patienceMs - std::min(connectionInfo(fd).tcpi_last_ack_recv, patienceMs - leastMs);
    setOption(IPPROTO_TCP, TCP_USER_TIMEOUT, &left, sizeof left);
    return result;
}
