// What bench/system/compare.py and its neighbours put around a log collector, cheap enough not to
// be the bottleneck on two cores. Each message carries when it was sent (CLOCK_MONOTONIC).
//   load send RATE COUNT [LENGTH]
//                          COUNT messages of LENGTH (147) bytes to port 50000 at RATE a second;
//                          RATE 0: as one burst
//   load sink PORT         reads /dev/log and a viewer's stream: connects to PORT and asks for all
//                          if it is 50000, otherwise waits there for the collector's connection.
//                          For each line on standard input prints how many messages came on either
//                          since the last one, and the latency to the viewer: p50 and p99 in us
//   load start COMMAND...  ms from starting COMMAND to when the first message it took was sent
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned short loggerPort = 50000;
constexpr std::size_t usualLength = 147;
constexpr char mark = '@'; // before the time; nowhere else in a message
constexpr std::size_t timeDigits = 19;

std::int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void sleepUntil(std::int64_t ns) {
    const timespec until{ns / 1'000'000'000, ns % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in local(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string newMessage(std::size_t length) {
    std::string text = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - ";
    text += mark + std::string(timeDigits, '0') + ' ';
    text.resize(length, 'x');
    return text;
}

void stamp(std::string& text) {
    std::int64_t now = nowNs();
    char* const first = text.data() + text.find(mark) + 1;
    for (char* digit = first + timeDigits - 1; digit >= first; --digit, now /= 10) {
        *digit = static_cast<char>('0' + now % 10);
    }
}

int senderSocket() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in to = local(loggerPort);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        fail("connect");
    }
    return fd;
}

int logSocket() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un name{AF_UNIX, "/dev/log"};
    unlink(name.sun_path);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
        fail("/dev/log");
    }
    return fd;
}

