// What the message store costs: taking a message in, a whole listing in, a listing out.

#include "QELloggerSyslogFmt.h"
#include "allocations.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

const std::string message = "<14>1 2024-03-05T10:20:30.123456Z dev01 sip 412 - - " +
                            std::string(95, 'x'); // 147 bytes in all

std::string messagesOf(std::size_t bytes) {
    std::string text;
    text.reserve(bytes + message.size());
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
    state.SetComplexityN(state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(appendText)
    ->RangeMultiplier(4)
    ->Range(16 << 10, 16 << 20)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

void listing(benchmark::State& state, bool formatted) {
    const FullStore store;
    std::size_t length = 0;
    for (auto _ : state) {
        std::string out;
        length = store.allMessages(out, formatted);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(length));
}
BENCHMARK_CAPTURE(listing, raw, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, formatted, true)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
