#include "HVLoggerViewerWatch.h"

#include "HVLoggerTCPsock.h"
#include "QELselector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr std::uint64_t lookIntervalUs = 1'000'000;
/// A viewer that has acknowledged nothing for so long is given up, unless it was not asked.
constexpr unsigned unacknowledgedLimitMs = 55'000;
/// A paused one is asked about this often, or the kernel would let up to two minutes pass.
/// Questions and answers get lost: it is asked six times before it is given up.
constexpr unsigned probeIntervalMs = 9'000;

/// Can only fail on what is no TCP connection.
void set(int connection, int level, int option, int value) {
    static_cast<void>(::setsockopt(connection, level, option, &value, sizeof value));
}

} // namespace

HVLoggerViewerWatch::HVLoggerViewerWatch(std::function<void()> whenVanished)
    : vanished(std::move(whenVanished)) {}

void HVLoggerViewerWatch::start(int descriptor, QELselector* dispatcher) {
    connection = descriptor;
    HVLoggerTCPsock::keepAlive(connection);
    if (dispatcher != nullptr) {
        dispatcher->setTimer(this,
                             static_cast<std::uint64_t>(QELselector::nowUs()) + lookIntervalUs);
    }
}

std::uint64_t HVLoggerViewerWatch::onTimer(std::int64_t nowUs) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) == 0) {
        // Window probes; what backs off while nothing is unacknowledged.
        const bool paused = info.tcpi_unacked == 0 && info.tcpi_backoff > 0;
        const bool asked = info.tcpi_unacked > 0 || (paused && info.tcpi_probes > 1);
        if (asked && info.tcpi_last_ack_recv >= unacknowledgedLimitMs) {
            vanished();
            return 0;
        }
        // A user timeout is the latest time of the next window probe. It counts from when the
        // window was full, answered or not, and would end a connection that is only stopped; so it
        // is kept ahead of now for as long as probes are sent.
        set(connection, IPPROTO_TCP, TCP_USER_TIMEOUT,
            paused ? static_cast<int>(info.tcpi_last_data_sent + probeIntervalMs) : 0);
    }
    return static_cast<std::uint64_t>(nowUs) + lookIntervalUs;
}
