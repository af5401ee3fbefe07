#include "HVLoggerEndSignals.h"
#include "HVLoggerKeyboard.h"
#include "HVLoggerMediator.h"
#include "HVLoggerModes.h"
#include "HVLoggerOutput.h"
#include "HVLoggerOutputWatch.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTerminalFilter.h"
#include "HVLoggerVocabulary.h"
#include "QELloggerSyslogFmt.h"
#include "QELselector.h"
#include "QELsockaddr4.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

int runClient(const char* invocationName, std::uint32_t address,
              const std::vector<std::string>& programNames) {
    HVLoggerEndSignals endSignals; // first: last to go
    neverWait(STDOUT_FILENO);
    neverWait(STDERR_FILENO);
    HVLoggerOutput output(std::cout, STDOUT_FILENO, endSignals.fd());
    std::optional<HVLoggerTerminalFilter> terminalFilter;
    if (isatty(STDOUT_FILENO) != 0) {
        terminalFilter.emplace(std::cout);
    }
    QELselector dispatcher;
    HVLoggerMediator mediator;
    HVLoggerTCPsockCli tcpClient(&mediator);
    HVLoggerOutputWatch outputWatch;
    HVLoggerKeyboard keyboard(&mediator);
    // Never destroyed: at the end the system takes its memory back at once, not message by message.
    static QELloggerSyslogFmt& store = *new QELloggerSyslogFmt;
    store.addComponents(storeCapacity, programNames);
    store.consoleEcho = true;

    if (tcpClient.open(AF_INET, SOCK_STREAM) == 0) {
        tcpClient.connFd = tcpClient.fd;
    }
    QELsockaddr4 serverAddress;
    serverAddress.setPort(loggerPort);
    serverAddress.setAddr(address);

    mediator.addComponent(idTcpClient, &tcpClient);
    mediator.addComponent(idKeyboard, &keyboard);
    mediator.addComponent(idStore, &store);

    if (!watch(dispatcher, endSignals, endSignals.fd()) ||
        !watch(dispatcher, keyboard, HVLoggerKeyboard::fd())) {
        return -1;
    }
    dispatcher.addRead(&outputWatch, HVLoggerOutputWatch::fd());
    if (tcpClient.fd >= 0 && !watch(dispatcher, tcpClient, tcpClient.fd)) {
        return -1;
    }
    tcpClient.connectTo(serverAddress);
    keyboard.endHeldBack = true; // until there is a server

    for (;;) {
        if (tcpClient.state == HVLoggerTCPsockCli::stateFailed) {
            std::cout << invocationName << ": Cannot connect to server" << std::endl;
            return 0;
        }
        // What this cycle printed is on the screen before the next one waits.
        if (!std::cout.flush()) {
            const int error = errno;
            if (endSignals.haveCome() || HVLoggerOutputWatch::readerHasGone()) {
                return 0;
            }
            errno = error;
            std::perror("standard output");
            return -1;
        }
        if (keyboard.endHeldBack && tcpClient.state == HVLoggerTCPsockCli::stateConnected) {
            keyboard.endHeldBack = false;
            dispatcher.addRead(&keyboard, HVLoggerKeyboard::fd());
        }
        const bool nothingMoreToCome =
            tcpClient.selector == nullptr && keyboard.selector == nullptr;
        const bool hungUp = keyboard.selector == nullptr && HVLoggerOutputWatch::readerHasGone();
        if (keyboard.quitRequested || endSignals.endRequested || outputWatch.readerGone || hungUp ||
            nothingMoreToCome) {
            return 0;
        }
        const int result = dispatcher.runOnce();
        if (result < 0) {
            std::perror("select");
            std::cout << "Select error " << result << std::endl;
            return result;
        }
    }
}
