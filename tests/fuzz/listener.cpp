// Datagrams into the listener, with a system log of its own at /dev/log: for
// tests/support/isolated.sh. The input is a row of datagrams, each ended by the byte 0xFF.

#include "HVLoggerListener.h"
#include "HVLoggerVocabulary.h"
#include "QELsockaddrUNX.h"
#include "check.h"

#include <algorithm>
#include <sys/socket.h>

struct Mediator : QELmediator {
    int announced = 0;
    int dumps = 0;
    void notify(int /*destinationId*/, int messageType, void* /*payload*/) override {
        ++(messageType == msgWriteFile ? dumps : announced);
    }
};

void target(std::string_view input) {
    static QELsockBase systemLog;
    QELsockaddrUNX device;
    device.set("/dev/log");
    if (systemLog.fd < 0 && (systemLog.open(AF_UNIX), systemLog.bind(device)) != 0) {
        std::_Exit(77); // the machine's own is there
    }
    Mediator mediator;
    HVLoggerListener listener(&mediator);
    listener.init(600, {}); // a few messages fill it
    for (int given = 0, logged = 0; !input.empty(); ++given) {
        const std::string_view datagram = input.substr(0, input.find('\xFF'));
        input.remove_prefix(std::min(input.size(), datagram.size() + 1));
        listener.onLogMessage(exactText(datagram).get(), static_cast<int>(datagram.size()));
        for (char byte = 0; recv(systemLog.fd, &byte, 1, MSG_DONTWAIT) >= 0;) {
            ++logged;
        }
        require(mediator.announced + mediator.dumps == given + 1 && mediator.announced == logged,
                "each asks for a dump, or is announced and one record in the system log");
    }
}
