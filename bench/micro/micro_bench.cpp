// What the message store costs (a message in, a whole listing in, a listing out), and the calendar.

#include "QELdateTime.h"
#include "QELgregorian.h"
#include "QELloggerSyslogFmt.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>

static std::int64_t allocations = 0;

// Not inlined, so that the compiler sees a pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

const std::string message = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - " +
                            std::string(95, 'x'); // 147 bytes in all

std::string messagesOf(std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) {
        text += message;
    }
    return text;
}

struct FullStore : QELloggerSyslogFmt {
    FullStore() {
        addComponents(0, {"prothandler", "sip", "nmos", "router", "sap"});
        append(messagesOf(capacity + message.size()));
    }
};

void appendDatagram(benchmark::State& state) {
    FullStore store;
    const std::int64_t before = allocations;
    for (auto _ : state) {
        store.append(message);
    }
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                       benchmark::Counter::kAvgIterations);
}
BENCHMARK(appendDatagram);

void appendText(benchmark::State& state) {
    const std::string text = messagesOf(static_cast<std::size_t>(state.range(0)));
    FullStore store;
    for (auto _ : state) {
        store.append(text);
    }
}
BENCHMARK(appendText)->RangeMultiplier(4)->Range(16 << 10, 16 << 20)->Unit(benchmark::kMicrosecond);

void listing(benchmark::State& state, bool formatted) {
    const FullStore store;
    for (auto _ : state) {
        std::string out;
        store.allMessages(out, formatted);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK_CAPTURE(listing, raw, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, formatted, true)->Unit(benchmark::kMicrosecond);

// Over the seconds from 2026-09-21 on, in the conversion's own unit and epoch.
template <typename Instant>
void calendar(benchmark::State& state, auto record, Instant second, Instant epoch, auto convert) {
    Instant instant = 1'790'000'000 * second + epoch;
    for (auto _ : state) {
        convert(record, instant += second);
        benchmark::DoNotOptimize(record);
    }
}
BENCHMARK_CAPTURE(calendar, fromMicros, QELdateTime{}, std::uint64_t{microsPerSecond},
                  std::uint64_t{unixEpochMicros}, ::fromMicros);
BENCHMARK_CAPTURE(calendar, gmtime_r, std::tm{}, std::time_t{1}, std::time_t{0},
                  [](std::tm& record, std::time_t second) { gmtime_r(&second, &record); });

} // namespace

BENCHMARK_MAIN();
