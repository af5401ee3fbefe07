// A link between two network namespaces, the caller's and that of the process FAR_PID, on any
// kernel that has TUN devices: a device "wire" of MTU 1500 at each end, and in each direction a
// rate, a queue of bounded length, a delay, and losses drawn from the seed. A packet that is larger
// than the path MTU is answered as a router on the way would, with the MTU that fits. While the
// relay is stopped (SIGSTOP), the link is one that went down without a word.
//
// Prints a line when the devices are there; ends with its input, so that nobody has to look for it,
// and then prints by how many ms it was late at most: what a busy machine added to the link.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

namespace {

using Packet = std::vector<std::uint8_t>;

struct Direction {
    int from = -1;
    int to = -1;
    std::int64_t busyUntil = 0; // when the last byte of what was taken has left
    std::deque<std::pair<std::int64_t, Packet>> onTheWay = {}; // with the time of arrival
};

std::int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

int openDevice() {
    const int device = open("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request{};
    std::strcpy(request.ifr_name, "wire");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (device < 0 || ioctl(device, TUNSETIFF, &request) != 0) {
        std::perror("/dev/net/tun");
        std::exit(1);
    }
    return device;
}

void put16(Packet& packet, std::size_t at, std::size_t value) {
    packet[at] = static_cast<std::uint8_t>(value >> 8);
    packet[at + 1] = static_cast<std::uint8_t>(value);
}

std::size_t checksum(const Packet& packet, std::size_t from, std::size_t to) {
    std::size_t sum = 0;
    for (std::size_t at = from; at < to; at += 2) {
        sum += static_cast<std::size_t>(packet[at] << 8 | packet[at + 1]);
    }
    return ~(sum % 0xFFFF) & 0xFFFF;
}

/// "Fragmentation needed" (RFC 792, RFC 1191), to the source of the packet as from its destination.
Packet tooBig(const Packet& packet, std::size_t mtu) {
    Packet answer(56); // two headers of 20 bytes, each with 8 bytes after it
    std::copy_n(packet.begin(), 28, answer.begin() + 28);
    answer[0] = 0x45;
    put16(answer, 2, answer.size());
    answer[8] = 64; // hops to live
    answer[9] = 1;  // ICMP
    std::copy_n(packet.begin() + 16, 4, answer.begin() + 12);
    std::copy_n(packet.begin() + 12, 4, answer.begin() + 16);
    put16(answer, 10, checksum(answer, 0, 20));
    put16(answer, 20, 0x304);
    put16(answer, 26, mtu);
    put16(answer, 22, checksum(answer, 20, answer.size()));
    return answer;
}

/// What an end that is down does not take is lost, as on any link.
void give(int device, const Packet& packet) {
    static_cast<void>(!write(device, packet.data(), packet.size()));
}

} // namespace

int main(int count, char** words) {
    if (count != 8) {
        std::puts("relay FAR_PID MBIT_PER_S ONE_WAY_MS LOSS_PERCENT PATH_MTU QUEUE_MS SEED");
        return 2;
    }
    const double nsPerByte = 8e3 / std::atof(words[2]);
    const std::int64_t delayNs = std::llround(std::atof(words[3]) * 1e6);
    std::bernoulli_distribution lost(std::atof(words[4]) / 100);
    const auto pathMtu = std::strtoul(words[5], nullptr, 10);
    const std::int64_t queueNs = std::llround(std::atof(words[6]) * 1e6);
    std::mt19937_64 random(std::strtoul(words[7], nullptr, 10));

    const int near = openDevice();
    const int farSpace = open(("/proc/" + std::string(words[1]) + "/ns/net").c_str(), O_RDONLY);
    if (farSpace < 0 || setns(farSpace, CLONE_NEWNET) != 0) {
        std::perror("setns");
        return 1;
    }
    const int far = openDevice();
    std::puts("ready");
    std::fflush(stdout);

    prctl(PR_SET_TIMERSLACK, 1UL);
    const sched_param first{1}; // ahead of what it is to disturb, where that is permitted
    static_cast<void>(sched_setscheduler(0, SCHED_FIFO, &first));
    std::int64_t latestNs = 0;
    std::array<Direction, 2> ways{Direction{near, far}, Direction{far, near}};
    std::array<pollfd, 3> waiting{pollfd{near, POLLIN, 0}, {far, POLLIN, 0}, {0, POLLIN, 0}};
    Packet packet(2048);
    while (waiting[2].revents == 0) {
        std::int64_t next = nowNs() + 1'000'000'000;
        for (Direction& way : ways) {
            ssize_t size = 0;
            for (; (size = read(way.from, packet.data(), 2048)) > 0; packet.resize(2048)) {
                packet.resize(static_cast<std::size_t>(size));
                const std::int64_t start = std::max(nowNs(), way.busyUntil);
                if (packet[0] >> 4 != 4) {
                    // Not IPv4: the kernel's own, of no interest here.
                } else if (packet.size() > pathMtu) {
                    give(way.from, tooBig(packet, pathMtu));
                } else if (start - nowNs() <= queueNs) {
                    way.busyUntil = start + std::llround(static_cast<double>(size) * nsPerByte);
                    if (!lost(random)) {
                        way.onTheWay.emplace_back(way.busyUntil + delayNs, packet);
                    }
                }
            }
            while (!way.onTheWay.empty() && way.onTheWay.front().first <= nowNs()) {
                latestNs = std::max(latestNs, nowNs() - way.onTheWay.front().first);
                give(way.to, way.onTheWay.front().second);
                way.onTheWay.pop_front();
            }
            if (!way.onTheWay.empty()) {
                next = std::min(next, way.onTheWay.front().first);
            }
        }
        const std::int64_t left = std::max<std::int64_t>(next - nowNs(), 0);
        const timespec timeout{left / 1'000'000'000, left % 1'000'000'000};
        ppoll(waiting.data(), waiting.size(), &timeout, nullptr);
    }
    std::printf("%.0f\n", static_cast<double>(latestNs) / 1e6);
    return 0;
}
