#include "HVLoggerOutputWatch.h"

#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

int HVLoggerOutputWatch::fd() {
    const int output = fileno(stdout);
    struct stat status {};
    const bool pipe = fstat(output, &status) == 0 && S_ISFIFO(status.st_mode);
    // Opened for reading too, a pipe is readable when it holds data and never loses its last
    // reader.
    return pipe && (fcntl(output, F_GETFL) & O_ACCMODE) == O_WRONLY ? output : -1;
}

bool HVLoggerOutputWatch::readerHasGone() {
    pollfd output{fileno(stdout), 0, 0};
    return poll(&output, 1, 0) == 1;
}

bool HVLoggerOutputWatch::onReady(std::int64_t /*nowUs*/) {
    readerGone = true;
    return false;
}
