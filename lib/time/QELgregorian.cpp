#include "QELgregorian.h"

#include <chrono>

QELgregorianTime gregorianFromMicros(std::uint64_t micros) {
    using namespace std::chrono;
    const auto dayNumber = static_cast<std::int32_t>(micros / microsPerDay);
    // std::chrono knows the years up to 32767 only.
    const std::int32_t cycles = dayNumber / gregorianCycleDays;
    const days ofCycle{dayNumber % gregorianCycleDays};
    const year_month_day date{sys_days{1601y / January / 1} + ofCycle};
    const auto second = static_cast<std::int32_t>(micros % microsPerDay / microsPerSecond);
    return {.year = static_cast<int>(date.year()) + 400 * cycles,
            .month = static_cast<std::int32_t>(static_cast<unsigned>(date.month())),
            .day = static_cast<std::int32_t>(static_cast<unsigned>(date.day())),
            .hour = second / 3600,
            .minute = second / 60 % 60,
            .second = second % 60,
            .microsecond = static_cast<std::int32_t>(micros % microsPerSecond),
            .dayNumber = dayNumber};
}
