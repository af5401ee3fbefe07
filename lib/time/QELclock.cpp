#include "QELclock.h"

#include "QELgregorian.h"
#include "QELtickClock.h"

#include <ctime>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

namespace {

timeval readClock() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

std::int64_t libraryTime(const timeval& time) {
    return time.tv_sec * microsPerSecond + time.tv_usec + unixEpochMicros;
}

} // namespace

std::int64_t nowUtc() {
    return libraryTime(readClock());
}

std::int64_t nowLocal(std::int32_t* standardOffsetMinutes) {
    const timeval now = readClock();
    tzset();
    tm local{};
    localtime_r(&now.tv_sec, &local);
    if (standardOffsetMinutes != nullptr) {
        *standardOffsetMinutes = static_cast<std::int32_t>(timezone / -60);
    }
    return libraryTime(now) - timezone * microsPerSecond + local.tm_isdst * microsPerHour;
}

std::int64_t tickMicros() {
    static QELtickClock clock{microsPerSecond / sysconf(_SC_CLK_TCK)};
    return clock.micros(static_cast<std::int32_t>(times(nullptr)));
}

int sleepMicros(std::uint32_t micros) {
    return usleep(micros);
}
