/// What a log statement costs, side by side with spdlog writing the same line: the formatter alone,
/// and the whole statement up to the datagram that the kernel has. Ends with the ratios.

#include "QELlogger5.h"
#include "QELlogger5_5424.h"
#include "QELlogger5_UDP.h"
#include "support/allocations.h"

#include <benchmark/benchmark.h>
#include <spdlog/spdlog.h>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/udp_sink.h>

#include <iostream>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace {

/// Where the statements go: nobody reads, so that soon each datagram is dropped on arrival, at the
/// same cost for everyone.
struct Destination {
    Destination() {
        socket.open(AF_INET);
        socket.bind(QELsockaddr4::loopback(0));
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        getsockname(socket.fd, reinterpret_cast<sockaddr*>(&bound), &length);
        port = ntohs(bound.sin_port);
    }
    QELsockBase socket;
    std::uint16_t port = 0;
};

std::unique_ptr<spdlog::pattern_formatter> spdlogFormatter() {
    return std::make_unique<spdlog::pattern_formatter>(
        "<14>1 %Y-%m-%dT%H:%M:%S.%eZ dev01 sip %P - %v", spdlog::pattern_time_type::utc, "");
}

/// Runs @p statement, numbered, and counts what it allocates.
template <class Statement>
void measure(benchmark::State& state, Statement statement) {
    int number = 0;
    statement(number); // what grows once has grown
    const std::int64_t before = allocations;
    for (auto _ : state) {
        statement(++number);
    }
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                       benchmark::Counter::kAvgIterations);
}

void formatter(benchmark::State& state) {
    const QELlogger5_5424 formatter5424;
    const QELlogger5::Formatter* formatter = &formatter5424;
    benchmark::DoNotOptimize(formatter);
    measure(state, [&](int) {
        const std::string line = formatter->format(6, "dev01", "sip", "Call setup done");
        benchmark::DoNotOptimize(line.data());
    });
}

void formatterSpdlog(benchmark::State& state) {
    const auto formatter = spdlogFormatter();
    spdlog::memory_buf_t line;
    measure(state, [&](int) {
        // A message takes the time when it is made.
        const spdlog::details::log_msg message("sip", spdlog::level::info, "Call setup done");
        line.clear();
        formatter->format(message, line);
        benchmark::DoNotOptimize(line.data());
    });
}

void statement(benchmark::State& state) {
    const Destination destination;
    const QELlogger5_5424 formatter;
    QELlogger5_UDP sender;
    sender.open(destination.port);
    QELlogger5 logger;
    logger.setup("dev01", "sip", &formatter, &sender);
    measure(state, [&](int number) {
        logger.stream(6) << "Call " << number << " set up in " << 17 << " ms" << std::flush;
    });
}

void statementSpdlog(benchmark::State& state) {
    const Destination destination;
    spdlog::logger logger("sip",
                          std::make_shared<spdlog::sinks::udp_sink_st>(
                              spdlog::sinks::udp_sink_config("127.0.0.1", destination.port)));
    logger.set_formatter(spdlogFormatter());
    measure(state, [&](int number) { logger.info("Call {} set up in {} ms", number, 17); });
}

BENCHMARK(formatter);
BENCHMARK(formatterSpdlog);
BENCHMARK(statement);
BENCHMARK(statementSpdlog);

/// Prints as usual and keeps the median processor time of each benchmark.
class Medians : public benchmark::ConsoleReporter {
  public:
    Medians() : ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                nanoseconds[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
    }
    void printRatio(const std::string& name) const {
        const auto ours = nanoseconds.find(name);
        const auto theirs = nanoseconds.find(name + "Spdlog");
        if (ours != nanoseconds.end() && theirs != nanoseconds.end()) {
            std::cout << name << ": " << ours->second / theirs->second << " of spdlog's time\n";
        }
    }

  private:
    std::map<std::string, double> nanoseconds;
};

} // namespace

int main(int argc, char** argv) {
    // The two sides take turns, so that what disturbs one disturbs the other. Options given on the
    // command line win.
    std::string repetitions = "--benchmark_repetitions=15";
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::string aggregates = "--benchmark_display_aggregates_only=true";
    std::vector<char*> arguments = {argv[0], repetitions.data(), interleaving.data(),
                                    aggregates.data()};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return EXIT_FAILURE;
    }
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    medians.printRatio("formatter");
    medians.printRatio("statement");
    return EXIT_SUCCESS;
}
