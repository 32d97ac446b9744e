// kestrel::System::getTime against a bare clock_gettime(CLOCK_MONOTONIC)
// (no conversion to seconds). After the runs a summary prints the
// ratio of the CPU times next to the target:
//   System::getTime  within 1.5x of clock_gettime(CLOCK_MONOTONIC)
//
// Run from a Release build, for instance
//   clock_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// With repetitions the summary uses the median of each benchmark.
#include "ratio_reporter.h"

#include <kestrel/system.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <string>

namespace {

void BM_SystemGetTime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(kestrel::System::getTime());
}
BENCHMARK(BM_SystemGetTime);

void BM_ClockGettimeMonotonic(benchmark::State& state) {
  for (auto _ : state) {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(BM_ClockGettimeMonotonic);

}  // namespace

int main(int argc, char** argv) {
  return kestrel::bench::runWithRatios(
      argc, argv, [](const kestrel::bench::RatioReporter& reporter) {
        std::printf("\nSystem::getTime / clock_gettime(CLOCK_MONOTONIC), CPU time\n");
        reporter.printRatio("BM_SystemGetTime", "BM_ClockGettimeMonotonic", 1.5);
      });
}
