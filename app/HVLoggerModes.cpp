#include "HVLoggerModes.h"

#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

void neverWait(int fd) {
    struct stat status = {};
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fstat(fd, &status) != 0 || S_ISREG(status.st_mode)) {
        return; // a file takes everything, where its description stands
    }
    const int ownFlags = (flags & O_ACCMODE) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int own = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), ownFlags);
    if (own < 0 && tcgetsid(fd) >= 0) {
        own = open("/dev/tty", ownFlags); // the controlling terminal, whoever owns it
    }
    if (own >= 0) {
        dup2(own, fd);
        close(own);
    } else if (isatty(fd) == 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

bool watch(QELselector& dispatcher, QELselRcv& receiver, int fd) {
    if (dispatcher.addRead(&receiver, fd)) {
        return true;
    }
    std::cerr << "Cannot watch descriptor " << fd << ": too many are open" << std::endl;
    return false;
}
