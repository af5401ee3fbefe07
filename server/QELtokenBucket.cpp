#include "QELtokenBucket.h"

#include <system_error>
#include <unistd.h>

namespace {

constexpr std::uint32_t nsPerSecond = 1'000'000'000;
constexpr std::uint32_t nsPerUs = 1000;

} // namespace

QELtokenBucket::~QELtokenBucket() {
    stop();
}

int QELtokenBucket::start(std::uint32_t rate, std::uint32_t newCapacity) {
    if (rate == 0 || running) {
        return -1;
    }
    capacity = newCapacity;
    running = true;
    periodNs = nsPerSecond / rate;
    try {
        thread = std::make_unique<std::thread>([this] { refillLoop(*this); });
    } catch (const std::system_error&) {
        running = false;
        return -1;
    }
    return 0;
}

void QELtokenBucket::refillLoop(QELtokenBucket& bucket) {
    while (bucket.running) {
        usleep(bucket.periodNs / nsPerUs);
        bucket.refill();
    }
}

void QELtokenBucket::refill() {
    std::uint32_t count = tokens;
    while (std::uint64_t{count} + 1 < capacity && !tokens.compare_exchange_weak(count, count + 1)) {
    }
}

void QELtokenBucket::take(std::uint32_t count) {
    std::uint32_t available = tokens;
    while (!tokens.compare_exchange_weak(available, available < count ? 0 : available - count)) {
    }
}

void QELtokenBucket::stop() {
    if (thread && running) {
        running = false;
        thread->join();
        thread.reset();
    }
}
