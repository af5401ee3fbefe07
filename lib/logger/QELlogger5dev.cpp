#include "QELlogger5dev.h"

QELlogger5dev::QELlogger5dev(std::string_view host, std::string_view application) {
    devSender.open("/dev/log");
    setup(host, application, &formatter5424, &devSender);
}
