// What all micro-benchmarks begin with. The log is off: its lines would cost more than what is measured.
#include <benchmark/benchmark.h>
#include <time.h>

#include "bench/bench_support.h"
#include "log/agent_log.h"
#include "log/platform_time.h"

namespace zeb_bench {

void sleep_shortly(uint64_t) {
    constexpr long k_pause_ns = 100000;
    const timespec pause{0, k_pause_ns};
    nanosleep(&pause, nullptr);
}

}  // namespace zeb_bench

int main(int argc, char **argv) {
    zeb::agent_log_set_level(zeb::AGENT_LOG_FATAL);
    constexpr static zeb::platform_clock k_clock{nullptr, nullptr, zeb_bench::sleep_shortly};
    zeb::platform_set_clock(&k_clock);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    const bool some = benchmark::RunSpecifiedBenchmarks() > 0;
    benchmark::Shutdown();
    return some ? 0 : 1;
}
