// One cycle of the dispatcher beside a bare pselect(2) on the same descriptors, of which the first
// is readable and stays so.

#include "QELselRcv.h"
#include "QELselector.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

namespace {

class Descriptors {
  public:
    explicit Descriptors(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            all.push_back(eventfd(i == 0 ? 1 : 0, EFD_CLOEXEC));
        }
    }
    ~Descriptors() {
        for (const int fd : all) {
            close(fd);
        }
    }
    Descriptors(const Descriptors&) = delete;
    Descriptors& operator=(const Descriptors&) = delete;

    std::vector<int> all;
};

class Receiver : public QELselRcv {
  public:
    bool onReady(std::int64_t nowUs) override {
        benchmark::DoNotOptimize(nowUs);
        return true;
    }
};

void cycle(benchmark::State& state) {
    const Descriptors descriptors(static_cast<std::size_t>(state.range(0)));
    QELselector dispatcher;
    std::deque<Receiver> receivers(descriptors.all.size());
    for (std::size_t i = 0; i < receivers.size(); ++i) {
        dispatcher.addRead(&receivers[i], descriptors.all[i]);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(dispatcher.runOnce());
    }
}
BENCHMARK(cycle)->Arg(1)->Arg(16)->Arg(512);

void barePselect(benchmark::State& state) {
    const Descriptors descriptors(static_cast<std::size_t>(state.range(0)));
    fd_set watched;
    FD_ZERO(&watched);
    for (const int fd : descriptors.all) {
        FD_SET(fd, &watched);
    }
    const int count = *std::max_element(descriptors.all.begin(), descriptors.all.end()) + 1;
    for (auto _ : state) {
        fd_set ready = watched;
        benchmark::DoNotOptimize(pselect(count, &ready, nullptr, nullptr, nullptr, nullptr));
    }
}
BENCHMARK(barePselect)->Arg(1)->Arg(16)->Arg(512);

} // namespace

BENCHMARK_MAIN();