int sendMessages(std::int64_t rate, std::int64_t count, std::size_t length) {
    constexpr std::int64_t tickNs = 500'000;
    constexpr std::int64_t batch = 64;
    std::vector<std::string> texts(batch, newMessage(length));
    std::vector<iovec> parts(batch);
    std::vector<mmsghdr> headers(batch);
    for (std::size_t i = 0; i < batch; ++i) {
        parts[i] = {texts[i].data(), length};
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    const int fd = senderSocket();
    const std::int64_t begin = nowNs();
    std::int64_t sent = 0;
    while (sent < count) {
        const std::int64_t now = nowNs();
        const std::int64_t due =
            rate == 0 ? count : std::min(count, 1 + (now - begin) * rate / 1'000'000'000);
        const auto next = static_cast<unsigned>(std::min(batch, due - sent));
        if (next == 0) {
            sleepUntil(std::max(now + tickNs, begin + sent * 1'000'000'000 / rate));
            continue;
        }
        for (unsigned i = 0; i < next; ++i) {
            stamp(texts[i]);
        }
        const int taken = sendmmsg(fd, headers.data(), next, 0);
        if (taken < 0 && errno != ECONNREFUSED) {
            fail("send");
        }
        sent += std::max(taken, 0);
    }
    std::printf("%.3f\n", static_cast<double>(nowNs() - begin) / 1e9);
    return 0;
}

/// Counts the messages of a stream and how long they were under way.
class Stream {
  public:
    std::vector<std::int64_t> latenciesUs;

    void take(const char* bytes, std::size_t length) {
        const std::int64_t now = nowNs();
        kept.append(bytes, length);
        std::size_t position = 0;
        for (;;) {
            position = kept.find(mark, position);
            if (position == std::string::npos) {
                kept.clear();
                return;
            }
            if (kept.size() - position <= timeDigits) {
                kept.erase(0, position);
                return;
            }
            latenciesUs.push_back((now - std::atoll(kept.data() + position + 1)) / 1000);
            position += timeDigits;
        }
    }

  private:
    std::string kept;
};

int connectViewer(unsigned short port) {
    const sockaddr_in address = local(port);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const auto tellReady = [] {
        std::puts("listening");
        std::fflush(stdout);
    };
    if (port == loggerPort) {
        tellReady();
        while (connect(fd, generic, sizeof address) != 0) {
            sleepUntil(nowNs() + 10'000'000);
        }
        const std::int32_t sendAll = 1;
        return write(fd, &sendAll, sizeof sendAll) == sizeof sendAll ? fd : -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, generic, sizeof address) != 0 || listen(fd, 1) != 0) {
        fail("viewer");
    }
    tellReady();
    return accept(fd, nullptr, nullptr);
}

int sink(unsigned short port) {
    const int log = logSocket();
    const int viewer = connectViewer(port);
    std::puts("ready");
    std::fflush(stdout);
    constexpr std::size_t batch = 64;
    constexpr std::size_t recordLength = 9000;
    std::vector<char> buffer(batch * recordLength);
    std::vector<iovec> parts(batch);
    std::vector<mmsghdr> headers(batch);
    for (std::size_t i = 0; i < batch; ++i) {
        parts[i] = {buffer.data() + i * recordLength, recordLength};
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    std::int64_t logged = 0;
    Stream stream;
    std::array<pollfd, 3> watched{
        {{log, POLLIN, 0}, {viewer, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (poll(watched.data(), watched.size(), -1) > 0) {
        if (watched[1].revents != 0) {
            const ssize_t got = recv(viewer, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got == 0) {
                watched[1].fd = -1;
            } else if (got > 0) {
                stream.take(buffer.data(), static_cast<std::size_t>(got));
            }
        }
        if (watched[0].revents != 0) {
            const int got = recvmmsg(log, headers.data(), batch, MSG_DONTWAIT, nullptr);
            for (int i = 0; i < got; ++i) {
                // Not what a collector says of itself.
                logged += std::string_view(&buffer[static_cast<std::size_t>(i) * recordLength],
                                           headers[static_cast<std::size_t>(i)].msg_len)
                                      .find(mark) != std::string_view::npos
                              ? 1
                              : 0;
            }
        }
        if (watched[2].revents != 0) {
            if (read(STDIN_FILENO, buffer.data(), buffer.size()) <= 0) {
                return 0;
            }
            auto& times = stream.latenciesUs;
            std::sort(times.begin(), times.end());
            const auto quantile = [&times](std::size_t percent) {
                return times.empty() ? 0 : times[times.size() * percent / 100];
            };
            std::printf("%lld %zu %lld %lld\n", static_cast<long long>(logged), times.size(),
                        static_cast<long long>(quantile(50)), static_cast<long long>(quantile(99)));
            std::fflush(stdout);
            logged = 0;
            times.clear();
        }
    }
    return 1;
}

int measureStart(char** command) {
    const int log = logSocket();
    const int fd = senderSocket();
    std::string text = newMessage(usualLength);
    pid_t child = 0;
    const std::int64_t begin = nowNs();
    if (posix_spawnp(&child, command[0], nullptr, nullptr, command, environ) != 0) {
        fail(command[0]);
    }
    std::array<char, 9000> record{};
    for (std::string_view taken; taken.empty();) {
        stamp(text);
        send(fd, text.data(), text.size(), MSG_DONTWAIT);
        sleepUntil(nowNs() + 100'000);
        const ssize_t got = recv(log, record.data(), record.size() - 1, MSG_DONTWAIT);
        if (got > 0) {
            taken = {record.data(), static_cast<std::size_t>(got)};
            const std::size_t position = taken.find(mark);
            if (position == std::string_view::npos) {
                taken = {};
                continue;
            }
            const std::int64_t sent = std::atoll(record.data() + position + 1);
            std::printf("%.3f\n", static_cast<double>(sent - begin) / 1e6);
        }
        if (nowNs() - begin > 20'000'000'000) {
            fail("nothing was taken");
        }
    }
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "send" && (argc == 4 || argc == 5)) {
        return sendMessages(std::atoll(argv[2]), std::atoll(argv[3]),
                            argc == 5 ? static_cast<std::size_t>(std::atoll(argv[4]))
                                      : usualLength);
    }
    if (mode == "sink" && argc == 3) {
        return sink(static_cast<unsigned short>(std::atoi(argv[2])));
    }
    if (mode == "start" && argc > 2) {
        return measureStart(argv + 2);
    }
    std::fputs("load send RATE COUNT [LENGTH] | sink PORT | start COMMAND...\n", stderr);
    return 1;
}
