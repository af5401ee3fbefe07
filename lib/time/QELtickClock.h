#pragma once

#include <cstdint>

/// Makes a growing 64-bit clock out of a 32-bit tick counter that wraps. A plain value: whoever
/// holds it feeds it the readings; tickMicros feeds it those of the system.
class QELtickClock {
  public:
    explicit QELtickClock(std::int64_t tickLength) : microsPerTick{tickLength} {}

    /// The microseconds that stand for a reading. A reading below the last one means that the
    /// counter has wrapped once; the first one is compared with 0.
    std::int64_t micros(std::int32_t raw) {
        if (raw < lastRaw) {
            offset += std::int64_t{1} << 32;
        }
        lastRaw = raw;
        return (raw + offset) * microsPerTick;
    }

  private:
    std::int64_t microsPerTick;
    std::int32_t lastRaw = 0;
    std::int64_t offset = 0; // 2^32 for each wrap
};
