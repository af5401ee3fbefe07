#include "HVLoggerModes.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

/// A descriptor from 0 to 2 that the caller left closed would be taken by a socket, and the log
/// would be read from the keyboard's or written to the screen's place.
void occupyStandardDescriptors() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

int usage(const char* invocationName) {
    std::cout << "Usage: " << invocationName << " server/client [ip]" << std::endl;
    return -1;
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    // The screen gets a few large writes, not one a line; nothing here mixes in C's output.
    std::ios::sync_with_stdio(false);
    if (argc != 2 && argc != 3) {
        return usage(argv[0]);
    }
    const std::string mode = argv[1];
    const std::vector<std::string> programNames = {"prothandler", "sip", "nmos", "router", "sap"};
    const bool server = mode == "server";
    const bool client = mode == "client";
    if (!server && !client) {
        return 0;
    }
    const char* addressText = argc == 3 ? argv[2] : client ? "127.0.0.1" : "0.0.0.0";
    in_addr address{};
    if (inet_pton(AF_INET, addressText, &address) != 1) {
        return usage(argv[0]);
    }
    // A viewer, a pager or a terminal that has gone shows as a failed write.
    std::signal(SIGPIPE, SIG_IGN);
    return server ? runServer(ntohl(address.s_addr), programNames)
                  : runClient(argv[0], ntohl(address.s_addr), programNames);
}
