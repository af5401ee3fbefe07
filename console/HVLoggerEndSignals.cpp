#include "HVLoggerEndSignals.h"

#include <initializer_list>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

HVLoggerEndSignals::HVLoggerEndSignals() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT}) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&ending, number);
        }
    }
    descriptor = signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
    sigprocmask(SIG_BLOCK, descriptor < 0 ? nullptr : &ending, &before);
}

HVLoggerEndSignals::~HVLoggerEndSignals() {
    if (descriptor >= 0) {
        close(descriptor);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

bool HVLoggerEndSignals::haveCome() const {
    pollfd signals{descriptor, POLLIN, 0};
    return poll(&signals, 1, 0) == 1;
}

bool HVLoggerEndSignals::onReady(std::int64_t /*nowUs*/) {
    endRequested = true;
    return true;
}
