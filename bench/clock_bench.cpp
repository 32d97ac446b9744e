// kestrel::System::getTime against a bare clock_gettime(CLOCK_MONOTONIC)
// (no conversion to seconds). After the runs a summary prints the
// ratio of the CPU times next to the target:
//   System::getTime  within 1.5x of clock_gettime(CLOCK_MONOTONIC)
//
// Run from a Release build, for instance
//   clock_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// With repetitions the summary uses the median of each benchmark.
#include <kestrel/system.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

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

// Keeps the CPU time per iteration of every run: the median aggregate when
// there is one, otherwise the median of the repetitions seen.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string key = run.run_name.function_name;
      const double ns =
          run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") mMedian[key] = ns;
      } else {
        mSamples[key].push_back(ns);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  double time(const std::string& key) const {
    if (auto it = mMedian.find(key); it != mMedian.end()) return it->second;
    auto it = mSamples.find(key);
    if (it == mSamples.end() || it->second.empty()) return -1;
    std::vector<double> v = it->second;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }

 private:
  std::map<std::string, double> mMedian;
  std::map<std::string, std::vector<double>> mSamples;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const double mine = reporter.time("BM_SystemGetTime");
  const double theirs = reporter.time("BM_ClockGettimeMonotonic");
  if (mine > 0 && theirs > 0) {
    const double ratio = mine / theirs;
    std::printf(
        "\nSystem::getTime %.2f ns vs clock_gettime(CLOCK_MONOTONIC) %.2f ns (CPU time)"
        "  ratio %.2fx  (target <= 1.5x: %s)\n",
        mine, theirs, ratio, ratio <= 1.5 ? "met" : "NOT met");
  }
  return 0;
}
