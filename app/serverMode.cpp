#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerModes.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELlogger5srvSel.h"
#include "QELselector.h"
#include "QELsockaddr4.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sys/socket.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

std::atomic<bool> appRunning = true;

void onSignal(int signalNumber) {
    if (signalNumber == SIGINT) {
        appRunning = false;
    }
}

namespace {

/// Says one line on standard output, also after one that could not be written.
template <class... Part>
void say(const Part&... parts) {
    std::cout.clear();
    (std::cout << ... << parts) << std::endl;
}

} // namespace

int runServer(std::uint32_t address, const std::vector<std::string>& programNames) {
#ifdef __GLIBC__
    // Listings, and what is kept for a slow viewer, go back to the system instead of staying in the
    // heap; by default this limit moves up with each large buffer that is freed (mallopt(3)).
    constexpr int mappedFrom = 0x20000;
    mallopt(M_MMAP_THRESHOLD, mappedFrom);
#endif
    // A terminal, pipe or socket that takes nothing now costs the text, not the time of those who
    // log.
    neverWait(STDOUT_FILENO);
    neverWait(STDERR_FILENO);
    say("***** Halvane logger *****");
    std::signal(SIGINT, onSignal);

    QELlogger5srvSel logServer;
    if (logServer.open(loggerPort) != 0) {
        say("Cannot listen at logger port ", loggerPort);
        return -1;
    }
    // A whole burst before other descriptors are looked at, but never a wait for one datagram more.
    logServer.datagramsAtOnce = 64;
    logServer.socket.setBlocking(false);

    HVLoggerMediator mediator;
    HVLoggerListener listener(&mediator);
    // Without a local system log messages are still collected and shown.
    static_cast<void>(listener.init(storeCapacity, programNames));
    logServer.listener = &listener;

    HVLoggerTCPsockSrv tcpServer(&mediator);
    QELsockaddr4 viewerAddress;
    viewerAddress.setAddr(address);
    viewerAddress.setPort(loggerPort);
    if (tcpServer.open(AF_INET, SOCK_STREAM) != 0) {
        say("Cannot open tcp logger");
        return -1;
    }
    tcpServer.connFd = tcpServer.fd;
    // What a former server's viewers have left of their connections is not in the way.
    const int on = 1;
    tcpServer.setOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (tcpServer.bind(viewerAddress) != 0) {
        say("Cannot bind to port: ", viewerAddress.port());
        return -1;
    }
    if (tcpServer.startListening() != 0) {
        say("Cannot listen on port: ", viewerAddress.port());
        return -1;
    }

    mediator.addComponent(idListener, &listener);
    mediator.addComponent(idTcpServer, &tcpServer);

    QELselector dispatcher;
    if (!watch(dispatcher, logServer, logServer.socket.fd) ||
        !watch(dispatcher, tcpServer, tcpServer.getSelectFd())) {
        return -1;
    }
    tcpServer.collecting = true;
    while (appRunning) {
        // Listening socket or viewer connection: whichever the state asks for now. The log port was
        // opened before them, so its burst comes first in a cycle.
        dispatcher.addRead(&tcpServer, tcpServer.getSelectFd());
        const int result = dispatcher.runOnce();
        tcpServer.sendCollected(); // all that this cycle had for the viewer, in one send
        if (result < 0) {
            say("Select error ", result);
            return result;
        }
    }
    return 0;
}
