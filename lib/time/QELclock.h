#pragma once

#include <cstdint>

/// @file
/// The clocks. Those of the calendar return a library time (QELgregorian.h).

/// Now in UTC.
std::int64_t nowUtc();

/// Now in local time: UTC plus the zone's standard offset, plus one hour while daylight saving
/// time is in force. The zone is read anew from TZ. `standardOffsetMinutes`, unless null, receives
/// the standard offset from UTC in minutes, east positive, without the daylight-saving hour.
///
/// Uses the C library's shared zone state (tzset), so no other thread may change TZ meanwhile.
std::int64_t nowLocal(std::int32_t* standardOffsetMinutes = nullptr);

/// Microseconds of real time since an arbitrary start, in steps of the system's clock tick. Keeps
/// its state across calls without a lock: for one thread only, and it must be called at least once
/// in every 2^32 ticks (497 days at 100 ticks a second) to notice that their counter has wrapped.
std::int64_t tickMicros();

/// Sleeps for at least this long. Returns the result of usleep: 0, or -1 with errno when a signal
/// cut the sleep short.
int sleepMicros(std::uint32_t micros);
