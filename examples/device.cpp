/// device ADDRESS:PORT
///
/// A process of the device in one thread: takes a neighbour's heartbeats, datagrams to that
/// address, and logs as "router" when they begin and when none has come for a while.

#include "QELlogger5.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_UDP.h"
#include "QELselRcv.h"
#include "QELselTimer.h"
#include "QELselector.h"

#include <array>
#include <iostream>

namespace {

struct Silence final : QELselTimer {
    explicit Silence(QELlogger5& ownLogger) : logger(ownLogger) {}
    std::uint64_t onTimer(std::int64_t /*nowUs*/) override {
        logger.stream(sevWarning) << "Neighbour silent" << std::flush;
        return 0; // until the next heartbeat sets it
    }
    QELlogger5& logger;
};

struct Neighbour final : QELselRcv {
    Neighbour(QELlogger5& ownLogger, QELselTimer& timer) : logger(ownLogger), silence(timer) {}
    bool onReady(std::int64_t /*nowUs*/) override {
        std::array<char, 100> heartbeat{};
        QELsockaddr sender;
        if (socket.recvFrom(heartbeat.data(), heartbeat.size(), &sender) > 0) {
            if (!silence.armed) {
                logger.stream(sevInfo) << "Neighbour " << sender.toString(false) << std::flush;
            }
            silence.setTimeout(500'000);
        }
        return true; // goes on listening
    }
    QELlogger5& logger;
    QELselTimer& silence;
    QELsockBase socket;
};

} // namespace

int main(int argc, char** argv) {
    QELlogger5_5424 formatter;
    QELlogger5_UDP sender;
    sender.open(50000);
    QELlogger5 logger;
    logger.setup("dev01", "router", &formatter, &sender);

    Silence silence(logger);
    Neighbour neighbour(logger, silence);
    QELsockaddr4 address;
    if (argc != 2 || !address.set(argv[1], -1) || neighbour.socket.open(AF_INET) != 0 ||
        neighbour.socket.bind(address) != 0) {
        std::cerr << "usage: device ADDRESS:PORT\n";
        return 1;
    }
    QELselector dispatcher;
    dispatcher.setTimer(&silence, 0); // not armed yet
    dispatcher.addRead(&neighbour, neighbour.socket.fd);
    while (dispatcher.runOnce() >= 0) {
    }
    return 1;
}
