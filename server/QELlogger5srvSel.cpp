#include "QELlogger5srvSel.h"

#include <iostream>

bool QELlogger5srvSel::onReady(std::int64_t /*nowUs*/) {
    int length = 0;
    if (const char* text = receive(&length)) {
        onMessage(text, length);
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
