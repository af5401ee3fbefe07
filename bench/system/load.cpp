// What bench/run.sh compare and its neighbours put around a log collector, cheap enough not to be
// the bottleneck on two cores. Each message carries when it was sent (CLOCK_MONOTONIC).
//   load send RATE COUNT LENGTH
//                  COUNT messages of LENGTH bytes to port 50000 at RATE a second; RATE 0: as one
//                  burst. Prints the seconds that it took.
//   load sink LOG VIEWER
//                  reads these two descriptors, a log socket and a viewer's connection. For each
//                  line on standard input prints how many messages came on either since the last
//                  one, and the latency to the viewer: p50 and p99 in us.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned short loggerPort = 50000;
constexpr std::string_view start = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - @";
constexpr char mark = '@'; // before the time; nowhere else in a message
constexpr std::size_t timeDigits = 19;
constexpr unsigned batchSize = 64;

/// Counted from so long ago that it has always as many digits.
std::int64_t nowNs() {
    constexpr std::int64_t longAgo = 1'000'000'000'000'000'000;
    return longAgo +
           std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Datagrams of one length that are sent or received by one system call.
struct Batch {
    explicit Batch(std::size_t newLength)
        : length(newLength), bytes(batchSize * length, 'x'), parts(batchSize), headers(batchSize) {
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

int sendMessages(std::int64_t rate, std::int64_t count, std::size_t length) {
    constexpr std::int64_t tickNs = 500'000;
    Batch batch(length);
    for (std::size_t i = 0; i < batchSize; ++i) {
        std::copy(start.begin(), start.end(), batch.at(i));
        batch.at(i)[start.size() + timeDigits] = ' ';
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in logger{AF_INET, htons(loggerPort), {htonl(INADDR_LOOPBACK)}, {}};
    connect(fd, reinterpret_cast<const sockaddr*>(&logger), sizeof logger);
    const std::int64_t begin = nowNs();
    for (std::int64_t sent = 0; sent < count;) {
        const std::int64_t now = nowNs();
        const std::int64_t due =
            rate == 0 ? count : std::min(count, 1 + (now - begin) * rate / 1'000'000'000);
        const auto next = static_cast<unsigned>(std::min<std::int64_t>(batchSize, due - sent));
        if (next == 0) {
            const std::int64_t nextDue = begin + sent * 1'000'000'000 / rate;
            std::this_thread::sleep_for(std::chrono::nanoseconds(std::max(tickNs, nextDue - now)));
            continue;
        }
        for (unsigned i = 0; i < next; ++i) {
            char* const time = batch.at(i) + start.size();
            std::to_chars(time, time + timeDigits, nowNs());
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

/// Takes the messages out of a stream and notes how long they were under way.
void takeMessages(std::string& stream, std::vector<std::int64_t>& latenciesNs) {
    const std::int64_t now = nowNs();
    std::size_t at = stream.find(mark);
    while (at != std::string::npos && at + timeDigits < stream.size()) {
        latenciesNs.push_back(now - std::atoll(&stream[at + 1]));
        at = stream.find(mark, at + timeDigits);
    }
    stream.erase(0, at);
}

int sink(int log, int viewer) {
    Batch batch(9000);
    std::size_t logged = 0;
    std::string stream;
    std::vector<std::int64_t> latenciesNs;
    const auto quantileUs = [&](std::size_t percent) {
        std::sort(latenciesNs.begin(), latenciesNs.end());
        return latenciesNs.empty() ? 0 : latenciesNs[latenciesNs.size() * percent / 100] / 1000;
    };
    std::array<pollfd, 3> watched{
        {{log, POLLIN, 0}, {viewer, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (poll(watched.data(), watched.size(), -1) > 0) {
        if (watched[1].revents != 0) {
            const ssize_t got = recv(viewer, batch.at(0), batch.bytes.size(), MSG_DONTWAIT);
            stream.append(batch.at(0), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            takeMessages(stream, latenciesNs);
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
            std::printf("%zu %zu %lld %lld\n", logged, latenciesNs.size(),
                        static_cast<long long>(quantileUs(50)),
                        static_cast<long long>(quantileUs(99)));
            std::fflush(stdout);
            logged = 0;
            latenciesNs.clear();
        }
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 4 && words[0] == "send") {
        return sendMessages(std::stoll(words[1]), std::stoll(words[2]), std::stoul(words[3]));
    }
    if (words.size() == 3 && words[0] == "sink") {
        return sink(std::stoi(words[1]), std::stoi(words[2]));
    }
    std::fputs("load send RATE COUNT LENGTH | sink LOG VIEWER\n", stderr);
    return 1;
}
