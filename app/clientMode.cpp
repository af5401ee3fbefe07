#include "HVLoggerKeyboard.h"
#include "HVLoggerMediator.h"
#include "HVLoggerModes.h"
#include "HVLoggerOutputWatch.h"
#include "HVLoggerTCPsockCli.h"
#include "HVLoggerTerminalFilter.h"
#include "HVLoggerVocabulary.h"
#include "QELloggerSyslogFmt.h"
#include "QELselector.h"
#include "QELsockaddr4.h"

#include <cstdio>
#include <iostream>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

int runClient(const char* invocationName, std::uint32_t address,
              const std::vector<std::string>& programNames) {
    std::optional<HVLoggerTerminalFilter> terminalFilter;
    if (isatty(fileno(stdout)) != 0) {
        terminalFilter.emplace(std::cout);
    }
    QELselector dispatcher;
    HVLoggerMediator mediator;
    HVLoggerTCPsockCli tcpClient(&mediator);
    HVLoggerOutputWatch outputWatch;
    HVLoggerKeyboard keyboard(&mediator);
    QELloggerSyslogFmt store;
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

    if (tcpClient.connect(serverAddress) != 0) {
        std::cout << invocationName << ": Cannot connect to server" << std::endl;
        return 0;
    }

    dispatcher.addRead(&tcpClient, tcpClient.fd);
    dispatcher.addRead(&keyboard, HVLoggerKeyboard::fd());
    dispatcher.addRead(&outputWatch, HVLoggerOutputWatch::fd());
    tcpClient.requestAll();

    for (;;) {
        // What this cycle printed is on the screen before the next one waits.
        if (!std::cout.flush()) {
            if (HVLoggerOutputWatch::readerHasGone()) {
                return 0;
            }
            std::perror("standard output");
            return -1;
        }
        const bool nothingMoreToCome =
            tcpClient.selector == nullptr && keyboard.selector == nullptr;
        if (keyboard.quitRequested || outputWatch.readerGone || nothingMoreToCome) {
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
