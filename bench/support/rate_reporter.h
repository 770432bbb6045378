// Console output as usual, plus each benchmark's rate (items per second, else bytes per second),
// so that a program can print side-by-side ratios against its baseline after the table.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      for (const char* counter : {"items_per_second", "bytes_per_second"}) {
        if (auto found = run.counters.find(counter); found != run.counters.end()) {
          rates_[run.benchmark_name()] = found->second.value;
          break;
        }
      }
    }
  }

  const std::map<std::string, double>& rates() const { return rates_; }

  // ours / baseline, or nullopt when either did not run (filtered out, failed).
  std::optional<double> ratio(const std::string& ours, const std::string& baseline) const {
    auto a = rates_.find(ours), b = rates_.find(baseline);
    if (a == rates_.end() || b == rates_.end() || b->second <= 0) return std::nullopt;
    return a->second / b->second;
  }

 private:
  std::map<std::string, double> rates_;
};
