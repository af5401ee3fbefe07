// The least that collecting costs: one readiness, one datagram, one record to the local system log
// by openlog, syslog and closelog, one send to the viewer. Stores nothing and survives nothing; a
// measure for what the server adds.
//   floor [nolog] [noviewer]   leave a step out
//   floor check                ask the local log first whether it can take a line
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

int main(int argc, char** argv) {
    bool log = true;
    bool forward = true;
    bool check = false;
    for (int i = 1; i < argc; ++i) {
        log = log && std::strcmp(argv[i], "nolog") != 0;
        forward = forward && std::strcmp(argv[i], "noviewer") != 0;
        check = check || std::strcmp(argv[i], "check") == 0;
    }
    constexpr unsigned short port = 50000;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int udp = socket(AF_INET, SOCK_DGRAM, 0);
    const int tcp = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(udp, generic, sizeof address) != 0 || bind(tcp, generic, sizeof address) != 0 ||
        listen(tcp, 1) != 0) {
        return 1;
    }
    const sockaddr_un logName{AF_UNIX, "/dev/log"};
    pollfd logQueue{socket(AF_UNIX, SOCK_DGRAM, 0), POLLOUT, 0};
    if (check &&
        connect(logQueue.fd, reinterpret_cast<const sockaddr*>(&logName), sizeof logName) != 0) {
        return 1;
    }
    int viewer = -1;
    char text[5001];
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(udp, &ready);
        const int second = viewer < 0 ? tcp : viewer;
        FD_SET(second, &ready);
        if (pselect(second + 1, &ready, nullptr, nullptr, nullptr, nullptr) < 0) {
            return 1;
        }
        if (FD_ISSET(second, &ready)) {
            if (viewer >= 0) {
                if (recv(viewer, text, sizeof text, 0) <= 0) {
                    return 0;
                }
            } else {
                viewer = accept(tcp, nullptr, nullptr);
            }
        }
        if (!FD_ISSET(udp, &ready)) {
            continue;
        }
        const ssize_t length = recvfrom(udp, text, sizeof text - 1, 0, nullptr, nullptr);
        if (length <= 0) {
            continue;
        }
        text[length] = '\0';
        if (check && poll(&logQueue, 1, 20) != 1) {
            continue;
        }
        if (log) {
            openlog("sip", LOG_PID, LOG_USER);
            syslog(LOG_INFO, "%s", text);
            closelog();
        }
        if (forward && viewer >= 0) {
            send(viewer, text, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    }
}
