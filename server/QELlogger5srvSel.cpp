#include "QELlogger5srvSel.h"

#include <iostream>

bool QELlogger5srvSel::onReady(std::int64_t /*nowUs*/) {
    for (unsigned datagrams = 0; datagrams < datagramsAtOnce; ++datagrams) {
        const int length = read();
        if (length < 0) {
            break; // nothing more is waiting, or a passing error
        }
        if (length > 0) {
            onMessage(rxBuffer.get(), length);
        }
    }
    return true;
}

void QELlogger5srvSel::onMessage(const char* text, int length) {
    if (listener != nullptr) {
        listener->onLogMessage(text, length);
    } else {
        std::cout << text << std::endl;
    }
}
