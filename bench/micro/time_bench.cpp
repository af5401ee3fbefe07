// The calendar conversions beside those of the C library, over the same 1024 instants of 1970 to
// 2100 in each iteration, and how many times as fast they are.

#include "QELdateTime.h"
#include "QELgregorian.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t instantCount = 1024;

template <typename Value>
using Instants = std::array<Value, instantCount>;

const Instants<std::time_t>& unixSeconds() {
    static const auto instants = [] {
        std::mt19937_64 random{1};
        std::uniform_int_distribution<std::time_t> upTo2100{0, 4'102'444'799};
        Instants<std::time_t> seconds{};
        std::generate(seconds.begin(), seconds.end(), [&] { return upTo2100(random); });
        return seconds;
    }();
    return instants;
}

// The same instants, converted.
template <typename Value, typename Conversion>
Instants<Value> instantsAs(const Conversion& conversion) {
    Instants<Value> values{};
    std::transform(unixSeconds().begin(), unixSeconds().end(), values.begin(), conversion);
    return values;
}

std::uint64_t libraryTime(std::time_t seconds) {
    return static_cast<std::uint64_t>(seconds * microsPerSecond + unixEpochMicros);
}

QELdateTime calendarFields(std::time_t seconds) {
    QELdateTime time;
    fromMicros(time, libraryTime(seconds));
    return time;
}

std::tm tmFields(std::time_t seconds) {
    std::tm time{};
    gmtime_r(&seconds, &time);
    return time;
}

// The time that is reported is that of all instants, the rate that of one.
template <typename Value, typename Conversion>
void convertAll(benchmark::State& state, Instants<Value> values, const Conversion& conversion) {
    for (auto _ : state) {
        for (Value& value : values) {
            conversion(value);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(values.size()));
}

// The records that are written lie on cache lines, or chance would place one of them better.
void fromMicrosRun(benchmark::State& state) {
    alignas(64) QELdateTime time;
    convertAll(state, instantsAs<std::uint64_t>(libraryTime), [&](std::uint64_t micros) {
        fromMicros(time, micros);
        benchmark::DoNotOptimize(time);
    });
}

void gmtimeRun(benchmark::State& state) {
    alignas(64) std::tm time{};
    convertAll(state, unixSeconds(), [&](std::time_t seconds) {
        gmtime_r(&seconds, &time);
        benchmark::DoNotOptimize(time);
    });
}

void toMicrosRun(benchmark::State& state) {
    convertAll(state, instantsAs<QELdateTime>(calendarFields),
               [](const QELdateTime& time) { benchmark::DoNotOptimize(toMicros(time)); });
}

void timegmRun(benchmark::State& state) {
    convertAll(state, instantsAs<std::tm>(tmFields),
               [](std::tm& time) { benchmark::DoNotOptimize(timegm(&time)); });
}

BENCHMARK(fromMicrosRun)->Name("fromMicros");
BENCHMARK(gmtimeRun)->Name("gmtime_r");
BENCHMARK(toMicrosRun)->Name("toMicros");
BENCHMARK(timegmRun)->Name("timegm");

// Keeps the fastest run of each for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    RatioReporter() : ConsoleReporter{OO_None} {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) {
                continue;
            }
            const double time = run.GetAdjustedCPUTime();
            const auto [entry, isNew] = fastest.try_emplace(run.run_name.function_name, time);
            if (!isNew && time < entry->second) {
                entry->second = time;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatio(const std::string& ours, const std::string& theirs) const {
        if (fastest.contains(ours) && fastest.contains(theirs)) {
            std::printf("%s is %.1f times as fast as %s\n", ours.c_str(),
                        fastest.at(theirs) / fastest.at(ours), theirs.c_str());
        }
    }

  private:
    std::map<std::string, double> fastest;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("fromMicros", "gmtime_r");
    reporter.printRatio("toMicros", "timegm");
    return 0;
}
