#include "HVLoggerOutput.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

HVLoggerOutput::HVLoggerOutput(std::ostream& buffered, int output, int interrupt)
    : stream(buffered), formerly(buffered.rdbuf(this)), outputFd(output), interruptFd(interrupt) {
    setp(buffer.data(), buffer.data() + buffer.size());
}

HVLoggerOutput::~HVLoggerOutput() {
    const auto state = stream.rdstate();
    HVLoggerOutput::sync();
    stream.rdbuf(formerly);
    stream.setstate(state);
}

HVLoggerOutput::int_type HVLoggerOutput::overflow(int_type c) {
    if (sync() != 0) {
        return traits_type::eof();
    }
    return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                           : sputc(traits_type::to_char_type(c));
}

/// What could not be written is dropped: errno says why.
int HVLoggerOutput::sync() {
    const char* next = pbase();
    const char* const end = pptr();
    setp(buffer.data(), buffer.data() + buffer.size());
    while (next != end) {
        const ssize_t written = write(outputFd, next, static_cast<std::size_t>(end - next));
        if (written < 0 && errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        next += written > 0 ? written : 0;
        if (next != end && !waitForRoom()) {
            return -1;
        }
    }
    return 0;
}

bool HVLoggerOutput::waitForRoom() {
    std::array<pollfd, 2> waiting{{{outputFd, POLLOUT, 0}, {interruptFd, POLLIN, 0}}};
    while (poll(waiting.data(), waiting.size(), -1) < 0 && errno == EINTR) {
    }
    if (waiting[0].revents == 0) {
        outputFd = -1;
    }
    return outputFd >= 0;
}
