#include "QELlogger5_DEV.h"

#include <sys/socket.h>
#include <syslog.h>

int QELlogger5_DEV::open(const char* path) {
    const int result = socket.open(AF_UNIX);
    if (result == 0) {
        destination.set(path);
    }
    return result;
}

int QELlogger5_DEV::send(std::string_view line) {
    const int sent = socket.sendTo(line.data(), static_cast<unsigned>(line.size()), destination);
    return sent >= 0 && static_cast<std::size_t>(sent) == line.size() ? 0 : -1;
}

int QELlogger5_DEV::syslogRaw(const std::string& text, const std::string& identity, int priority) {
    // The C library keeps the pointer to the identity until closelog().
    openlog(identity.c_str(), LOG_PID | LOG_NDELAY | LOG_NOWAIT, LOG_USER);
    syslog(priority, "%s", text.c_str()); // NOLINT(*-vararg): syslog(3) is
    closelog();
    return 0;
}
