// The least that collecting costs; a measure for what the server adds. Stores nothing and survives
// nothing.
//   floor        a cycle waits for readiness, then takes what is waiting, at most 64 datagrams. Of
//                each it makes a record to a log socket that stays connected; what came in a cycle
//                leaves for the viewer in one send
//   floor old    a cycle takes one datagram, makes its record by openlog, syslog and closelog, and
//                sends it to the viewer
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr unsigned short port = 50000;
constexpr std::size_t datagramLength = 5000;
constexpr std::size_t datagramsAtOnce = 64;
constexpr int standstillMs = 20;

void logOld(const char* text) {
    openlog("sip", LOG_PID, LOG_USER);
    syslog(LOG_INFO, "%s", text);
    closelog();
}

/// Writes the record that logOld() writes.
void logNew(int log, char* text, std::size_t length) {
    static std::time_t headOf = 0;
    static std::string head;
    const std::time_t now = std::time(nullptr);
    if (now != headOf) {
        headOf = now;
        std::array<char, 64> buffer{};
        std::strftime(buffer.data(), buffer.size(), "<14>%b %e %T sip[", std::localtime(&now));
        head = buffer.data() + std::to_string(getpid()) + "]: ";
    }
    std::array<iovec, 2> parts{{{head.data(), head.size()}, {text, length}}};
    msghdr record{};
    record.msg_iov = parts.data();
    record.msg_iovlen = parts.size();
    pollfd queue{log, POLLOUT, 0};
    while (sendmsg(log, &record, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 && errno == EAGAIN &&
           poll(&queue, 1, standstillMs) == 1) {
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool old = argc > 1 && std::strcmp(argv[1], "old") == 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int udp = socket(AF_INET, SOCK_DGRAM, 0);
    const int tcp = socket(AF_INET, SOCK_STREAM, 0);
    const int logSocket = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un logName{AF_UNIX, "/dev/log"};
    if (bind(udp, generic, sizeof address) != 0 || bind(tcp, generic, sizeof address) != 0 ||
        listen(tcp, 1) != 0 ||
        connect(logSocket, reinterpret_cast<const sockaddr*>(&logName), sizeof logName) != 0) {
        return 1;
    }
    int viewer = -1;
    std::string came(datagramsAtOnce * datagramLength + 1, '\0');
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(udp, &ready);
        FD_SET(tcp, &ready);
        if (pselect(tcp + 1, &ready, nullptr, nullptr, nullptr, nullptr) < 0) {
            return 1;
        }
        if (FD_ISSET(tcp, &ready)) {
            viewer = accept(tcp, nullptr, nullptr);
            const int noDelay = old ? 0 : 1;
            setsockopt(viewer, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        }
        if (!FD_ISSET(udp, &ready)) {
            continue;
        }
        std::size_t length = 0;
        for (std::size_t n = 0; n < (old ? 1 : datagramsAtOnce); ++n) {
            char* const text = came.data() + length;
            const ssize_t got = recvfrom(udp, text, datagramLength, MSG_DONTWAIT, nullptr, nullptr);
            if (got < 0) {
                break;
            }
            length += static_cast<std::size_t>(got);
            came[length] = '\0';
            if (old) {
                logOld(text);
            } else {
                logNew(logSocket, text, static_cast<std::size_t>(got));
            }
        }
        if (viewer >= 0 && length > 0) {
            send(viewer, came.data(), length, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    }
}
