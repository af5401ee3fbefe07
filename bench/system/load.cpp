// What bench/run.sh compare and its neighbours put around a log collector, cheap enough not to be
// the bottleneck on two cores. Each message carries when it was sent (CLOCK_MONOTONIC).
//   load send RATE COUNT [LENGTH]
//                  COUNT messages of LENGTH (147) bytes to port 50000 at RATE a second; RATE 0: as
//                  one burst. Prints the seconds that it took.
//   load sink PORT reads /dev/log and a viewer's stream: connects to PORT and asks for all if it is
//                  50000, otherwise waits there for the collector's connection; 20 s at most. For
//                  each line on standard input prints how many messages came on either since the
//                  last one, and the latency to the viewer: p50 and p99 in us.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned short loggerPort = 50000;
constexpr std::size_t usualLength = 147;
constexpr std::string_view start = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - @";
constexpr char mark = '@'; // before the time; nowhere else in a message
constexpr std::size_t timeDigits = 19;
constexpr unsigned batchSize = 64;

std::int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void sleepUntil(std::int64_t ns) {
    const timespec until{ns / 1'000'000'000, ns % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

/// Datagrams of one length that are sent or received by one system call.
struct Batch {
    explicit Batch(std::size_t newLength)
        : length(newLength), bytes(batchSize * length), parts(batchSize), headers(batchSize) {
        for (std::size_t i = 0; i < batchSize; ++i) {
            parts[i] = {at(i), length};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    char* at(std::size_t i) { return bytes.data() + i * length; }

    std::size_t length;
    std::vector<char> bytes;
    std::vector<iovec> parts;
    std::vector<mmsghdr> headers;
};

template <typename Call, typename Address>
bool with(Call call, int fd, const Address& address) {
    return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

sockaddr_in local(unsigned short port) {
    return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

void stamp(char* message) {
    std::int64_t now = nowNs();
    for (std::size_t digit = timeDigits; digit-- > 0; now /= 10) {
        message[start.size() + digit] = static_cast<char>('0' + now % 10);
    }
}

int sendMessages(std::int64_t rate, std::int64_t count, std::size_t length) {
    constexpr std::int64_t tickNs = 500'000;
    Batch batch(length);
    std::fill(batch.bytes.begin(), batch.bytes.end(), 'x');
    for (std::size_t i = 0; i < batchSize; ++i) {
        std::copy(start.begin(), start.end(), batch.at(i));
        batch.at(i)[start.size() + timeDigits] = ' ';
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    with(connect, fd, local(loggerPort));
    const std::int64_t begin = nowNs();
    for (std::int64_t sent = 0; sent < count;) {
        const std::int64_t now = nowNs();
        const std::int64_t due =
            rate == 0 ? count : std::min(count, 1 + (now - begin) * rate / 1'000'000'000);
        const auto next = static_cast<unsigned>(std::min<std::int64_t>(batchSize, due - sent));
        if (next == 0) {
            sleepUntil(std::max(now + tickNs, begin + sent * 1'000'000'000 / rate));
            continue;
        }
        for (unsigned i = 0; i < next; ++i) {
            stamp(batch.at(i));
        }
        const int taken = sendmmsg(fd, batch.headers.data(), next, 0);
        if (taken < 0 && errno != ECONNREFUSED) {
            return 1;
        }
        sent += std::max(taken, 0);
    }
    std::printf("%.3f\n", static_cast<double>(nowNs() - begin) / 1e9);
    return 0;
}

/// How long the messages of a stream were under way.
class Stream {
  public:
    std::vector<long long> latenciesUs;

    void take(const char* bytes, std::size_t length) {
        const std::int64_t now = nowNs();
        kept.append(bytes, length);
        std::size_t position = 0;
        while ((position = kept.find(mark, position)) != std::string::npos) {
            if (kept.size() - position <= timeDigits) {
                kept.erase(0, position);
                return;
            }
            latenciesUs.push_back((now - std::atoll(kept.data() + position + 1)) / 1000);
            position += timeDigits;
        }
        kept.clear();
    }

    long long quantile(std::size_t percent) {
        std::sort(latenciesUs.begin(), latenciesUs.end());
        return latenciesUs.empty() ? 0 : latenciesUs[latenciesUs.size() * percent / 100];
    }

  private:
    std::string kept;
};

int connectViewer(unsigned short port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (port == loggerPort) {
        std::puts("listening");
        while (!with(connect, fd, local(port))) {
            sleepUntil(nowNs() + 10'000'000);
        }
        const std::int32_t sendAll = 1;
        return write(fd, &sendAll, sizeof sendAll) == sizeof sendAll ? fd : -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!with(bind, fd, local(port)) || listen(fd, 1) != 0) {
        return -1;
    }
    std::puts("listening");
    return accept(fd, nullptr, nullptr);
}

int sink(unsigned short port) {
    const sockaddr_un name{AF_UNIX, "/dev/log"};
    const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    unlink(name.sun_path);
    const bool bound = with(bind, log, name);
    alarm(20);
    const int viewer = connectViewer(port);
    alarm(0);
    if (!bound || viewer < 0) {
        return 1;
    }
    std::puts("ready");
    Batch batch(9000);
    std::size_t logged = 0;
    Stream stream;
    std::array<pollfd, 3> watched{
        {{log, POLLIN, 0}, {viewer, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (poll(watched.data(), watched.size(), -1) > 0) {
        if (watched[1].revents != 0) {
            const ssize_t got = recv(viewer, batch.at(0), batch.bytes.size(), MSG_DONTWAIT);
            stream.take(batch.at(0), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            watched[1].fd = got == 0 ? -1 : viewer;
        }
        if (watched[0].revents != 0) {
            const int got = recvmmsg(log, batch.headers.data(), batchSize, MSG_DONTWAIT, nullptr);
            for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(got, 0)); ++i) {
                // Not what a collector says of itself.
                logged += std::memchr(batch.at(i), mark, batch.headers[i].msg_len) != nullptr;
            }
        }
        if (watched[2].revents != 0) {
            if (read(STDIN_FILENO, batch.at(0), batch.length) <= 0) {
                return 0;
            }
            std::printf("%zu %zu %lld %lld\n", logged, stream.latenciesUs.size(),
                        stream.quantile(50), stream.quantile(99));
            logged = 0;
            stream.latenciesUs.clear();
        }
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    setlinebuf(stdout);
    if (mode == "send" && (argc == 4 || argc == 5)) {
        return sendMessages(std::atoll(argv[2]), std::atoll(argv[3]),
                            argc == 5 ? std::strtoul(argv[4], nullptr, 10) : usualLength);
    }
    if (mode == "sink" && argc == 3) {
        return sink(static_cast<unsigned short>(std::atoi(argv[2])));
    }
    std::fputs("load send RATE COUNT [LENGTH] | sink PORT\n", stderr);
    return 1;
}
