#include "QELselTimer.h"

#include "QELselector.h"

QELselTimer::~QELselTimer() {
    cancel();
}

bool QELselTimer::setDeadline(std::uint64_t deadline) {
    return selector != nullptr && selector->setTimer(this, deadline);
}

bool QELselTimer::setTimeout(std::uint64_t delay) {
    return setDeadline(static_cast<std::uint64_t>(QELselector::nowUs()) + delay);
}

void QELselTimer::cancel() {
    if (selector != nullptr) {
        selector->cancelTimer(this);
    }
}

void QELselTimer::selExit(std::int32_t code) const {
    if (selector != nullptr) {
        selector->setExitCode(code);
    }
}
