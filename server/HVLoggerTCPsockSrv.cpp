#include "HVLoggerTCPsockSrv.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A silent viewer is asked for a sign of life after 15 s, then every 10 s, and given up after the
// fourth time: within 60 s of silence (tcp(7)).
constexpr int keepAliveIdleSeconds = 15;
constexpr int keepAliveIntervalSeconds = 10;
constexpr int keepAliveProbes = 4;
// The same for a viewer that is being sent something: the kernel alone would go on for 15 minutes.
constexpr std::uint64_t watchIntervalUs = 10'000'000;
constexpr unsigned unacknowledgedLimitMs = 40'000;
constexpr std::uint64_t acceptRetryUs = 100'000;
/// A server reads what a viewer sends in one go as one batch, of which only the start counts.
constexpr std::size_t commandsLimit = 0x400000;

void keepAlive(int connection) {
    const auto set = [connection](int level, int option, int value) {
        // Can only fail on what is no TCP connection.
        static_cast<void>(::setsockopt(connection, level, option, &value, sizeof value));
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, keepAliveIdleSeconds);
    set(IPPROTO_TCP, TCP_KEEPINTVL, keepAliveIntervalSeconds);
    set(IPPROTO_TCP, TCP_KEEPCNT, keepAliveProbes);
}

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
    if (unwatched) {
        return -1;
    }
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
        // A viewer that the system cannot take now would wake the server in every cycle.
        if (selector != nullptr) {
            unwatched = true;
            startWatch(acceptRetryUs);
            selRemoveRead();
        }
        return false;
    }
    connFd = accepted;
    state = stateConnected;
    keepAlive(connFd);
    if (selector != nullptr) {
        startWatch(watchIntervalUs);
    }
    // A second viewer makes the listening socket ready: not watched, it waits without waking
    // anyone.
    selRemoveRead();
    return true;
}

bool HVLoggerTCPsockSrv::receiveCommands() {
    rxData.clear();
    const int received = readArrived(commandsLimit);
    if (received < 0) {
        return false;
    }
    if (received == 0) {
        // It has nothing more to say, but may still read what it asked for.
        unwatched = !pending.empty();
        if (!unwatched) {
            hangUp();
        }
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
        sendToViewer(listing);
    } else if (command == cmdWriteFile) {
        std::string fileName = dumpFileName;
        mediator->notify(idListener, msgWriteFile, fileName.data());
    }
}

void HVLoggerTCPsockSrv::forwardNewest() {
    if (state != stateConnected || unwatched) {
        return;
    }
    std::string newest;
    mediator->notify(idListener, msgGetNewestRaw, &newest);
    sendToViewer(newest);
}

void HVLoggerTCPsockSrv::sendToViewer(std::string_view text) {
    if (pending.empty()) {
        text.remove_prefix(sendNow(text));
    }
    if (text.empty()) {
        return;
    }
    if (pending.size() + text.size() > pendingLimit) {
        hangUp();
        return;
    }
    pending.append(text);
    if (selector != nullptr) {
        selector->addWrite(&writer, connFd);
    }
}

/// Sends what the connection takes at once. A connection that fails takes everything: its viewer
/// has gone, and reading from it will tell.
std::size_t HVLoggerTCPsockSrv::sendNow(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const ssize_t sent = ::send(connFd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
        return static_cast<std::size_t>(sent);
    }
    if (errno == EAGAIN || errno == EINTR) {
        return 0;
    }
    std::perror("send");
    return text.size();
}

bool HVLoggerTCPsockSrv::Writer::onReady(std::int64_t /*nowUs*/) {
    owner.pending.erase(0, owner.sendNow(owner.pending));
    if (!owner.pending.empty()) {
        return true;
    }
    owner.pending.shrink_to_fit();
    if (owner.unwatched) {
        owner.hangUp();
    }
    return false;
}

void HVLoggerTCPsockSrv::startWatch(std::uint64_t intervalUs) {
    selector->setTimer(&watch, static_cast<std::uint64_t>(QELselector::nowUs()) + intervalUs);
}

std::uint64_t HVLoggerTCPsockSrv::Watch::onTimer(std::int64_t nowUs) {
    if (owner.state == stateListening) {
        owner.unwatched = false;
        return 0;
    }
    if (owner.viewerVanished()) {
        owner.hangUp();
        return 0;
    }
    return static_cast<std::uint64_t>(nowUs) + watchIntervalUs;
}

bool HVLoggerTCPsockSrv::viewerVanished() const {
    tcp_info info{};
    socklen_t length = sizeof info;
    return ::getsockopt(connFd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           info.tcpi_unacked > 0 && info.tcpi_last_ack_recv >= unacknowledgedLimitMs;
}

/// Before the descriptor is closed nothing may watch it any longer: its number is soon another's.
void HVLoggerTCPsockSrv::hangUp() {
    watch.cancel();
    writer.selRemoveWrite();
    selRemoveRead();
    ::close(connFd);
    connFd = fd;
    state = stateListening;
    unwatched = false;
    pending.clear();
    pending.shrink_to_fit();
}
