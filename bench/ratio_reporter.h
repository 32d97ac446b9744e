// The console reporter every benchmark program of libbase uses: it prints the
// usual table and keeps the CPU time per iteration of each benchmark, so the
// program can print "ours / peer" ratios after the table, judged by CPU time
// (the machines are shared; wall time says little).
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kestrel::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      const double ns =
          run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") median_[name] = ns;
      } else {
        samples_[name].push_back(ns);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // CPU nanoseconds per iteration of the named benchmark ("name" or
  // "name/arg"): the median aggregate when repetitions were asked for, else
  // the median of the runs seen; negative if it did not run (filtered out).
  double cpuTime(const std::string& name) const {
    if (auto it = median_.find(name); it != median_.end()) return it->second;
    auto it = samples_.find(name);
    if (it == samples_.end() || it->second.empty()) return -1;
    std::vector<double> sorted = it->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

  // Prints ours / peer by CPU time and, when limit > 0, whether the ratio is
  // at most the limit. Silent if either did not run.
  void printRatio(const std::string& ours, const std::string& peer, double limit) const {
    const double mine = cpuTime(ours);
    const double theirs = cpuTime(peer);
    if (mine <= 0 || theirs <= 0) return;
    const double ratio = mine / theirs;
    std::printf("  %-36s %10.2f ns / %-36s %10.2f ns = %5.2fx", ours.c_str(), mine, peer.c_str(),
                theirs, ratio);
    if (limit > 0)
      std::printf("  (target <= %.2fx: %s)", limit, ratio <= limit ? "met" : "NOT met");
    std::printf("\n");
  }

 private:
  std::map<std::string, double> median_;
  std::map<std::string, std::vector<double>> samples_;
};

// The main of a benchmark program: runs the benchmarks chosen on the command
// line with a RatioReporter, then hands it to printRatios for the summary.
// Returns the program's exit status (1 for an unknown argument).
template <class PrintRatios>
int runWithRatios(int argc, char** argv, PrintRatios printRatios) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printRatios(static_cast<const RatioReporter&>(reporter));
  return 0;
}

}  // namespace kestrel::bench
