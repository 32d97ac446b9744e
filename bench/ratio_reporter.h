// A console reporter that also keeps the CPU time of every benchmark, so a
// program can print "ours / peer" ratios after the table.
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
      const std::string name = run.run_name.str();
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median")
          median_[run.run_name.function_name +
                  (run.run_name.args.empty() ? "" : "/" + run.run_name.args)] = nanoseconds(run);
      } else {
        samples_[name].push_back(nanoseconds(run));
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // CPU nanoseconds per iteration of the named benchmark (the median over
  // repetitions), or a negative value if it did not run.
  double cpuTime(const std::string& name) const {
    if (auto it = median_.find(name); it != median_.end()) return it->second;
    auto it = samples_.find(name);
    if (it == samples_.end() || it->second.empty()) return -1;
    std::vector<double> sorted = it->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

  // Prints ours / peer by CPU time, and whether it is within `limit` when
  // one is given (limit <= 0: no target). Silent if either did not run.
  void printRatio(const std::string& ours, const std::string& peer, double limit) const {
    const double mine = cpuTime(ours);
    const double theirs = cpuTime(peer);
    if (mine <= 0 || theirs <= 0) return;
    const double ratio = mine / theirs;
    std::printf("  %-40s / %-40s CPU time ratio %5.2fx", ours.c_str(), peer.c_str(), ratio);
    if (limit > 0)
      std::printf("  (target <= %.2fx: %s)", limit, ratio <= limit ? "met" : "NOT met");
    std::printf("\n");
  }

 private:
  static double nanoseconds(const Run& run) {
    return run.GetAdjustedCPUTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
  }

  std::map<std::string, double> median_;
  std::map<std::string, std::vector<double>> samples_;
};

}  // namespace kestrel::bench
