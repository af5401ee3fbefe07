#include "QELselRcv.h"

#include "QELselector.h"

QELselRcv::~QELselRcv() {
    if (registeredWith != nullptr) {
        registeredWith->forget(*this);
    }
}

void QELselRcv::selRemoveWrite() {
    if (selector != nullptr) {
        selector->removeWrite(this);
        selector = nullptr;
    }
}

void QELselRcv::selRemoveRead() {
    if (selector != nullptr) {
        selector->removeRead(this);
        selector = nullptr;
    }
}

void QELselRcv::selRemoveExcept() {
    if (selector != nullptr) {
        selector->removeExcept(this);
        selector = nullptr;
    }
}

void QELselRcv::selExit(std::int32_t code) const {
    if (selector != nullptr) {
        selector->setExitCode(code);
    }
}
