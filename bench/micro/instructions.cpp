// A fixed input for bench/micro/instructions.py, which counts what it takes under callgrind. The
// store is full before anything is counted.
//   instructions append COUNT   COUNT datagrams into the store alone
//   instructions cycle COUNT    COUNT cycles of the server, each with one datagram: received,
//                               stored, passed to /dev/log, sent to a viewer. Takes port 50000 and
//                               /dev/log: for namespaces of its own
#include "HVLoggerListener.h"
#include "HVLoggerMediator.h"
#include "HVLoggerTCPsockSrv.h"
#include "HVLoggerVocabulary.h"
#include "QELlogger5srvSel.h"
#include "QELselector.h"
#include "QELsockaddr4.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const std::string message = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - " +
                            std::string(95, 'x'); // 147 bytes in all

void fill(QELloggerSyslogFmt& store) {
    store.addComponents(0, {"prothandler", "sip", "nmos", "router", "sap"});
    for (std::size_t i = 0; i <= store.capacity / message.size(); ++i) {
        store.append(message);
    }
}

int append(int count) {
    QELloggerSyslogFmt store;
    fill(store);
    for (int i = 0; i < count; ++i) {
        store.append(message);
    }
    return 0;
}

int cycle(int count) {
    const sockaddr_un device{AF_UNIX, "/dev/log"};
    unlink(device.sun_path);
    const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    HVLoggerMediator mediator;
    HVLoggerListener listener(&mediator);
    HVLoggerTCPsockSrv tcpServer(&mediator);
    QELlogger5srvSel logServer;
    const QELsockaddr4 address = QELsockaddr4::loopback(50000);
    if (bind(log, reinterpret_cast<const sockaddr*>(&device), sizeof device) != 0 ||
        logServer.open(address.port()) != 0 || tcpServer.open(AF_INET, SOCK_STREAM) != 0 ||
        tcpServer.bind(address) != 0 || tcpServer.startListening() != 0 ||
        listener.init(0, {}) != 0) {
        std::perror("instructions");
        return 1;
    }
    tcpServer.connFd = tcpServer.fd;
    fill(listener);
    logServer.listener = &listener;
    mediator.addComponent(idListener, &listener);
    mediator.addComponent(idTcpServer, &tcpServer);
    const int viewer = socket(AF_INET, SOCK_STREAM, 0);
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    if (connect(viewer, address.sa(), address.saLen()) != 0 || !tcpServer.acceptViewer() ||
        connect(sender, address.sa(), address.saLen()) != 0) {
        std::perror("instructions");
        return 1;
    }
    QELselector dispatcher;
    dispatcher.addRead(&logServer, logServer.socket.fd);
    std::string taken(9000, '\0');
    for (int i = 0; i < count; ++i) {
        send(sender, message.data(), message.size(), 0);
        dispatcher.addRead(&tcpServer, tcpServer.getSelectFd());
        dispatcher.runOnce();
        if (recv(log, taken.data(), taken.size(), 0) < 1 ||
            recv(viewer, taken.data(), taken.size(), 0) < 1) {
            return 1;
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 3 ? argv[1] : "";
    const int count = argc == 3 ? std::atoi(argv[2]) : 0;
    return mode == "append" ? append(count) : mode == "cycle" ? cycle(count) : 2;
}
