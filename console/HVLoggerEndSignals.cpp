#include "HVLoggerEndSignals.h"

#include <initializer_list>
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
    if (caught != 0) {
        static_cast<void>(raise(caught));
    }
}

bool HVLoggerEndSignals::haveCome() {
    signalfd_siginfo signal{};
    if (read(descriptor, &signal, sizeof signal) == sizeof signal) {
        caught = static_cast<int>(signal.ssi_signo);
    }
    return caught != 0;
}

bool HVLoggerEndSignals::onReady(std::int64_t /*nowUs*/) {
    haveCome();
    return true;
}
